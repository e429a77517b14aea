// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PipeNotification.h"

#include <SystemCalls.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace VornNet {

IncomingNotification::Progress PipeNotification::read(std::size_t nRoom) {
    // In this order: what has arrived when the stream has ended is all there will be.
    pollfd end{m_connection.number(), POLLRDHUP, 0};
    const int nEnds = System::poll(&end, 1, 0);
    if (nEnds == -1)
        return Progress::heldBack; // asked again
    const bool isEnded = nEnds == 1;
    const long nArrived = arrived();
    if (nArrived == -1)
        return Progress::heldBack;
    const auto nWaiting = static_cast<std::size_t>(nArrived);
    if (m_isRefused)
        return nWaiting > 0 || isEnded ? Progress::broken : Progress::open;
    const std::size_t nTotal = m_nSize + nWaiting;
    if (nTotal > m_nLimit)
        return Progress::tooLong;
    if (isEnded && nTotal < cHandleSize)
        return Progress::broken;
    const std::size_t nKept = nTotal < cHandleSize ? 0 : 1;
    const Progress progress = receive(nWaiting - std::min(nKept, nWaiting), nRoom);
    if (progress != Progress::open || !isEnded)
        return progress;
    return m_nSize + nKept == nTotal ? lookAtLastByte(nRoom) : Progress::broken;
}

void PipeNotification::confirm() {
    std::array<char, 8> rest;
    while (System::recv(m_connection.number(), rest.data(), rest.size(), MSG_DONTWAIT) > 0)
        continue;
    m_connection.reset();
}

IncomingNotification::Progress PipeNotification::lookAtLastByte(std::size_t nRoom) {
    if (m_nSize >= cHandleSize && nRoom == 0)
        return Progress::heldBack;
    char last = 0;
    if (System::recv(m_connection.number(), &last, 1, MSG_PEEK | MSG_DONTWAIT) != 1)
        return Progress::broken;
    return add(&last, 1) ? Progress::complete : Progress::heldBack;
}

} // namespace VornNet
