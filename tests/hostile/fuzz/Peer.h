// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNFUZZ_PEER_H
#define VORNFUZZ_PEER_H

#include "Input.h"
#include "Sandbox.h"

#include <cstdint>
#include <string>

#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/** @return a descriptor connected to a server of this host, as in a callback address; -1 where there is none.
 */
inline int connectTo(const std::string& address) {
    const bool isPipe = address.rfind("pipe:", 0) == 0;
    const bool isStream = address.rfind("udp:", 0) != 0;
    sockaddr_un file{};
    file.sun_family = AF_UNIX;
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (isPipe)
        VornTest::pipePath(address.substr(5)).copy(file.sun_path, sizeof file.sun_path - 1);
    else
        place.sin_port = htons(static_cast<std::uint16_t>(std::stoi(address.substr(address.rfind(':') + 1))));
    const int fd = ::socket(isPipe ? AF_UNIX : AF_INET, isStream ? SOCK_STREAM : SOCK_DGRAM, 0);
    const auto* peer =
        isPipe ? reinterpret_cast<const sockaddr*>(&file) : reinterpret_cast<const sockaddr*>(&place);
    if (::connect(fd, peer, isPipe ? sizeof file : sizeof place) == 0)
        return fd;
    ::close(fd);
    return -1;
}

/** Sends the rest of the input in pieces, each with a byte that says how it is sent and one that gives its
 * length. */
inline void sendPieces(int fd, Input& input) {
    while (!input.empty()) {
        const int way = input.byte() % 16;
        const std::string piece = input.text(input.byte());
        if (way == 0)
            ::shutdown(fd, SHUT_WR);
        else if (way == 1)
            ::sched_yield();
        else
            ::send(fd, piece.data(), piece.size(), MSG_NOSIGNAL | MSG_DONTWAIT | (way == 2 ? MSG_OOB : 0));
        if (way == 3) {
            const linger reset{1, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
            return;
        }
    }
}

#endif
