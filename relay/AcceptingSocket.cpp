// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AcceptingSocket.h"

#include <cerrno>
#include <utility>

namespace VornRelay {

namespace {

constexpr int cMostAtOnce = 64; // others have their turn after that
constexpr std::chrono::milliseconds cRest{100};

} // namespace

void AcceptingSocket::begin(int fd) {
    m_fd = fd;
    watch();
}

void AcceptingSocket::acceptAll() {
    while (acceptOne()) {
    }
}

void AcceptingSocket::end() {
    if (m_fd != -1 && m_rest == 0)
        m_loop.unwatch(m_fd);
    m_loop.cancel(std::exchange(m_rest, 0));
    m_fd = -1;
}

void AcceptingSocket::ready(std::uint32_t) {
    for (int nAccepted = 0; m_fd != -1 && nAccepted < cMostAtOnce; ++nAccepted) {
        if (!acceptOne())
            return;
    }
}

/** @return whether there may be another one. */
bool AcceptingSocket::acceptOne() {
    VornNet::OwnedDescriptor connection(
        System::accept4(m_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (connection.isOpen()) {
        m_onAccept(std::move(connection));
        return true;
    }
    const int nError = errno;
    if (nError == EINTR || nError == ECONNABORTED)
        return true;
    if (nError != EAGAIN && m_rest == 0)
        rest();
    return false;
}

void AcceptingSocket::watch() {
    m_loop.watch(m_fd, EPOLLIN, *this);
}

void AcceptingSocket::rest() {
    m_loop.unwatch(m_fd);
    m_rest = m_loop.after(cRest, [this] {
        m_rest = 0;
        watch();
    });
}

} // namespace VornRelay
