// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayLoop.h"

#include <system_error>
#include <utility>

namespace VornRelay {

void RelayLoop::post(Task task) {
    const std::lock_guard lock(m_mutex);
    m_tasks.push_back(std::move(task));
    wakeUp();
}

RelayLoop::Timer RelayLoop::after(Clock::duration delay, Task task) {
    const Timer timer = ++m_nLastTimer;
    const Clock::time_point due = Clock::now() + delay;
    m_timers.emplace(std::pair(due, timer), std::move(task));
    m_dueTimes.emplace(timer, due);
    return timer;
}

void RelayLoop::cancel(Timer timer) {
    const auto found = m_dueTimes.find(timer);
    if (found == m_dueTimes.end())
        return;
    m_timers.erase({found->second, timer});
    m_dueTimes.erase(found);
}

void RelayLoop::watch(int fd, std::uint32_t nEvents, Handler& handler) {
    if (const int nError = m_poll.add(fd, nEvents, &handler); nError != 0)
        throw std::system_error(nError, std::generic_category(), "cannot watch a descriptor");
}

void RelayLoop::run() {
    for (;;) {
        {
            const std::lock_guard lock(m_mutex);
            if (std::exchange(m_bEnding, false))
                return;
        }
        for (const epoll_event& event : awaitEvents())
            static_cast<Handler*>(event.data.ptr)->ready(event.events);
        runTasks();
        runTimers();
        m_discarded.clear();
    }
}

void RelayLoop::end() {
    const std::lock_guard lock(m_mutex);
    m_bEnding = true;
    wakeUp();
}

std::span<const epoll_event> RelayLoop::awaitEvents() {
    bool bMayWait = false;
    {
        const std::lock_guard lock(m_mutex);
        m_bWaiting = bMayWait = m_tasks.empty() && !m_bEnding;
    }
    const auto events = m_poll.wait(bMayWait ? nextTimer() : Clock::time_point());
    const std::lock_guard lock(m_mutex);
    m_bWaiting = false;
    return events;
}

/** A loop that is busy looks for itself, at its next turn. To be called with the lock held. */
void RelayLoop::wakeUp() {
    if (std::exchange(m_bWaiting, false))
        m_poll.wakeUp();
}

void RelayLoop::runTasks() {
    std::vector<Task> tasks;
    {
        const std::lock_guard lock(m_mutex);
        tasks.swap(m_tasks);
    }
    for (const Task& task : tasks)
        task();
}

void RelayLoop::runTimers() {
    const Clock::time_point now = Clock::now();
    while (!m_timers.empty() && m_timers.begin()->first.first <= now) {
        const auto entry = m_timers.extract(m_timers.begin());
        m_dueTimes.erase(entry.key().second);
        entry.mapped()();
    }
}

RelayLoop::Clock::time_point RelayLoop::nextTimer() const {
    return m_timers.empty() ? Clock::time_point::max() : m_timers.begin()->first.first;
}

} // namespace VornRelay
