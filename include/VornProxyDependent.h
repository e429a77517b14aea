// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNPROXYDEPENDENT_H
#define VORNPROXYDEPENDENT_H

#include "VornConnection.h"
#include "VornNetExport.h"

#include <VornDependent.h>
#include <VornNotification.h>
#include <VornObjectBase.h>
#include <VornString.h>

namespace VornNet {

/**
 * Stands, inside a service, for one callback of one client, in another process or on another host.
 *
 * A service makes it from the callback address and the callback id that a client has sent, keeps it, usually
 * in VornProxyDependentContainer, and calls remoteNotify() for each event. When that throws, the client is
 * gone, slow to re-open or unreachable, and the service decides whether to drop it.
 *
 * Thread-safety: several threads may notify through one proxy; each call has a connection of its own.
 * Blocking: remoteNotify() for as long as connecting and writing take, on the caller's thread, without
 * time-out: a host that swallows packets holds it for two minutes and more. Hold no lock meanwhile.
 * Ownership: created with `new` and owned through VornSmartPointer.
 * Signals: writing to a client that has just closed raises SIGPIPE: a service must ignore it
 * (`signal(SIGPIPE, SIG_IGN)`), or it is killed sooner or later.
 * Errors: remoteNotify() throws what its connection throws (VornException), and std::out_of_range for an
 * address that ends within its kind ("pipe", "udp"). Nothing acknowledges a notification: success means that
 * it was sent, not that it was received.
 */
class VORNNET_API VornProxyDependent : public VornDependent, public VornObjectBase {
public:
    /**
     * @param sRemoteName  the client's callback address, see VornLibraryCallbackSink::getCallbackAddress()
     * @param hDependent   the id of the client's callback; its low 32 bits travel
     */
    VornProxyDependent(const VornString& sRemoteName, long hDependent);
    ~VornProxyDependent() override;

    /**
     * Writes what the client's callback reads: here the notification's id, as a long. A derived class may
     * write other or further values.
     * @param connection lent for the call; it must not be put into a smart pointer
     */
    virtual void addContent(VornConnection& connection, const VornNotification& notification);

    /**
     * Sends one notification: connects, writes handle and content, and closes. Over UDP both leave as one
     * datagram, and nothing is reported when it cannot be sent. An address of no known kind is ignored.
     * @throws VornException, std::out_of_range, see above
     */
    void remoteNotify(const VornNotification& notification);

    /** @return the callback address given at construction. */
    const VornString& getRemoteName() const;

    /** @return the id given at construction, cut to an int. */
    int getDependentHandle() const;

protected:
    VornString m_sRemoteName; ///< the client's callback address
    long m_hDependent;        ///< the id of the client's callback

private:
    VornProxyDependent() = delete;
    VornProxyDependent(const VornProxyDependent&) = delete;
    VornProxyDependent& operator=(const VornProxyDependent&) = delete;
};

} // namespace VornNet

#endif
