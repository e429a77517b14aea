// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_CLOCKSHIFT_H
#define VORNTEST_CLOCKSHIFT_H

#include <chrono>

#include <time.h>

namespace VornTest {

/**
 * Lets all threads read a clock that is ahead, or behind, while it exists. The kernel goes on by the true
 * one, so whoever waits for a time has to be woken; and so does the thread that makes this object by
 * CLOCK_MONOTONIC, for the test's own limits. There is one at a time.
 *
 * A program that uses it gets a clock_gettime() of its own.
 */
class ClockShift {
public:
    explicit ClockShift(clockid_t clock);
    ~ClockShift();
    ClockShift(const ClockShift&) = delete;
    ClockShift& operator=(const ClockShift&) = delete;

    /** Sets how far the clock is ahead. */
    static void set(std::chrono::seconds ahead);
};

} // namespace VornTest

#endif
