// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "TimerHeap.h"

#include <algorithm>

namespace VornNet {

void TimerHeap::set(Timer& timer, Timer::Clock::time_point due) {
    m_timers.push_back(&timer);
    timer.m_due = due;
    rise(timer, m_timers.size() - 1);
}

void TimerHeap::clear(Timer& timer) noexcept {
    if (!timer.isSet())
        return;
    const std::size_t place = timer.m_place;
    timer.m_place = Timer::cNowhere;
    Timer& last = *m_timers.back();
    m_timers.pop_back();
    if (&last == &timer)
        return;
    rise(last, place);
    sink(last, last.m_place);
}

void TimerHeap::reserve(std::size_t count) {
    if (count > m_timers.capacity())
        m_timers.reserve(std::max(count, 2 * m_timers.capacity()));
}

void TimerHeap::put(Timer& timer, std::size_t place) noexcept {
    m_timers[place] = &timer;
    timer.m_place = place;
}

void TimerHeap::rise(Timer& timer, std::size_t place) noexcept {
    while (place > 0 && timer.m_due < m_timers[(place - 1) / 2]->m_due) {
        put(*m_timers[(place - 1) / 2], place);
        place = (place - 1) / 2;
    }
    put(timer, place);
}

void TimerHeap::sink(Timer& timer, std::size_t place) noexcept {
    for (;;) {
        std::size_t child = 2 * place + 1;
        if (child + 1 < m_timers.size() && m_timers[child + 1]->m_due < m_timers[child]->m_due)
            ++child;
        if (child >= m_timers.size() || timer.m_due <= m_timers[child]->m_due)
            break;
        put(*m_timers[child], place);
        place = child;
    }
    put(timer, place);
}

} // namespace VornNet
