// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornSSLServerSocket.h"

#include <SharedField.h>
#include <VornException.h>

namespace VornNet {

VornSSLServerSocket::VornSSLServerSocket(int nPort, const VornCertificate& certificate, int nBacklog,
                                         const VornString& sBindAddress)
    : VornServerSocket(nPort, nBacklog, sBindAddress), m_pSSLImpl(nullptr), m_certificate(certificate) {}

VornSSLServerSocket::~VornSSLServerSocket() {
    VornSSLServerSocket::close();
}

void VornSSLServerSocket::close() {
    if (readShared(m_pSocketImpl) != nullptr)
        m_pSSLImpl = nullptr;
    VornServerSocket::close();
}

VornSmartPointer<VornConnection>
VornSSLServerSocket::waitForClientImpl(bool bIdentify, VornString& sExceptionMessage, int& nErrorCode) {
    try {
        // A client that comes unencrypted is dropped at once. Since init() opens no socket, none comes, and
        // the wait ends as on a closed server.
        VornServerSocket::waitForClientImpl(bIdentify, sExceptionMessage, nErrorCode);
    } catch (const VornException& e) {   // GCOVR_EXCL_LINE: without a socket nothing is thrown
        sExceptionMessage = e.getText(); // GCOVR_EXCL_LINE: as above
        nErrorCode = e.getCode();        // GCOVR_EXCL_LINE: as above
    }
    return {};
}

void VornSSLServerSocket::init() {}

} // namespace VornNet
