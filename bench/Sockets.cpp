// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Sockets.h"

#include "Sandbox.h"

#include <VornPipeConnection.h>
#include <VornSocketConnection.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Bench {

const char* nameOf(Road road) {
    switch (road) {
    case Road::pipe:
        return "pipe";
    case Road::tcp:
        return "tcp";
    default:
        return "udp";
    }
}

long checked(long result, const char* what) {
    if (result < 0) {
        std::perror(what);
        std::abort();
    }
    return result;
}

void sendAll(int fd, const void* bytes, std::size_t size) {
    const char* cursor = static_cast<const char*>(bytes);
    while (size > 0) {
        const long count = checked(::send(fd, cursor, size, 0), "send");
        cursor += count;
        size -= static_cast<std::size_t>(count);
    }
}

bool receiveAll(int fd, void* bytes, std::size_t size) {
    char* cursor = static_cast<char*>(bytes);
    while (size > 0) {
        const long count = ::recv(fd, cursor, size, 0);
        if (count <= 0)
            return false;
        cursor += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

int closeOnExec(int fd) {
    checked(::fcntl(fd, F_SETFD, FD_CLOEXEC), "fcntl");
    return fd;
}

Address::Address(Road road, const std::string& pipeName, int port) : m_storage() {
    if (road == Road::pipe) {
        const std::string path = VornTest::pipePath(pipeName);
        m_storage.local.sun_family = AF_UNIX;
        path.copy(m_storage.local.sun_path, sizeof m_storage.local.sun_path - 1);
        m_length = static_cast<socklen_t>(path.size() + 2);
    } else {
        m_storage.internet.sin_family = AF_INET;
        m_storage.internet.sin_port = htons(static_cast<unsigned short>(port));
        m_storage.internet.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_length = sizeof m_storage.internet;
    }
}

std::string queueAddress(Road road, const std::string& pipeName, int port) {
    const Address address(road, pipeName, port);
    return road == Road::pipe ? std::string("ipc://") + address.path()
                              : "tcp://127.0.0.1:" + std::to_string(port);
}

int familyOf(Road road) {
    return road == Road::pipe ? AF_UNIX : AF_INET;
}

int listenAt(const Address& address, int backlog) {
    const int listener =
        static_cast<int>(checked(::socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
    const int reuse = 1;
    if (address.family() == AF_UNIX)
        ::unlink(address.path());
    else
        checked(::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse), "setsockopt");
    checked(::bind(listener, address.get(), address.length()), "bind");
    checked(::listen(listener, backlog), "listen");
    return listener;
}

int connectTo(const Address& address) {
    const int fd =
        static_cast<int>(checked(::socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
    checked(::connect(fd, address.get(), address.length()), "connect");
    return fd;
}

void drain(int fd) {
    std::array<char, 4096> bytes;
    iovec part{bytes.data(), bytes.size()};
    mmsghdr message{};
    message.msg_hdr.msg_iov = &part;
    message.msg_hdr.msg_iovlen = 1;
    while (::recvmmsg(fd, &message, 1, MSG_DONTWAIT, nullptr) > 0)
        continue;
}

Ends connectedPair(Road road) {
    constexpr int cPort = 7001;
    const Address address(road, "bench-pair", cPort);
    const int listener = listenAt(address, 1);
    const int client = connectTo(address);
    const int server = static_cast<int>(checked(::accept(listener, nullptr, nullptr), "accept"));
    ::close(listener);
    return {client, server};
}

std::unique_ptr<VornNet::VornConnection> makeConnection(Road road, int fd) {
    if (road == Road::pipe)
        return std::make_unique<VornNet::VornPipeConnection>(&fd, 7U);
    return std::make_unique<VornNet::VornSocketConnection>(fd, VornNet::VornString(), nullptr, false);
}

} // namespace Bench
