// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Fortified headers would inline the very functions that are defined here.
#undef _FORTIFY_SOURCE

#include "Observer.h"

#include "History.h"
#include "Message.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Soak {

namespace {

enum class Kind { none, stream, datagram };

struct Server {
    std::atomic<Kind> kind = Kind::none; // of an open server
    std::atomic<long> shutFrom = 0;      // before shutdown(), which ends listening
    std::array<char, 80> address{};      // as in a callback address, from its binding on
};

bool observing = false;
std::array<Server, 1024> servers; // by descriptor
std::atomic<int> sendFailures = 0;

template <typename Function>
Function* next(Function*, const char* name) {
    void* const found = ::dlsym(RTLD_NEXT, name);
    if (found == nullptr)
        std::abort();
    return reinterpret_cast<Function*>(found);
}

bool isObserved(int fd) {
    return observing && fd >= 0 && static_cast<std::size_t>(fd) < servers.size();
}

Server* openServer(int fd) {
    if (!isObserved(fd))
        return nullptr;
    Server& server = servers[static_cast<std::size_t>(fd)];
    return server.kind == Kind::none ? nullptr : &server;
}

Kind kindOf(int fd) {
    int type = 0;
    socklen_t length = sizeof type;
    ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length);
    return type == SOCK_DGRAM ? Kind::datagram : Kind::stream;
}

void rememberAddress(Server& server, Kind kind, const sockaddr* address) {
    if (address->sa_family == AF_UNIX) {
        const char* path = reinterpret_cast<const sockaddr_un*>(address)->sun_path;
        const char* slash = std::strrchr(path, '/');
        std::snprintf(server.address.data(), server.address.size(), "pipe:%.70s",
                      slash == nullptr ? path : slash + 1);
    } else {
        const auto* place = reinterpret_cast<const sockaddr_in*>(address);
        std::array<char, INET_ADDRSTRLEN> host{};
        ::inet_ntop(AF_INET, &place->sin_addr, host.data(), host.size());
        std::snprintf(server.address.data(), server.address.size(), "%s:%s:%d",
                      kind == Kind::datagram ? "udp" : "socket", host.data(), ntohs(place->sin_port));
    }
}

/** A stream server can be reached when it listens, one for datagrams from its binding on. */
void recordOpening(int fd, Kind kind, long from) {
    Server& server = servers[static_cast<std::size_t>(fd)];
    server.kind = kind;
    server.shutFrom = 0;
    History::write("opened address=%s from=%ld", server.address.data(), from);
}

/** How many datagrams the socket had no room for. */
unsigned int dropsOf(int fd) {
    std::array<std::uint32_t, SK_MEMINFO_VARS> numbers{};
    socklen_t length = sizeof numbers;
    ::getsockopt(fd, SOL_SOCKET, SO_MEMINFO, numbers.data(), &length);
    return numbers[SK_MEMINFO_DROPS];
}

/**
 * Records the datagrams that are about to be thrown away with their socket; nobody else could see them any
 * more. @return a time at which the socket was still open and empty
 */
long recordWaiting(int fd) {
    std::array<char, 256> head;
    for (;;) {
        const long from = now();
        if (::recv(fd, head.data(), head.size(), MSG_DONTWAIT) <= 0)
            return from;
        History::write("thrown token=%s", findToken(head.data(), head.size()).data());
    }
}

} // namespace

void observeServers() {
    observing = true;
}

SendFacts& SendFacts::ofThread() {
    static thread_local SendFacts facts;
    return facts;
}

int failedSends() {
    return sendFailures;
}

} // namespace Soak

using namespace Soak;

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    static auto* const real = next(&socket, "socket");
    const int fd = real(domain, type, protocol);
    if (fd == -1)
        SendFacts::ofThread().socketError = errno;
    return fd;
}

int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
    static auto* const real = next(&bind, "bind");
    const long from = now();
    const int result = real(fd, address, length);
    if (result == 0 && isObserved(fd)) {
        const Kind kind = kindOf(fd);
        rememberAddress(servers[static_cast<std::size_t>(fd)], kind, address);
        if (kind == Kind::datagram)
            recordOpening(fd, kind, from);
    }
    return result;
}

int listen(int fd, int backlog) noexcept {
    static auto* const real = next(&listen, "listen");
    const long from = now();
    const int result = real(fd, backlog);
    if (result == 0 && isObserved(fd))
        recordOpening(fd, Kind::stream, from);
    return result;
}

int accept(int fd, sockaddr* address, socklen_t* length) {
    static auto* const real = next(&accept, "accept");
    const int result = real(fd, address, length);
    if (result != -1 && openServer(fd) != nullptr)
        History::write("accepted");
    return result;
}

ssize_t recvfrom(int fd, void* data, size_t size, int flags, sockaddr* address, socklen_t* length) {
    static auto* const real = next(&recvfrom, "recvfrom");
    const ssize_t count = real(fd, data, size, flags, address, length);
    if (count > 0 && openServer(fd) != nullptr)
        History::write("taken token=%s", findToken(data, static_cast<size_t>(count)).data());
    return count;
}

int connect(int fd, const sockaddr* address, socklen_t length) {
    static auto* const real = next(&connect, "connect");
    const long from = now();
    const int result = real(fd, address, length);
    if (result == 0) {
        SendFacts::ofThread().connectedFrom = from;
        SendFacts::ofThread().connectedTo = now();
    }
    return result;
}

ssize_t sendto(int fd, const void* data, size_t size, int flags, const sockaddr* address, socklen_t length) {
    static auto* const real = next(&sendto, "sendto");
    const ssize_t count = real(fd, data, size, flags, address, length);
    if (count == -1) {
        SendFacts::ofThread().sendError = errno;
        ++sendFailures;
    }
    return count;
}

int shutdown(int fd, int how) noexcept {
    static auto* const real = next(&shutdown, "shutdown");
    if (Server* server = openServer(fd); server != nullptr && server->shutFrom == 0)
        server->shutFrom = now();
    return real(fd, how);
}

int close(int fd) {
    static auto* const real = next(&close, "close");
    Server* server = openServer(fd);
    if (server == nullptr)
        return real(fd);
    const bool isDatagram = server->kind == Kind::datagram;
    server->kind = Kind::none; // before the number can be given to another
    const long shutFrom = server->shutFrom;
    const long from = isDatagram ? recordWaiting(fd) : shutFrom != 0 ? shutFrom : now();
    const unsigned int drops = isDatagram ? dropsOf(fd) : 0;
    const int result = real(fd);
    History::write("closed from=%ld drops=%u", from, drops);
    return result;
}

} // extern "C"
