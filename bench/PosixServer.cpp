// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PosixServer.h"

#include <cerrno>

#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Bench {

PosixServer::PosixServer(Road road, const std::string& pipeName, int port)
    : m_road(road), m_port(port), m_address(road, pipeName, port) {}

void PosixServer::open() {
    if (m_road == Road::pipe)
        openPipe();
    else
        openSocket();
}

void PosixServer::close() {
    ::close(m_listener);
    if (m_road == Road::pipe) {
        ::close(m_wakeUp[0]);
        ::close(m_wakeUp[1]);
    }
    if (m_road == Road::udp) {
        const unsigned char wakeUp[2] = {0, 1};
        sendDatagram(m_address, wakeUp, sizeof wakeUp);
    }
}

int PosixServer::acceptClient() const {
    if (m_road == Road::pipe) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(m_wakeUp[0], &readable);
        FD_SET(m_listener, &readable);
        checked(::select(FD_SETSIZE, &readable, nullptr, nullptr, nullptr), "select");
        sockaddr_un peer{};
        socklen_t length = sizeof peer;
        return closeOnExec(::accept(m_listener, reinterpret_cast<sockaddr*>(&peer), &length));
    }
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    return closeOnExec(::accept(m_listener, reinterpret_cast<sockaddr*>(&peer), &length));
}

long PosixServer::receiveDatagram(void* bytes, std::size_t size) const {
    sockaddr_in sender{};
    socklen_t length = sizeof sender;
    return checked(::recvfrom(m_listener, bytes, size, 0, reinterpret_cast<sockaddr*>(&sender), &length),
                   "recvfrom");
}

void PosixServer::openPipe() {
    checked(::pipe(m_wakeUp), "pipe");
    closeOnExec(m_wakeUp[0]);
    closeOnExec(m_wakeUp[1]);
    m_listener = closeOnExec(::socket(AF_UNIX, SOCK_STREAM, 0));
    ::unlink(m_address.path());
    ::fchmod(m_listener, 0700);
    checked(::bind(m_listener, m_address.get(), m_address.length()), "bind");
    checked(::listen(m_listener, 5), "listen");
    ::chmod(m_address.path(), 0770);
}

void PosixServer::openSocket() {
    m_listener = closeOnExec(::socket(AF_INET, m_road == Road::tcp ? SOCK_STREAM : SOCK_DGRAM, 0));
    while (::bind(m_listener, m_address.get(), m_address.length()) != 0) {
        if (errno != EADDRINUSE)
            checked(-1, "bind");
        m_address = Address(m_road, "", ++m_port);
    }
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    checked(::getsockname(m_listener, reinterpret_cast<sockaddr*>(&bound), &length), "getsockname");
    if (m_road == Road::tcp)
        checked(::listen(m_listener, 5), "listen");
}

void sendNotification(Road road, const Address& address) {
    const NotificationBytes bytes;
    if (road == Road::udp)
        return sendDatagram(address, &bytes, sizeof bytes);
    const int fd = closeOnExec(::socket(familyOf(road), SOCK_STREAM, 0));
    checked(::connect(fd, address.get(), address.length()), "connect");
    sendAll(fd, bytes.handle, sizeof bytes.handle);
    sendAll(fd, bytes.id, sizeof bytes.id);
    ::close(fd);
}

void sendDatagram(const Address& address, const void* bytes, std::size_t size) {
    const int fd = closeOnExec(::socket(AF_INET, SOCK_DGRAM, 0));
    const int broadcast = 1;
    checked(::setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &broadcast, sizeof broadcast), "setsockopt");
    checked(::sendto(fd, bytes, size, 0, address.get(), address.length()), "sendto");
    ::close(fd);
}

} // namespace Bench
