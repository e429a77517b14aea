// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ServiceManager.h"

#include "RelayLoop.h"

#include <OwnedDescriptor.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <sys/un.h>

namespace VornRelay {

void tellServiceManager(const std::string& sState) {
    const char* szSocket = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (szSocket == nullptr || std::strlen(szSocket) >= sizeof address.sun_path)
        return;
    const std::size_t nSize = std::strlen(szSocket);
    std::memcpy(address.sun_path, szSocket, nSize);
    if (address.sun_path[0] == '@')
        address.sun_path[0] = '\0'; // it has no file
    const VornNet::OwnedDescriptor socket(System::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    System::sendto(socket.number(), sState.data(), sState.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                   reinterpret_cast<const sockaddr*>(&address),
                   static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + nSize));
}

std::chrono::milliseconds watchdogInterval() {
    const char* szLimit = std::getenv("WATCHDOG_USEC");
    const std::chrono::microseconds limit(szLimit == nullptr ? 0 : std::atoll(szLimit));
    return std::chrono::duration_cast<std::chrono::milliseconds>(limit / 3);
}

} // namespace VornRelay
