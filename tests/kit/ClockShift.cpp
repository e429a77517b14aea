// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ClockShift.h"

#include <atomic>

#include <dlfcn.h>

namespace {

std::atomic<clockid_t> shiftedClock{-1};
std::atomic<std::time_t> secondsAhead{0};
thread_local bool isExempt = false;

} // namespace

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                                    timespec* time) noexcept {
    using Function = int (*)(clockid_t, timespec*);
    static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "clock_gettime"));
    const int result = real(clock, time);
    if (clock == shiftedClock.load(std::memory_order_relaxed) && !isExempt)
        time->tv_sec += secondsAhead.load(std::memory_order_relaxed);
    return result;
}

namespace VornTest {

ClockShift::ClockShift(clockid_t clock) {
    isExempt = clock == CLOCK_MONOTONIC;
    shiftedClock = clock;
}

ClockShift::~ClockShift() {
    shiftedClock = -1;
    secondsAhead = 0;
    isExempt = false;
}

void ClockShift::set(std::chrono::seconds ahead) {
    secondsAhead = ahead.count();
}

} // namespace VornTest
