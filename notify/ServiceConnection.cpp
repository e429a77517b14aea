// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ServiceConnection.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace VornNet {

namespace {

constexpr std::uint32_t cHearing = EPOLLIN | EPOLLRDHUP;

} // namespace

int ServiceConnection::open(const CallbackEndpoint& service) {
    m_address.emplace(service);
    m_input.clear();
    m_socket.reset(
        System::socket(m_address->get()->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!m_socket.isOpen())
        return errno;
    const bool isConnected = System::connect(m_socket.number(), m_address->get(), m_address->length()) == 0;
    if (!isConnected && errno != EINPROGRESS)
        return errno;
    const int error = m_poll.watch(m_socket.number(), EPOLLOUT, true);
    if (error != 0)
        return error;
    m_isWatched = true;
    m_nAwaited = EPOLLOUT;
    return isConnected ? 0 : EINPROGRESS;
}

int ServiceConnection::finish() {
    int error = 0;
    socklen_t size = sizeof error;
    System::getsockopt(m_socket.number(), SOL_SOCKET, SO_ERROR, &error, &size);
    return error == 0 && m_address->isOwnOf(m_socket.number()) ? ECONNREFUSED : error;
}

bool ServiceConnection::isOfOne(const std::vector<unsigned int>& users) const {
    if (m_address->get()->sa_family != AF_UNIX || users.empty())
        return true;
    ucred peer{-1, ~0U, ~0U};
    socklen_t size = sizeof peer;
    System::getsockopt(m_socket.number(), SOL_SOCKET, SO_PEERCRED, &peer, &size);
    return std::find(users.begin(), users.end(), peer.uid) != users.end();
}

void ServiceConnection::say(std::string_view bytes) {
    m_sOutput.append(bytes);
    send();
}

void ServiceConnection::send() {
    const ssize_t count = m_sOutput.empty() ? 0
                                            : System::send(m_socket.number(), m_sOutput.data(),
                                                           m_sOutput.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    // What has gone wrong is told by the next look at what has come; the service's last word is there too.
    if (count == -1 && errno != EAGAIN && errno != EINTR)
        m_sOutput.clear();
    m_sOutput.erase(0, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    const std::uint32_t events = m_sOutput.empty() ? cHearing : cHearing | EPOLLOUT;
    if (std::exchange(m_nAwaited, events) != events)
        m_poll.watch(m_socket.number(), events, false);
}

void ServiceConnection::close() {
    if (std::exchange(m_isWatched, false))
        m_poll.unwatch(m_socket.number());
    m_socket.reset();
    m_nAwaited = 0;
    m_sOutput.clear();
}

} // namespace VornNet
