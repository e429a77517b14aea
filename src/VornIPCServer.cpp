// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornIPCServer.h"

#include <Cancellation.h>
#include <VornException.h>

#include <exception>

namespace VornNet {

VornIPCServer::VornIPCServer() = default;

VornIPCServer::~VornIPCServer() = default;

VornSmartPointer<VornConnection> VornIPCServer::waitForClient(bool bIdentify) {
    try {
        VornString sExceptionMessage;
        int nErrorCode = 0;
        VornSmartPointer<VornConnection> spClient =
            waitForClientImpl(bIdentify, sExceptionMessage, nErrorCode);
        // From here on nothing of this object may be touched: the thread that closed the server may have
        // destroyed it.
        if (spClient == nullptr && !sExceptionMessage.empty())
            throw VornException(sExceptionMessage, nErrorCode);
        return spClient;
    } catch (const VornException&) {
        throw;
    } catch (...) {
        if (isCancellation())
            throw;
        std::terminate();
    }
}

} // namespace VornNet
