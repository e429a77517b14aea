// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_TIMEDSOCKET_H
#define VORNNOTIFY_TIMEDSOCKET_H

#include "Deadline.h"

namespace VornNet {

/**
 * Reads and writes on a connected stream socket, which together end when one deadline has come.
 *
 * The socket may be a blocking one and belongs to somebody else. Errors are reported as the connection
 * classes do: the errno value, 107 (ENOTCONN) when the peer has closed, and 110 (ETIMEDOUT); after success
 * they are left as they were. No signal is raised, and one that is handled does not break an operation off.
 */
class TimedSocket {
public:
    TimedSocket(int fd, const Deadline& deadline) : m_fd(fd), m_deadline(deadline) {}

    /** Sends all. @return their number, or -1 */
    long send(const char* bytes, long count, long* error) const;

    /** Receives @p count bytes, or what comes first. @return their number, or -1 */
    long receive(char* bytes, long count, long* error, bool isAll) const;

    /** Waits for bytes and looks at them. @return their number, 0 when the peer has closed, or -1 */
    long peek(char* bytes, long count, long* error) const;

    const Deadline& deadline() const { return m_deadline; }

private:
    template <typename Call>
    long perform(Call&& call, short events, long* error) const;
    int await(short events) const;

    int m_fd;
    Deadline m_deadline;
};

} // namespace VornNet

#endif
