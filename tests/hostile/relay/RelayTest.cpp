// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "Posix.h"
#include "RelayStage.h"
#include "Sandbox.h"

#include <NatsConnection.h>
#include <NatsEngine.h>
#include <RemoteHost.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>

using namespace VornTest;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

class RelayTest : public testing::Test {
protected:
    void startRelays() {
        m_stage.startRelay("a");
        m_stage.startRelay("b");
    }

    static int nothingUnread(ChildProcess& service) {
        return std::stoi(service.readLine(std::chrono::seconds(60)));
    }

    std::size_t deadLetters(const std::string& sReason) {
        std::size_t nCount = 0;
        for (const VornRelay::DeadLetter& letter : m_stage.administration().deadLetters())
            nCount += letter.header("Vorn-Reason") == sReason ? 1 : 0;
        return nCount;
    }

    RelayStage m_stage;
};

/** An engine's connection of its own, with its loop on a thread. */
class Connection : private VornRelay::Engine::Listener {
public:
    explicit Connection(const VornRelay::EngineAccess& access,
                        std::chrono::milliseconds answerLimit = std::chrono::seconds(60))
        : m_engine(m_loop, access, answerLimit, *this), m_thread([this] { m_loop.run(); }) {
        m_loop.post([this] { m_engine.start(); });
    }

    ~Connection() override {
        m_loop.end();
        m_thread.join();
        m_engine.stop();
    }

    void publish(const std::string& sSubject, const std::string& sContent) {
        m_loop.post([this, sSubject, sContent] {
            m_engine.publish({sSubject, {}, sContent},
                             [this](VornRelay::Engine::Answer answer, const std::string&) {
                                 nUnknown += answer == VornRelay::Engine::Answer::unknown ? 1 : 0;
                                 nStored += answer == VornRelay::Engine::Answer::stored ? 1 : 0;
                                 nAbsent += answer == VornRelay::Engine::Answer::absent ? 1 : 0;
                             });
        });
    }

    /** Asks for one message; counts in nPulled when the engine has read that. */
    void pull(const std::string& sConsumer) {
        m_loop.post([this, sConsumer] {
            m_engine.pull(sConsumer, 1);
            m_engine.measure([this](const VornRelay::Engine::Fill*) { ++nPulled; });
        });
    }

    std::atomic<int> nConnected{0};
    std::atomic<int> nLost{0};
    std::atomic<int> nUnknown{0};
    std::atomic<int> nStored{0};
    std::atomic<int> nAbsent{0};
    std::atomic<int> nPulled{0};
    std::atomic<int> nArrived{0};

private:
    void connected() override { ++nConnected; }

    void disconnected(const std::string&) override { ++nLost; }

    void arrived(VornRelay::Engine::Arrival&&) override { ++nArrived; }

    void pullEnded(const std::string&) override {}

    void consumerLost(const std::string&) override {}

    void told(const std::string&, const std::string&) override {}

    VornRelay::RelayLoop m_loop;
    VornRelay::NatsEngine m_engine;
    std::thread m_thread;
};

/** A foreign client of the engine, which hears what others publish to a subject. */
class Listener {
public:
    Listener(const VornRelay::EngineAccess& access, const std::string& sSubject) {
        const auto options = VornRelay::optionsFor(access, std::chrono::seconds(5));
        natsConnection* created = nullptr;
        natsConnection_Connect(&created, options.get());
        m_connection.reset(created);
        natsSubscription* subscribed = nullptr;
        natsConnection_SubscribeSync(&subscribed, created, sSubject.c_str());
        m_subscription.reset(subscribed);
        natsConnection_FlushTimeout(created, 5000);
    }

    /** @return where the answer to the next message is to go. */
    std::string nextReply() const {
        natsMsg* message = nullptr;
        if (natsSubscription_NextMsg(&message, m_subscription.get(), 10'000) != NATS_OK)
            return "";
        return natsMsg_GetReply(VornRelay::NatsPointer<natsMsg>(message).get());
    }

    void publish(const std::string& sSubject, const std::string& sText) const {
        natsConnection_PublishString(m_connection.get(), sSubject.c_str(), sText.c_str());
        natsConnection_FlushTimeout(m_connection.get(), 5000);
    }

private:
    VornRelay::NatsPointer<natsConnection> m_connection;
    VornRelay::NatsPointer<natsSubscription> m_subscription;
};

/** The service manager's end of what a relay tells it. */
class NotifySocket {
public:
    explicit NotifySocket(const std::string& sPath)
        : m_socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        sPath.copy(address.sun_path, sizeof address.sun_path - 1);
        if (::bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1)
            throw std::system_error(errno, std::generic_category(), sPath);
    }

    /** Awaits a message that begins with a text. */
    bool isTold(const std::string& sText) const {
        return awaitCondition([&] {
            char text[256];
            const ssize_t count = ::recv(m_socket.get(), text, sizeof text, MSG_DONTWAIT);
            return count > 0 && std::string_view(text, static_cast<std::size_t>(count)).starts_with(sText);
        });
    }

private:
    const UniqueFd m_socket;
};

/** @return whether a host may publish or subscribe there. */
bool isAllowed(const VornRelay::EngineAccess& access, const std::string& sKind, const std::string& sSubject) {
    const auto options = VornRelay::optionsFor(access, std::chrono::seconds(5));
    natsConnection* created = nullptr;
    if (natsConnection_Connect(&created, options.get()) != NATS_OK)
        return false;
    const VornRelay::NatsPointer<natsConnection> connection(created);
    natsSubscription* subscribed = nullptr;
    if (sKind == "publish")
        natsConnection_PublishString(created, sSubject.c_str(), "x");
    else
        natsConnection_SubscribeSync(&subscribed, created, sSubject.c_str());
    const VornRelay::NatsPointer<natsSubscription> subscription(subscribed);
    natsConnection_FlushTimeout(created, 5000);
    const char* szError = nullptr;
    return natsConnection_GetLastError(created, &szError) == NATS_OK;
}

/** Services and sinks of either kind, on the road between two hosts. */
class RelayPairing : public RelayTest,
                     public testing::WithParamInterface<std::tuple<const char*, const char*>> {};

} // namespace

TEST_P(RelayPairing, BurstArrivesOnceAndInOrder) {
    const auto [szService, szSink] = GetParam();
    const int nCount = 1000;
    startRelays();
    ChildProcess sink = m_stage.startSink("b", "", "log", szSink);
    ChildProcess service = m_stage.startService("a", szService, sink.readLine(), nCount);
    EXPECT_EQ(nothingUnread(service), 0);
    m_stage.expectEachOnceInOrder("log", nCount);
}

INSTANTIATE_TEST_SUITE_P(All, RelayPairing,
                         testing::Combine(testing::Values("plain", "confirmed"),
                                          testing::Values("plain", "steady")),
                         [](const auto& pairing) {
                             return std::string(std::get<0>(pairing.param)) + "_to_" +
                                    std::get<1>(pairing.param);
                         });

TEST_F(RelayTest, WhenTheEngineIsKilledInABurst_NothingIsLostRepeatedOrOutOfOrder) {
    const int nCount = 2000;
    startRelays();
    ChildProcess sink = m_stage.startSink("b", "", "log");
    ChildProcess service = m_stage.startService("a", "plain", sink.readLine(), nCount);
    ASSERT_TRUE(RelayStage::awaitNumbers("log", 200));
    m_stage.killEngine();
    m_stage.startEngine();
    m_stage.expectEachOnceInOrder("log", nCount);
}

TEST_F(RelayTest, WhenTheReceivingRelayIsKilled_NothingIsLostAndAtMostOneRepeatedForEachKill) {
    const int nCount = 2000;
    const std::size_t nKills = 2;
    startRelays();
    ChildProcess sink = m_stage.startSink("b", "", "log");
    ChildProcess service = m_stage.startService("a", "plain", sink.readLine(), nCount);
    for (std::size_t nKill = 1; nKill <= nKills; ++nKill) {
        ASSERT_TRUE(RelayStage::awaitNumbers("log", nKill * 300));
        m_stage.endRelay("b", SIGKILL);
        m_stage.startRelay("b");
    }
    ASSERT_TRUE(RelayStage::awaitNumbers("log", nCount));
    const History history = RelayStage::history("log", nCount);
    EXPECT_EQ(history.nLost, 0U);
    EXPECT_EQ(history.nOutOfOrder, 0U);
    EXPECT_LE(history.nDuplicated, nKills);
}

TEST_F(RelayTest, WhenTheSendingRelayIsKilled_WhatWasConfirmedArrives) {
    const int nCount = 1000;
    startRelays();
    ChildProcess sink = m_stage.startSink("b", "", "log");
    ChildProcess service = m_stage.startService("a", "confirmed", sink.readLine(), nCount);
    ASSERT_TRUE(RelayStage::awaitNumbers("log", 200));
    m_stage.endRelay("a", SIGKILL);
    m_stage.startRelay("a");
    const int nUnread = nothingUnread(service);
    ASSERT_TRUE(RelayStage::awaitNumbers("log", nCount));
    const History history = RelayStage::history("log", nCount);
    EXPECT_EQ(history.nLost, 0U);
    EXPECT_EQ(history.nOutOfOrder, 0U);
    EXPECT_LE(history.nDuplicated, static_cast<std::size_t>(nUnread))
        << "only what was sent again may come twice";
}

TEST_F(RelayTest, WhenTheSendingRelayIsStopped_NothingOfAPlainServicesBurstIsLost) {
    const int nCount = 2000;
    startRelays();
    ChildProcess sink = m_stage.startSink("b", "", "log");
    ChildProcess service = m_stage.startService("a", "plain", sink.readLine(), nCount);
    EXPECT_EQ(nothingUnread(service), 0); // all are written, and not all are read
    EXPECT_EQ(m_stage.endRelay("a", SIGTERM), 0);
    m_stage.expectEachOnceInOrder("log", nCount);
}

TEST_F(RelayTest, NamedLease_SurvivesTheClientTheRelayAndABurstMeanwhile) {
    const int nCount = 500;
    startRelays();
    ChildProcess first = m_stage.startSink("b", "billing", "log");
    const std::string sLease = first.readLine();
    first.kill(SIGKILL);
    first.wait();
    ChildProcess service = m_stage.startService("a", "confirmed", sLease, nCount);
    EXPECT_EQ(nothingUnread(service), 0);
    m_stage.endRelay("b", SIGKILL);
    m_stage.startRelay("b");
    ChildProcess second = m_stage.startSink("b", "billing", "log");
    EXPECT_EQ(second.readLine(), sLease);
    m_stage.expectEachOnceInOrder("log", nCount);
}

TEST_F(RelayTest, AnonymousLease_EndsWithItsProcessAndWhatCameBecomesDeadLetters) {
    const int nCount = 50;
    startRelays();
    ChildProcess sink = m_stage.startSink("b", "", "log");
    const std::string sLease = sink.readLine();
    m_stage.endRelay("b", SIGTERM);
    ChildProcess service = m_stage.startService("a", "plain", sLease, nCount);
    EXPECT_EQ(nothingUnread(service), 0);
    sink.kill(SIGKILL);
    sink.wait();
    m_stage.startRelay("b");
    EXPECT_TRUE(awaitCondition([&] { return deadLetters("gone") == nCount; }));
    EXPECT_THAT(m_stage.run("a", {"status"}).first, HasSubstr("refused    0"));
    ChildProcess again = m_stage.startService("a", "plain", sLease, 1);
    again.wait();
    EXPECT_TRUE(m_stage.awaitStatus("a", "refused    1")) << "the sender's relay has been told, and refuses";
}

TEST_F(RelayTest, FullStream_HoldsBackAndLosesNothing) {
    const int nCount = 1000;
    m_stage.administration().removeHost("b");
    VornRelay::NatsAdministration::Limits limits;
    limits.nMessages = 300;
    m_stage.administration().addHost("b", limits);
    startRelays();
    ChildProcess sink = m_stage.startSink("b", "", "log");
    const std::string sLease = sink.readLine();
    m_stage.endRelay("b", SIGTERM);
    ChildProcess service = m_stage.startService("a", "plain", sLease, nCount);
    EXPECT_TRUE(m_stage.awaitStatus("a", "stream full"));
    m_stage.startRelay("b");
    m_stage.expectEachOnceInOrder("log", nCount);
}

TEST_F(RelayTest, WhatCannotBeStored_IsToldInStatusAndLog) {
    m_stage.startRelay("a", "send-to = c, d\n");
    for (const char* szHost : {"c", "d"}) // the one has no stream, the other must not be notified
        m_stage.startService("a", "plain", std::string("pipe:relay-") + szHost + " 7", 1).wait();
    EXPECT_TRUE(awaitCondition([&] {
        const std::string sLog = m_stage.logOf("a");
        return sLog.find("what goes to c is not stored: there is no stream for it\n") != std::string::npos &&
               sLog.find("vorn.to.d.sink.lease.7") != std::string::npos;
    })) << m_stage.logOf("a");
    EXPECT_THAT(m_stage.run("a", {"status"}).first,
                HasSubstr("to c: 1 waiting, 16 bytes, there is no stream for it\n"));
}

TEST_F(RelayTest, EngineAway_ServicesAreRefusedWhenTooMuchWaits) {
    m_stage.startRelay("b");
    m_stage.startRelay("a", "hold-bytes = 4000\n");
    ChildProcess sink = m_stage.startSink("b", "", "log");
    const std::string sLease = sink.readLine();
    m_stage.killEngine();
    ChildProcess service = m_stage.startService("a", "plain", sLease, 100'000);
    EXPECT_THAT(service.readAllErrors(), HasSubstr("")); // until it has ended
    EXPECT_NE(service.wait(), 0) << "remoteNotify() throws";
    EXPECT_THAT(m_stage.run("a", {"status"}).first, HasSubstr("closed"));
    m_stage.startEngine();
    EXPECT_TRUE(awaitCondition(
        [&] { return m_stage.run("a", {"status"}).first.find("closed") == std::string::npos; }));
    EXPECT_TRUE(RelayStage::awaitNumbers("log", 250)); // of 16 bytes each
    EXPECT_EQ(RelayStage::history("log", 250).nOutOfOrder, 0U);
}

TEST_F(RelayTest, LongMessagesOfOneTurn_AreAllStoredThroughOneConnection) {
    Connection connection(m_stage.access("a"));
    ASSERT_TRUE(awaitCondition([&] { return connection.nConnected == 1; }));
    const int nMessages = 8;
    for (int i = 0; i < nMessages; ++i)
        connection.publish("vorn.to.b.sink.lease.1", std::string(100'000, 'x'));
    EXPECT_TRUE(awaitCondition([&] { return connection.nStored == nMessages; }));
    EXPECT_EQ(connection.nLost, 0);
}

TEST_F(RelayTest, EngineThatReadsNothing_IsGivenUpAndConnectedToAgain) {
    VornRelay::EngineAccess access = m_stage.access("a");
    access.writeLimit = std::chrono::milliseconds(100);
    Connection connection(access);
    ASSERT_TRUE(awaitCondition([&] { return connection.nConnected == 1; }));
    m_stage.pauseEngine();
    const int nMessages = 32; // more than the buffers of two sockets take
    for (int i = 0; i < nMessages; ++i)
        connection.publish("vorn.to.b.sink.lease.1", std::string(1'000'000, 'x'));
    EXPECT_TRUE(awaitCondition([&] { return connection.nLost > 0 && connection.nUnknown == nMessages; }));
    m_stage.resumeEngine();
    EXPECT_TRUE(awaitCondition([&] { return connection.nConnected == 2; }));
}

TEST_F(RelayTest, WhatComesLateForAKilledRelay_IsNotTakenByTheNext) {
    const Listener listener(m_stage.access("admin"), "$JS.API.CONSUMER.MSG.NEXT.VORN_TO_b.relay");
    std::string sInbox;
    for (int nStart = 0; nStart < 2; ++nStart) {
        m_stage.startRelay("b");
        const std::string sReply = listener.nextReply();
        EXPECT_THAT(sReply, testing::StartsWith("_INBOX_b."));
        EXPECT_NE(std::exchange(sInbox, sReply), sReply);
        m_stage.endRelay("b", SIGKILL);
    }
}

TEST_F(RelayTest, WhereNobodyIsThere_ItIsTheNewestThatIsNotStored) {
    const Listener slow(m_stage.access("admin"), "vorn.to.c.slow");
    Connection connection(m_stage.access("a"));
    ASSERT_TRUE(awaitCondition([&] { return connection.nConnected == 1; }));
    connection.publish("vorn.to.c.slow", "x");
    connection.publish("vorn.to.c.nobody", "x");
    EXPECT_TRUE(awaitCondition([&] { return connection.nAbsent == 1; }));
    slow.publish(slow.nextReply(), "{\"stream\":\"x\",\"seq\":1}");
    EXPECT_TRUE(awaitCondition([&] { return connection.nStored == 1; }));
}

TEST_F(RelayTest, WhenAStreamsFirstAnswerIsLate_NoLaterOneCounts) {
    const Listener slow(m_stage.access("admin"), "vorn.to.c.slow");
    Connection connection(m_stage.access("a"), std::chrono::seconds(1));
    ASSERT_TRUE(awaitCondition([&] { return connection.nConnected == 1; }));
    connection.publish("vorn.to.c.slow", "first");
    slow.nextReply();
    std::this_thread::sleep_for(std::chrono::milliseconds(500)); // so that the second has time left
    connection.publish("vorn.to.c.slow", "second");
    const std::string sSecond = slow.nextReply();
    ASSERT_TRUE(awaitCondition([&] { return connection.nUnknown > 0; }));
    slow.publish(sSecond, "{\"stream\":\"x\",\"seq\":2}");
    EXPECT_TRUE(awaitCondition([&] { return connection.nUnknown == 2; }));
    EXPECT_EQ(connection.nStored, 0);
}

TEST_F(RelayTest, ConsumerThatIsDeleted_IsOpenedAgain) {
    startRelays();
    ChildProcess sink = m_stage.startSink("b", "", "log");
    const std::string sLease = sink.readLine();
    m_stage.administration().request("$JS.API.CONSUMER.DELETE.VORN_TO_b.relay");
    ChildProcess service = m_stage.startService("a", "plain", sLease, 10);
    m_stage.expectEachOnceInOrder("log", 10);
}

TEST_F(RelayTest, WhatTheEngineHandsToAnother_IsNotPassedByWhatComesAfterIt) {
    startRelays();
    ChildProcess sink = m_stage.startSink("b", "", "log");
    const std::string sLease = sink.readLine();
    Connection killed(m_stage.access("b")); // a relay whose last request the engine reads late
    ASSERT_TRUE(awaitCondition([&] { return killed.nConnected == 1; }));
    killed.pull("relay");
    ASSERT_TRUE(awaitCondition([&] { return killed.nPulled == 1; }));
    ChildProcess service = m_stage.startService("a", "plain", sLease, 10);
    EXPECT_TRUE(RelayStage::awaitNumbers("log", 10));
    EXPECT_EQ(killed.nArrived, 1);
    EXPECT_EQ(RelayStage::history("log", 10), (History{10, 0, 0, 0}));
}

TEST_F(RelayTest, ServiceManager_IsToldWhatTheRelayDoes) {
    NotifySocket socket(RelayStage::pathOf("notify"));
    m_stage.startRelay("a", "", {"NOTIFY_SOCKET=" + RelayStage::pathOf("notify"), "WATCHDOG_USEC=300000"});
    EXPECT_TRUE(socket.isTold("READY=1"));
    EXPECT_TRUE(socket.isTold("WATCHDOG=1"));
    m_stage.killEngine();
    EXPECT_TRUE(socket.isTold("STATUS=no connection to the engine"));
    EXPECT_TRUE(socket.isTold("WATCHDOG=1"));
    EXPECT_EQ(m_stage.endRelay("a", SIGTERM), 0);
    EXPECT_TRUE(socket.isTold("STOPPING=1"));
}

TEST_F(RelayTest, RunningRelay_PrintsItsMetricsAndReadsItsLogLevelAgain) {
    m_stage.startRelay("a");
    EXPECT_THAT(RelayStage::metricsOf("a"), HasSubstr("\nvornnet_relay_connected 1\n"));
    m_stage.reloadRelay("a", "log-level = 0\n");
    m_stage.run("a", {"status"}); // it takes the signal first, which came first
    m_stage.endRelay("a", SIGTERM);
    EXPECT_THAT(m_stage.logOf("a"), AllOf(HasSubstr("ready"), Not(HasSubstr("stopped"))));
}

TEST_F(RelayTest, Permissions_AreThoseOfTheHostAndNoMore) {
    struct Attempt {
        const char* szKind;
        std::string sSubject;
        bool bAllowed;
    };

    const Attempt attempts[] = {
        {"publish", "vorn.to.b.sink.lease.1", true},
        {"publish", "vorn.to.a.sink.lease.1", false},
        {"publish", "vorn.dead.a", true},
        {"publish", "vorn.dead.b", false},
        {"publish", "vorn.gone.b", false},
        {"publish", "$JS.API.CONSUMER.MSG.NEXT.VORN_TO_a.relay", true},
        {"publish", "$JS.API.CONSUMER.MSG.NEXT.VORN_TO_b.relay", false},
        {"publish", "$JS.API.CONSUMER.CREATE.VORN_TO_a", false},
        {"publish", "$JS.ACK.VORN_TO_b.relay.1.1.1.1.0", false},
        {"publish", "$JS.ACK.VORN_TO_b.relay.VORN_TO_a.1.1.1.0", false},
        {"publish", "$JS.ACK.hub.account.VORN_TO_a.relay.1.1.1.1.0", true},
        {"publish", "$JS.ACK.hub.account.VORN_TO_b.relay.1.1.1.1.0", false},
        {"publish", "$JS.API.STREAM.DELETE.VORN_TO_a", false},
        {"publish", "$JS.API.STREAM.CREATE.KV_bucket", false},
        {"subscribe", "_INBOX_a.x", true},
        {"subscribe", "_INBOX_b.x", false},
        {"subscribe", "vorn.to.>", false},
        {"subscribe", "vorn.gone.b", true},
        {"publish", "$JS.API.INFO", true},
        {"publish", "$JS.API.STREAM.INFO.VORN_TO_a", true},
        {"publish", "$JS.API.STREAM.INFO.VORN_TO_b", false},
        {"publish", "$JS.API.STREAM.NAMES", false},
        {"publish", "vorn.topic.a.builds", true},
        {"publish", "vorn.news.a.builds", true},
        {"publish", "vorn.topic.b.builds", false},
        {"publish", "vorn.news.b.builds", false},
        {"publish", "$JS.API.STREAM.MSG.GET.VORN_TOPIC_a", true},
        {"publish", "$JS.API.STREAM.MSG.GET.VORN_TOPIC_b", false},
        {"publish", "$JS.API.STREAM.MSG.GET.VORN_TO_a", false},
        {"subscribe", "vorn.news.b.builds", false},
        {"publish", "vorn.offer.b.a.plain.1", true},
        {"publish", "vorn.offer.b.b.plain.1", false},
        {"publish", "vorn.reach.a.a.plain.1", false},
        {"subscribe", "vorn.reach.a.b.plain.1", true},
        {"subscribe", "vorn.reach.b.a.plain.1", false},
        {"subscribe", "vorn.offer.a.b.plain.1", false},
    };
    for (const Attempt& attempt : attempts) {
        SCOPED_TRACE(std::string(attempt.szKind) + " " + attempt.sSubject);
        EXPECT_EQ(isAllowed(m_stage.access("a"), attempt.szKind, attempt.sSubject), attempt.bAllowed);
    }
    EXPECT_TRUE(isAllowed(m_stage.access("c.example"), "publish", "vorn.dead.c_example"));
    EXPECT_TRUE(isAllowed(m_stage.access("b"), "publish", "vorn.reach.a.b.plain.1"));
    EXPECT_FALSE(isAllowed(m_stage.access("b"), "publish", "vorn.reach.a.b.other.1"));
    EXPECT_FALSE(isAllowed(m_stage.access("b"), "subscribe", "vorn.offer.b.a.other.1"));
    const std::string sPrinted =
        m_stage
            .runAsAdministrator("a", {"hosts", "add", "c.example", "--send-to", "a.example", "--offer",
                                      "--reach", "plain@a.example"})
            .first;
    for (const char* szPart :
         {"user: \"c.example\"", "\"vorn.to.a_example.>\"", "\"_INBOX_c_example.>\"",
          "\"vorn.reach.c_example.*.*.*\"", "\"vorn.reach.a_example.c_example.plain.*\""})
        EXPECT_THAT(sPrinted, HasSubstr(szPart));
}

TEST(RelayFixedConsumer, HostMayOnlyPullAndAcknowledge_AndNothingIsLostOrOutOfOrder) {
    const int nCount = 600;
    RelayStage stage({.bFixedConsumer = true});
    for (const char* szCall : {"CREATE.VORN_TO_b", "DURABLE.CREATE.VORN_TO_b.relay", "DELETE.VORN_TO_b.relay",
                               "DURABLE.CREATE.VORN_TO_b.keep-1"})
        EXPECT_FALSE(isAllowed(stage.access("b"), "publish", std::string("$JS.API.CONSUMER.") + szCall));
    EXPECT_TRUE(isAllowed(stage.access("b"), "publish", "$JS.API.CONSUMER.INFO.VORN_TO_b.relay"));
    stage.startRelay("a");
    stage.startRelay("b", "consumer = fixed\n");
    ChildProcess sink = stage.startSink("b", "", "log");
    ChildProcess service = stage.startService("a", "plain", sink.readLine(), nCount);
    ASSERT_TRUE(RelayStage::awaitNumbers("log", 200));
    stage.endRelay("b", SIGKILL);
    stage.startRelay("b", "consumer = fixed\n");
    ASSERT_TRUE(RelayStage::awaitNumbers("log", nCount));
    const History history = RelayStage::history("log", nCount);
    EXPECT_EQ(history.nLost, 0U);
    EXPECT_EQ(history.nOutOfOrder, 0U);
    EXPECT_LE(history.nDuplicated, 1U);
    ChildProcess named = stage.startSink("b", "billing", "named-log");
    ChildProcess again = stage.startService("a", "confirmed", named.readLine(), 3);
    EXPECT_TRUE(RelayStage::awaitNumbers("named-log", 3));
}

/** Whoever pulls messages names the subject to which the engine delivers them, past what he may publish. */
TEST(RelayFixedConsumer, MessagesThatAHostHasDeliveredIntoAnotherHostsStream_ReachNoSink) {
    RelayStage stage({.bFixedConsumer = true});
    stage.startRelay("a");
    ChildProcess sink = stage.startSink("a", "", "log");
    const std::string sLease = sink.readLine();
    const std::string sSubject = "vorn.to.a.sink.lease." + sLease.substr(sLease.find(' ') + 1);
    VornRelay::NatsAdministration administration = stage.administration();
    const auto store = [&](const std::string& sWhere, const std::string& sId, char last) {
        administration.publish(
            VornRelay::messageTo(sWhere, "c", sId, std::string(11, '\0') + last + std::string(4, '\0')));
    };
    store("vorn.to.b.sink.lease.70000", "c.1.1", '\1');
    const auto options = VornRelay::optionsFor(stage.access("b"), std::chrono::seconds(5));
    natsConnection* created = nullptr;
    ASSERT_EQ(natsConnection_Connect(&created, options.get()), NATS_OK);
    const VornRelay::NatsPointer<natsConnection> connection(created);
    natsConnection_PublishRequestString(created, "$JS.API.CONSUMER.MSG.NEXT.VORN_TO_b.relay",
                                        sSubject.c_str(), "1");
    natsConnection_FlushTimeout(created, 5000);
    EXPECT_TRUE(awaitCondition([&] {
        return administration.request("$JS.API.CONSUMER.INFO.VORN_TO_b.relay")["num_ack_pending"] == 1;
    })) << "it was handed out";
    store(sSubject, "c.1.2", '\2');
    EXPECT_TRUE(awaitCondition([&] { return RelayStage::history("log", 0).nSeen > 0; }));
    EXPECT_EQ(readTextFile(RelayStage::pathOf("log")), "2\n");
}

class RelayRedirect : public RelayTest {
protected:
    void startRelays() {
        m_stage.separateNetwork("a");
        const std::string sAddress = std::string("redirect-address = b=") + RelayStage::cSinkAddress + "\n";
        m_stage.startRelay("b", sAddress);
        m_stage.startRelay("a", "redirect-port = 4333\n" + sAddress);
        for (const char* szHost : {"a", "b"})
            EXPECT_EQ(m_stage.run(szHost, {"redirect", "on"}).second, 0);
    }
};

TEST_F(RelayRedirect, AddressOfAnUnmodifiedTcpSink_LeadsAnUnmodifiedServiceThere) {
    const int nCount = 500;
    startRelays();
    for (const auto& [szService, szSink] : {std::pair("plain", "plain"), std::pair("confirmed", "steady")}) {
        const std::string sLog = std::string("log-") + szSink;
        ChildProcess sink = m_stage.startSink("b", "-", sLog, szSink);
        const std::string sAddress = sink.readLine();
        EXPECT_THAT(sAddress, HasSubstr(std::string("socket:") + RelayStage::cSinkAddress + ":"));
        ChildProcess service = m_stage.startService("a", szService, sAddress, nCount);
        EXPECT_EQ(nothingUnread(service), 0);
        m_stage.expectEachOnceInOrder(sLog, nCount);
    }
    EXPECT_EQ(m_stage.run("a", {"redirect", "off"}).second, 0);
}

TEST_F(RelayRedirect, WhenTheSendingRelayIsStopped_NothingOfAPlainServicesBurstIsLost) {
    const int nCount = 300;
    startRelays();
    ChildProcess sink = m_stage.startSink("b", "-", "log", "steady");
    ::kill(m_stage.relayProcess("a"), SIGSTOP); // so all of them wait to be accepted
    ChildProcess service = m_stage.startService("a", "plain", sink.readLine(), nCount);
    EXPECT_EQ(nothingUnread(service), 0);
    ::kill(m_stage.relayProcess("a"), SIGTERM);
    EXPECT_EQ(m_stage.endRelay("a", SIGCONT), 0);
    m_stage.expectEachOnceInOrder("log", nCount);
}

TEST_F(RelayTest, DeadLetterThatAHostHasWrittenForAnother_IsNotSent) {
    VornRelay::NatsAdministration administration = m_stage.administration();
    administration.publish({"vorn.dead.a", {{"Vorn-Subject", "vorn.to.b.sink.lease.1"}}, "forged"});
    EXPECT_EQ(m_stage.runAsAdministrator("a", {"dead", "resend", "1"}).second, 3);
    EXPECT_EQ(administration.request("$JS.API.STREAM.INFO.VORN_TO_b")["state"]["messages"], 0);
}

TEST_F(RelayTest, CertificateThatIsForeignMissingOrOfAnotherServer_IsRefused) {
    VornRelay::EngineAccess stranger = m_stage.access("stranger");
    EXPECT_THROW(VornRelay::NatsAdministration{stranger}, VornRelay::AdministrationError);
    stranger.sCertificate.clear();
    EXPECT_THROW(VornRelay::NatsAdministration{stranger}, VornRelay::AdministrationError);

    useHostsFile("127.0.0.1 localhost another\n");
    VornRelay::EngineAccess access = m_stage.access("a");
    EXPECT_NO_THROW(VornRelay::NatsAdministration{access});
    access.servers = {"tls://another:4222"};
    EXPECT_THROW(VornRelay::NatsAdministration{access}, VornRelay::AdministrationError);
    restoreSystemFiles();
}

TEST_F(RelayTest, Doctor_FindsWhatIsWrong) {
    startRelays();
    const auto [sAll, nAll] = m_stage.run("b", {"doctor"});
    EXPECT_EQ(nAll, 1) << "the server is alone";
    const std::string sVersion = RelayStage::engineVersion();
    EXPECT_THAT(sAll, HasSubstr(std::string(::strverscmp(sVersion.c_str(), "2.12.7") < 0 ? "warning  "
                                                                                         : "ok       ") +
                                "tls://localhost:4222 is nats-server " + sVersion + "\n"));
    EXPECT_THAT(sAll, HasSubstr("vornnet relay hosts add b --replicas 3"));
    m_stage.administration().removeHost("b");
    const auto [sWithoutStream, nWithoutStream] = m_stage.run("b", {"doctor"});
    EXPECT_THAT(sWithoutStream, HasSubstr("problem  there is no stream VORN_TO_b"));
    EXPECT_EQ(nWithoutStream, 2);
    std::filesystem::remove_all(RelayStage::pathOf("state-a"));
    m_stage.killEngine();
    const auto [sWithoutEngine, nWithoutEngine] = m_stage.run("a", {"doctor"});
    EXPECT_THAT(sWithoutEngine, HasSubstr("problem  no connection to the engine"));
    EXPECT_THAT(sWithoutEngine, HasSubstr("problem  the state directory"));
    EXPECT_EQ(nWithoutEngine, 2);
    m_stage.endRelay("b", SIGTERM);
    EXPECT_THAT(m_stage.run("b", {"doctor"}).first, HasSubstr("problem  the relay does not run"));
    std::ofstream(RelayStage::pathOf("relay-b.conf")) << "host = b\ncolour = red\n";
    EXPECT_THAT(m_stage.run("b", {"doctor"}).first, HasSubstr("colour = red: there is no such key"));
}

TEST_F(RelayTest, HostThatIsAddedAgain_GetsWhatIsToldAndKeepsTheRest) {
    EXPECT_EQ(m_stage.runAsAdministrator("a", {"hosts", "add", "b", "--megabytes", "5"}).second, 0);
    EXPECT_EQ(m_stage.runAsAdministrator("a", {"hosts", "add", "b", "--hours", "2"}).second, 0);
    const VornRelay::NatsAdministration::Json config =
        m_stage.administration().request("$JS.API.STREAM.INFO.VORN_TO_b")["config"];
    EXPECT_EQ(config["max_bytes"], 5 << 20);
    EXPECT_EQ(config["max_msgs"], 5 << 10);
    EXPECT_EQ(config["max_age"], 2 * 3600 * 1'000'000'000L);
    EXPECT_EQ(config["retention"], "workqueue");
}

TEST_F(RelayTest, Doctor_FindsEachMisconfiguration) {
    struct Row {
        const char* szHost;
        std::string sMore;
        const char* szFinding;
    };

    startRelays();
    const auto path = [](const char* szName) { return RelayStage::pathOf(szName); };
    std::filesystem::permissions(path("a.key"), std::filesystem::perms(0644));
    std::ofstream(path("state-a/journal"), std::ios::app) << "torn";
    const Row rows[] = {
        {"b", "", "ok       what is forbidden is denied"},
        {"b", "", "ok       journal"},
        {"b", "", "warning  the certificate"}, // which is made for two days
        {"b", "certificate = " + path("a.pem") + "\n", "is not for the DNS name b"},
        {"b", "certificate = /nowhere.pem\n", "problem  the certificate /nowhere.pem: No such file"},
        {"b", "certificate = " + path("admin.pem") + "\nkey = " + path("admin.key") + "\n",
         "warning  this host may publish to vorn.dead.doctor"},
        {"b", "certificate = " + path("admin.pem") + "\nkey = " + path("admin.key") + "\n",
         "warning  this host may read what is sent to all others"},
        {"b", "certificate = " + path("c.example.pem") + "\nkey = " + path("c.example.key") + "\n",
         "warning  this host may not acknowledge where servers name domain and account"},
        {"b", "consumer = fixed\n",
         "warning  this host may publish to $JS.API.CONSUMER.DURABLE.CREATE.VORN_TO_b.doctor"},
        {"b", "metrics = /nowhere/metrics\n", "problem  the directory of metrics /nowhere/metrics"},
        {"b", "redirect-address = b=100.64.9.9\n", "problem  this host does not have its redirect-address"},
        {"b", "redirect-address = a=100.64.9.9\n", "problem  redirect-address of other hosts without"},
        {"b", "servers = nats://127.0.0.1:1\n", "warning  nats://127.0.0.1:1 does not answer"},
        {"a", "", "problem  the journal"},
        {"a", "", "warning  others may read the key"},
        {"b", "follow = x@c\ntopic = x=pipe:x\n", "may not publish to vorn.topic.b.x"},
        {"b", "follow = x@c\ntopic = x=pipe:x\n", "may not publish to $JS.API.STREAM.MSG.GET.VORN_TOPIC_c"},
        {"b", "follow = x@c\ntopic = x=pipe:x\n", "may not subscribe to vorn.news.c.x"},
        {"b", "offer = x=pipe:x\nreach = y@c\n", "may not publish to vorn.offer.doctor.b.doctor.doctor"},
        {"b", "offer = x=pipe:x\nreach = y@c\n", "may not subscribe to vorn.reach.b.*.*.*"},
        {"b", "offer = x=pipe:x\nreach = y@c\n", "may not publish to vorn.reach.c.b.y.doctor"},
        {"b", "offer = x=pipe:x\nreach = y@c\n", "may not subscribe to vorn.offer.b.c.y.*"},
        {"b", "certificate = " + path("admin.pem") + "\nkey = " + path("admin.key") + "\n",
         "warning  this host may read what other hosts' connections carry"},
        {"a", "send-to = b, d\n", "problem  this host may not publish to vorn.to.d.sink.lease.0"},
    };
    std::map<std::string, std::string> outputs; // rows that differ only in what is looked for share one
    for (const Row& row : rows) {
        SCOPED_TRACE(row.sMore);
        std::string& sOutput = outputs[row.szHost + row.sMore];
        if (sOutput.empty()) {
            m_stage.configure(row.szHost, row.sMore);
            sOutput = m_stage.run(row.szHost, {"doctor"}).first;
        }
        EXPECT_THAT(sOutput, HasSubstr(row.szFinding));
    }
}

TEST_F(RelayTest, UnknownCallback_MakesADeadLetterThatCanBeSentAgain) {
    startRelays();
    ChildProcess sink = m_stage.startSink("b", "known", "log");
    sink.readLine();
    const std::string sLeases = m_stage.run("b", {"leases"}).first;
    const std::size_t nAddress = sLeases.find("pipe:");
    const std::string sAddress = sLeases.substr(nAddress, sLeases.find(' ', nAddress) - nAddress);
    const std::string sLease = m_stage.run("b", {"lease", "unknown", sAddress, "99"}).first;
    ChildProcess service = m_stage.startService("a", "confirmed", sLease, 1);
    service.wait();
    ASSERT_TRUE(awaitCondition([&] { return deadLetters("refused") == 1; }));

    EXPECT_EQ(m_stage.run("b", {"lease", "unknown", sAddress, "0"}).first, sLease)
        << "the name keeps its number";
    const std::uint64_t nLetter = m_stage.administration().deadLetters().front().nPosition;
    EXPECT_EQ(m_stage.runAsAdministrator("a", {"dead", "resend", std::to_string(nLetter)}).second, 0);
    EXPECT_TRUE(RelayStage::awaitNumbers("log", 1));
    EXPECT_EQ(m_stage.runAsAdministrator("a", {"dead", "list"}).first, "");
    EXPECT_EQ(m_stage.run("b", {"release", "unknown"}).second, 0);
    EXPECT_EQ(m_stage.run("b", {"release", "unknown"}).second, 3) << "there is none any more";
}

TEST_F(RelayTest, Notify_NeedsNoService_AndAnIdentityOfTheCallersIsStoredOnce) {
    startRelays();
    ChildProcess sink = m_stage.startSink("b", "", "log");
    const std::string sLease = sink.readLine();
    const std::string sNumber = sLease.substr(sLease.find(' ') + 1);
    EXPECT_EQ(m_stage.run("a", {"notify", "b", sNumber, "1"}).second, 0);
    const std::vector<std::string> once{"notify", "b", sNumber, "long:2", "--id", "bill-7"};
    EXPECT_EQ(m_stage.run("a", once), std::pair(std::string(), 0));
    EXPECT_EQ(m_stage.run("a", once), std::pair(std::string("stored before\n"), 0));
    EXPECT_EQ(m_stage.run("a", {"notify", "b", sNumber, "3"}).second, 0);
    m_stage.expectEachOnceInOrder("log", 3);
    EXPECT_EQ(m_stage.run("a", {"notify", "b", sNumber, "colour:red"}).second, 2);
    EXPECT_EQ(m_stage.run("a", {"notify", "nowhere", sNumber, "1"}).second, 3);
}

TEST_F(RelayTest, SendTo_IsReadAgainAndAStarMeansEveryHostWithAStream) {
    const auto hasPipe = [](const char* szPipe) {
        return std::filesystem::exists(RelayStage::pathOf(szPipe));
    };
    startRelays();
    EXPECT_TRUE(hasPipe("pipes-b/relay-a"));
    m_stage.reloadRelay("b", "send-to =\n");
    EXPECT_TRUE(awaitCondition([&] { return !hasPipe("pipes-b/relay-a"); }));
    m_stage.administration().addHost("c", {});
    m_stage.reloadRelay("b", "send-to = *\n");
    EXPECT_TRUE(awaitCondition([&] { return hasPipe("pipes-b/relay-a") && hasPipe("pipes-b/relay-c"); }));
    EXPECT_FALSE(hasPipe("pipes-b/relay-b")) << "a host is no other host to itself";
    m_stage.administration().removeHost("c");
    m_stage.reloadRelay("b", "send-to = *\n");
    EXPECT_TRUE(awaitCondition([&] { return !hasPipe("pipes-b/relay-c"); }))
        << "without a stream it is unknown";
}

TEST_F(RelayTest, StatusAndMetrics_TellOfStreamSinksAndCounters) {
    startRelays();
    ChildProcess sink = m_stage.startSink("b", "billing", "log");
    ChildProcess service = m_stage.startService("a", "confirmed", sink.readLine(), 3);
    ASSERT_TRUE(RelayStage::awaitNumbers("log", 3));
    const std::string sStatus = m_stage.run("b", {"status", "--json"}).first;
    for (const char* szKey : {"connected", "ready", "accepted", "delivered", "sinks", "stream", "limit",
                              "oldest", "tries", "resets", "repeated", "moved-ports"})
        EXPECT_THAT(sStatus, HasSubstr(std::string("\"") + szKey + "\":"));
    EXPECT_THAT(m_stage.run("b", {"status"}).first,
                testing::AllOf(HasSubstr("\nsink billing "), HasSubstr("\nstream: ")));
    std::string sText;
    EXPECT_TRUE(awaitCondition([&] { // the last result comes after the callback
        sText = RelayStage::metricsOf("b");
        return sText.find("\nvornnet_relay_delivered_total 3\n") != std::string::npos;
    }));
    for (const char* szMetric :
         {"accepted_total 0", "published_total 0", "repeated_total 0", "refused_total 0", "held 0",
          "delivered_total 3", "tries_total ", "resets_total 0", "skipped_total 0", "moved_ports_total 0",
          "oldest_seconds{class=\"named\"} ", "oldest_seconds{class=\"tcp\"} ", "connected 1",
          "publish_seconds_count 0", "delivery_seconds_count 3", "stream_messages ", "stream_limit_bytes "})
        EXPECT_THAT(sText, HasSubstr(std::string("\nvornnet_relay_") + szMetric));
}
