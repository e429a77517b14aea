// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * A publisher without memory.
 */

#include "PublisherFixture.h"

#include <gmock/gmock.h>
#include <poll.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornTest;

// The sanitizers have an allocator of their own in the place of the one that fails.
#ifdef VORNTEST_OWN_MALLOC

namespace {

using VornPublisher_Memory = HistoryFixture;

TEST_F(VornPublisher_Memory, APublisherThatGetsNoneAtItsConstruction_ThrowsAndLeavesNothing) {
    const VornPublisher::Options options;
    const std::vector<std::string> topics{"builds"};
    EXPECT_THAT(withoutEachBlock([&] { const VornPublisher publisher("pipe:alpha", topics, options); }),
                testing::Each(testing::EndsWith(" 12")));
}

TEST_F(VornPublisher_Memory, ATopicThatIsAddedWithoutIt_CanBeAddedAfterwards) {
    open(keepingHistories());
    int added = 0;
    const std::vector<std::string> thrown = withoutEachBlock([&] {
        const std::string topic = "topic" + std::to_string(added);
        publisher().addTopic(topic);
        publisher().position(topic);
        ++added;
    });
    EXPECT_THAT(thrown, testing::Each("VornPublisher::addTopic: failed to open history. 12"));
    EXPECT_GT(thrown.size(), 5U);
    EXPECT_EQ(added, 2);
}

TEST_F(VornPublisher_Memory, AWriterThatGetsNoneAndGoesOn_PublishesNothing) {
    open();
    const std::string content(100'000, 'x');
    const auto write = [&](VornConnection& out) {
        const AllocationFault none(1, AllocationFault::Mode::once, AllocationFault::Scope::thisThread);
        long error = 0;
        EXPECT_EQ(out.transfer(content.data(), static_cast<long>(content.size()), &error), 0);
        EXPECT_EQ(error, ENOMEM);
    };
    EXPECT_EQ(thrownBy([&] { publisher().publish("builds", write); }),
              "VornConnection::put: transfer failed. 12");
    EXPECT_EQ(publisher().position("builds").nNumber, 0U);
}

TEST_F(VornPublisher_Memory, APipesFileThatVanishesWithoutIt_IsMadeAgainLater) {
    open();
    const timespec atOnce{};
    ::ppoll(nullptr, 0, &atOnce, nullptr); // so that the kit has looked up what it stands before
    ASSERT_TRUE(awaitBlockedInIo(threadIds().back()));
    {
        const AllocationFault none(1, AllocationFault::Mode::fromThenOn,
                                   AllocationFault::Scope::otherThreads);
        ::unlink(pipePath("alpha").c_str());
        ASSERT_TRUE(awaitCondition([] { return AllocationFault::allocations() > 0; }));
    }
    EXPECT_TRUE(awaitCondition([] { return ::access(pipePath("alpha").c_str(), F_OK) == 0; }));
}

TEST_F(VornPublisher_Memory, ASubscriberAtACallbackAddressThatLeavesWithoutIt_HasLeft) {
    VornPublisher::Options options;
    options.bCallbackAddresses = true;
    open(options);
    RawSubscriber subscriber(address(), "builds", {.callback = "pipe:" + std::string(50, 's')});
    {
        const AllocationFault none(1, AllocationFault::Mode::fromThenOn,
                                   AllocationFault::Scope::otherThreads);
        subscriber.socket().reset();
        EXPECT_TRUE(awaitSubscribers(0));
    }
    EXPECT_EQ(publisher().statistics().nLeft, 1U);
}

} // namespace

#endif
