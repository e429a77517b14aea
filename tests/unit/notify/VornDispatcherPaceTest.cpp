// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ClockShift.h"
#include "DispatcherTestSupport.h"
#include "Interpose.h"

#include <sys/resource.h>
#include <unistd.h>

using namespace std::chrono_literals;
using namespace VornTest;

namespace {

/** How many connections there are at once, and how long the pauses between tries are. */
using VornDispatcher_Pace = DispatcherTest;

} // namespace

TEST_F(VornDispatcher_Pace, WithoutALimitItTakesHalfTheDescriptors) {
    constexpr rlim_t cDescriptors = 80;
    std::vector<UniqueFd> listeners;
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit fewer{cDescriptors, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &fewer), 0);
    VornDispatcher dispatcher(optionsWithResults());
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0); // for the listeners, which are in this process
    for (int i = 0; i < 60; ++i) {
        listeners.push_back(listen("peer" + std::to_string(i)));
        post(dispatcher, "pipe:peer" + std::to_string(i));
    }
    EXPECT_TRUE(awaitCondition([&] { return dispatcher.statistics().nConnections == cDescriptors / 2; }));
    EXPECT_FALSE(
        awaitCondition([&] { return dispatcher.statistics().nConnections != cDescriptors / 2; }, 50ms));
    dispatcher.stop(0ms);
}

TEST_F(VornDispatcher_Pace, PausesGrowToTheLongestOne) {
    VornDispatcher dispatcher(optionsWithResults());
    postWith(termsOf(1s), dispatcher, "pipe:nobody");
    // 14 pauses up to 164 ms, each at least half of what it is named for, and then one for each 125 ms.
    EXPECT_LE(m_results.awaitOne().nTries, 1U + 14 + (1000 - 164) / 125 + 1);
}

TEST_F(VornDispatcher_Pace, ADeliveryResetsThePause) {
    VornDispatcher::Options options = optionsWithResults();
    options.firstPause = 1ms;
    options.longestPause = 2s;
    VornDispatcher dispatcher(options);
    post(dispatcher, "pipe:peer");
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nTries >= 9; })); // the next takes longer
    const UniqueFd listener = listen("peer");
    EXPECT_EQ(takeOne(listener.get()), cHandle);
    ASSERT_TRUE(dispatcher.flush(10s));
    ::unlink(pipePath("peer").c_str());
    postWith(termsOf(300ms), dispatcher, "pipe:peer");
    EXPECT_GE(m_results.await(2)[1].nTries, 3U);
}

TEST_F(VornDispatcher_Pace, WhileThereAreSignsOfLifePausesStayShort) {
    int nPort = 0;
    const UniqueFd listener = tcpListen("127.0.0.1", nPort);
    VornDispatcher::Options options = optionsWithResults();
    options.terms = termsOf(60s, 100);
    options.longestPause = 10s;
    VornDispatcher dispatcher(options);
    const auto start = std::chrono::steady_clock::now();
    const CallTrace trace;
    post(dispatcher, "socket:127.0.0.1:" + std::to_string(nPort));
    for (int i = 0; i < 100; ++i) {
        const UniqueFd client = acceptClient(listener.get());
        receiveExactly(client.get(), 8);
        resetOnClose(client.get());
    }
    EXPECT_EQ(m_results.awaitOne().outcome, Outcome::unread);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s) << "99 pauses of 4 ms";
    constexpr long cOther = 1000; // longer waits are not pauses, but for the time limit
    for (const CallRecord& wait : trace.records("epoll_wait"))
        EXPECT_TRUE(wait.third <= 4 || wait.third > cOther) << wait.third << " ms";
}

TEST_F(VornDispatcher_Pace, WhenTheTimeOfDayJumpsNothingExpiresEarlyOrLate) {
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, "pipe:peer", "content");
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nTries > 0; }));
    const ClockShift shift(CLOCK_REALTIME);
    for (const std::chrono::seconds ahead : {24h, -24h}) {
        ClockShift::set(ahead);
        const std::uint64_t tries = dispatcher.statistics().nTries;
        EXPECT_TRUE(awaitCondition([&] { return dispatcher.statistics().nTries > tries; }));
        EXPECT_FALSE(dispatcher.flush(20ms));
        postWith(termsOf(20ms), dispatcher, "pipe:nobody");
        EXPECT_TRUE(awaitCondition([&] { return dispatcher.statistics().nQueued == 1; }));
    }
    EXPECT_EQ(m_results.await(2)[1].outcome, Outcome::expired);
    const UniqueFd listener = listen("peer");
    EXPECT_EQ(takeOne(listener.get()), cHandle + "content");
    EXPECT_TRUE(dispatcher.flush(10s));
    EXPECT_EQ(dispatcher.statistics().nDelivered, 1U);
    dispatcher.stop(1s);
}
