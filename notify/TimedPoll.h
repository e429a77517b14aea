// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_TIMEDPOLL_H
#define VORNNOTIFY_TIMEDPOLL_H

#include "OwnedDescriptor.h"

#include <chrono>
#include <cstdint>
#include <mutex>

namespace VornNet {

/**
 * One descriptor that is readable when something happens on a socket, when a time has come, or when another
 * thread wants it to be. It can be polled within a program's own loop.
 */
class TimedPoll {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /** @throws std::system_error */
    TimedPoll();

    /** @return the descriptor to poll. */
    int number() const { return m_poll.number(); }

    /** Watches a socket, the only one; @p isNew says whether it was not watched before. @return 0 or errno */
    int watch(int fd, std::uint32_t events, bool isNew) const;

    void unwatch(int fd) const;

    /** @return what has happened on the socket, or 0. @param isWaiting whether to wait for anything at all */
    std::uint32_t wait(bool isWaiting) const;

    /** Makes the descriptor readable at that time, or somewhat earlier; before, it is not by a time or
     * wakeUp().
     */
    void wakeAt(TimePoint time);

    /** Makes the descriptor readable until the next answerWakeUp(), which comes before what it is for. */
    void wakeUp();

    void answerWakeUp();

    /** Lets it never be readable again. @param isPolled whether the descriptor has to stay open */
    void end(bool isPolled);

private:
    void arm(std::chrono::nanoseconds span);

    OwnedDescriptor m_poll;
    std::mutex m_mutex; // guards all below
    OwnedDescriptor m_timer;
    TimePoint m_armedFor = TimePoint::max();
    bool m_isWoken = false;
};

} // namespace VornNet

#endif
