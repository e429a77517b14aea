// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSSLSERVERSOCKET_H
#define VORNSSLSERVERSOCKET_H

#include "VornCertificate.h"
#include "VornServerSocket.h"

namespace VornNet {

/**
 * This class does not encrypt and does not listen: it stands in for an encrypted TCP server.
 *
 * It keeps its certificate description and never has a socket. Every wait ends at once without a client, as
 * on a closed server, and waitForInit() never returns.
 *
 * Thread-safety: as VornServerSocket.
 * Blocking: only waitForInit(), which never returns.
 * Ownership: holds a copy of the certificate description.
 * Signals: none.
 * Errors: none.
 */
class VORNNET_API VornSSLServerSocket : public VornServerSocket {
public:
    /** As VornServerSocket, with the certificate description between port and backlog. */
    VornSSLServerSocket(int nPort, const VornCertificate& certificate, int nBacklog,
                        const VornString& sBindAddress);
    ~VornSSLServerSocket() override;

    /** As VornServerSocket::close(). */
    void close() override;

protected:
    VornSmartPointer<VornConnection> waitForClientImpl(bool bIdentify, VornString& sExceptionMessage,
                                                       int& nErrorCode) override;

    /** Does nothing: there is no socket to open. */
    void init() override;

    void* m_pSSLImpl;              ///< always null
    VornCertificate m_certificate; ///< as given at construction

private:
    VornSSLServerSocket(const VornSSLServerSocket&) = delete;
    VornSSLServerSocket& operator=(const VornSSLServerSocket&) = delete;
};

} // namespace VornNet

#endif
