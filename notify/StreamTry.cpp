// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "StreamTry.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include <linux/sockios.h>

namespace VornNet {

void StreamTry::abandon() {
    if (!isOpen())
        return;
    // Bytes left unread would make the close a reset, which ends an unmodified sink that waits for the
    // handle.
    int nError = 0;
    drain(nError);
    // A process that was forked meanwhile may have the socket too, and only this reaches the peer then.
    System::shutdown(descriptor(), SHUT_WR);
    end({});
}

int StreamTry::open(int nFamily, std::string_view bytes) {
    m_bytes = bytes;
    m_nSent = 0;
    m_nWatched = 0;
    m_bHeard = false;
    m_socket.reset(System::socket(nFamily, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!m_socket.isOpen())
        return errno;
    return System::connect(descriptor(), m_address.get(), m_address.length()) == -1 ? errno : 0;
}

int StreamTry::watch(bool bForRoom) {
    const std::uint32_t nEvents = EPOLLIN | EPOLLRDHUP | EPOLLET | (bForRoom ? EPOLLOUT : 0U);
    const bool bIsNew = m_nWatched == 0;
    m_nWatched = nEvents;
    return bIsNew ? m_poll.add(descriptor(), nEvents, m_data) : m_poll.change(descriptor(), nEvents, m_data);
}

int StreamTry::sendUpTo(std::size_t nEnd, int nFlags) {
    // A long notification to a fast reader must not keep the thread from all others.
    constexpr std::size_t cMostAtOnce = 1024 * 1024;
    const std::size_t nStop = std::min(nEnd, m_nSent + cMostAtOnce);
    while (m_nSent < nStop) {
        const ssize_t count =
            System::send(descriptor(), m_bytes.data() + m_nSent, nStop - m_nSent, nFlags | MSG_NOSIGNAL);
        if (count == -1) {
            const int nError = errno;
            if (nError == EINTR)
                continue;
            return nError == EAGAIN ? watch(true) : nError;
        }
        m_nSent += static_cast<std::size_t>(count);
    }
    return m_nSent < nEnd ? watch(true) : 0;
}

int StreamTry::endSending() {
    if (isWatchedForRoom()) {
        if (const int nError = watch(false); nError != 0)
            return nError;
    }
    if (System::shutdown(descriptor(), SHUT_WR) == 0)
        return 0;
    const int nError = errno;
    return nError == ENOTCONN ? ECONNRESET : nError; // it was reset just before
}

StreamTry::Peer StreamTry::drain(int& nError) {
    constexpr int cMostReads = 16; // a peer that writes without end must not keep the thread from all others
    std::array<char, 4096> ignored;
    for (int nReads = 0; nReads < cMostReads; ++nReads) {
        const ssize_t count = System::recv(descriptor(), ignored.data(), ignored.size(), 0);
        if (count == 0)
            return Peer::ended;
        if (count == -1) {
            nError = errno;
            if (nError == EAGAIN)
                return Peer::open;
            if (nError != EINTR)
                return Peer::failed;
        } else {
            m_bHeard = true;
        }
    }
    nError = watch(isWatchedForRoom()); // tells the rest anew
    return nError == 0 ? Peer::open : Peer::failed;
}

int StreamTry::countUntaken(int& nBytes) const {
    return System::ioctl(descriptor(), SIOCOUTQ, &nBytes) == -1 ? errno : 0;
}

DeliveryTry::Progress StreamTry::end(const Progress& progress) {
    if (m_nWatched != 0)
        m_poll.remove(descriptor());
    m_nWatched = 0;
    m_socket.reset();
    return progress;
}

DeliveryTry::Progress StreamTry::failed(int nCode) {
    Progress progress;
    progress.kind = Progress::Kind::failed;
    progress.nCode = nCode == EPIPE ? ECONNRESET : nCode; // the reset came before the call, and not during it
    progress.bDoubtful = mayHaveArrived();
    progress.bIsAlive = progress.nCode == ECONNRESET;
    abandon();
    return progress;
}

} // namespace VornNet
