// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PortBinding.h"

#include "ServerRegistry.h"

#include <SystemCalls.h>
#include <VornSleep.h>

#include <cerrno>

namespace VornNet {

namespace {

int tryToBind(int socket, const sockaddr_in& address) {
    const int status = System::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return status == 0 ? 0 : errno;
}

} // namespace

int bindPort(const VornIPCServer& server, int nPort, int socket, const sockaddr_in& address) {
    constexpr int cMostRetries = 50; // one each millisecond
    int nError = tryToBind(socket, address);
    if (nError != EADDRINUSE || !ServerRegistry::wasOpenOn(server, nPort))
        return nError;
    for (int i = 0; i < cMostRetries && nError == EADDRINUSE; ++i) {
        VornSleep(1);
        nError = tryToBind(socket, address);
    }
    return nError;
}

} // namespace VornNet
