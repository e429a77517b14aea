// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornSleep.h"

#include "SystemCalls.h"

#include <cerrno>
#include <ctime>

namespace VornSupport {

void VornSleep(int nMilliSec) {
    if (nMilliSec <= 0)
        return;
    timespec end{};
    System::clockGettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += nMilliSec / 1000;
    end.tv_nsec += (nMilliSec % 1000) * 1'000'000L;
    if (end.tv_nsec >= 1'000'000'000L) {
        end.tv_sec += 1;
        end.tv_nsec -= 1'000'000'000L;
    }
    // An absolute end lets the wait be taken up again after a signal without drifting.
    while (System::clockNanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
}

} // namespace VornSupport
