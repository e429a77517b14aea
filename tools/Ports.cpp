// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Ports.h"

#include <cstdio>
#include <fstream>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace VornTool {

namespace {

/** Adds the lines such as "0: 0100007F:139F 00000000:0000 0A 00000000:00000000 00:00000000 00000000 0 0 123".
 */
void readTable(const char* path, int first, int last, std::vector<PortUse>& uses) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    while (std::getline(file, line)) {
        unsigned int port = 0;
        unsigned int state = 0;
        unsigned int socket = 0;
        const int count = std::sscanf(
            line.c_str(), " %*u: %*[0-9A-Fa-f]:%x %*[0-9A-Fa-f]:%*x %x %*x:%*x %*x:%*x %*x %*u %*u %u", &port,
            &state, &socket);
        const int number = static_cast<int>(port);
        if (count == 3 && number >= first && number <= last)
            uses.push_back({number, static_cast<int>(state), socket});
    }
}

} // namespace

std::vector<PortUse> listPortUses(bool udp, int first, int last) {
    std::vector<PortUse> uses;
    // A socket of IPv6 takes the port for IPv4 as well, unless it was told not to.
    readTable(udp ? "/proc/net/udp" : "/proc/net/tcp", first, last, uses);
    readTable(udp ? "/proc/net/udp6" : "/proc/net/tcp6", first, last, uses);
    return uses;
}

bool isPortFree(bool udp, const std::string& address, int port) {
    const int fd = ::socket(AF_INET, (udp ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC, 0);
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_port = htons(static_cast<std::uint16_t>(port));
    ::inet_pton(AF_INET, address.c_str(), &place.sin_addr);
    const bool bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0;
    ::close(fd);
    return bound;
}

} // namespace VornTool
