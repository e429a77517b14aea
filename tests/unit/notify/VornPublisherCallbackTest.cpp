// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ClockShift.h"
#include "PublisherFixture.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornTest;
using namespace std::chrono_literals;

namespace {

using testing::ElementsAre;

/** A plain sink at a pipe or a port, and subscribers whose events go there. */
class VornPublisher_Callback : public PublisherFixture, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        openAnew();
        listen();
    }

    void TearDown() override {
        m_publisher.reset();
        m_sink.reset();
        ::unlink(pipePath("sink").c_str());
        PublisherFixture::TearDown();
    }

    void openAnew(const std::function<void(VornPublisher::Options&)>& change = [](auto&) {}) {
        m_publisher.reset();
        VornPublisher::Options options;
        options.bCallbackAddresses = true;
        options.onLeave = m_departures.handler();
        change(options);
        open(options);
    }

    void listen() {
        m_sink = GetParam() ? unixListen(pipePath("sink"), 100) : tcpListen("127.0.0.1", m_port, 100);
    }

    WireRequest request(std::uint64_t handle = 7) const {
        return {.callback = GetParam() ? "pipe:sink" : "socket:127.0.0.1:" + std::to_string(m_port),
                .handle = handle};
    }

    /** Takes the next notification: what comes until its sender ends. */
    std::string take() {
        const UniqueFd sender = acceptClient(m_sink.get());
        return receiveToEnd(sender.get());
    }

    static std::string notification(std::uint64_t handle, std::uint64_t number, const std::string& content) {
        return wireNumber(handle << 32) + wireNumber(number) + content;
    }

    UniqueFd m_sink;
    int m_port = 0;
};

INSTANTIATE_TEST_SUITE_P(Sinks, VornPublisher_Callback, testing::Bool(),
                         [](const auto& test) { return test.param ? "Pipe" : "Tcp"; });

TEST_P(VornPublisher_Callback, EventsGoToTheSink_AndTheConnectionIsTheLease) {
    const RawSubscriber subscriber(address(), "builds", request());
    EXPECT_EQ(publisher().subscribers().at(0).sCallback, request().callback);
    EXPECT_EQ(publisher().subscribers().at(0).hCallback, 7);
    for (std::uint64_t number = 1; number <= 100; ++number)
        publish("event " + std::to_string(number));
    for (std::uint64_t number = 1; number <= 100; ++number)
        ASSERT_EQ(take(), notification(7, number, "event " + std::to_string(number)));
    EXPECT_TRUE(publisher().flush(5s));
    EXPECT_EQ(publisher().subscribers().at(0).position, publisher().position("builds"));
    EXPECT_EQ(publisher().statistics().nSent, 100U);
    char byte = '\0';
    EXPECT_EQ(::recv(subscriber.fd(), &byte, 1, MSG_DONTWAIT), -1);
}

TEST_P(VornPublisher_Callback, BeginsWhereTheClientSays) {
    publish("a");
    publish("b");
    WireRequest fromTheOldest = request();
    fromTheOldest.begin = 2;
    const RawSubscriber subscriber(address(), "builds", fromTheOldest);
    EXPECT_EQ(take(), notification(7, 1, "a"));
    EXPECT_EQ(take(), notification(7, 2, "b"));
}

TEST_P(VornPublisher_Callback, AnEmptyEvent_IsItsNumber) {
    const RawSubscriber subscriber(address(), "builds", request());
    publish("");
    EXPECT_EQ(take(), notification(7, 1, ""));
}

TEST_P(VornPublisher_Callback, WhoeverFallsOut_IsToldOverTheLease) {
    openAnew([](auto& options) { options.nHistoryBytes = 4096; });
    const RawSubscriber subscriber(address(), "builds", request());
    constexpr std::uint64_t count = 1000;
    for (std::uint64_t number = 1; number <= count; ++number)
        publish(std::string(100, 'x'));
    std::uint64_t expected = 1;
    while (expected <= count) {
        const std::uint64_t number = numberOf(take(), 8);
        // What follows a gap may itself fall out before it is sent: then another gap follows at once.
        while (expected < number) {
            const WireFrame gap = subscriber.next();
            ASSERT_EQ(gap.kind, 2U);
            ASSERT_EQ(numberOf(gap.rest, 8), expected);
            ASSERT_GT(numberOf(gap.rest, 16), expected);
            expected = numberOf(gap.rest, 16);
        }
        ASSERT_EQ(number, expected);
        ++expected;
    }
    EXPECT_GE(publisher().statistics().nGaps, 1U);
}

TEST_P(VornPublisher_Callback, AGap_DoesNotMoveTheSubscribersPlacePastWhatIsOnItsWay) {
    openAnew([](auto& options) { options.nHistoryBytes = 4096; });
    const RawSubscriber subscriber(address(), "builds", request());
    for (int i = 0; i < 10; ++i)
        publish("x");
    {
        const UniqueFd first = acceptClient(m_sink.get());
        for (int i = 0; i < 1000; ++i)
            publish(std::string(100, 'x'));
        receiveToEnd(first.get());
    }
    ASSERT_TRUE(awaitCondition([&] { return publisher().statistics().nGaps >= 1; }));
    const std::uint64_t place = publisher().subscribers().at(0).position.nNumber;
    EXPECT_LT(place, numberOf(take(), 8));
}

TEST_P(VornPublisher_Callback, TheLeaseHasSignsOfLife) {
    openAnew([](auto& options) { options.beat = 20ms; });
    const RawSubscriber subscriber(address(), "builds", request());
    publish("a");
    EXPECT_EQ(take(), notification(7, 1, "a"));
    WireFrame sign = subscriber.next();
    while (sign == WireFrame::sign(0))
        sign = subscriber.next();
    EXPECT_EQ(sign, WireFrame::sign(1));
}

TEST_P(VornPublisher_Callback, WhoeverLeaves_IsSentNothingMore) {
    RawSubscriber subscriber(address(), "builds", request());
    for (int i = 0; i < 10; ++i)
        publish("x");
    const UniqueFd first = acceptClient(m_sink.get());
    subscriber.socket().reset();
    ASSERT_TRUE(m_departures.await(1));
    EXPECT_THAT(m_departures.lines(), ElementsAre("1 closed 0"));
    // What comes now is for the next one: the rest of the first one's events was taken back.
    const RawSubscriber next(address(), "builds", request(8));
    publish("for the next");
    std::string data = receiveToEnd(first.get());
    while (data != notification(8, 11, "for the next")) {
        ASSERT_THAT(data, testing::Not(testing::StartsWith(notification(7, 2, "")))) << hex(data);
        data = take();
    }
}

TEST_P(VornPublisher_Callback, OneOfTwoLeavesWhoseAddressesReadDifferently_AndTheOtherHasEachOnce) {
    RawSubscriber first(address(), "builds", request(7));
    WireRequest sameElsewhere = request(8);
    if (!GetParam())
        sameElsewhere.callback += ";a note";
    const RawSubscriber second(address(), "builds", sameElsewhere);
    publish("x");
    UniqueFd sender;
    std::string data;
    do {
        sender = acceptClient(m_sink.get());
        data = receiveToEnd(sender.get());
    } while (numberOf(data) >> 32 == 7);
    EXPECT_EQ(data, notification(8, 1, "x"));
    first.socket().reset();
    ASSERT_TRUE(m_departures.await(1));
    publish("y");
    sender.reset();
    do
        data = take();
    while (numberOf(data) >> 32 == 7);
    EXPECT_EQ(data, notification(8, 2, "y"));
}

TEST_P(VornPublisher_Callback, Stop_DeliversWhatIsLeft) {
    const RawSubscriber subscriber(address(), "builds", request());
    for (int i = 0; i < 100; ++i)
        publish("x");
    WatchedThread stopping([&] { publisher().stop(10s); });
    for (std::uint64_t number = 1; number <= 100; ++number)
        ASSERT_EQ(take(), notification(7, number, "x"));
    EXPECT_EQ(subscriber.next(), WireFrame::last(1, "the service stops"));
    ::shutdown(subscriber.fd(), SHUT_RDWR);
    EXPECT_TRUE(stopping.join());
}

TEST_P(VornPublisher_Callback, Stop_WithoutTimeGivesUpWhatIsLeft) {
    const RawSubscriber subscriber(address(), "builds", request());
    for (int i = 0; i < 100; ++i)
        publish("x");
    publisher().stop(0ms);
    EXPECT_EQ(subscriber.next(), WireFrame::last(1, "the service stops"));
}

// So many bytes take time, and it is the same over both.
using VornPublisher_CallbackOfMebibytes = VornPublisher_Callback;
INSTANTIATE_TEST_SUITE_P(Pipe, VornPublisher_CallbackOfMebibytes, testing::Values(true));

TEST_P(VornPublisher_CallbackOfMebibytes, MoreThanMayWaitForAllSinks_IsSentLater_AndBeforeTheEnd) {
    constexpr std::size_t longest = 60UL * 1024 * 1024; // of the 64 MiB that may wait
    openAnew([](auto& options) { options.nHistoryBytes = 4 * (options.nEventLimit = longest); });
    const RawSubscriber first(address(), "builds", request(1));
    const RawSubscriber second(address(), "other", request(2));
    publish(std::string(longest - 100, 'x'));
    publisher().publish("other", writing(std::string(longest / 12, 'y')));
    publisher().publish("other", writing("after it"));
    WatchedThread stopping([&] { publisher().stop(-1ms); });
    EXPECT_EQ(take().substr(0, 17), notification(1, 1, "x"));
    EXPECT_EQ(take().substr(0, 17), notification(2, 1, "y"));
    EXPECT_EQ(take(), notification(2, 2, "after it"));
    for (const RawSubscriber* subscriber : {&first, &second}) {
        EXPECT_EQ(subscriber->nextButSigns(), WireFrame::last(1, "the service stops"));
        ::shutdown(subscriber->fd(), SHUT_RDWR);
    }
    EXPECT_TRUE(stopping.join());
}

TEST_P(VornPublisher_Callback, ASinkThatTakesNothingForAMinute_EndsTheSubscription) {
    int port = 0;
    const UniqueFd taking = udpSocket("127.0.0.1", port);
    RawSubscriber subscriber(address(), "builds", request());
    const RawSubscriber other(address(), "other", {.callback = "udp:127.0.0.1:" + std::to_string(port)});
    publish("a");
    publish("b");
    const UniqueFd sender = acceptClient(m_sink.get());
    const ClockShift shift(CLOCK_MONOTONIC);
    ClockShift::set(59s);
    EXPECT_FALSE(publisher().flush(50ms));
    const auto awaitOther = [&] {
        const std::uint64_t number = publisher().publish("other", writing("no sign of the first sink"));
        return awaitCondition([&] { return publisher().subscribers().back().position.nNumber == number; });
    };
    ASSERT_TRUE(awaitOther());
    ClockShift::set(61s);
    ASSERT_TRUE(awaitOther());
    ASSERT_TRUE(awaitOther()); // the publisher has looked at all sinks since the time has come
    EXPECT_EQ(publisher().statistics().nSubscribers, 1U);
    EXPECT_EQ(subscriber.nextButSigns(), WireFrame::last(2, "the callback address does not answer"));
    subscriber.socket().reset();
    ASSERT_TRUE(m_departures.await(1));
    EXPECT_THAT(m_departures.lines(), ElementsAre("1 lost 110"));
}

TEST_P(VornPublisher_Callback, ASinkThatTakesEventsSlowly_HasAMinuteForEach) {
    const RawSubscriber subscriber(address(), "builds", request());
    publish("a");
    publish("b");
    publish("c");
    const RawSubscriber afterIt(address(), "builds", request(8)); // whose events are taken after these
    const RawSubscriber looking(address(), "builds");
    const ClockShift shift(CLOCK_MONOTONIC);
    for (std::uint64_t number = 1; number <= 3; ++number) {
        const UniqueFd sender = acceptClient(m_sink.get());
        ASSERT_TRUE(
            awaitCondition([&] { return publisher().subscribers().at(0).position.nNumber == number - 1; }));
        ClockShift::set(number * 40s);
        publish("so that the publisher looks");
        EXPECT_EQ(looking.nextButSigns().kind, 1U);
        receiveToEnd(sender.get());
    }
    for (int i = 0; i < 6; ++i)
        take();
    EXPECT_TRUE(publisher().flush(5s));
    EXPECT_THAT(m_departures.lines(), testing::IsEmpty());
}

TEST_P(VornPublisher_Callback, ASinkThatTakesTheEventsOfOneWhoHasLeft_IsThereForTheOther) {
    int port = 0;
    const UniqueFd witness = udpSocket("127.0.0.1", port);
    const RawSubscriber witnessing(address(), "other", {.callback = "udp:127.0.0.1:" + std::to_string(port)});
    // Outcomes are told in their order, so those of all that was taken before are known afterwards.
    const auto awaitOutcomes = [&] {
        const std::uint64_t number = publisher().publish("other", writing("so that the publisher looks"));
        return awaitCondition([&] { return publisher().subscribers().at(0).position.nNumber == number; });
    };
    RawSubscriber leaving(address(), "builds", request(7));
    publish("a");
    publish("b");
    const RawSubscriber staying(address(), "builds", request(8)); // whose event is taken after these
    publish("c");
    leaving.socket().reset();
    ASSERT_TRUE(m_departures.await(1));
    ASSERT_TRUE(awaitOutcomes());
    const ClockShift shift(CLOCK_MONOTONIC);
    ClockShift::set(40s);
    EXPECT_EQ(take(), notification(7, 1, "a"));
    const UniqueFd sender = acceptClient(m_sink.get());
    ASSERT_TRUE(awaitOutcomes());
    ClockShift::set(80s);
    ASSERT_TRUE(awaitOutcomes());
    EXPECT_THAT(m_departures.lines(), ElementsAre("2 closed 0"));
    EXPECT_EQ(publisher().statistics().nSubscribers, 2U);
    ClockShift::set(101s);
    publish("so that the publisher looks");
    EXPECT_EQ(staying.nextButSigns(), WireFrame::last(2, "the callback address does not answer"));
}

/** A sink that takes datagrams, into which an event may not fit. */
class VornPublisher_CallbackByDatagram : public PublisherFixture {
protected:
    static constexpr std::size_t cLongestContent = 65507 - 2 * sizeof(std::uint64_t);

    void SetUp() override {
        VornPublisher::Options options;
        options.bCallbackAddresses = true;
        open(options);
        m_sink = udpSocket("127.0.0.1", m_port);
        m_lease = RawSubscriber(address(), "builds",
                                {.callback = "udp:127.0.0.1:" + std::to_string(m_port), .handle = 7});
    }

    void TearDown() override {
        m_lease.socket().reset();
        m_sink.reset();
        PublisherFixture::TearDown();
    }

    UniqueFd m_sink;
    int m_port = 0;
    RawSubscriber m_lease;
};

TEST_F(VornPublisher_CallbackByDatagram, AnEventThatIsTooLong_IsAGapOverTheLease) {
    const std::string longest(cLongestContent, 'x');
    publish(longest);
    publish(longest + "x");
    publish("after it");
    EXPECT_EQ(receiveDatagram(m_sink.get()), wireNumber(7UL << 32) + wireNumber(1) + longest);
    EXPECT_EQ(receiveDatagram(m_sink.get()), wireNumber(7UL << 32) + wireNumber(3) + "after it");
    EXPECT_EQ(m_lease.next(), WireFrame::gap(m_lease.place.history, 2, 3));
    EXPECT_TRUE(publisher().flush(5s));
    EXPECT_EQ(publisher().subscribers().at(0).position, publisher().position("builds"));
    publish(longest + "x");
    EXPECT_EQ(m_lease.next(), WireFrame::gap(m_lease.place.history, 4, 5));
    EXPECT_TRUE(publisher().flush(5s));
    const VornPublisher::Statistics statistics = publisher().statistics();
    EXPECT_EQ(statistics.nSent, 2U);
    EXPECT_EQ(statistics.nGaps, 2U);
    EXPECT_EQ(statistics.nMissed, 2U);
}

TEST_F(VornPublisher_CallbackByDatagram, WhoeverDoesNotReadItsGaps_IsToldThemLater) {
    const std::string tooLong(cLongestContent + 1, 'x');
    std::uint64_t published = 0;
    {
        const FaultRule full("send", EAGAIN, 1, FaultRule::always);
        do
            published = publish(tooLong);
        while (publisher().flush(50ms) && published < 1000);
    }
    EXPECT_LT(published, 1000U) << "its gaps gather in the publisher";
    std::uint64_t expected = 1;
    while (expected <= published) {
        const WireFrame gap = m_lease.next();
        ASSERT_EQ(gap, WireFrame::gap(m_lease.place.history, expected, numberOf(gap.rest, 16)));
        expected = numberOf(gap.rest, 16);
    }
    EXPECT_TRUE(publisher().flush(5s));
}

} // namespace
