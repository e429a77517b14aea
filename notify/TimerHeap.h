// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_TIMERHEAP_H
#define VORNNOTIFY_TIMERHEAP_H

#include <VornNetExport.h>

#include <chrono>
#include <cstddef>
#include <vector>

namespace VornNet {

/** Something that is due at a time: a base of what it belongs to, which stays where it is in memory. */
class Timer {
public:
    using Clock = std::chrono::steady_clock;

    /** What it is a part of. */
    enum class Owner : bool { notification, queue };

    explicit Timer(Owner owner) : m_owner(owner) {}

    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    Owner owner() const { return m_owner; }

    Clock::time_point due() const { return m_due; }

    bool isSet() const { return m_place != cNowhere; }

private:
    friend class TimerHeap;

    static constexpr std::size_t cNowhere = static_cast<std::size_t>(-1);

    Clock::time_point m_due;
    std::size_t m_place = cNowhere; // in the heap
    Owner m_owner;
};

/** Timers in the order in which they are due. One that is due after all others is set in no time. */
class TimerHeap {
public:
    /** Sets @p timer, which is not set. @throws std::bad_alloc */
    void set(Timer& timer, Timer::Clock::time_point due);

    /** Takes @p timer out; it need not be set. */
    void clear(Timer& timer) noexcept;

    /** Makes room for @p count timers in all, so that setting them does not fail. @throws std::bad_alloc */
    void reserve(std::size_t count);

    /** @return the timer that is due first; null when none is set. */
    Timer* first() const { return m_timers.empty() ? nullptr : m_timers.front(); }

private:
    void put(Timer& timer, std::size_t place) noexcept;
    void rise(Timer& timer, std::size_t place) noexcept;
    void sink(Timer& timer, std::size_t place) noexcept;

    std::vector<Timer*> m_timers;
};

} // namespace VornNet

#endif
