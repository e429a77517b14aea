// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Interruptions.h"
#include "LeakCheckedTest.h"

#include <chrono>

#include <VornSleep.h>
#include <gtest/gtest.h>

using namespace VornTest;
using namespace std::chrono_literals;
using VornSupport::VornSleep;
using Clock = std::chrono::steady_clock;

namespace {

class VornSleepTest : public LeakCheckedTest {};

} // namespace

TEST_F(VornSleepTest, LastsAtLeastAsLongAsAsked) {
    for (const int milliseconds : {1, 25, 100, 1001}) {
        const Clock::time_point start = Clock::now();
        VornSleep(milliseconds);
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(milliseconds));
    }
}

TEST_F(VornSleepTest, WithZeroOrLess_ReturnsAtOnce) {
    const Clock::time_point start = Clock::now();
    VornSleep(0);
    VornSleep(-1);
    VornSleep(-1000000);
    EXPECT_LT(Clock::now() - start, 60s);
}

TEST_F(VornSleepTest, WhenSignalsAreHandledMeanwhile_IsNotShortened) {
    const Interruptions interruptions;
    const Clock::time_point start = Clock::now();
    VornSleep(100);
    EXPECT_GE(Clock::now() - start, 100ms);
    EXPECT_GT(Interruptions::count(), 0);
}

TEST_F(VornSleepTest, IntoTheNextSecondOfTheClock_LastsAtLeastAsLongAsAsked) {
    VornSleep(10); // more than a few milliseconds of the present second are over, or of the next
    const auto untilNextSecond =
        std::chrono::ceil<std::chrono::milliseconds>(1s - Clock::now().time_since_epoch() % 1s);
    // Less than a second in all, and so long that a late start does not matter.
    const auto time = untilNextSecond < 500ms ? untilNextSecond + 499ms : untilNextSecond;
    const Clock::time_point start = Clock::now();
    VornSleep(static_cast<int>(time.count()));
    EXPECT_GE(Clock::now() - start, time);
}
