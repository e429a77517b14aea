// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_EVENTPOLL_H
#define VORNNOTIFY_EVENTPOLL_H

#include "OwnedDescriptor.h"

#include <chrono>
#include <cstdint>
#include <span>

namespace VornNet {

/**
 * What one thread waits for: events of descriptors, a point in time, and the word of other threads.
 *
 * remove() has to be called before a descriptor is closed. The kernel forgets a socket by itself only when
 * the last descriptor of it is gone, and a process that was forked meanwhile has one too.
 */
class EventPoll {
public:
    using Clock = std::chrono::steady_clock;

    /** @throws std::system_error */
    EventPoll();

    /** Watches @p fd for @p events; they are told with @p data, which must not be null.
     * @return 0 or an errno value */
    int add(int fd, std::uint32_t events, void* data) { return control(EPOLL_CTL_ADD, fd, events, data); }

    /** Changes what is watched for; what is there already is told anew. @return 0 or an errno value */
    int change(int fd, std::uint32_t events, void* data) { return control(EPOLL_CTL_MOD, fd, events, data); }

    void remove(int fd) { control(EPOLL_CTL_DEL, fd, 0, nullptr); }

    /**
     * Waits for events, for wakeUp(), or until @p until, whichever comes first; Clock::time_point::max() is
     * without limit, and one that has passed only looks.
     * @return the events that came, without those of wakeUp(); valid until the next call
     */
    std::span<const epoll_event> wait(Clock::time_point until);

    /** Ends a wait() of another thread, or its next one. */
    void wakeUp();

private:
    int await(int milliseconds);
    int control(int operation, int fd, std::uint32_t events, void* data);

    OwnedDescriptor m_poll;
    OwnedDescriptor m_wakeUp;
    static constexpr int cMostEvents = 64;
    epoll_event m_events[cMostEvents]{};
};

} // namespace VornNet

#endif
