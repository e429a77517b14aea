// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * What a sink takes at most, and what becomes of the rest.
 */

#include "ClockShift.h"
#include "Interpose.h"
#include "SteadySinkPeer.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>

using namespace VornTest;
using namespace std::chrono_literals;

namespace {

using testing::ElementsAre;
using testing::Values;

class VornSteadySink_Limits : public NotificationTestOfKind {};

class VornSteadySink_Datagrams : public NotificationTest {};

INSTANTIATE_TEST_SUITE_P(Kind, VornSteadySink_Limits, Values(Kind::pipe, Kind::socket),
                         testing::PrintToStringParamName());

/** The most descriptors that this process may have, while it exists. */
class DescriptorLimit {
public:
    explicit DescriptorLimit(rlim_t count) {
        ::getrlimit(RLIMIT_NOFILE, &m_before);
        const rlimit limit{count, m_before.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }

    ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &m_before); }

    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    rlimit m_before{};
};

/** Connects without waiting for the connection. */
UniqueFd beginToConnect(const std::string& address) {
    return connectToSink(address); // the system's queue takes it
}

} // namespace

TEST_P(VornSteadySink_Limits, AtTheByteLimit_TheRestWaitsAtItsSendersAndArrivesInOrder) {
    HeldCallback held;
    SteadyOptions options = optionsFor(GetParam());
    options.nByteLimit = 1000;
    options.readLimit = 200ms;
    const SteadyClient client(options, held.action());
    std::vector<UniqueFd> senders;
    std::vector<std::string> contents;
    for (int i = 0; i < 10; ++i) {
        contents.push_back(std::string(400, static_cast<char>('a' + i)));
        senders.push_back(sendNotification(client.address(), contents.back()));
    }
    ASSERT_TRUE(held.awaitEntered());
    ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{10}));
    ASSERT_TRUE(
        client.await(&SteadyStatistics::nWaiting, std::size_t{2})); // 816 bytes; 1224 would be too many
    letPass(400ms); // longer than the read limit: it is not the senders who are late
    EXPECT_EQ(client.statistics().nWaiting, 2U);
    EXPECT_EQ(client.statistics().nTimedOut, 0U);
    held.letGoOn();
    for (const UniqueFd& sender : senders)
        EXPECT_EQ(endingOf(sender.get()), "end");
    EXPECT_EQ(client.callback()->contents(), contents);
}

TEST_P(VornSteadySink_Limits, WhenTheTimeOfDayJumps_NobodyIsCutEarlyOrLate) {
    const SteadyClient client(optionsFor(GetParam(), [](auto& o) { o.readLimit = 600ms; }));
    const ClockShift shift(CLOCK_REALTIME);
    for (const std::chrono::seconds ahead : {24h, -24h}) {
        const UniqueFd sender = connectToSink(client.address());
        ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{1}));
        ClockShift::set(ahead);
        sendAll(sender.get(), onWire(0) + "content");
        endSending(sender.get());
        EXPECT_EQ(endingOf(sender.get()), "end");
    }
    EXPECT_EQ(client.statistics().nTimedOut, 0U);
    const UniqueFd silent = connectToSink(client.address());
    EXPECT_TRUE(client.await(&SteadyStatistics::nTimedOut, std::uint64_t{1}));
    EXPECT_EQ(client.statistics().nDelivered, 2U);
}

TEST_P(VornSteadySink_Limits, ANotificationAboveTheByteLimit_IsReadOnByItself) {
    const SteadyClient client(optionsFor(GetParam(), [](auto& o) { o.nByteLimit = 10; }));
    for (const std::size_t size : {11U, 100'000U}) {
        HeldCall accepting("accept4"); // so that the shorter one is there at once
        const UniqueFd sender = sendNotification(client.address(), std::string(size, 'x'));
        accepting.open();
        EXPECT_EQ(endingOf(sender.get()), "end");
        EXPECT_EQ(client.callback()->contents().back(), std::string(size, 'x'));
    }
}

TEST_P(VornSteadySink_Limits, SilentSenders_AreEachCutAtTheirOwnTime) {
    const SteadyClient client(optionsFor(GetParam(), [](auto& o) { o.readLimit = 100ms; }));
    const UniqueFd first = connectToSink(client.address());
    letPass(50ms);
    const auto start = std::chrono::steady_clock::now();
    const UniqueFd second = connectToSink(client.address());
    endingOf(first.get());
    endingOf(second.get());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);
    EXPECT_EQ(client.statistics().nTimedOut, 2U);
}

TEST_P(VornSteadySink_Limits, WhenHalfReadOnesHoldAllBytes_OneAfterTheOtherIsReadOn) {
    const SteadyClient client(optionsFor(GetParam(), [](auto& o) { o.nByteLimit = 1000; }));
    std::vector<UniqueFd> senders;
    for (int i = 0; i < 5; ++i) {
        senders.push_back(connectToSink(client.address()));
        sendAll(senders.back().get(), onWire(0) + std::string(400, 'x'));
    }
    ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{5}));
    for (const UniqueFd& sender : senders) {
        sendAll(sender.get(), std::string(400, 'y'));
        endSending(sender.get());
    }
    for (const UniqueFd& sender : senders)
        EXPECT_EQ(endingOf(sender.get()), "end");
    EXPECT_EQ(client.statistics().nDelivered, 5U);
}

TEST_P(VornSteadySink_Limits, WhenOneThatHoldsAllBytesIsCut_ThoseThatWaitedGoOn) {
    const SteadyClient client(optionsFor(GetParam(), [](auto& o) {
        o.nByteLimit = 1000;
        o.readLimit = 200ms;
    }));
    const UniqueFd silent = connectToSink(client.address());
    sendAll(silent.get(), onWire(0) + std::string(2000, 'x')); // it is read above the limit, and does not end
    ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{1}));
    EXPECT_EQ(deliverTo(client.address(), "content"), "end");
    EXPECT_EQ(endingOf(silent.get()), "reset");
    EXPECT_EQ(client.statistics().nTimedOut, 1U);
}

TEST_P(VornSteadySink_Limits, BurstsAboveTheByteLimit_ArriveInOrder) {
    const SteadyClient client(optionsFor(GetParam(), [](auto& o) { o.nByteLimit = 3000; }));
    WatchedThread sender([&] {
        for (int i = 0; i < 1000; ++i)
            sendByHand(client.address(), onWire(0) +
                                             std::string(static_cast<std::size_t>(i) * 37 % 2000, 'x') +
                                             std::to_string(i));
    });
    ASSERT_TRUE(sender.join(std::chrono::seconds(30)));
    ASSERT_TRUE(client.await(&SteadyStatistics::nDelivered, std::uint64_t{1000}))
        << client.statistics().nWaiting;
    const std::vector<std::string> contents = client.callback()->contents();
    for (std::size_t i = 0; i < contents.size(); ++i)
        ASSERT_EQ(contents[i], std::string(i * 37 % 2000, 'x') + std::to_string(i));
}

TEST_P(VornSteadySink_Limits, AtTheConnectionLimit_OthersWaitInTheSystemsQueue) {
    HeldCallback held;
    const SteadyClient client(optionsFor(GetParam(), [](auto& o) { o.nConnectionLimit = 3; }), held.action());
    std::vector<UniqueFd> senders;
    for (int i = 0; i < 20; ++i)
        senders.push_back(sendNotification(client.address(), std::to_string(i)));
    ASSERT_TRUE(held.awaitEntered());
    ASSERT_TRUE(client.await(&SteadyStatistics::nWaiting, std::size_t{3}));
    letPass(100ms);
    EXPECT_EQ(client.statistics().nConnections, 3U);
    held.letGoOn();
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(endingOf(senders[static_cast<std::size_t>(i)].get()), "end");
    EXPECT_EQ(client.callback()->contents().back(), "19");
}

TEST_P(VornSteadySink_Limits, WithoutAConnectionLimit_ItIsHalfTheDescriptors) {
    const DescriptorLimit limit(60);
    const SteadyClient client(optionsFor(GetParam()));
    std::vector<UniqueFd> senders;
    {
        const DescriptorLimit more(200); // for the senders, which are in this process
        for (int i = 0; i < 40; ++i)
            senders.push_back(beginToConnect(client.address()));
        ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{30}));
        letPass(50ms);
        EXPECT_EQ(client.statistics().nConnections, 30U);
        senders.clear();
        ASSERT_TRUE(client.await(&SteadyStatistics::nIncomplete, std::uint64_t{40}));
    }
}

TEST_P(VornSteadySink_Limits, SilentSenders_DelayNobody) {
    const SteadyClient client(optionsFor(GetParam()));
    std::vector<UniqueFd> silent;
    for (int i = 0; i < 100; ++i)
        silent.push_back(connectToSink(client.address()));
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(deliverTo(client.address(), "content"), "end");
    EXPECT_EQ(client.statistics().nConnections, 100U);
}

TEST_P(VornSteadySink_Limits, WithoutDescriptors_ItPausesAndGoesOnWhenThereAreSome) {
    const SteadyClient client(optionsFor(GetParam()));
    const UniqueFd before = connectToSink(client.address());
    ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{1}));
    UniqueFd late;
    {
        const FaultRule none("accept4", EMFILE, 1, FaultRule::always);
        late = sendNotification(client.address(), "late");
        ASSERT_TRUE(awaitCondition([&] { return none.failures() >= 2; }));
        sendAll(before.get(), onWire(0) + "before"); // who is there goes on
        endSending(before.get());
        EXPECT_EQ(endingOf(before.get()), "end");
        const int failures = none.failures();
        letPass(500ms);
        EXPECT_LE(none.failures() - failures, 6);
    }
    EXPECT_EQ(endingOf(late.get()), "end");
    EXPECT_THAT(client.callback()->contents(), ElementsAre("before", "late"));
}

TEST_P(VornSteadySink_Limits, AnIdleSink_UsesNoProcessor) {
    const SteadyClient client(optionsFor(GetParam()));
    const UniqueFd silent = connectToSink(client.address());
    const UniqueFd half = beginNotification(client.address(), "half");
    ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{2}));
    const CallTrace trace;
    letPass(1500ms);
    EXPECT_LE(trace.records().size(), 20U); // a pipe's file is looked at each second
}

TEST_F(VornSteadySink_Datagrams, AnEmptyOrShortOne_IsCountedAndIgnored) {
    const SteadyClient client(optionsFor(Kind::udp));
    for (std::size_t size = 0; size < 8; ++size)
        sendByHand(client.address(), std::string(size, '\0'));
    sendByHand(client.address(), onWire(0));
    ASSERT_TRUE(client.callback()->awaitCalls(1));
    EXPECT_EQ(client.statistics().nIncomplete, 8U);
    EXPECT_EQ(client.statistics().nConnections, 0U);
}

TEST_F(VornSteadySink_Datagrams, OneThatIsTooLong_IsCountedAndIgnored) {
    const SteadyClient client(optionsFor(Kind::udp, [](auto& o) { o.nMessageLimit = 100; }));
    sendByHand(client.address(), onWire(0) + std::string(93, 'x'));
    sendByHand(client.address(), onWire(0) + std::string(92, 'x'));
    ASSERT_TRUE(client.callback()->awaitCalls(1));
    EXPECT_EQ(client.statistics().nTooLong, 1U);
    EXPECT_EQ(client.callback()->contents().front().size(), 92U);
}

TEST_F(VornSteadySink_Datagrams, TheSocket_AsksForABufferOf4MiB) {
    const CallTrace trace;
    const SteadyClient client(optionsFor(Kind::udp));
    const auto options = trace.records("setsockopt");
    ASSERT_EQ(options.size(), 1U);
    EXPECT_EQ(options[0].third, SO_RCVBUF);
}

TEST_F(VornSteadySink_Datagrams, AtTheByteLimit_TheyWaitInTheSocket) {
    HeldCallback held;
    const SteadyClient client(optionsFor(Kind::udp, [](auto& o) { o.nByteLimit = 1000; }), held.action());
    for (int i = 0; i < 10; ++i)
        sendByHand(client.address(), onWire(0) + std::string(392, 'x'));
    ASSERT_TRUE(held.awaitEntered());
    ASSERT_TRUE(client.await(&SteadyStatistics::nWaiting, std::size_t{3}));
    letPass(100ms);
    EXPECT_EQ(client.statistics().nWaiting, 3U);
    held.letGoOn();
    ASSERT_TRUE(client.callback()->awaitCalls(10));
}

TEST_F(VornSteadySink_Datagrams, ManyThousandsThatWait_AreCalledAll) {
    constexpr std::size_t cMost = 65'536;
    HeldCallback held;
    const SteadyClient client(optionsFor(Kind::udp), held.action());
    const Target target(client.address());
    int port = 0;
    const UniqueFd sender = udpSocket("127.0.0.1", port);
    const std::string bytes = onWire(0);
    for (std::size_t nSent = 1; nSent <= cMost + 100; ++nSent) {
        udpSendTo(sender.get(), target.place, target.port, bytes);
        if (nSent % 100 != 0)
            continue; // more might not fit into the socket
        ASSERT_TRUE(awaitCondition([&] { return client.statistics().nWaiting >= std::min(nSent, cMost); }));
    }
    held.letGoOn();
    EXPECT_TRUE(client.callback()->awaitCalls(static_cast<int>(cMost) + 100));
}

TEST_F(VornSteadySink_Datagrams, AFailingSocket_IsTriedAgain) {
    const SteadyClient client(optionsFor(Kind::udp));
    {
        const FaultRule failing("recvmsg", ENOMEM, 1, 2);
        sendByHand(client.address(), onWire(0));
        ASSERT_TRUE(client.callback()->awaitCalls(1));
        EXPECT_EQ(failing.failures(), 2);
    }
}
