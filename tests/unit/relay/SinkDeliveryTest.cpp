// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SinkDelivery.h"

#include "Await.h"
#include "Interpose.h"
#include "Posix.h"
#include "Process.h"
#include "Sandbox.h"
#include "ScriptedEngine.h"

#include <VornNotificationCallback.h>
#include <VornSteadySink.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornRelay;
using namespace VornSupport;
using namespace VornTest;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using Answer = Engine::Answer;

namespace {

/** Counts its calls, and returns from each when it may. */
class GatedCallback : public VornNotificationCallback {
public:
    using VornNotificationCallback::VornNotificationCallback;

    void doCallback(VornSmartPointer<VornConnection>&) override {
        ++nCalls;
        awaitCondition([this] { return bMayReturn.load(); });
    }

    std::atomic<int> nCalls{0};
    std::atomic<bool> bMayReturn{true};
};

/** A sink of this process with two callbacks. */
struct Client {
    Client() : spCallback(addTo(sink)), spOther(addTo(sink)) {}

    static GatedCallback* addTo(VornSteadySink& sink) {
        auto* pCallback = new GatedCallback(sink.getCallbackContainer().getNewId());
        sink.getCallbackContainer().add(pCallback);
        return pCallback;
    }

    VornSteadySink sink{"client"};
    VornSmartPointer<GatedCallback> spCallback;
    VornSmartPointer<GatedCallback> spOther;
};

/** The client's side of host "h"; its loop runs on the test's thread, in runUntil(). */
class SinkDeliveryTest : public testing::Test {
protected:
    SinkDeliveryTest() {
        m_settings.access.sHost = "h";
        m_settings.sStateDirectory = "/opt/delivery-" + std::to_string(::getpid());
        std::filesystem::remove_all(m_settings.sStateDirectory);
        std::filesystem::create_directories(m_settings.sStateDirectory);
        start();
    }

    void start() {
        m_spLoop = std::make_unique<RelayLoop>();
        m_spDelivery = std::make_unique<SinkDelivery>(*m_spLoop, m_engine, m_settings, m_counters);
        m_deliveries.clear();
        m_spDelivery->setConnected(true);
    }

    /** As after a kill: what was not stored has gone, files are as they were. */
    void restart() {
        m_spDelivery.reset();
        m_engine.reset();
        m_counters = RelayCounters();
        start();
    }

    /** Has TCP sinks of this host be notified, and waits for none that is away. */
    void redirectPorts() {
        m_settings.redirectAddresses = {{"h", "127.0.0.1"}};
        m_settings.patience = std::chrono::milliseconds(1);
        restart();
    }

    std::uint32_t grant(const std::string& sName, const std::string& sAddress, int nHandle) {
        Lease lease;
        lease.sName = sName;
        lease.sAddress = sAddress;
        lease.nHandle = nHandle;
        return m_spDelivery->grant(lease).nNumber;
    }

    std::uint32_t grant(const std::string& sName, const Client& client) {
        return grant(sName, client.sink.getCallbackAddress().c_str(), client.spCallback->getId());
    }

    /** Has the n-th notification of host "s" arrive, with the receipt "r<n>". */
    void arrive(std::uint32_t nSink, std::uint64_t n, const std::string& sVersion = "1") {
        const bool bIsNamed = LeaseTable::isNamedNumber(nSink);
        const char* szKind = bIsNamed ? ".keep." : LeaseTable::isPort(nSink) ? ".sink.tcp." : ".sink.lease.";
        const std::string sNumber = std::to_string(nSink);
        Engine::Message message{
            "vorn.to.h" + (szKind + sNumber),
            {{"Nats-Msg-Id", idOf("s", {1, n})}, {"Vorn-From", "s"}, {"Vorn-Version", sVersion}},
            bytes("00 00 00 07 00 00 00 00")};
        const std::string sConsumer = bIsNamed ? "keep-" + sNumber : "relay";
        m_spDelivery->reader().arrived(
            {sConsumer, "r" + std::to_string(n), n, ++m_deliveries[sConsumer], std::move(message)});
    }

    bool runUntil(const std::function<bool()>& condition) { return VornTest::runUntil(*m_spLoop, condition); }

    /** Has a notification arrive, and its callback called, which does not return before it may. */
    void occupy(std::uint32_t nLease, std::uint64_t n, GatedCallback& callback) {
        callback.bMayReturn = false;
        arrive(nLease, n);
        EXPECT_TRUE(runUntil([&] { return callback.nCalls == 1; }));
    }

    /** Has the loop look at what is under way, more than once. */
    void awaitLooks() {
        bool bOver = false;
        m_spLoop->after(std::chrono::milliseconds(600), [&] { bOver = true; });
        runUntil([&] { return bOver; });
    }

    /** @return the reason of the oldest dead letter that is not stored. */
    std::string reason() const { return std::string(m_engine.published(0).header("Vorn-Reason")); }

    RelaySettings m_settings;
    RelayCounters m_counters;
    ScriptedEngine m_engine;
    std::map<std::string, std::uint64_t> m_deliveries; // by consumer
    std::unique_ptr<RelayLoop> m_spLoop;
    std::unique_ptr<SinkDelivery> m_spDelivery;
};

std::uint32_t segmentsThatCame(const UniqueFd& connection) {
    tcp_info info{};
    socklen_t nSize = sizeof info;
    ::getsockopt(connection.get(), IPPROTO_TCP, TCP_INFO, &info, &nSize);
    return info.tcpi_segs_in;
}

constexpr int cNoCallback = 99;
constexpr std::chrono::milliseconds cAtOnce{-1};

} // namespace

/** A TCP sink of plain calls that takes one notification. */
KIT_ROLE(portSink) {
    int nPort = std::stoi(args.at(0));
    const UniqueFd listener = tcpListen("127.0.0.1", nPort);
    std::cout << "listens" << std::endl;
    receiveToEnd(acceptClient(listener.get()).get());
    return 0;
}

TEST_F(SinkDeliveryTest, WhatACallbackHasTaken_IsAcknowledgedAndNotDeliveredAgain) {
    Client client;
    const std::uint32_t nLease = grant("", client);
    arrive(nLease, 1);
    EXPECT_TRUE(runUntil([&] { return !m_engine.acknowledged.empty(); }));
    restart();
    arrive(nLease, 1);
    EXPECT_TRUE(runUntil([&] { return !m_engine.acknowledged.empty(); }));
    EXPECT_EQ(client.spCallback->nCalls, 1);
    EXPECT_EQ(m_counters.nSkipped, 1U);
}

TEST_F(SinkDeliveryTest, WhatIsRefused_ComesAgainUntilItsDeadLetterIsStored) {
    Client client;
    const std::uint32_t nLease = grant("", client.sink.getCallbackAddress().c_str(), cNoCallback);
    arrive(nLease, 1);
    ASSERT_TRUE(runUntil([&] { return m_engine.unanswered() == 1; }));
    EXPECT_EQ(reason(), "refused");
    restart();
    arrive(nLease, 1);
    ASSERT_TRUE(runUntil([&] { return m_engine.unanswered() == 1 || m_counters.nSkipped == 1; }));
    ASSERT_EQ(m_counters.nSkipped, 0U) << "it is neither delivered nor a dead letter";
    m_engine.answer(Answer::stored);
    EXPECT_THAT(m_engine.acknowledged, ElementsAre("r1"));
    restart();
    arrive(nLease, 1);
    EXPECT_TRUE(runUntil([&] { return m_counters.nSkipped == 1; }));
}

TEST_F(SinkDeliveryTest, AfterARefusedOne_TheNextIsDeliveredWhenItsDeadLetterIsStored) {
    Client client;
    const std::uint32_t nLease = grant("n", client.sink.getCallbackAddress().c_str(), cNoCallback);
    arrive(nLease, 1);
    arrive(nLease, 2);
    ASSERT_TRUE(runUntil([&] { return m_engine.unanswered() == 1; }));
    grant("n", client);
    EXPECT_EQ(m_spDelivery->queueOf(nLease).nWaiting, 2U);
    m_engine.answer(Answer::stored);
    EXPECT_TRUE(runUntil([&] { return m_engine.acknowledged.size() == 2; }));
    EXPECT_THAT(m_engine.acknowledged, ElementsAre("r1", "r2"));
    EXPECT_EQ(client.spCallback->nCalls, 1);
}

TEST_F(SinkDeliveryTest, LeaseThatEndsWhileADeadLetterIsUnderWay_BuriesTheRestAfterIt) {
    Client client;
    const std::uint32_t nLease = grant("", client.sink.getCallbackAddress().c_str(), cNoCallback);
    arrive(nLease, 1);
    arrive(nLease, 2);
    ASSERT_TRUE(runUntil([&] { return m_engine.unanswered() == 1; }));
    m_spDelivery->end(nLease);
    m_engine.answer(Answer::stored);
    ASSERT_EQ(m_engine.unanswered(), 1U);
    EXPECT_EQ(reason(), "gone");
    m_engine.answer(Answer::stored);
    EXPECT_THAT(m_engine.acknowledged, ElementsAre("r1", "r2"));
    EXPECT_TRUE(m_spDelivery->isIdle());
}

TEST_F(SinkDeliveryTest, WhatIsSentToAReleasedName_IsADeadLetterAndTold) {
    Client client;
    const std::uint32_t nLease = grant("n", client);
    const std::string sReader =
        "keep-" + std::to_string(nLease) + " vorn.to.h.keep." + std::to_string(nLease);
    m_spDelivery->end(nLease);
    m_spDelivery->reader().pullEnded("keep-" + std::to_string(nLease));
    EXPECT_THAT(m_engine.closed, IsEmpty()) << "somebody may not have heard of it";
    for (const bool bRestart : {false, true}) {
        SCOPED_TRACE(bRestart);
        if (bRestart)
            restart();
        EXPECT_THAT(m_engine.opened, Contains(sReader));
        m_engine.told.clear();
        arrive(nLease, 1);
        ASSERT_EQ(m_engine.unanswered(), 1U);
        EXPECT_EQ(reason(), "gone");
        EXPECT_THAT(m_engine.told, ElementsAre("vorn.gone.h " + std::to_string(nLease)));
        m_engine.answer(Answer::stored);
        EXPECT_THAT(m_engine.acknowledged, ElementsAre("r1"));
    }
}

TEST_F(SinkDeliveryTest, LeaseThatHasEnded_LeavesNothingInTheJournal) {
    Client client;
    const std::string sJournal = m_settings.sStateDirectory + "/journal";
    for (std::uint64_t n = 1; n <= 3; ++n) {
        const std::uint32_t nLease = grant("", client);
        arrive(nLease, n);
        EXPECT_TRUE(runUntil([&] { return m_engine.acknowledged.size() == n; }));
        if (n < 3)
            m_spDelivery->end(nLease);
    }
    EXPECT_EQ(Journal(sJournal).size(), 1U);
    // As if the relay had been killed in the middle of ending the last one.
    m_spDelivery.reset();
    std::filesystem::remove(m_settings.sStateDirectory + "/leases");
    restart();
    EXPECT_EQ(Journal(sJournal).size(), 0U);
}

TEST_F(SinkDeliveryTest, OfVeryManyReleasedNames_TheOldestIsReadToItsEnd) {
    Client client;
    const std::uint32_t nOldest = grant("n", client);
    m_spDelivery->end(nOldest);
    for (std::size_t n = 0; n < LeaseTable::cMostEndedNames; ++n)
        m_spDelivery->end(grant("n", client));
    const std::string sOldest = "keep-" + std::to_string(nOldest);
    m_spDelivery->reader().pullEnded(sOldest);
    EXPECT_THAT(m_engine.closed, ElementsAre(sOldest));
}

TEST_F(SinkDeliveryTest, LeaseThatEnds_LeavesTheCallbackOfAnotherOneAtThatAddressAlone) {
    Client client;
    const std::uint32_t nEnding =
        grant("a", client.sink.getCallbackAddress().c_str(), client.spOther->getId());
    const std::uint32_t nOther = grant("b", client);
    occupy(nOther, 1, *client.spCallback);
    arrive(nEnding, 2); // waits for the sink, which calls one callback at a time
    m_spDelivery->end(nEnding);
    client.spCallback->bMayReturn = true;
    EXPECT_TRUE(runUntil([&] { return !m_engine.acknowledged.empty() && m_engine.unanswered() == 1; }));
    EXPECT_EQ(client.spCallback->nCalls, 1);
    EXPECT_EQ(client.spOther->nCalls, 0);
    EXPECT_EQ(reason(), "gone");
}

TEST_F(SinkDeliveryTest, NameThatMoves_LeavesTheCallbackThatRunsToItsOldAddress) {
    Client before;
    Client after;
    const std::uint32_t nLease = grant("n", before);
    occupy(nLease, 1, *before.spCallback);
    arrive(nLease, 2);
    grant("n", after);
    before.spCallback->bMayReturn = true;
    EXPECT_TRUE(runUntil([&] { return m_engine.acknowledged.size() == 2; }));
    EXPECT_EQ(before.spCallback->nCalls, 1);
    EXPECT_EQ(after.spCallback->nCalls, 1);
}

TEST_F(SinkDeliveryTest, NameThatMovesBeforeItsOldSinkHasReadAnything_DoesNotWaitForIt) {
    const UniqueFd busy = unixListen(pipePath("busy"));
    Client after;
    const std::uint32_t nLease = grant("n", "pipe:busy", 0);
    arrive(nLease, 1);
    pollfd connected{busy.get(), POLLIN, 0};
    ASSERT_TRUE(runUntil([&] { return ::poll(&connected, 1, 0) == 1; }));
    grant("n", after);
    EXPECT_TRUE(runUntil([&] { return !m_engine.acknowledged.empty(); }));
    EXPECT_EQ(after.spCallback->nCalls, 1);
}

TEST_F(SinkDeliveryTest, WhatWaitsForADeadAddress_IsDeliveredOrBuriedWhenItsNameMovesOrEnds) {
    Client client;
    const std::uint32_t nMoving = grant("a", "pipe:nobody", 0);
    const std::uint32_t nEnding = grant("b", "pipe:nobody", 0);
    arrive(nMoving, 1);
    arrive(nEnding, 2);
    grant("a", client);
    m_spDelivery->end(nEnding);
    ASSERT_TRUE(runUntil([&] { return !m_engine.acknowledged.empty() && m_engine.unanswered() == 1; }));
    EXPECT_THAT(m_engine.acknowledged, ElementsAre("r1"));
    EXPECT_EQ(client.spCallback->nCalls, 1);
    EXPECT_EQ(reason(), "gone");
}

TEST_F(SinkDeliveryTest, Stopped_ItWaitsForACallbackThatRunsAndForNoClientThatIsAway) {
    m_settings.redirectAddresses = {{"h", "127.0.0.1"}};
    Client client;
    const std::uint32_t nRunning = grant("a", client);
    const std::uint32_t nAway = grant("b", "pipe:nobody", 0);
    occupy(nRunning, 1, *client.spCallback);
    arrive(nAway, 2);
    arrive(static_cast<std::uint32_t>(unusedTcpPort()), 3);
    m_spDelivery->stop();
    awaitLooks();
    EXPECT_FALSE(m_spDelivery->isIdle());
    client.spCallback->bMayReturn = true;
    EXPECT_TRUE(runUntil([&] { return m_spDelivery->isIdle(); }));
    EXPECT_THAT(m_engine.acknowledged, ElementsAre("r1")) << "the others are delivered after the next start";
}

TEST_F(SinkDeliveryTest, WhatComesAfterASlowOne_IsSlowTooUntilItsDeadLetterIsStored) {
    m_settings.nHeld = 8; // so a queue takes 2
    m_settings.slowAfter = cAtOnce;
    Client client;
    client.spCallback->bMayReturn = false;
    const std::uint32_t nLease = grant("", client);
    for (std::uint64_t n = 1; n <= 3; ++n)
        arrive(nLease, n);
    ASSERT_EQ(m_engine.unanswered(), 1U);
    EXPECT_EQ(reason(), "slow");
    client.spCallback->bMayReturn = true;
    EXPECT_TRUE(runUntil([&] { return m_engine.acknowledged.size() == 2; }));
    arrive(nLease, 4);
    ASSERT_EQ(m_engine.unanswered(), 2U) << "delivered, it would have the third one taken for a repetition";
    m_engine.answer(Answer::stored);
    m_engine.answer(Answer::stored);
    arrive(nLease, 5);
    EXPECT_TRUE(runUntil([&] { return m_engine.acknowledged.size() == 5; }));
    EXPECT_THAT(m_engine.acknowledged, ElementsAre("r1", "r2", "r3", "r4", "r5"));
    EXPECT_EQ(client.spCallback->nCalls, 3);
}

TEST_F(SinkDeliveryTest, BurstThatASinkWorksOff_IsDelivered_AndWhatWaitsForTooLongIsSlow) {
    m_settings.nHeld = 8;
    Client client;
    const std::uint32_t nLease = grant("", client);
    occupy(nLease, 1, *client.spCallback);
    for (std::uint64_t n = 2; n <= 5; ++n)
        arrive(nLease, n);
    client.spCallback->bMayReturn = true;
    EXPECT_TRUE(runUntil([&] { return m_engine.acknowledged.size() == 5; }));
    EXPECT_EQ(m_engine.unanswered(), 0U);
    client.spCallback->bMayReturn = false;
    for (std::uint64_t n = 6; n <= 9; ++n)
        arrive(nLease, n);
    m_settings.slowAfter = cAtOnce;
    EXPECT_TRUE(runUntil([&] { return m_engine.unanswered() == 2; })) << "the others need the room";
    EXPECT_EQ(m_engine.published(1).header("Nats-Msg-Id"), "dead." + idOf("s", {1, 9}));
    client.spCallback->bMayReturn = true;
}

TEST_F(SinkDeliveryTest, WhatComesAfterOneThatAPortDidNotTake_IsBuriedTooUntilItsDeadLetterIsStored) {
    redirectPorts();
    int nPort = unusedTcpPort();
    arrive(static_cast<std::uint32_t>(nPort), 1);
    ASSERT_TRUE(runUntil([&] { return m_engine.unanswered() == 1; }));
    EXPECT_EQ(reason(), "gone");
    const UniqueFd sink = tcpListen("127.0.0.1", nPort);
    arrive(static_cast<std::uint32_t>(nPort), 2);
    EXPECT_EQ(m_engine.unanswered(), 2U) << "delivered, it would have the first one taken for a repetition";
}

TEST_F(SinkDeliveryTest, PortWhoseSinkWasGivenUp_IsThatOfTheNextOneWhoListensThere) {
    int nPort = 0;
    UniqueFd before = tcpListen("127.0.0.1", nPort);
    redirectPorts();
    before.reset();
    ChildProcess other = ChildProcess::spawnRole("portSink", std::to_string(nPort));
    ASSERT_EQ(other.readLine(), "listens");
    arrive(static_cast<std::uint32_t>(nPort), 1);
    ASSERT_TRUE(runUntil([&] { return m_engine.unanswered() == 1; }));
    EXPECT_EQ(reason(), "gone");
    m_engine.answer(Answer::stored);
    arrive(static_cast<std::uint32_t>(nPort), 2);
    EXPECT_TRUE(runUntil([&] { return m_counters.nDelivered + m_engine.unanswered() == 1; }));
    EXPECT_EQ(m_counters.nDelivered, 1U);
}

TEST_F(SinkDeliveryTest, SinkThatHasMoved_IsFollowedAlsoWhenItsPortWasTakenAtOnce) {
    std::array<int, 2> ports{};
    UniqueFd before = tcpListen("127.0.0.1", ports[0]);
    redirectPorts();
    before.reset();
    ChildProcess other = ChildProcess::spawnRole("portSink", std::to_string(ports[0]));
    ASSERT_EQ(other.readLine(), "listens");
    const UniqueFd after = tcpListen("127.0.0.1", ports[1]);
    awaitLooks();
    arrive(static_cast<std::uint32_t>(ports[0]), 1);
    WatchedThread sink([&] { receiveToEnd(acceptClient(after.get()).get()); });
    EXPECT_TRUE(runUntil([&] { return m_counters.nDelivered + m_engine.unanswered() == 1; }));
    EXPECT_EQ(m_engine.unanswered(), 0U) << reason();
    EXPECT_EQ(m_counters.nMovedPorts, 1U);
    EXPECT_TRUE(sink.join());
}

TEST_F(SinkDeliveryTest, EndOfAnExchange_ReachesATcpSinkAlongWithTheContent) {
    int nPort = 0;
    const UniqueFd listener = tcpListen("127.0.0.1", nPort);
    redirectPorts();
    const UniqueFd client = tcpConnect("127.0.0.1", nPort);
    ::send(client.get(), "content", 7, MSG_MORE);
    ::shutdown(client.get(), SHUT_WR);
    const UniqueFd inOne = acceptClient(listener.get());
    receiveToEnd(inOne.get());
    arrive(static_cast<std::uint32_t>(nPort), 1);
    pollfd readable{listener.get(), POLLIN, 0};
    ASSERT_TRUE(runUntil([&] { return ::poll(&readable, 1, 0) == 1; }));
    const UniqueFd sink = acceptClient(listener.get());
    readable = {sink.get(), POLLRDHUP, 0};
    ASSERT_TRUE(runUntil([&] { return ::poll(&readable, 1, 0) == 1; }));
    EXPECT_EQ(segmentsThatCame(sink), segmentsThatCame(inOne));
}

TEST_F(SinkDeliveryTest, WantOfPortsOrDescriptors_DoesNotCountAgainstASink) {
    for (const auto& [szCall, nError] : {std::pair("connect", EADDRNOTAVAIL), std::pair("socket", EMFILE)}) {
        SCOPED_TRACE(szCall);
        const std::string sPort = std::to_string(unusedTcpPort());
        ChildProcess sink = ChildProcess::spawnRole("portSink", sPort);
        ASSERT_EQ(sink.readLine(), "listens");
        redirectPorts();
        const FaultRule fault(szCall, nError, 1, 20); // for longer than the patience
        arrive(static_cast<std::uint32_t>(std::stoul(sPort)), 1);
        EXPECT_TRUE(runUntil([&] { return m_counters.nDelivered + m_engine.unanswered() == 1; }));
        EXPECT_EQ(m_counters.nDelivered, 1U);
    }
}

TEST_F(SinkDeliveryTest, WantOfDescriptors_EndsNoLease) {
    m_settings.patience = std::chrono::milliseconds(1);
    Client client;
    const std::uint32_t nLease = grant("", client);
    const FaultRule fault("socket", EMFILE, 1, 300); // for longer than the patience
    arrive(nLease, 1);
    awaitLooks();
    EXPECT_TRUE(runUntil([&] { return m_counters.nDelivered + m_engine.unanswered() == 1; }));
    EXPECT_EQ(m_counters.nDelivered, 1U);
}

TEST_F(SinkDeliveryTest, WhereSlowOnesBlock_NothingBecomesADeadLetter) {
    m_settings.nHeld = 8;
    m_settings.onSlow = RelaySettings::OnSlow::block;
    Client client;
    client.spCallback->bMayReturn = false;
    const std::uint32_t nLease = grant("", client);
    for (std::uint64_t n = 1; n <= 5; ++n)
        arrive(nLease, n);
    EXPECT_EQ(m_spDelivery->queueOf(nLease).nWaiting, 5U);
    client.spCallback->bMayReturn = true;
    EXPECT_TRUE(runUntil([&] { return m_engine.acknowledged.size() == 5; }));
    EXPECT_EQ(m_engine.unanswered(), 0U);
}

TEST_F(SinkDeliveryTest, ForeignVersion_IsADeadLetterAndNotDelivered) {
    Client client;
    arrive(grant("", client), 1, "2");
    ASSERT_EQ(m_engine.unanswered(), 1U);
    EXPECT_EQ(reason(), "version");
    EXPECT_EQ(m_engine.published(0).header("Vorn-Version"), "2");
    EXPECT_THAT(m_engine.acknowledged, IsEmpty());
    m_engine.answer(Answer::stored);
    EXPECT_THAT(m_engine.acknowledged, ElementsAre("r1"));
    EXPECT_EQ(client.spCallback->nCalls, 0);
}
