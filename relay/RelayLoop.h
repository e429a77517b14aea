// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_RELAYLOOP_H
#define VORNRELAY_RELAYLOOP_H

#include <EventPoll.h>
#include <SystemCalls.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

namespace VornRelay {

namespace System = VornSupport::System;

/**
 * The one thread on which a relay does everything: it waits for descriptors, timers and tasks of other
 * threads.
 *
 * So nothing of a relay needs a lock. What runs on it must not block.
 *
 * Thread-safety: post() and end() may be called from any thread, all else on the loop's thread. Blocking:
 * run() until end(). Ownership: descriptors and handlers are the caller's. Signals: none raised. Errors:
 * std::system_error where the system has no descriptor left.
 */
class RelayLoop {
public:
    using Clock = std::chrono::steady_clock;
    using Task = std::function<void()>;
    using Timer = std::uint64_t;

    /** Is told the events of a descriptor. */
    class Handler {
    public:
        virtual ~Handler() = default;
        virtual void ready(std::uint32_t nEvents) = 0;
    };

    /** Has @p task run on the loop's thread, after what was posted before. */
    void post(Task task);

    /** Has @p task run after a time. @return its number, never 0 */
    Timer after(Clock::duration delay, Task task);

    /** Takes a timer back; nothing happens when it has run. */
    void cancel(Timer timer);

    /** Watches a descriptor. @throws std::system_error */
    void watch(int fd, std::uint32_t nEvents, Handler& handler);

    /** What descriptors are watched by, for others who watch theirs; they give a Handler as data. */
    VornNet::EventPoll& poll() { return m_poll; }

    /** Watches no longer; the handler may still be called for events of this turn, until it is discarded. */
    void unwatch(int fd) { m_poll.remove(fd); }

    /** Keeps what may still be told events of this turn until the turn is over. */
    void discard(std::shared_ptr<void> spObject) { m_discarded.push_back(std::move(spObject)); }

    /** Runs until end() is called. */
    void run();

    /** Ends run() after the present turn. */
    void end();

private:
    std::span<const epoll_event> awaitEvents();
    void wakeUp();
    void runTasks();
    void runTimers();
    Clock::time_point nextTimer() const;

    VornNet::EventPoll m_poll;
    std::mutex m_mutex;
    std::vector<Task> m_tasks; // guarded by m_mutex
    bool m_bEnding = false;    // guarded by m_mutex
    bool m_bWaiting = false;   // guarded by m_mutex; the thread has to be woken
    std::map<std::pair<Clock::time_point, Timer>, Task> m_timers;
    std::map<Timer, Clock::time_point> m_dueTimes;
    Timer m_nLastTimer = 0;
    std::vector<std::shared_ptr<void>> m_discarded;
};

} // namespace VornRelay

#endif
