// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RawSender.h"

#include "Sandbox.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <utility>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace VornTest {

namespace {

struct Place {
    int family = AF_INET;
    int type = SOCK_STREAM;
    bool isKnown = false;
    sockaddr_storage address = {};
    socklen_t length = 0;
};

Place pipePlace(const std::string& name) {
    Place place;
    place.family = AF_UNIX;
    auto& address = reinterpret_cast<sockaddr_un&>(place.address);
    address.sun_family = AF_UNIX;
    pipePath(name).copy(address.sun_path, sizeof address.sun_path - 1);
    place.length = sizeof address;
    place.isKnown = true;
    return place;
}

/** A callback address: "pipe:NAME", "socket:HOST:PORT" or "udp:HOST:PORT". */
Place placeOf(const std::string& text) {
    const std::size_t first = text.find(':');
    if (text.compare(0, first, "pipe") == 0)
        return pipePlace(text.substr(first + 1));
    Place place;
    place.type = text.compare(0, first, "udp") == 0 ? SOCK_DGRAM : SOCK_STREAM;
    const std::size_t second = text.find(':', first + 1);
    auto& address = reinterpret_cast<sockaddr_in&>(place.address);
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(text.substr(second + 1))));
    const std::string host = text.substr(first + 1, second - first - 1);
    place.isKnown = ::inet_pton(AF_INET, host.c_str(), &address.sin_addr) == 1;
    place.length = sizeof address;
    return place;
}

/** @return a connected socket, or -1 */
int connect(const Place& place) {
    const long fd = ::syscall(SYS_socket, place.family, place.type | SOCK_CLOEXEC, 0);
    if (fd != -1 && ::syscall(SYS_connect, fd, &place.address, place.length) != 0) {
        ::syscall(SYS_close, fd);
        return -1;
    }
    return static_cast<int>(fd);
}

void append(std::string& bytes, long value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(value >> shift & 0xFF);
    bytes.append(4, '\0');
}

} // namespace

RawSender::RawSender(std::function<bool()> isGivenUp) : m_isGivenUp(std::move(isGivenUp)) {}

bool RawSender::send(const std::string& address, long handle, long content) const {
    const Place place = placeOf(address);
    if (!place.isKnown)
        return false;
    const int fd = connect(place);
    if (fd == -1)
        return true; // it is just opening again
    std::string bytes;
    append(bytes, handle);
    append(bytes, content);
    ::syscall(SYS_sendto, fd, bytes.data(), bytes.size(), MSG_NOSIGNAL, nullptr, 0);
    if (place.type == SOCK_STREAM) {
        ::syscall(SYS_shutdown, fd, SHUT_WR);
        awaitEnd(fd);
    }
    ::syscall(SYS_close, fd);
    return true;
}

int RawSender::connectTo(const std::string& address) {
    return connect(placeOf(address));
}

void RawSender::awaitEnd(int fd) const {
    constexpr timespec cPause = {0, 1'000'000};
    pollfd entry = {fd, POLLIN, 0};
    timespec pause = cPause;
    while (!m_isGivenUp() && ::syscall(SYS_ppoll, &entry, 1, &pause, nullptr, 0) == 0)
        pause = cPause;
}

} // namespace VornTest
