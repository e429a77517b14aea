// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNLIBRARYCALLBACKSINK_H
#define VORNLIBRARYCALLBACKSINK_H

#include "VornCallbackContainer.h"
#include "VornIPCServer.h"

#include <VornSmartPointer.h>
#include <VornString.h>
#include <VornThread.h>

namespace VornNet {

/**
 * The client's end of notifications: a thread with a server of its own that hands each notification to the
 * callback it is meant for.
 *
 * The constructor starts the thread, which makes the server: by the environment variable
 * QUORAX_CALLB_CONN_TYPE a local pipe ("pipe", also by default), TCP ("socket") or UDP ("udp", both from port
 * 5023 upward on the address that "localhost" resolves to). It returns when the server is ready, and not
 * before: where the server cannot be made (no pipe directory), it waits for ever, so look first. The client
 * then registers callbacks, and passes getCallbackAddress() and a callback's id to the service. Each
 * notification comes over a connection of its own; after each the server is closed and opened again. A sender
 * meets a closed server in between: it is refused, or over UDP and with TCP's queue its notification is lost.
 * Nothing promises that notifications sent without pause all arrive.
 *
 * Over TCP and UDP the address changes when the port is taken at such a re-opening. A callback that reads on
 * to the end of the stream before it returns lets the sender close first, and the port stays.
 *
 * Of several sinks in one process, the pipe kind serves only the last: they share one name.
 *
 * Thread-safety: getCallbackContainer(), getCallbackAddress() and getCallbackSocket() may be called from any
 * thread; the destructor by the owner, never from a callback, which would have to end before itself: that
 * ends the process. Blocking: the constructor, see above; the destructor ends the thread: it waits for a
 * running callback, and after 200 ms cuts off the reading side of the connection that is being served.
 * Ownership: the sink owns its server and its callback container.
 * Signals: one that is handled on the thread without SA_RESTART ends the sink over TCP and UDP.
 * Errors: a failure while a notification is served is decided by its code: 98 (address in use) moves TCP and
 * UDP to the next port and ends a pipe sink; 104 (connection reset) and 4 (interrupted) end the sink; any
 * other is remembered and the sink goes on, after a pause of 1 to 100 ms when it was the wait that failed. An
 * empty datagram ends a UDP sink. Everything is logged at level 9.
 */
class VORNNET_API VornLibraryCallbackSink : public VornThread {
public:
    /** Starts the sink and returns when it can be reached. @param moduleName names the thread */
    explicit VornLibraryCallbackSink(const VornString& moduleName);

    /** Closes the server and ends the thread; then the callbacks are let go of. */
    ~VornLibraryCallbackSink() override;

    using VornThread::run;

    /** The thread's body; not to be called. @return 0, or the last failure's code that did not end the loop
     */
    int run() override;

    /** @return the port of the TCP or UDP server, which a pipe server keeps at 5023 without using it. */
    virtual short getCallbackSocket() const;

    /** @return the sink's registry of callbacks; it lives as long as the sink. */
    VornCallbackContainer& getCallbackContainer();

    /** @return the address to pass to services, such as "pipe:quorax1f3a" or "socket:127.0.0.1:5023". */
    VornString getCallbackAddress();

protected:
    /** Makes the server that the environment asks for; on the sink's thread. */
    void establishCallbackServer();

    /** Makes the pipe server; on the sink's thread. */
    void establishDefaultCallbackServer();

    /** Waits, without limit, until the thread's server is ready. */
    void waitForServerPort();

    /** Moves a TCP or UDP server one port up. @return false when the sink has neither */
    bool tryNextPort();

    /** Learns the address that other processes are told, from what "localhost" resolves to. */
    void getMyIpAddr();

    VornString m_sCallbackType;                         ///< "pipe", "socket" or "udp"
    VornString m_sIpAddr;                               ///< this host's address, empty for a pipe
    VornString m_sCallbackName;                         ///< the callback address; under a lock of the library
    VornSmartPointer<VornIPCServer> m_spCallbackServer; ///< set by the thread before it is started
    bool m_bThreadStarted;                              ///< the server is made; atomic, set by the thread
    short m_nCallbackServerPort;                        ///< atomic, written by the thread
    VornCallbackContainer m_callbackContainer;          ///< has a lock of its own

private:
    VornLibraryCallbackSink() = delete;
    VornLibraryCallbackSink(const VornLibraryCallbackSink&) = delete;
    VornLibraryCallbackSink& operator=(const VornLibraryCallbackSink&) = delete;

    VORNNET_LOCAL void publishAddress(const VornString& sPlace);
    VORNNET_LOCAL bool serveOneClient(int& nFailedWaits);
    VORNNET_LOCAL void deliver(VornSmartPointer<VornConnection>& spConnection);
    VORNNET_LOCAL bool continuesAfter(int nCode, int nFailedWaits, int& rc);
    VORNNET_LOCAL void endThread();
};

} // namespace VornNet

#endif
