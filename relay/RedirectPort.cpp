// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RedirectPort.h"

#include "StateFile.h"

#include <cerrno>
#include <string>
#include <utility>

#include <linux/netfilter_ipv4.h>

namespace VornRelay {

namespace {

constexpr int cBacklog = 4096;
constexpr int cMostAtOnce = 64; // others have their turn after that
constexpr std::chrono::milliseconds cRest{100};

} // namespace

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
    watch();
}

void RedirectPort::close() {
    if (!m_listener.isOpen())
        return;
    if (m_rest == 0)
        m_loop.unwatch(m_listener.number());
    m_loop.cancel(std::exchange(m_rest, 0));
    m_listener.reset();
}

void RedirectPort::ready(std::uint32_t) {
    for (int nAccepted = 0; m_listener.isOpen() && nAccepted < cMostAtOnce; ++nAccepted) {
        VornNet::OwnedDescriptor connection(
            System::accept4(m_listener.number(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!connection.isOpen()) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
                m_loop.unwatch(m_listener.number());
                m_rest = m_loop.after(cRest, [this] {
                    m_rest = 0;
                    watch();
                });
            }
            return;
        }
        sockaddr_in meant{};
        socklen_t nSize = sizeof meant;
        if (System::getsockopt(connection.number(), SOL_IP, SO_ORIGINAL_DST, &meant, &nSize) == 0)
            m_onAccept(std::move(connection), meant);
    }
}

void RedirectPort::watch() {
    m_loop.watch(m_listener.number(), EPOLLIN, *this);
}

} // namespace VornRelay
