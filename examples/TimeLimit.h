// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef EXAMPLES_TIMELIMIT_H
#define EXAMPLES_TIMELIMIT_H

#include <chrono>
#include <csignal>

#include <time.h>
#include <unistd.h>

namespace Example {

/**
 * Limits the time that the calling thread may block, for as long as the object lives.
 *
 * Connections have no timeouts: a peer that is stopped, or sends nothing, blocks its caller without end. A
 * signal ends the call if its handler was installed without SA_RESTART; a typed operation then throws with
 * code 4 (EINTR). Here a timer sends such a signal to this thread alone.
 */
class TimeLimit {
public:
    explicit TimeLimit(std::chrono::seconds time) {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        sigevent event = {};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = SIGALRM;
        event._sigev_un._tid = gettid();
        m_isSet = timer_create(CLOCK_MONOTONIC, &event, &m_timer) == 0;
        // Repeated, because the first signal may arrive just before the thread blocks again.
        const itimerspec times = {{0, 100'000'000}, {time.count(), 0}};
        if (m_isSet)
            timer_settime(m_timer, 0, &times, nullptr);
    }

    ~TimeLimit() {
        if (m_isSet)
            timer_delete(m_timer);
    }

    TimeLimit(const TimeLimit&) = delete;
    TimeLimit& operator=(const TimeLimit&) = delete;

private:
    timer_t m_timer = {};
    bool m_isSet = false; // if no timer could be created, there is no limit
};

} // namespace Example

#endif
