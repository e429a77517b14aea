// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Delivery.h"

#include <algorithm>
#include <system_error>
#include <utility>

namespace VornRelay {

namespace {

using std::chrono::microseconds;

constexpr microseconds cFirstPause{20};
constexpr microseconds cLongestPause{2000};
constexpr microseconds cLongestPauseAway{100'000};

} // namespace

Delivery::Delivery(RelayLoop& loop, DoneHandler onDone) : m_loop(loop), m_onDone(std::move(onDone)) {}

Delivery::~Delivery() {
    m_loop.cancel(m_timer);
}

void Delivery::close() {
    m_loop.cancel(std::exchange(m_timer, 0));
}

Delivery::Clock::duration Delivery::awayFor() const {
    return m_bAway ? Clock::now() - m_awaySince : Clock::duration(0);
}

void Delivery::repeat(bool bAway) {
    close();
    if (bAway && !m_bAway) {
        m_awaySince = Clock::now();
        m_pause = microseconds(0);
    }
    m_bAway = bAway;
    m_pause = std::clamp(m_pause * 2, cFirstPause, isAway() ? cLongestPauseAway : cLongestPause);
    after(m_pause, [this] { tryNow(); });
}

void Delivery::after(Clock::duration delay, RelayLoop::Task task) {
    m_loop.cancel(m_timer);
    m_timer = m_loop.after(delay, [this, todo = std::move(task)] {
        m_timer = 0;
        todo();
    });
}

void Delivery::finish(Outcome outcome) {
    close();
    m_result.outcome = outcome;
    const DoneHandler onDone = std::move(m_onDone);
    onDone(Result(m_result));
}

void Delivery::tryNow() {
    try {
        attempt();
    } catch (const std::system_error&) {
        repeat(false);
    }
}

} // namespace VornRelay
