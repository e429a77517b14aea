// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSSLSOCKETCONNECTION_H
#define VORNSSLSOCKETCONNECTION_H

#include "VornSocketConnection.h"

namespace VornNet {

/**
 * This class does not encrypt: no encryption library is linked, and it carries no data.
 *
 * It stands in for an encrypted TCP connection. Establishing a client's connection succeeds without any
 * network activity, and every read and write on an established one fails with 107 (ENOTCONN). So data that
 * should be encrypted never leaves the process in clear text.
 *
 * Thread-safety: none; one thread at a time.
 * Blocking: never while it is established.
 * Ownership: as VornSocketConnection. A connection that wraps another one holds a reference to it, and both
 * hold the same descriptor: when both have disconnected, it has been closed twice. Open nothing between the
 * two.
 * Signals: none raised while it is established.
 * Errors: 107 (ENOTCONN) with the texts of the typed operations.
 */
class VORNNET_API VornSSLSocketConnection : public VornSocketConnection {
public:
    /** As the accepted-socket constructor of VornSocketConnection. */
    VornSSLSocketConnection(int client, const VornString& sRemoteName, VornServerSocket* pServer,
                            bool bClientConnection);

    /** As the client constructor of VornSocketConnection, without identification. */
    VornSSLSocketConnection(const VornString& sRemoteName, int nPort, bool bRaw);

    /**
     * Wraps a connected plain connection and keeps a reference to it.
     * @param pSSL ignored
     * @throws VornException "VornSSLSocketConnection::VornSSLSocketConnection: no socket to wrap.", code 107,
     * when
     *         @p client is empty or has no socket
     */
    VornSSLSocketConnection(VornSmartPointer<VornSocketConnection> client, void* pSSL);

    /** Closes the socket and releases the wrapped connection. */
    ~VornSSLSocketConnection() override;

    using VornConnection::transfer;

    /** As VornSocketConnection::disconnect(). */
    void disconnect() override;

    /** @return -1 with error 107 while established. */
    long transfer(const char* buf, long bufLen, long* error) override;

    /** @return -1 with error 107 while established. */
    long receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) override;

    /** @return false with size 0 and error 107. */
    bool peekBytes(void* pBuffer, int& nSize, int& nErrorCode) override;

protected:
    int establishImpl(VornString& sExceptionMessage) override;

    VornSmartPointer<VornSocketConnection> m_client; ///< the wrapped connection, or empty
    void* m_pSSLImpl;                                ///< always null

private:
    VornSSLSocketConnection(const VornSSLSocketConnection&) = delete;
    VornSSLSocketConnection& operator=(const VornSSLSocketConnection&) = delete;

    VORNNET_LOCAL VornSSLSocketConnection(const VornSmartPointer<VornSocketConnection>& client,
                                          const VornString& sRemoteName, void* pSocket);
};

/** Starts the encryption layer: nothing to do, since there is none. Thread-safe. */
VORNNET_API void VNETInitSSL();

/** Ends the encryption layer: nothing to do, since there is none. Thread-safe. */
VORNNET_API void VNETFinitSSL();

} // namespace VornNet

#endif
