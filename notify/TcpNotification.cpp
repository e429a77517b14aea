// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "TcpNotification.h"

#include <SystemCalls.h>

#include <cerrno>

namespace VornNet {

IncomingNotification::Progress TcpNotification::read(std::size_t nRoom) {
    for (;;) {
        const long nArrived = arrived();
        if (nArrived == -1)
            return Progress::heldBack; // asked again
        auto nWaiting = static_cast<std::size_t>(nArrived);
        if (nWaiting == 0) {
            const Progress end = lookForEnd();
            if (end != Progress::heldBack)
                return end;
            nWaiting = 1;
        }
        if (nWaiting > m_nLimit - m_nSize)
            return Progress::tooLong;
        const std::size_t nBefore = m_nSize;
        const Progress progress = receive(nWaiting, nRoom);
        if (progress != Progress::open || m_nSize == nBefore)
            return progress;
    }
}

void TcpNotification::confirm() {
    const linger gently{0, 0};
    System::setsockopt(m_connection.number(), SOL_SOCKET, SO_LINGER, &gently, sizeof gently);
    m_connection.reset();
}

/** @return heldBack when there is something to read after all, else what the notification has come to. */
IncomingNotification::Progress TcpNotification::lookForEnd() {
    char next = 0;
    const ssize_t nSeen = System::recv(m_connection.number(), &next, 1, MSG_PEEK | MSG_DONTWAIT);
    if (nSeen == 1 || (nSeen == -1 && errno == EINTR))
        return Progress::heldBack;
    if (nSeen == -1)
        return errno == EAGAIN ? Progress::open : Progress::broken;
    return m_nSize < cHandleSize ? Progress::broken : Progress::complete;
}

} // namespace VornNet
