// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSERVERSOCKET_H
#define VORNSERVERSOCKET_H

#include "VornIPCServer.h"

namespace VornNet {

/**
 * A TCP server over IPv4.
 *
 * It is constructed without a socket; the first wait binds and listens. Each wait returns one client. close()
 * releases the port; the next wait listens again, on the port that is configured then. SO_REUSEADDR is not
 * set: if this side closes a client's connection first, the port stays taken for a minute (TIME_WAIT) and the
 * next bind fails with 98 (EADDRINUSE). So let the client close first.
 *
 * Thread-safety: close(), setPort() and the getters may be called from any thread while one thread waits,
 * under a lock of the library. When close() returns, the waiting thread has left the socket and the port is
 * free.
 * Blocking: the wait as accept(2); close() only until the waiting thread has left the socket.
 * Ownership: the socket belongs to the server and is close-on-exec. After a fork the child shares it, and
 * closing it there ends no wait. Connections refer to their server, see
 * VornSocketConnection::getPortName().
 * Signals: a signal that is handled without SA_RESTART on the waiting thread ends the wait as close() does.
 * Errors: the wait throws "VornServerSocket::init: failed to create socket.", "... failed to bind socket.",
 * "... failed to get socket name." and "... failed to listen on bound socket." with the error number.
 * Failures of accept(2) are logged at level 1, and the wait goes on.
 */
class VORNNET_API VornServerSocket : public VornIPCServer {
public:
    /**
     * Notes what to listen on; the first wait opens it.
     * @param nPort         port in host byte order, its low 16 bits count; 0 lets the system choose one,
     * which getPort() does not tell
     * @param nBacklog      length of the queue of clients, see listen(2)
     * @param sBindAddress  "*" for all interfaces, or a dotted IPv4 address; names are not resolved, and any
     *                      other text fails to bind with 99 (EADDRNOTAVAIL)
     */
    VornServerSocket(int nPort, int nBacklog, const VornString& sBindAddress);

    /**
     * Closes the server. A thread that is waiting leaves it first. Make sure that no thread is about to wait:
     * it would use a destroyed server.
     */
    ~VornServerSocket() override;

    /** Polls every millisecond until another thread's wait has bound the port. */
    void waitForInit() override;

    /** Closes the listening socket and ends another thread's wait. */
    void close() override;

    /** @return the configured port, also when the system has chosen another one. */
    virtual int getPort();

    /** @return the bind address as given. */
    virtual const VornString& getBindAddress();

    /** Configures another port; ignored while the server is listening. */
    void setPort(int nPort);

protected:
    VornSmartPointer<VornConnection> waitForClientImpl(bool bIdentify, VornString& sExceptionMessage,
                                                       int& nErrorCode) override;

    /** Binds and listens unless the server does. @throws VornException, see above */
    virtual void init();

    int m_nPort;               ///< the configured port; atomic: close() and setPort() may meet
    int m_nBacklog;            ///< length of the queue of clients
    VornString m_sBindAddress; ///< "*" or a dotted address
    void* m_pSocketImpl;       ///< an int on the heap with the descriptor, or null; atomic
    bool m_bInitialized;       ///< the server is listening; atomic

private:
    VornServerSocket(const VornServerSocket&) = delete;
    VornServerSocket& operator=(const VornServerSocket&) = delete;
};

} // namespace VornNet

#endif
