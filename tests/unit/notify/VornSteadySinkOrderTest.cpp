// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * Callbacks come in the order in which connections were accepted, as far as their notifications are complete.
 */

#include "Interpose.h"
#include "SteadySinkPeer.h"

#include <gmock/gmock.h>

using namespace VornTest;

namespace {

using testing::ElementsAre;
using testing::Values;

class VornSteadySink_Order : public NotificationTestOfKind {};

INSTANTIATE_TEST_SUITE_P(Kind, VornSteadySink_Order, Values(Kind::pipe, Kind::socket),
                         testing::PrintToStringParamName());

void complete(int fd, const std::string& content) {
    sendAll(fd, onWire(0) + content);
    endSending(fd);
}

} // namespace

TEST_P(VornSteadySink_Order, AnOlderOneThatBecomesCompleteWhileAYoungerIsRead_IsCalledFirst) {
    const SteadyClient client(optionsFor(GetParam()));
    const UniqueFd first = connectToSink(client.address());
    const UniqueFd second = connectToSink(client.address());
    ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{2}));
    {
        // The sink has asked for events, and finds the third sender; now the second completes, then the
        // first.
        const CallHook atAccept("accept4", [&] {
            complete(first.get(), "first");
            complete(second.get(), "second");
        });
        EXPECT_EQ(deliverTo(client.address(), "third"), "end");
    }
    EXPECT_EQ(endingOf(first.get()), "end");
    EXPECT_EQ(endingOf(second.get()), "end");
    EXPECT_THAT(client.callback()->contents(), ElementsAre("first", "second", "third"));
}

TEST_P(VornSteadySink_Order, AnOlderOneThatIsFoundCompleteAgainAfterAnother_IsCalledFirst) {
    const SteadyClient client(optionsFor(GetParam()));
    const UniqueFd first = connectToSink(client.address());
    const UniqueFd second = connectToSink(client.address());
    ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{2}));
    int waits = 0;
    {
        // The look for older ones finds the second; only then the first completes as well.
        const CallHook atWait(
            "epoll_wait",
            [&] {
                if (++waits == 1)
                    complete(second.get(), "second");
                else if (waits == 2)
                    complete(first.get(), "first");
            },
            2);
        const CallHook atAccept("accept4", [] {});
        EXPECT_EQ(deliverTo(client.address(), "third"), "end");
    }
    EXPECT_EQ(endingOf(first.get()), "end");
    EXPECT_EQ(endingOf(second.get()), "end");
    EXPECT_THAT(client.callback()->contents(), ElementsAre("first", "second", "third"));
}

TEST_P(VornSteadySink_Order, AmongManyThatAreNotComplete_TheOneThatIsIsCalled) {
    const SteadyClient client(optionsFor(GetParam()));
    HeldCall atWait("epoll_wait");
    const UniqueFd first = connectToSink(client.address());
    ASSERT_TRUE(atWait.awaitReached());
    std::vector<UniqueFd> halves;
    for (int i = 0; i < 40; ++i) {
        halves.push_back(connectToSink(client.address()));
        sendAll(halves.back().get(), onWire(0) + "half");
    }
    const UniqueFd whole = sendNotification(client.address(), "whole");
    atWait.open();
    EXPECT_EQ(endingOf(whole.get()), "end");
    EXPECT_THAT(client.callback()->contents(), ElementsAre("whole"));
}

TEST_P(VornSteadySink_Order, WhatWaits_IsCalledInTheOrderOfAcceptance) {
    HeldCallback held;
    const SteadyClient client(optionsFor(GetParam()), held.action());
    const UniqueFd running = sendNotification(client.address(), "running");
    ASSERT_TRUE(held.awaitEntered());
    std::vector<UniqueFd> senders;
    for (int i = 0; i < 5; ++i)
        senders.push_back(connectToSink(client.address()));
    for (int i = 4; i >= 0; --i) {
        complete(senders[static_cast<std::size_t>(i)].get(), std::to_string(i));
        ASSERT_TRUE(client.await(&SteadyStatistics::nWaiting, static_cast<std::size_t>(6 - i)));
    }
    held.letGoOn();
    for (const UniqueFd& sender : senders)
        EXPECT_EQ(endingOf(sender.get()), "end");
    EXPECT_THAT(client.callback()->contents(), ElementsAre("running", "0", "1", "2", "3", "4"));
}

TEST_P(VornSteadySink_Order, AYoungerOne_DoesNotWaitForAnOlderThatIsNotComplete) {
    const SteadyClient client(optionsFor(GetParam()));
    const UniqueFd half = beginNotification(client.address(), "half");
    EXPECT_EQ(deliverTo(client.address(), "whole"), "end");
    EXPECT_THAT(client.callback()->contents(), ElementsAre("whole"));
}

TEST_P(VornSteadySink_Order, AtTheByteLimit_AYoungerThatIsCompleteWaitsForAnOlderThatIsHeldBack) {
    HeldCallback held;
    const SteadyClient client(optionsFor(GetParam(), [](auto& o) { o.nByteLimit = 600; }), held.action());
    const UniqueFd running = sendNotification(client.address(), "running");
    ASSERT_TRUE(held.awaitEntered());
    const UniqueFd large = connectToSink(client.address());
    const UniqueFd small = connectToSink(client.address());
    ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{3}));
    complete(large.get(), std::string(1000, 'l'));
    complete(small.get(), "");
    EXPECT_TRUE(client.await(&SteadyStatistics::nWaiting, std::size_t{2})); // the running and the small one
    held.letGoOn();
    EXPECT_EQ(endingOf(small.get()), "end");
    EXPECT_THAT(client.callback()->contents(), ElementsAre("running", std::string(1000, 'l'), ""));
}
