// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNUDPSERVERSOCKET_H
#define VORNUDPSERVERSOCKET_H

#include "VornServerSocket.h"

namespace VornNet {

/**
 * A UDP server over IPv4: every datagram is a client.
 *
 * It is constructed without a socket; the first wait binds. Each wait receives one datagram and returns it as
 * a VornBufferConnection. close() releases the port, and also sends a datagram 00 01 to its own port on
 * 127.0.0.1; the next wait binds again. An empty datagram, from anyone, ends the wait as close() does.
 *
 * The local access of a connection is true only for a datagram from 1.0.0.127: do not base decisions on it.
 *
 * Thread-safety: as VornServerSocket, under a lock of the library.
 * Blocking: the wait as recvfrom(2).
 * Ownership: the socket belongs to the server. A receive buffer lives for one wait and uses memory only for
 * the bytes that arrive.
 * Signals: a signal that is handled without SA_RESTART on the waiting thread ends the wait as close() does.
 * Errors: the wait throws "VornUDPServerSocket::init: failed to create socket.", "... failed to bind socket."
 * and "... failed to get socket name." with the error number, and "VornUDPServerSocket::waitForClientImpl:
 * failed to allocate receive buffer." with 12 (ENOMEM). Other failures of recvfrom(2) are logged at level 1,
 * and the wait goes on.
 */
class VORNNET_API VornUDPServerSocket : public VornServerSocket {
public:
    /**
     * Notes what to receive on; the first wait opens it.
     * @param nPort         as for VornServerSocket
     * @param sBindAddress  "*" for all interfaces, or a dotted IPv4 address; an invalid text binds
     * 255.255.255.255
     * @param nBufferSize   the longest datagram received whole, in bytes; what is longer is cut
     */
    VornUDPServerSocket(int nPort, const VornString& sBindAddress, unsigned int nBufferSize);

    /**
     * Closes the server. A thread that is waiting leaves it first. Make sure that no thread is about to wait:
     * it would use a destroyed server.
     */
    ~VornUDPServerSocket() override;

    /** Closes the socket, ends another thread's wait and sends the wake-up datagram. */
    void close() override;

protected:
    VornSmartPointer<VornConnection> waitForClientImpl(bool bIdentify, VornString& sExceptionMessage,
                                                       int& nErrorCode) override;

    /** Binds unless the server is bound. @throws VornException, see above */
    void init() override;

    unsigned int m_nBufferSize; ///< the longest datagram received whole, in bytes

private:
    VornUDPServerSocket() = delete;
    VornUDPServerSocket(const VornUDPServerSocket&) = delete;
    VornUDPServerSocket& operator=(const VornUDPServerSocket&) = delete;
};

} // namespace VornNet

#endif
