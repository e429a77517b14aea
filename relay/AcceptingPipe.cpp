// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AcceptingPipe.h"

#include <cerrno>
#include <utility>

namespace VornRelay {

namespace {

constexpr int cMostAtOnce = 64; // others have their turn after that
constexpr std::chrono::milliseconds cRest{100};

} // namespace

AcceptingPipe::~AcceptingPipe() {
    if (!isOpen())
        return;
    m_listener->removeFile();
    if (m_rest == 0)
        m_loop.unwatch(m_listener->descriptor());
    m_loop.cancel(m_rest);
}

void AcceptingPipe::open() {
    if (isOpen())
        return;
    m_listener.emplace(VornNet::PipeListener::openNamed(m_sName.c_str(), std::nullopt));
    watch();
}

void AcceptingPipe::close() {
    if (!isOpen())
        return;
    m_listener->removeFile();
    while (acceptOne()) {
    }
    if (m_rest == 0)
        m_loop.unwatch(m_listener->descriptor());
    m_loop.cancel(std::exchange(m_rest, 0));
    m_listener.reset();
}

void AcceptingPipe::ready(std::uint32_t) {
    for (int nAccepted = 0; isOpen() && nAccepted < cMostAtOnce; ++nAccepted) {
        if (!acceptOne())
            return;
    }
}

/** @return whether there may be another one. */
bool AcceptingPipe::acceptOne() {
    VornNet::OwnedDescriptor connection(
        System::accept4(m_listener->descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
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

void AcceptingPipe::watch() {
    m_loop.watch(m_listener->descriptor(), EPOLLIN, *this);
}

void AcceptingPipe::rest() {
    m_loop.unwatch(m_listener->descriptor());
    m_rest = m_loop.after(cRest, [this] {
        m_rest = 0;
        watch();
    });
}

} // namespace VornRelay
