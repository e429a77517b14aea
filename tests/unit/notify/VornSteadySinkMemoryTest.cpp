// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * A sink without memory: at its construction, and while it receives.
 */

#include "AllocationFaults.h"
#include "SteadySinkPeer.h"

#include <VornException.h>
#include <gmock/gmock.h>
#include <poll.h>

using namespace VornTest;
using namespace std::chrono_literals;

// The sanitizers have an allocator of their own in the place of the one that fails.
#ifdef VORNTEST_OWN_MALLOC

namespace {

using testing::Values;

class VornSteadySink_Memory : public NotificationTestOfKind {
protected:
    /** Everything once, so that the kit has looked up the functions that it stands before. */
    void SetUp() override {
        NotificationTest::SetUp();
        const SteadyClient client(optionsFor(GetParam()));
        sendByHand(client.address(), onWire(0) + "content");
        ASSERT_TRUE(client.callback()->awaitCalls(1));
        const timespec atOnce{};
        ::ppoll(nullptr, 0, &atOnce, nullptr);
    }
};

class VornSteadySink_StreamMemory : public VornSteadySink_Memory {};

INSTANTIATE_TEST_SUITE_P(Kind, VornSteadySink_Memory, Values(Kind::pipe, Kind::socket, Kind::udp),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Kind, VornSteadySink_StreamMemory, Values(Kind::pipe, Kind::socket),
                         testing::PrintToStringParamName());

/** While it exists, the sink's threads get no memory. */
class NoMemoryForItsThreads : public AllocationFault {
public:
    NoMemoryForItsThreads() : AllocationFault(1, Mode::fromThenOn, Scope::otherThreads) {}
};

} // namespace

TEST_P(VornSteadySink_Memory, WithoutIt_TheConstructorThrowsAndLeavesNothing) {
    const SteadyOptions options = optionsFor(GetParam());
    const auto descriptors = openDescriptors();
    const auto threads = threadIds().size();
    int nFailed = 0;
    for (int nth = 1; nth == nFailed + 1; ++nth) {
        try {
            const AllocationFault fault(nth, AllocationFault::Mode::once, AllocationFault::Scope::thisThread);
            const VornNet::VornSteadySink sink("sink", options);
        } catch (const VornSupport::VornException& exception) {
            EXPECT_THAT(exception.getText(), testing::AnyOf(cOpenFailed, cStartFailed));
            // 11 for a thread, and 99 for a host name that could not be looked up.
            EXPECT_THAT(exception.getCode(), testing::AnyOf(ENOMEM, EAGAIN, EADDRNOTAVAIL));
            ++nFailed;
        }
        EXPECT_EQ(openDescriptors(), descriptors) << nth;
        EXPECT_TRUE(awaitCondition([&] { return threadIds().size() == threads; })) << nth;
    }
    EXPECT_GT(nFailed, 5);
}

TEST_P(VornSteadySink_Memory, WhileThereIsNone_NotificationsWaitAndThenArrive) {
    const SteadyClient client(optionsFor(GetParam()));
    {
        const NoMemoryForItsThreads none;
        sendByHand(client.address(), onWire(0) + "first");
        sendByHand(client.address(), onWire(0) + "second");
        letPass(150ms); // it has been tried again
    }
    // A datagram needs nothing more once there is a place for it; the callback that gets it may throw.
    ASSERT_TRUE(
        awaitCondition([&] { return client.statistics().nDelivered + client.statistics().nFailed == 2; }));
    EXPECT_EQ(client.callback()->contents().back(), "second");
    EXPECT_TRUE(GetParam() == Kind::udp || client.statistics().nFailed == 0);
}

TEST_P(VornSteadySink_StreamMemory, WhileThereIsNone_WhatHasBeenAcceptedWaitsToo) {
    const SteadyClient client(optionsFor(GetParam()));
    for (const std::size_t size : {1U, 100'000U}) {
        const UniqueFd fd = connectToSink(client.address());
        ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{1}));
        {
            const NoMemoryForItsThreads none;
            sendAll(fd.get(), onWire(0) + std::string(size, 'x'));
            endSending(fd.get());
            letPass(150ms);
            EXPECT_EQ(client.statistics().nWaiting, 0U);
        }
        EXPECT_EQ(endingOf(fd.get()), "end");
        EXPECT_EQ(client.callback()->contents().back(), std::string(size, 'x'));
    }
}

TEST_P(VornSteadySink_StreamMemory, WhileThereIsNone_OneThatIsTooLongIsResetAllTheSame) {
    const SteadyClient client(optionsFor(GetParam(), [](auto& o) { o.nMessageLimit = 15'000; }));
    const UniqueFd fd = connectToSink(client.address());
    ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{1}));
    {
        const NoMemoryForItsThreads none;
        sendAll(fd.get(), onWire(0) + std::string(10'000, 'x'));
        letPass(50ms);
        sendAll(fd.get(), std::string(10'000, 'x'));
        EXPECT_TRUE(client.await(&SteadyStatistics::nTooLong, std::uint64_t{1}));
    }
    EXPECT_EQ(client.statistics().nConnections, 0U);
}

#endif
