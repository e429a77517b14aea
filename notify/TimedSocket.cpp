// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "TimedSocket.h"

#include <SystemCalls.h>
#include <VornNetExport.h>

#include <cerrno>
#include <cstddef>

namespace VornNet {

long TimedSocket::send(const char* bytes, long count, long* error) const {
    for (long total = 0; total < count;) {
        const long sent = perform(
            [&] {
                return System::send(m_fd, bytes + total, static_cast<std::size_t>(count - total),
                                    MSG_DONTWAIT | MSG_NOSIGNAL);
            },
            POLLOUT, error);
        if (sent == -1)
            return -1;
        total += sent;
    }
    return count;
}

long TimedSocket::receive(char* bytes, long count, long* error, bool isAll) const {
    for (long total = 0; total < count;) {
        const long received = perform(
            [&] {
                return System::recv(m_fd, bytes + total, static_cast<std::size_t>(count - total),
                                    MSG_DONTWAIT);
            },
            POLLIN, error);
        if (received == 0)
            *error = ENOTCONN;
        if (received <= 0)
            return -1;
        total += received;
        if (!isAll)
            return total;
    }
    return count;
}

long TimedSocket::peek(char* bytes, long count, long* error) const {
    return perform(
        [&] { return System::recv(m_fd, bytes, static_cast<std::size_t>(count), MSG_DONTWAIT | MSG_PEEK); },
        POLLIN, error);
}

/**
 * The clock is asked before each call and not only when one would block: a peer that always has a byte ready
 * would never be left otherwise.
 */
template <typename Call>
long TimedSocket::perform(Call&& call, short events, long* error) const {
    for (;;) {
        if (m_deadline.isOver()) {
            *error = ETIMEDOUT;
            return -1;
        }
        const long result = call();
        if (result >= 0)
            return result;
        int failure = errno;
        if (failure == EAGAIN)
            failure = await(events);
        if (failure != 0 && failure != EINTR) {
            *error = failure;
            return -1;
        }
    }
}

/** @return 0, also when the time is over, which perform() sees; or an errno value */
int TimedSocket::await(short events) const {
    pollfd entry{m_fd, events, 0};
    return System::poll(&entry, 1, m_deadline.left()) == -1 ? errno : 0;
}

} // namespace VornNet
