// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_DEADLINE_H
#define VORNNOTIFY_DEADLINE_H

#include <algorithm>
#include <chrono>

namespace VornNet {

/** The end of a time limit, by the clock that nobody sets. */
class Deadline {
public:
    using Clock = std::chrono::steady_clock;

    /** The limit runs from now on. A limit that no clock can reach is none. */
    explicit Deadline(std::chrono::milliseconds limit) : Deadline(limit, Clock::now()) {}

    /** The limit runs from @p start on. */
    Deadline(std::chrono::milliseconds limit, Clock::time_point start)
        : m_end(limit < std::chrono::floor<std::chrono::milliseconds>(never() - start) ? start + limit
                                                                                       : never()) {}

    /** @return a deadline that never comes. */
    static Deadline none() { return Deadline(never()); }

    /** @return the end of a wait that begins now; a negative limit is none. */
    static Deadline ofWait(std::chrono::milliseconds limit) {
        return limit < std::chrono::milliseconds(0) ? none() : Deadline(limit);
    }

    /** @return the earlier one of the two. */
    Deadline orEarlier(const Deadline& other) const { return Deadline(std::min(m_end, other.m_end)); }

    bool isOver() const { return m_end != never() && Clock::now() >= m_end; }

    /** @return what is left in milliseconds for poll(): rounded up so that nobody spins, and -1 for none. */
    int left() const {
        if (m_end == never())
            return -1;
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(m_end - Clock::now()).count();
        constexpr std::chrono::milliseconds::rep cDay = 86'400'000;
        return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(rest, 0, cDay));
    }

    Clock::time_point end() const { return m_end; }

private:
    explicit Deadline(Clock::time_point end) : m_end(end) {}

    static constexpr Clock::time_point never() { return Clock::time_point::max(); }

    Clock::time_point m_end;
};

} // namespace VornNet

#endif
