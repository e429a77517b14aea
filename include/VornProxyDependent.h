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
 * Represents, in a service, one callback of one client in another process or on another host.
 *
 * A service creates it with the callback address and the callback id that a client has sent, keeps it,
 * usually in VornProxyDependentContainer, and calls remoteNotify() for each event. If that throws, the client
 * is gone, about to open its server again, or unreachable, and the service decides whether to drop it.
 *
 * Thread-safety: several threads may notify through one proxy; each call has its own connection. It has no
 * lock.
 * Blocking: remoteNotify() blocks the caller's thread as long as connecting and writing take, without
 * timeout: a host that drops all packets blocks it for more than two minutes. Hold no lock meanwhile.
 * Ownership: created with `new` and owned through VornSmartPointer.
 * Signals: writing to a client that has just closed raises SIGPIPE. A service must ignore it
 * (`signal(SIGPIPE, SIG_IGN)`), or it ends the process sooner or later.
 * Errors: remoteNotify() throws what its connection throws (VornException), and std::out_of_range for an
 * address that ends after its transport ("pipe", "udp"). Nothing acknowledges a notification: success means
 * that it was sent, not that it was received.
 */
class VORNNET_API VornProxyDependent : public VornDependent, public VornObjectBase {
public:
    /**
     * Takes what the client has sent; connects to nobody.
     * @param sRemoteName  the client's callback address, see VornLibraryCallbackSink::getCallbackAddress()
     * @param hDependent   the id of the client's callback; its low 32 bits are sent
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
     * Sends one notification: connects, writes the callback id and the content, and closes. Over UDP both are
     * sent as one datagram, and nothing is reported when it cannot be sent. An address with an unknown
     * transport is ignored.
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
