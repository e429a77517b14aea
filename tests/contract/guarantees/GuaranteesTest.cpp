// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Experiments.h"
#include "LeakCheckedTest.h"

#include <set>

#include <gmock/gmock.h>

using namespace Guarantees;
using testing::AnyOf;
using testing::Eq;
using testing::Key;

/**
 * @file
 * What docs/guarantees.md claims, without its figures: those depend on the machine.
 */
namespace {

class NotificationGuarantees : public VornTest::NotificationTest {};

class NotificationGuaranteesOfAnyKind : public NotificationGuarantees,
                                        public testing::WithParamInterface<Kind> {};

std::string testName(const testing::TestParamInfo<Kind>& info) {
    return VornTest::nameOf(info.param);
}

constexpr int cBurst = 30;

Order burst() {
    Order order;
    order.count = cBurst;
    return order;
}

/** The codes by which one of a burst may be refused. */
std::vector<int> refusalsOf(Kind kind) {
    switch (kind) {
    case Kind::pipe:
        return {ENOENT, ECONNREFUSED, EPIPE, ECONNRESET};
    case Kind::socket:
        return {ECONNREFUSED, EPIPE, ECONNRESET};
    case Kind::udp:
        break;
    }
    return {};
}

} // namespace

INSTANTIATE_TEST_SUITE_P(All, NotificationGuaranteesOfAnyKind,
                         testing::Values(Kind::pipe, Kind::socket, Kind::udp), testName);

TEST_P(NotificationGuaranteesOfAnyKind,
       NotificationOfABurst_ArrivesOnceInItsOrderOrIsLostOrRefusedByACodeOfItsKind) {
    const Delivery delivery = deliver(GetParam(), burst());
    const std::set<int> different(delivery.received.begin(), delivery.received.end());
    const std::set<int> sent(delivery.sender.sent.begin(), delivery.sender.sent.end());
    EXPECT_GE(delivery.received.size(), 1U);
    EXPECT_EQ(delivery.received, std::vector<int>(different.begin(), different.end()));
    for (const int id : delivery.received)
        EXPECT_EQ(sent.count(id), 1U) << id << " threw";
    int refused = 0;
    for (const auto& [code, count] : delivery.sender.refused) {
        EXPECT_THAT(code, testing::AnyOfArray(refusalsOf(GetParam())));
        refused += count;
    }
    EXPECT_EQ(static_cast<int>(delivery.received.size()) + delivery.lostSilently() + refused, cBurst);
}

TEST_P(NotificationGuaranteesOfAnyKind, SlowCallback_ReceivesEachAtMostOnce) {
    Order order;
    order.count = 20;
    order.pauseMicros = 2000;
    Callback slow;
    slow.milliseconds = 10;
    const Delivery delivery = deliver(GetParam(), order, slow);
    const std::set<int> different(delivery.received.begin(), delivery.received.end());
    EXPECT_EQ(delivery.received.size(), different.size());
}

TEST_F(NotificationGuarantees, CallbackThatReturnsBeforeTheEnd_IsCalledAgainWithTheNextTry) {
    Order order;
    order.payload = 4 << 20; // more than a socket holds: the sender still writes when the callback returns
    order.mostTries = 2;
    const Delivery delivery = deliver(Kind::pipe, order, Callback{false, 0, false});
    EXPECT_THAT(delivery.sender.refused,
                testing::UnorderedElementsAre(Key(AnyOf(Eq(EPIPE), Eq(ECONNRESET)))));
    EXPECT_EQ(delivery.received, (std::vector<int>{0, 0}));
}

TEST_F(NotificationGuarantees, RefusalOfAPipeThatReopens_PassesWithRetries) {
    Order order = burst();
    order.mostTries = 500;
    EXPECT_THAT(deliver(Kind::pipe, order).sender.refused, testing::IsEmpty());
}

TEST_F(NotificationGuarantees, AddressOfAMovedSink_RefusesWhoKeepsIt) {
    Order order;
    order.count = 2;
    order.holdsForPeer = true;
    order.pauseMicros = 20000;
    order.mostTries = 5;
    const Delivery delivery = deliver(Kind::socket, order, {false, 0});
    EXPECT_EQ(delivery.received, std::vector<int>{0});
    EXPECT_NE(delivery.addressBefore, delivery.addressAfter);
}

TEST_P(NotificationGuaranteesOfAnyKind, StuckSink_LetsAHandfulOnStreamsAndAllDatagramsSucceed) {
    constexpr int cMost = 20;
    const int sent = sentToStuckSink(GetParam(), cMost);
    EXPECT_EQ(sent == cMost, GetParam() == Kind::udp) << sent;
}
