// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RedirectPort.h"

#include "StateFile.h"

#include <string>
#include <utility>

#include <linux/netfilter_ipv4.h>

namespace VornRelay {

namespace {

constexpr int cBacklog = 4096;

} // namespace

RedirectPort::RedirectPort(RelayLoop& loop, std::uint16_t nPort, AcceptHandler onAccept)
    : m_nPort(nPort), m_socket(loop, [handler = std::move(onAccept)](VornNet::OwnedDescriptor&& connection) {
          sockaddr_in meant{};
          socklen_t nSize = sizeof meant;
          if (System::getsockopt(connection.number(), SOL_IP, SO_ORIGINAL_DST, &meant, &nSize) == 0)
              handler(std::move(connection), meant);
      }) {}

void RedirectPort::open() {
    if (m_listener.isOpen())
        return;
    VornNet::OwnedDescriptor listener(System::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int nYes = 1;
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    place.sin_port = htons(m_nPort);
    if (System::setsockopt(listener.number(), SOL_SOCKET, SO_REUSEADDR, &nYes, sizeof nYes) == -1 ||
        System::bind(listener.number(), reinterpret_cast<const sockaddr*>(&place), sizeof place) == -1 ||
        System::listen(listener.number(), cBacklog) == -1)
        failWith("redirect-port " + std::to_string(m_nPort));
    m_listener = std::move(listener);
    m_socket.begin(m_listener.number());
}

void RedirectPort::close() {
    if (!m_listener.isOpen())
        return;
    m_socket.acceptAll();
    m_socket.end();
    m_listener.reset();
}

} // namespace VornRelay
