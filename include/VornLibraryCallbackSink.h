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
 * The client's end of notifications: a thread with its own server that passes each notification to the right
 * callback.
 *
 * The constructor starts the thread, which creates the server. The environment variable
 * QUORAX_CALLB_CONN_TYPE chooses the transport: a local pipe ("pipe", also by default), TCP ("socket") or UDP
 * ("udp", like TCP from port 5023 upward on the address that "localhost" resolves to). The constructor
 * returns when the server is ready. If the server cannot be created (no pipe directory), it never returns, so
 * check first. Then the client registers callbacks, and passes getCallbackAddress() and a callback id to the
 * service.
 *
 * Each notification comes over its own connection. After each, the sink closes its server and opens it again.
 * In between, a sender is refused, or, over UDP and in the queue of TCP, its notification is lost.
 * Notifications that are sent back to back do not all arrive.
 *
 * Over TCP and UDP the address changes if the port is taken when the server is opened again. If the callback
 * reads to the end of the stream before it returns, the sender closes first, and the port stays.
 *
 * If one process has several sinks over pipes, only the last is served: they share one name.
 *
 * Thread-safety: getCallbackContainer(), getCallbackAddress() and getCallbackSocket() may be called from any
 * thread; the address is guarded by a lock of the library. The owner calls the destructor, never a callback:
 * that would wait for itself, so it ends the process. A callback may call exit(), also if the sink is a
 * static object.
 * Blocking: the constructor, see above. The destructor ends the thread: it waits for a running callback, and
 * after 200 ms cuts off the reading side of the connection that is being served.
 * Ownership: the sink owns its server and its callback container. In the child of a fork its server is
 * closed.
 * Signals: a signal that is handled on the thread without SA_RESTART ends the sink over TCP and UDP.
 * Errors: if serving a notification fails, the code decides: 98 (address in use) moves TCP and UDP to the
 * next port and ends a pipe sink; 104 (connection reset) and 4 (interrupted) end the sink; with any other the
 * sink remembers it and goes on, after a pause of 1 to 100 ms if the wait failed. An empty datagram ends a
 * UDP sink. Everything is logged at level 9.
 */
class VORNNET_API VornLibraryCallbackSink : public VornThread {
public:
    /** Starts the sink and returns when it can be reached. @param moduleName names the thread */
    explicit VornLibraryCallbackSink(const VornString& moduleName);

    /** Closes the server, ends the thread and releases the callbacks. */
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
    /** Creates the server that the environment asks for; on the sink's thread. */
    void establishCallbackServer();

    /** Creates the pipe server; on the sink's thread. */
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
    bool m_bThreadStarted;                              ///< there is a server; atomic, set by the thread
    short m_nCallbackServerPort;                        ///< atomic, written by the thread
    VornCallbackContainer m_callbackContainer;          ///< has a lock of its own

private:
    VornLibraryCallbackSink() = delete;
    VornLibraryCallbackSink(const VornLibraryCallbackSink&) = delete;
    VornLibraryCallbackSink& operator=(const VornLibraryCallbackSink&) = delete;

    VORNNET_LOCAL void useServer(VornIPCServer* pServer);
    VORNNET_LOCAL void publishAddress(const VornString& sPlace);
    VORNNET_LOCAL bool serveOneClient(int& nFailedWaits);
    VORNNET_LOCAL void deliver(VornSmartPointer<VornConnection>& spConnection);
    VORNNET_LOCAL bool continuesAfter(int nCode, int nFailedWaits, int& rc);
    VORNNET_LOCAL void endThread();
};

} // namespace VornNet

#endif
