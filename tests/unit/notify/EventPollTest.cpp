// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "EventPoll.h"

#include <chrono>

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using VornNet::EventPoll;

TEST(EventPollTest, EndsAtTheTime) {
    EventPoll poll;
    for (const auto span : {0us, 300us, 3'000us}) {
        const EventPoll::Clock::time_point until = EventPoll::Clock::now() + span;
        EXPECT_TRUE(poll.wait(until).empty());
        EXPECT_GE(EventPoll::Clock::now(), until);
    }
}
