// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * A subscriber without memory.
 */

#include "PublisherFixture.h"

#include <VornSubscriber.h>

#include <cerrno>

#include <gmock/gmock.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornTest;
using namespace std::chrono_literals;

// The sanitizers have an allocator of their own in the place of the one that fails.
#ifdef VORNTEST_OWN_MALLOC

namespace {

using VornSubscriber_Memory = PublisherFixture;

TEST_F(VornSubscriber_Memory, ASubscriberThatGetsNoneAtItsConstruction_ThrowsAndLeavesNothing) {
    const std::string text = "VornSubscriber::VornSubscriber: failed to start.";
    // 11 is for a thread that could not be made.
    const auto areFailuresToStart = testing::AllOf(testing::SizeIs(testing::Gt(1U)),
                                                   testing::Each(testing::AnyOf(text + " 12", text + " 11")));
    VornSubscriber::Options options;
    const VornSubscriber::EventHandler onEvent = [](VornConnection&, const VornSubscriber::Event&) {};
    const auto subscribe = [&] { const VornSubscriber subscriber("pipe:alpha", "builds", onEvent, options); };
    EXPECT_THAT(withoutEachBlock(subscribe), areFailuresToStart);
    options.bOwnThread = false;
    EXPECT_THAT(withoutEachBlock(subscribe), areFailuresToStart);
}

TEST_F(VornSubscriber_Memory, ASubscriberThatGetsNoneForAReason_IsBackAfterThePause) {
    const UniqueFd listener = unixListen(pipePath("alpha"), 1);
    VornSubscriber::Options options;
    options.answerLimit = 60s;
    const VornSubscriber subscriber(
        "pipe:alpha", "builds", [](VornConnection&, const auto&) {}, options);
    for (int round = 0; round < 2; ++round) {
        const UniqueFd service = admitClient(listener.get(), {1, 1, 0, 60'000});
        ASSERT_TRUE(
            awaitCondition([&] { return subscriber.status().state == VornSubscriber::State::connected; }));
        if (round == 0) {
            const AllocationFault none(1, AllocationFault::Mode::fromThenOn,
                                       AllocationFault::Scope::otherThreads);
            sendAll(service.get(), WireFrame::last(2, std::string(100, 'x')).bytes());
            ASSERT_TRUE(awaitCondition([&] { return subscriber.status().nCode == ENOMEM; }));
        }
    }
    ::unlink(pipePath("alpha").c_str());
}

} // namespace

#endif
