// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"
#include "PublisherFixture.h"
#include "Sandbox.h"
#include "SubscriptionPeers.h"

#include <VornException.h>
#include <VornSubscriber.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <mutex>
#include <optional>
#include <stdexcept>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornTest;
using namespace std::chrono_literals;

namespace {

using testing::ElementsAre;
using Options = VornSubscriber::Options;
using State = VornSubscriber::State;

constexpr std::uint64_t history = 0x1122334455667788;
const char invalidOption[] = "VornSubscriber::VornSubscriber: invalid option. 22";

std::string contentOf(VornConnection& content) {
    std::string text;
    char piece[4096];
    long error = 0;
    for (long count = 1; count > 0;) {
        count = content.receive(piece, sizeof piece, &error, false);
        text.append(piece, static_cast<std::size_t>(count));
    }
    return text;
}

Options quick(const std::function<void(Options&)>& change = nullptr) {
    Options options;
    options.firstPause = 1ms;
    options.longestPause = 4ms;
    if (change)
        change(options);
    return options;
}

/** How a subscriber is reached, and by whom it is driven. */
struct Way {
    bool isPipe;
    bool hasOwnThread;
};

/** A subscriber whose calls are written down, and a plain service for it. */
class SubscriberFixture : public LeakCheckedTest {
protected:
    void TearDown() override {
        endDriving();
        m_subscriber.reset();
        m_service.reset();
        m_listener.reset();
        ::unlink(pipePath("alpha").c_str());
    }

    virtual Way way() const { return {true, true}; }

    void listen(int backlog = 16) {
        m_listener =
            way().isPipe ? unixListen(pipePath("alpha"), backlog) : tcpListen("127.0.0.1", m_port, backlog);
    }

    std::string address() {
        if (way().isPipe)
            return "pipe:alpha";
        if (m_port == 0)
            m_port = unusedTcpPort();
        return "socket:127.0.0.1:" + std::to_string(m_port);
    }

    void subscribe(Options options = {}) {
        options.bOwnThread = way().hasOwnThread;
        options.onGap = [this](const VornSubscriber::Gap& gap) {
            note("gap " + std::to_string(gap.last.nNumber) + " " + std::to_string(gap.next.nNumber) + " " +
                 std::to_string(gap.nMissed));
        };
        options.onState = [this](const VornSubscriber::Status& status) {
            note(std::string(VornSubscriber::nameOf(status.state)) + " '" + status.sReason + "' " +
                 std::to_string(status.nCode));
        };
        m_subscriber.emplace(
            address(), "builds",
            [this](VornConnection& content, const VornSubscriber::Event& event) {
                const std::string text = contentOf(content);
                note(std::to_string(event.position.nNumber) + (event.bOld ? " old " : " ") + text);
                if (m_inHandler)
                    m_inHandler(text);
            },
            options);
        if (!way().hasOwnThread)
            m_driver.emplace([this] { drive(); });
    }

    /** What a program's event loop does. */
    void drive() {
        while (!m_isEnding) {
            pollfd entry{m_subscriber->getHandle(), POLLIN, 0};
            if (::poll(&entry, 1, 20) == 1)
                m_subscriber->dispatch();
        }
    }

    void endDriving() {
        m_isEnding = true;
        m_driver.reset();
    }

    void note(const std::string& line) {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.push_back(line);
        }
        if (m_inNote)
            m_inNote(line);
    }

    std::vector<std::string> lines() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

    bool awaitLines(std::size_t count) {
        return awaitCondition([&] { return lines().size() >= count; });
    }

    /** Waits until a line is there. */
    bool awaitLine(const std::string& line) {
        return awaitCondition([&] {
            const auto all = lines();
            return std::find(all.begin(), all.end(), line) != all.end();
        });
    }

    /** Accepts the next connection and reads the line. */
    void acceptLine() {
        m_service = acceptClient(m_listener.get());
        EXPECT_EQ(receiveExactly(m_service.get(), 8), "builds\r\n");
    }

    /** Reads the request that is expected. */
    void acceptRequest(const WireRequest& request = {}) {
        acceptLine();
        sendAll(m_service.get(), "+");
        EXPECT_EQ(hex(receiveExactly(m_service.get(), request.bytes().size())), hex(request.bytes()));
    }

    /** Admits the next client. */
    void admit(const WirePlace& place = {history, 1, 0, 5000}, const WireRequest& request = {}) {
        acceptRequest(request);
        say(place.bytes());
    }

    /** Subscribes to a service that admits it. */
    void connect(const Options& options = quick(), const WirePlace& place = {history, 1, 0, 5000},
                 const WireRequest& request = {}) {
        listen();
        subscribe(options);
        admit(place, request);
    }

    /** Waits for the last of the lines: these have come, and no others. */
    void expectLines(const std::vector<std::string>& expected) {
        ASSERT_TRUE(awaitLine(expected.back()));
        EXPECT_EQ(lines(), expected);
    }

    void say(const std::string& data) { sendAll(m_service.get(), data); }

    void say(const WireFrame& frame) { say(frame.bytes()); }

    static WireRequest after(std::uint64_t number, std::uint64_t ofHistory = history) {
        return {.begin = 3, .history = ofHistory, .number = number};
    }

    VornSubscriber& subscriber() { return *m_subscriber; }

    UniqueFd m_listener;
    UniqueFd m_service;
    int m_port = 0;
    Checkpoint m_barrier;
    std::optional<VornSubscriber> m_subscriber;
    std::optional<WatchedThread> m_driver;
    std::atomic<bool> m_isEnding{false};
    std::function<void(const std::string&)> m_inHandler;
    std::function<void(const std::string&)> m_inNote;
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

class VornSubscriber_Wire : public SubscriberFixture, public testing::WithParamInterface<Way> {
protected:
    Way way() const override { return GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(Ways, VornSubscriber_Wire,
                         testing::Values(Way{true, true}, Way{true, false}, Way{false, true},
                                         Way{false, false}),
                         [](const auto& test) {
                             return std::string(test.param.isPipe ? "Pipe" : "Tcp") +
                                    (test.param.hasOwnThread ? "OwnThread" : "Dispatch");
                         });

std::string openFailure(const std::function<void(Options&)>& change,
                        const std::string& address = "pipe:alpha", const std::string& topic = "builds") {
    Options options;
    change(options);
    return thrownBy([&] {
        const VornSubscriber subscriber(
            address, topic, [](VornConnection&, const auto&) {}, options);
    });
}

} // namespace

// Opening.

using VornSubscriber_Open = SubscriberFixture;

TEST_F(VornSubscriber_Open, RefusesInvalidOptions) {
    const auto nothing = [](Options&) {};
    for (const char* address : {"", "alpha", "pipe:", "pipe:a/b", "socket:127.0.0.1:0", "socket:127.0.0.1:-1",
                                "socket:localhost:80", "socket:0.0.0.0:80", "socket:*:80",
                                "socket:127.0.0.1:80;", "udp:127.0.0.1:80"})
        EXPECT_EQ(openFailure(nothing, address), invalidOption) << address;
    for (const char* topic : {"", ".builds", "bui lds"})
        EXPECT_EQ(openFailure(nothing, "pipe:alpha", topic), invalidOption) << topic;
    EXPECT_EQ(thrownBy([] { VornSubscriber("pipe:alpha", "builds", nullptr); }), invalidOption);
    const std::pair<const char*, std::function<void(Options&)>> changes[] = {
        {"words", [](Options& o) { o.sWords = std::string(4097, 'w'); }},
        {"zero", [](Options& o) { o.sWords = std::string("a\0b", 3); }},
        {"event limit", [](Options& o) { o.nEventLimit = 0; }},
        {"answer limit", [](Options& o) { o.answerLimit = 0ms; }},
        {"first pause", [](Options& o) { o.firstPause = 0ms; }},
        {"longest pause", [](Options& o) { o.longestPause = -1ms; }},
    };
    for (const auto& [name, change] : changes)
        EXPECT_EQ(openFailure(change), invalidOption) << name;
    EXPECT_EQ(openFailure([](Options& o) { o.sWords = std::string(4096, 'w'); }), "nothing");
}

TEST_F(VornSubscriber_Open, WhenACallFails_TellsTheErrorNumber) {
    for (const char* function : {"epoll_create1", "timerfd_create", "epoll_ctl"}) {
        const FaultRule rule(function, EMFILE);
        EXPECT_EQ(openFailure([](Options&) {}), "VornSubscriber::VornSubscriber: failed to start. 24")
            << function;
    }
}

TEST_F(VornSubscriber_Open, NeedsNoServiceYet_AndTellsNoHandleOfItsOwnThread) {
    subscribe(quick());
    EXPECT_EQ(subscriber().getHandle(), -1);
    EXPECT_EQ(subscriber().dispatch(), 0U);
    ASSERT_TRUE(awaitLines(1));
    EXPECT_THAT(lines(), ElementsAre("connecting 'cannot connect' 2"));
    listen();
    admit();
    ASSERT_TRUE(awaitLine("connected '' 0"));
    EXPECT_GE(subscriber().statistics().nTries, 2U);
    EXPECT_EQ(subscriber().status().nTries, 0U);
}

TEST_F(VornSubscriber_Open, NamesItsThreadAndBlocksItsSignals) {
    subscribe(quick([](Options& o) { o.sName = "a-name-that-is-cut"; }));
    std::size_t named = 0;
    for (const pid_t tid : threadIds()) {
        const std::string status = readTextFile("/proc/self/task/" + std::to_string(tid) + "/status");
        if (status.find("Name:\ta-name-that-is-\n") != std::string::npos) {
            ++named;
            EXPECT_NE(status.find("SigBlk:\tfffffffe7ffbfeff"), std::string::npos) << status;
        }
    }
    EXPECT_EQ(named, 1U);
}

// The exchange.

TEST_P(VornSubscriber_Wire, AsksWithItsWords_AndCallsForEachEvent) {
    connect(quick([](Options& o) {
                o.start = VornSubscriber::Start::oldest;
                o.sWords = "me";
            }),
            {history, 1, 2, 5000}, {.begin = 2, .words = "me"});
    say(WireFrame::event(1, "a"));
    say(WireFrame::event(2, "b").bytes() + WireFrame::event(3, "").bytes());
    ASSERT_TRUE(awaitLines(4));
    EXPECT_THAT(lines(), ElementsAre("connected '' 0", "1 old a", "2 old b", "3 "));
    EXPECT_EQ(subscriber().position(), (VornPosition{history, 3}));
    const VornSubscriber::Statistics statistics = subscriber().statistics();
    EXPECT_EQ(statistics.nEvents, 3U);
    EXPECT_EQ(statistics.nFailed, 0U);
    EXPECT_EQ(statistics.nGaps, 0U);
    EXPECT_EQ(statistics.nSubscriptions, 1U);
    EXPECT_EQ(statistics.nTries, 1U);
    EXPECT_EQ(statistics.nNewest, 3U);
}

TEST_P(VornSubscriber_Wire, TheFirstRequestSaysWhereToBegin) {
    using Start = VornSubscriber::Start;
    const std::pair<Options, WireRequest> cases[] = {
        {quick(), {.begin = 0}},
        {quick([](Options& o) { o.start = Start::last; }), {.begin = 1}},
        {quick([](Options& o) {
             o.position = {0, 5};
         }),
         {.begin = 0}},
        {quick([](Options& o) {
             o.start = Start::oldest;
             o.position = {7, 5};
         }),
         after(5, 7)},
    };
    listen();
    for (const auto& [options, request] : cases) {
        m_isEnding = false;
        subscribe(options);
        acceptRequest(request);
        endDriving();
        m_subscriber.reset();
    }
}

TEST_P(VornSubscriber_Wire, AfterALoss_ItGoesOnAfterTheLastEventThatWasCalledFor) {
    connect(quick(), {history, 8, 7, 5000});
    say(WireFrame::event(8, "a"));
    ASSERT_TRUE(awaitLine("8 a"));
    m_service.reset();
    admit({history, 9, 9, 5000}, after(8));
    say(WireFrame::event(9, "b"));
    expectLines({"connected '' 0", "8 a", "away 'closed' 107", "connected '' 0", "9 old b"});
}

TEST_P(VornSubscriber_Wire, ALossBeforeTheFirstEvent_LosesNone) {
    connect(quick(), {history, 8, 7, 5000});
    ASSERT_TRUE(awaitLine("connected '' 0"));
    EXPECT_EQ(subscriber().position(), VornPosition());
    m_service.reset();
    admit({history, 8, 8, 5000}, after(7));
    say(WireFrame::event(8, "a"));
    ASSERT_TRUE(awaitLine("8 old a"));
    EXPECT_EQ(subscriber().statistics().nGaps, 0U);
}

TEST_P(VornSubscriber_Wire, AnEventThatWasCalledFor_IsLeftOut) {
    connect();
    for (const std::uint64_t number : {1U, 2U, 1U, 2U, 3U})
        say(WireFrame::event(number, "x"));
    expectLines({"connected '' 0", "1 x", "2 x", "3 x"});
    EXPECT_EQ(subscriber().statistics().nRepeated, 2U);
}

TEST_P(VornSubscriber_Wire, AnEventAheadWithoutAGap_IsAGapAndTheEvent) {
    connect();
    say(WireFrame::event(1, "x"));
    say(WireFrame::event(5, "y"));
    expectLines({"connected '' 0", "1 x", "gap 1 4 3", "5 y"});
    EXPECT_EQ(subscriber().statistics().nGaps, 1U);
    EXPECT_EQ(subscriber().statistics().nMissed, 3U);
}

TEST_P(VornSubscriber_Wire, AGap_IsToldBetweenTheTwoEvents) {
    connect();
    say(WireFrame::event(1, "x"));
    say(WireFrame::gap(history, 1, 2)); // of what is there
    say(WireFrame::gap(history, 2, 12));
    say(WireFrame::event(12, "y"));
    expectLines({"connected '' 0", "1 x", "gap 1 11 10", "12 y"});
    EXPECT_EQ(subscriber().statistics().nMissed, 10U);
}

TEST_P(VornSubscriber_Wire, AGapThatWasTold_IsNotAskedForAgain) {
    connect();
    say(WireFrame::gap(history, 1, 12));
    ASSERT_TRUE(awaitLine("gap 0 11 11"));
    m_service.reset();
    admit({history, 12, 11, 5000}, after(11));
}

TEST_P(VornSubscriber_Wire, AnotherHistory_IsAGapOfUnknownSize) {
    connect(quick([](Options& o) { o.position = {history, 5}; }), {history + 1, 1, 2, 5000}, after(5));
    say(WireFrame::gap(history + 1, 0, 1));
    say(WireFrame::event(1, "x"));
    expectLines({"connected '' 0", "gap 5 0 0", "1 old x"});
    EXPECT_EQ(subscriber().position(), (VornPosition{history + 1, 1}));
    EXPECT_EQ(subscriber().statistics().nGaps, 1U);
    EXPECT_EQ(subscriber().statistics().nMissed, 0U);
}

TEST_P(VornSubscriber_Wire, AnotherHistoryWithoutAGap_IsToldAllTheSame) {
    connect(quick([](Options& o) { o.position = {history, 5}; }), {history + 1, 3, 2, 5000}, after(5));
    say(WireFrame::event(3, "x"));
    expectLines({"connected '' 0", "gap 5 2 0", "3 x"});
}

TEST_P(VornSubscriber_Wire, AGapWithNumbersOfAnotherHistory_IsOfUnknownSize) {
    connect();
    say(WireFrame::event(1, "x"));
    say(WireFrame::gap(history + 1, 5, 8));
    say(WireFrame::event(8, "y"));
    expectLines({"connected '' 0", "1 x", "gap 1 7 0", "8 y"});
}

TEST_P(VornSubscriber_Wire, APositionAheadOfTheService_IsAGapAndGoesOnWithSmallerNumbers) {
    connect(quick([](Options& o) { o.position = {history, 500}; }), {history, 1, 1, 5000}, after(500));
    say(WireFrame::gap(history, 0, 1));
    say(WireFrame::event(1, "x"));
    expectLines({"connected '' 0", "gap 500 0 0", "1 old x"});
    EXPECT_EQ(subscriber().statistics().nRepeated, 0U);
}

TEST_P(VornSubscriber_Wire, SignsOfLifeAndUnknownKinds_CallNothing) {
    connect();
    say(WireFrame::sign(41));
    say(WireFrame{77, std::string(300'000, 'u')});
    say(WireFrame{0, ""});
    say(WireFrame::event(1, "x"));
    expectLines({"connected '' 0", "1 x"});
    EXPECT_EQ(subscriber().statistics().nNewest, 41U);
}

TEST_P(VornSubscriber_Wire, TakesEverythingInSingleBytes) {
    listen();
    subscribe(quick());
    acceptRequest();
    std::string all = WirePlace{history, 1, 0, 5000}.bytes();
    all += WireFrame::event(1, "x").bytes() + WireFrame{9, "skip"}.bytes() +
           WireFrame::gap(history, 2, 4).bytes() + WireFrame::event(4, "y").bytes() +
           WireFrame::last(1, "bye").bytes();
    for (const char byte : all)
        say({&byte, 1});
    expectLines({"connected '' 0", "1 x", "gap 1 3 2", "4 y", "away 'the service stops' 0"});
}

TEST_P(VornSubscriber_Wire, TakesEventsOfManyMegabytes) {
    connect();
    WatchedThread sending([&] {
        say(WireFrame::event(1, std::string(5 * 1024 * 1024, 'x')));
        say(WireFrame::event(2, "y"));
    });
    ASSERT_TRUE(awaitLine("2 y"));
    EXPECT_EQ(lines().at(1).size(), 2U + 5 * 1024 * 1024);
    EXPECT_TRUE(sending.join());
}

// What ends a try or a subscription.

TEST_P(VornSubscriber_Wire, NobodyThatListens_IsTriedAgainWithGrowingPauses) {
    (void)address();
    subscribe(quick([](Options& o) { o.longestPause = 1000ms; }));
    ASSERT_TRUE(awaitCondition([&] { return subscriber().status().nTries >= 4; }));
    EXPECT_EQ(lines().size(), 1U);
    EXPECT_THAT(lines().at(0), testing::StartsWith("connecting 'cannot connect'"));
    EXPECT_EQ(subscriber().status().nCode, way().isPipe ? ENOENT : ECONNREFUSED);
}

TEST_P(VornSubscriber_Wire, ARefusedTopic_IsTriedAgainAfterTheLongestPause) {
    listen();
    subscribe(quick([](Options& o) { o.longestPause = 60ms; }));
    for (int i = 0; i < 2; ++i) {
        acceptLine();
        say("-");
        ASSERT_TRUE(awaitLine("refused 'the service does not know this topic' 0"));
    }
    EXPECT_THAT(lines(), ElementsAre("refused 'the service does not know this topic' 0"));
}

TEST_P(VornSubscriber_Wire, ARefusal_HasTheServicesWords) {
    listen();
    subscribe(quick());
    acceptRequest();
    say(bytes("00 01 ff ff") + wireText("not for you"));
    ASSERT_TRUE(awaitLine("refused 'not for you' 0"));
    admit();
    ASSERT_TRUE(awaitLine("connected '' 0"));
    EXPECT_EQ(subscriber().status().nTries, 0U);
}

TEST_P(VornSubscriber_Wire, ADroppedSubscription_IsARefusal) {
    connect();
    say(WireFrame::last(2, "too loud"));
    ASSERT_TRUE(awaitLine("refused 'too loud' 0"));
    m_service.reset();
    admit({history, 1, 0, 5000}, after(0));
}

TEST_P(VornSubscriber_Wire, AServiceThatStops_IsAwayAndTriedAgain) {
    connect();
    say(WireFrame::last(1, "the service stops"));
    EXPECT_EQ(receiveToEnd(m_service.get()), "");
    admit({history, 1, 0, 5000}, after(0));
    ASSERT_TRUE(awaitLines(3));
    EXPECT_THAT(lines(), ElementsAre("connected '' 0", "away 'the service stops' 0", "connected '' 0"));
}

TEST_P(VornSubscriber_Wire, NoAnswerInTime_Is110_WhereverTheServiceIsSilent) {
    listen();
    subscribe(quick([](Options& o) { o.answerLimit = 400ms; }));
    acceptLine();
    ASSERT_TRUE(awaitLine("connecting 'no answer in time' 110"));
    acceptRequest();
    EXPECT_EQ(receiveToEnd(m_service.get()), "");
    acceptRequest();
    say(bytes("00 01 00"));
    EXPECT_EQ(receiveToEnd(m_service.get()), "");
    EXPECT_EQ(lines().size(), 1U);
    EXPECT_EQ(subscriber().status().nCode, ETIMEDOUT);
}

TEST_P(VornSubscriber_Wire, AServiceThatClosesBeforeItAnswers_Is107) {
    listen();
    subscribe(quick());
    acceptLine();
    m_service.reset();
    ASSERT_TRUE(awaitLine("connecting 'closed' 107"));
    acceptRequest();
    m_service.reset();
    acceptRequest();
}

TEST_P(VornSubscriber_Wire, AReset_IsClosedWith104) {
    connect();
    ASSERT_TRUE(awaitLine("connected '' 0"));
    if (way().isPipe)
        return; // a pipe's service that has read everything cannot reset
    resetOnClose(m_service.get());
    m_service.reset();
    ASSERT_TRUE(awaitLine("away 'closed' 104"));
}

TEST_P(VornSubscriber_Wire, NothingForThreeBeats_IsSilent) {
    connect(quick(), {history, 1, 0, 20});
    ASSERT_TRUE(awaitLine("away 'silent' 110"));
    EXPECT_EQ(receiveToEnd(m_service.get()), "");
}

TEST_P(VornSubscriber_Wire, TheTimeThatAHandlerTakes_IsNoSilence) {
    m_inHandler = [](const std::string& text) {
        const auto end = std::chrono::steady_clock::now() + (text == "a" ? 500ms : 0ms);
        awaitCondition([&] { return std::chrono::steady_clock::now() >= end; });
    };
    connect(quick(), {history, 1, 0, 150});
    say(WireFrame::event(1, "a").bytes());
    ASSERT_TRUE(awaitLine("1 a"));
    say(WireFrame::event(2, "b").bytes());
    ASSERT_TRUE(awaitLine("2 b"));
    std::vector<std::string> first = lines();
    first.resize(3);
    EXPECT_THAT(first, ElementsAre("connected '' 0", "1 a", "2 b"));
}

TEST_P(VornSubscriber_Wire, SignsOfLife_KeepItConnected) {
    connect(quick(), {history, 1, 0, 100});
    ASSERT_TRUE(awaitLine("connected '' 0"));
    const auto start = std::chrono::steady_clock::now();
    pollfd closed{m_service.get(), POLLIN, 0};
    while (std::chrono::steady_clock::now() - start < 600ms) {
        say(WireFrame::sign(0));
        ASSERT_EQ(::poll(&closed, 1, 40), 0); // a beat passes, or it has closed
    }
    EXPECT_EQ(lines().size(), 1U);
}

TEST_P(VornSubscriber_Wire, WhatIsNoAnswerOrNoFrame_IsNotUnderstood) {
    listen();
    subscribe(quick());
    acceptLine();
    say("x");
    ASSERT_TRUE(awaitLine("connecting 'not understood' 71"));
    for (const std::string& answer :
         {bytes("00 02 00 00"), bytes("00 01 ff ff ff ff ff ff"), WirePlace{0, 1, 0, 5000}.bytes(),
          WirePlace{history, 0, 0, 5000}.bytes(), WirePlace{history, 1, 0, 0}.bytes()}) {
        acceptRequest();
        say(answer);
        EXPECT_EQ(receiveToEnd(m_service.get()), "") << hex(answer);
    }
    EXPECT_EQ(lines().size(), 1U);
    WireRequest request;
    for (const std::string& frame :
         {bytes("00 00 00 01 ff ff ff ff"), bytes("00 00 00 04 00 01 00 01"), WireFrame{1, "1234567"}.bytes(),
          WireFrame::event(0, "").bytes(), WireFrame{2, std::string(23, 'x')}.bytes(),
          WireFrame{3, "1234567"}.bytes(), WireFrame{4, "123"}.bytes(),
          WireFrame{4, wireInt(3) + wireText("x")}.bytes(),
          WireFrame{4, wireInt(1) + wireInt(9) + "x"}.bytes(), WireFrame::gap(history, 1, 0).bytes(),
          WireFrame::gap(0, 0, 1).bytes()}) {
        admit({history, 1, 0, 5000}, request);
        request = after(0);
        say(frame);
        EXPECT_EQ(receiveToEnd(m_service.get()), "") << hex(frame);
        ASSERT_TRUE(awaitLine("away 'not understood' 71"));
    }
}

TEST_P(VornSubscriber_Wire, AnEventAboveTheLimit_Is90AndIsNotWaitedFor) {
    connect(quick([](Options& o) { o.nEventLimit = 3; }));
    say(WireFrame::event(1, "abc"));
    say(wireInt(1) + wireInt(8 + 4)); // the content never comes
    expectLines({"connected '' 0", "1 abc", "away 'event too long' 90"});
}

TEST_P(VornSubscriber_Wire, WithoutDescriptors_ItIsAwayWith24AndTriesAgain) {
    connect();
    ASSERT_TRUE(awaitLine("connected '' 0"));
    std::optional<FaultRule> full(std::in_place, "socket", EMFILE, 1, FaultRule::always);
    m_service.reset();
    ASSERT_TRUE(awaitLine("away 'cannot connect' 24"));
    full.reset();
    admit({history, 1, 0, 5000}, after(0));
}

TEST_P(VornSubscriber_Wire, WhenSendsAndReceivesAreCut_TheExchangeIsTheSame) {
    listen();
    const TransferLimit limit(1);
    subscribe(quick());
    acceptRequest();
    say(bytes("00 01 ff ff") + wireText("later"));
    ASSERT_TRUE(awaitLine("refused 'later' 0"));
    admit();
    say(WireFrame::event(1, "x"));
    ASSERT_TRUE(awaitLine("1 x"));
}

TEST_P(VornSubscriber_Wire, SetAddress_LeavesTheOldServiceAtOnce) {
    connect(quick([](Options& o) { o.longestPause = 1h; }));
    say(WireFrame::event(1, "x"));
    ASSERT_TRUE(awaitLine("1 x"));
    EXPECT_EQ(thrownBy([&] { subscriber().setAddress("nowhere"); }),
              "VornSubscriber::setAddress: invalid address. 22");
    UniqueFd old = std::move(m_service);
    m_listener = unixListen(pipePath("beta"));
    subscriber().setAddress("pipe:beta");
    EXPECT_EQ(receiveToEnd(old.get()), "");
    admit({history, 2, 1, 5000}, after(1));
    ASSERT_TRUE(awaitLines(4));
    EXPECT_THAT(lines(), ElementsAre("connected '' 0", "1 x", "away 'moved' 0", "connected '' 0"));
    ::unlink(pipePath("beta").c_str());
}

TEST_P(VornSubscriber_Wire, SetAddressByTheStateHandler_IsTriedAtOnce) {
    m_listener = unixListen(pipePath("beta"));
    m_inNote = [this](const std::string& line) {
        if (line.find("cannot connect") != std::string::npos)
            subscriber().setAddress("pipe:beta");
    };
    subscribe(quick([](Options& o) { o.firstPause = o.longestPause = 1h; }));
    admit();
    ASSERT_TRUE(awaitLine("connected '' 0"));
    EXPECT_EQ(lines().at(1), "connecting 'moved' 0");
    ::unlink(pipePath("beta").c_str());
}

TEST_P(VornSubscriber_Wire, AnAnswerLimitWithoutEnd_IsNone) {
    connect(quick([](Options& o) { o.answerLimit = std::chrono::milliseconds::max(); }));
    ASSERT_TRUE(awaitLine("connected '' 0"));
}

TEST_P(VornSubscriber_Wire, SetAddressByAHandler_EndsTheOldConnectionBeforeTheNextEvent) {
    m_inHandler = [this](const std::string&) { subscriber().setAddress(address()); };
    connect();
    say(WireFrame::event(1, "a").bytes() + WireFrame::event(2, "b").bytes());
    expectLines({"connected '' 0", "1 a", "away 'moved' 0"});
    admit({history, 2, 2, 5000}, after(1));
}

// Handlers.

TEST_P(VornSubscriber_Wire, AnEventHandlerThatThrows_IsLoggedAndCounted_AndTheEventIsCalledFor) {
    LogCapture log(1);
    m_inHandler = [](const std::string& text) {
        if (text == "a")
            throw VornSupport::VornException("mine", 5);
        if (text == "b")
            throw std::runtime_error("theirs");
        if (text == "c")
            throw 7;
    };
    connect();
    for (const char* text : {"a", "b", "c", "d"})
        say(WireFrame::event(static_cast<std::uint64_t>(*text - 'a' + 1), text));
    ASSERT_TRUE(awaitLine("4 d"));
    EXPECT_TRUE(log.await("VornSubscriber::onEvent: the handler threw: mine (code=5)"));
    EXPECT_TRUE(log.contains(1, "VornSubscriber::onEvent: the handler threw: theirs"));
    EXPECT_EQ(log.count("VornSubscriber::onEvent: the handler threw"), 3);
    EXPECT_EQ(subscriber().statistics().nFailed, 3U);
    EXPECT_EQ(subscriber().statistics().nEvents, 4U);
}

TEST_P(VornSubscriber_Wire, OtherHandlersThatThrow_AreLogged) {
    LogCapture log(1);
    m_inNote = [](const std::string& line) {
        if (line.compare(0, 3, "gap") == 0)
            throw std::runtime_error("of the gap");
        if (line.compare(0, 9, "connected") == 0)
            throw std::runtime_error("of the state");
    };
    connect();
    say(WireFrame::gap(history, 1, 3));
    say(WireFrame::event(3, "x"));
    ASSERT_TRUE(awaitLine("3 x"));
    EXPECT_TRUE(log.contains(1, "VornSubscriber::onState: the handler threw: of the state"));
    EXPECT_TRUE(log.contains(1, "VornSubscriber::onGap: the handler threw: of the gap"));
    EXPECT_EQ(subscriber().statistics().nFailed, 0U);
}

TEST_P(VornSubscriber_Wire, TheHandlerReadsInMemory_AndWhatItLeavesDoesNoHarm) {
    listen();
    std::vector<std::string> read;
    m_subscriber.emplace("pipe:none", "none", [](VornConnection&, const auto&) {});
    m_subscriber.reset();
    Options options = quick();
    options.bOwnThread = way().hasOwnThread;
    m_subscriber.emplace(
        address(), "builds",
        [&](VornConnection& content, const VornSubscriber::Event& event) {
            char peeked = '\0';
            int size = 1;
            int error = -1;
            EXPECT_TRUE(content.peekBytes(&peeked, size, error));
            EXPECT_EQ(error, 0);
            EXPECT_EQ(peeked, '\0');
            content.disconnect(); // from nobody
            read.push_back(std::to_string(content.receiveInt()));
            if (event.position.nNumber == 1) {
                read.push_back(content.receiveString());
                content.transfer(5); // goes nowhere
                read.push_back(thrownBy([&] { content.receiveInt(); }));
            }
            note("called");
        },
        options);
    if (!way().hasOwnThread)
        m_driver.emplace([this] { drive(); });
    admit();
    say(WireFrame::event(1, wireInt(7) + wireText("text") + "xyz"));
    say(WireFrame::event(2, wireInt(8) + "left"));
    say(WireFrame::gap(history, 3, 4)); // which nobody is told of
    say(WireFrame::event(4, wireInt(9)));
    ASSERT_TRUE(awaitLines(3));
    EXPECT_EQ(subscriber().statistics().nGaps, 1U);
    EXPECT_THAT(read, ElementsAre("7", "text", "VornConnection::get: failed read 0", "8", "9"));
}

TEST_P(VornSubscriber_Wire, StopByAHandler_CallsNothingMore) {
    m_inHandler = [this](const std::string&) { subscriber().stop(); };
    connect();
    say(WireFrame::event(1, "a").bytes() + WireFrame::event(2, "b").bytes());
    EXPECT_EQ(receiveToEnd(m_service.get()), "");
    EXPECT_THAT(lines(), ElementsAre("connected '' 0", "1 a"));
    EXPECT_EQ(subscriber().status().state, State::stopped);
    EXPECT_EQ(subscriber().status().sReason, "");
}

TEST_P(VornSubscriber_Wire, StopByTheGapHandler_CallsForNoEvent) {
    m_inNote = [this](const std::string& line) {
        if (line == "gap 0 4 4")
            subscriber().stop();
    };
    connect();
    say(WireFrame::event(5, "ahead"));
    EXPECT_EQ(receiveToEnd(m_service.get()), "");
    EXPECT_THAT(lines(), ElementsAre("connected '' 0", "gap 0 4 4"));
}

TEST_P(VornSubscriber_Wire, DestroyedByAHandler_TheRestIsLeft) {
    std::atomic<bool> isDestroyed = false;
    m_inHandler = [&](const std::string&) {
        m_isEnding = true;
        m_subscriber.reset();
        isDestroyed = true;
    };
    connect();
    say(WireFrame::event(1, "a").bytes() + WireFrame::event(2, "b").bytes());
    EXPECT_EQ(receiveToEnd(m_service.get()), "");
    ASSERT_TRUE(awaitCondition([&] { return isDestroyed.load(); }));
    EXPECT_THAT(lines(), ElementsAre("connected '' 0", "1 a"));
}

TEST_P(VornSubscriber_Wire, StopFromAnotherThread_WaitsForTheHandler) {
    m_inHandler = [this](const std::string&) { m_barrier.pass(); };
    connect();
    say(WireFrame::event(1, "a").bytes() + WireFrame::event(2, "b").bytes());
    ASSERT_TRUE(m_barrier.awaitReached());
    WatchedThread stopping([&] { subscriber().stop(); });
    ASSERT_TRUE(awaitBlockedOnLock(stopping.tid()));
    EXPECT_EQ(subscriber().dispatch(), 0U);
    m_barrier.open();
    EXPECT_TRUE(stopping.join());
    EXPECT_THAT(lines(), ElementsAre("connected '' 0", "1 a"));
    subscriber().stop();
    subscriber().setAddress(address());
}

TEST_P(VornSubscriber_Wire, Stop_LeavesNoDescriptorButTheHandle) {
    listen();
    const int descriptors = openDescriptors();
    subscribe(quick([](Options& o) { o.sPositionFile = "/opt/position"; }));
    admit();
    ASSERT_TRUE(awaitLine("connected '' 0"));
    subscriber().stop();
    m_service.reset();
    const int handle = subscriber().getHandle();
    EXPECT_EQ(openDescriptors(), descriptors + (way().hasOwnThread ? 0 : 1));
    if (!way().hasOwnThread) {
        pollfd entry{handle, POLLIN, 0};
        EXPECT_EQ(::poll(&entry, 1, 0), 0);
    }
    ::unlink("/opt/position");
}

// Position files.

class VornSubscriber_PositionFile : public SubscriberFixture {
protected:
    void TearDown() override {
        SubscriberFixture::TearDown();
        ::unlink("/opt/position");
    }

    Options withFile() {
        return quick([](Options& o) {
            o.sPositionFile = "/opt/position";
            o.position = {history, 3};
        });
    }
};

TEST_F(VornSubscriber_PositionFile, IsWrittenAfterEachCall_AndReadBack) {
    listen();
    m_inHandler = [this](const std::string& text) {
        if (text == "b")
            m_barrier.pass();
    };
    subscribe(withFile());
    admit({history, 4, 3, 5000}, after(3));
    say(WireFrame::event(4, "a").bytes() + WireFrame::event(5, "b").bytes());
    ASSERT_TRUE(m_barrier.awaitReached());
    EXPECT_EQ(readTextFile("/opt/position"), (VornPosition{history, 4}).text() + "\n");
    m_barrier.open();
    m_subscriber.reset();
    EXPECT_EQ(readTextFile("/opt/position"), (VornPosition{history, 5}).text() + "\n");
    EXPECT_EQ(readTextFile("/opt/position").size(), 38U);
    subscribe(withFile());
    EXPECT_EQ(subscriber().position(), (VornPosition{history, 5}));
    admit({history, 6, 5, 5000}, after(5));
}

TEST_F(VornSubscriber_PositionFile, AnEmptyOneLeavesTheOption) {
    std::ofstream("/opt/position");
    listen();
    subscribe(withFile());
    acceptRequest(after(3));
}

TEST_F(VornSubscriber_PositionFile, OneThatHoldsNone_Is22_AndALockedOne11) {
    const auto fileOption = [](Options& o) { o.sPositionFile = "/opt/position"; };
    for (const char* text : {"x", "\n", "1122334455667788-", "1122334455667788-5\n\n"}) {
        std::ofstream("/opt/position") << text;
        EXPECT_EQ(openFailure(fileOption), "VornSubscriber::VornSubscriber: failed to open position. 22")
            << text;
    }
    std::ofstream("/opt/position") << "1122334455667788-5\n";
    EXPECT_EQ(openFailure(fileOption), "nothing");
    const UniqueFd other(::open("/opt/position", O_RDWR | O_CLOEXEC));
    ASSERT_EQ(::flock(other.get(), LOCK_EX), 0);
    EXPECT_EQ(openFailure(fileOption), "VornSubscriber::VornSubscriber: failed to open position. 11");
    EXPECT_EQ(openFailure([](Options& o) { o.sPositionFile = "/opt/none/position"; }),
              "VornSubscriber::VornSubscriber: failed to open position. 2");
}

TEST_F(VornSubscriber_PositionFile, ANoteThatFails_IsTriedAgainWithTheNextEvent) {
    connect(withFile(), {history, 4, 3, 5000}, after(3));
    {
        const FaultRule full("pwrite", ENOSPC);
        say(WireFrame::event(4, "a"));
        ASSERT_TRUE(awaitCondition([&] { return full.failures() == 1; }));
    }
    EXPECT_EQ(readTextFile("/opt/position"), "");
    say(WireFrame::event(5, "b"));
    EXPECT_TRUE(awaitCondition([] {
        return readTextFile("/opt/position") == (VornPosition{history, 5}).text() + "\n";
    }));
}

// What the kernel says of the service.

using VornSubscriber_Service = SubscriberFixture;

TEST_F(VornSubscriber_Service, OfAnotherUser_Is13) {
    listen();
    subscribe(quick([](Options& o) { o.allowedUsers = {::geteuid() + 1}; }));
    ASSERT_TRUE(awaitLine("connecting 'the service runs as another user' 13"));
    m_service = acceptClient(m_listener.get());
    EXPECT_EQ(receiveToEnd(m_service.get()), "");
    m_subscriber.reset();
    m_listener.reset();
    ::unlink(pipePath("alpha").c_str());
    listen();
    subscribe(quick([](Options& o) { o.allowedUsers = {::geteuid() + 1, ::geteuid()}; }));
    admit();
    EXPECT_TRUE(awaitLine("connected '' 0"));
}

TEST_F(VornSubscriber_Service, AFullQueue_Is11) {
    listen(0);
    const UniqueFd first = unixConnect(pipePath("alpha"));
    subscribe(quick());
    ASSERT_TRUE(awaitLine("connecting 'cannot connect' 11"));
    acceptClient(m_listener.get());
    admit();
}

class VornSubscriber_Host : public SubscriberFixture {
protected:
    Way way() const override { return {false, true}; }
};

TEST_F(VornSubscriber_Host, ThatSwallowsPackets_IsGivenTheAnswerLimit) {
    listen(0);
    const UniqueFd inFront = tcpConnect("127.0.0.1", m_port); // from now on the kernel drops who comes
    subscribe(quick([](Options& o) { o.answerLimit = 30ms; }));
    EXPECT_TRUE(awaitLine("connecting 'cannot connect' 110"));
}

TEST_F(VornSubscriber_Host, ThatIsItself_IsNoService) {
    needSandbox("a network of its own, whose ports it chooses from");
    // Where nobody listens, the kernel may give the subscriber the very port that it connects to.
    std::ofstream("/proc/sys/net/ipv4/ip_local_port_range") << "40000 40000";
    m_port = 40000;
    subscribe(quick([](Options& o) { o.firstPause = o.longestPause = 1h; }));
    EXPECT_TRUE(awaitLine("connecting 'cannot connect' 111"));
}

using VornSubscriber_Thread = SubscriberFixture;

TEST_F(VornSubscriber_Thread, AHandlerThatEndsIt_EndsNothingElse) {
    m_inHandler = [](const std::string&) { ::pthread_exit(nullptr); };
    connect();
    say(WireFrame::event(1, "a"));
    ASSERT_TRUE(awaitLine("1 a"));
    EXPECT_TRUE(WatchedThread([&] { subscriber().stop(); }).join());
    EXPECT_EQ(receiveToEnd(m_service.get()), "");
}

TEST_F(VornSubscriber_Thread, Stop_IsGoneThroughAlsoByAThreadThatIsCancelled) {
    m_inHandler = [this](const std::string&) { m_barrier.pass(); };
    connect();
    say(WireFrame::event(1, "a"));
    ASSERT_TRUE(m_barrier.awaitReached());
    WatchedThread stopping([&] { subscriber().stop(); });
    ASSERT_TRUE(awaitBlockedOnLock(stopping.tid()));
    ::pthread_cancel(stopping.handle());
    m_barrier.open();
    EXPECT_TRUE(stopping.join());
    EXPECT_EQ(stopping.exceptionText(), std::nullopt);
    EXPECT_EQ(receiveToEnd(m_service.get()), "") << "it has been closed";
}

// In an event loop.

class VornSubscriber_Loop : public SubscriberFixture {
protected:
    Way way() const override { return {true, false}; }

    /** Subscribes without anybody that drives. */
    void subscribeOnly() {
        Options options = quick();
        options.bOwnThread = false;
        m_subscriber.emplace(
            "pipe:alpha", "builds",
            [this](VornConnection& content, const VornSubscriber::Event&) {
                note(contentOf(content));
                m_nInside = m_subscriber->dispatch();
            },
            options);
    }

    bool isReadable(int limit) {
        pollfd entry{subscriber().getHandle(), POLLIN, 0};
        return ::poll(&entry, 1, limit) == 1;
    }

    std::size_t m_nInside = 99;
};

TEST_F(VornSubscriber_Loop, TheHandleIsOneAndTheSame_CloseOnExecAndLevelTriggered) {
    listen();
    subscribeOnly();
    const int handle = subscriber().getHandle();
    EXPECT_EQ(::fcntl(handle, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_TRUE(isReadable(0)); // it wants to connect
    EXPECT_TRUE(isReadable(0));
    EXPECT_EQ(subscriber().dispatch(), 0U);
    EXPECT_FALSE(isReadable(0));
    acceptLine();
    say("+");
    EXPECT_TRUE(isReadable(1000));
    EXPECT_EQ(subscriber().dispatch(), 0U);
    say(WirePlace{history, 1, 0, 5000}.bytes());
    EXPECT_TRUE(isReadable(1000));
    subscriber().dispatch();
    EXPECT_EQ(subscriber().status().state, State::connected);
    say(WireFrame::event(1, "a").bytes() + WireFrame::event(2, "b").bytes());
    EXPECT_TRUE(isReadable(1000));
    EXPECT_EQ(subscriber().dispatch(), 2U);
    EXPECT_EQ(m_nInside, 0U);
    EXPECT_FALSE(isReadable(0));
    EXPECT_EQ(subscriber().getHandle(), handle);
}

TEST_F(VornSubscriber_Loop, ItCoversPausesToo) {
    subscribeOnly();
    for (std::uint64_t tries = 1; tries <= 5; ++tries) {
        ASSERT_TRUE(isReadable(5000));
        subscriber().dispatch();
        EXPECT_LE(subscriber().statistics().nTries, tries);
    }
    EXPECT_GE(subscriber().statistics().nTries, 2U);
}

TEST_F(VornSubscriber_Loop, AtMostAbout64KiBAtATime_AndTheHandleStaysReadable) {
    listen();
    subscribeOnly();
    subscriber().dispatch();
    acceptLine();
    say("+" + WirePlace{history, 1, 0, 5000}.bytes());
    const std::string content(1000, 'x');
    std::string all;
    for (std::uint64_t number = 1; number <= 150; ++number)
        all += WireFrame::event(number, content).bytes();
    say(all);
    std::size_t called = 0;
    while (called < 150) {
        ASSERT_TRUE(isReadable(1000));
        const std::size_t now = subscriber().dispatch();
        EXPECT_LE(now, 70U);
        called += now;
    }
    EXPECT_EQ(called, 150U);
    EXPECT_EQ(lines().size(), 150U);
}

TEST_F(VornSubscriber_Loop, AThreadThatIsEndedWithinAHandler_LeavesTheRestToTheNext) {
    connect();
    ASSERT_TRUE(awaitLine("connected '' 0"));
    m_inHandler = [](const std::string& text) {
        if (text == "a")
            ::pthread_exit(nullptr);
    };
    say(WireFrame::event(1, "a").bytes() + WireFrame::event(2, "b").bytes());
    ASSERT_TRUE(m_driver->join());
    EXPECT_TRUE(isReadable(1000));
    EXPECT_EQ(subscriber().dispatch(), 1U);
    EXPECT_EQ(lines().back(), "2 b");
}

TEST_F(VornSubscriber_Loop, AThreadThatIsEndedWhenAGapIsTold_LeavesTheEventAfterItToTheNext) {
    m_inNote = [](const std::string& line) {
        if (line == "gap 0 4 4")
            ::pthread_exit(nullptr);
    };
    connect();
    say(WireFrame::event(5, "ahead"));
    ASSERT_TRUE(m_driver->join());
    EXPECT_TRUE(isReadable(1000));
    EXPECT_EQ(subscriber().dispatch(), 1U);
    EXPECT_THAT(lines(), ElementsAre("connected '' 0", "gap 0 4 4", "5 ahead"));
}

TEST_F(VornSubscriber_Loop, WhatAThreadHasLeftIsDealtWithBeforeTheEnd) {
    listen();
    for (const bool isStopped : {false, true}) {
        const std::size_t before = lines().size();
        subscribe(quick([](Options& o) { o.firstPause = o.longestPause = 1h; }));
        admit();
        ASSERT_TRUE(awaitLines(before + 1)); // it is connected
        m_inHandler = [this](const std::string& text) {
            if (text == "a")
                ::pthread_exit(nullptr);
            subscriber().stop();
        };
        say(WireFrame::event(1, "a").bytes() +
            (isStopped ? WireFrame::event(2, "b") : WireFrame::last(2, "enough")).bytes());
        ASSERT_TRUE(m_driver->join());
        m_service.reset();
        EXPECT_TRUE(isReadable(1000));
        EXPECT_EQ(subscriber().dispatch(), isStopped ? 1U : 0U);
        EXPECT_EQ(lines().back(), isStopped ? "2 b" : "refused 'enough' 0");
        m_subscriber.reset();
    }
}

TEST_F(VornSubscriber_Loop, OfTwoThreadsThatDispatch_EachIsToldWhatItHasCalledFor) {
    constexpr std::size_t count = 1000;
    listen();
    subscribeOnly();
    subscriber().dispatch();
    acceptLine();
    say("+" + WirePlace{history, 1, 0, 5000}.bytes());
    std::atomic<std::size_t> called{0};
    const auto drive = [&] {
        while (called < count)
            called += isReadable(10) ? subscriber().dispatch() : 0;
    };
    WatchedThread one(drive);
    WatchedThread other(drive);
    for (std::uint64_t number = 1; number <= count; ++number)
        say(WireFrame::event(number, "x"));
    EXPECT_TRUE(one.join());
    EXPECT_TRUE(other.join());
    EXPECT_EQ(called, count);
}

TEST(VornSubscriber, NameOf_IsTheNameInTheSource) {
    EXPECT_STREQ(VornSubscriber::nameOf(State::connecting), "connecting");
    EXPECT_STREQ(VornSubscriber::nameOf(State::connected), "connected");
    EXPECT_STREQ(VornSubscriber::nameOf(State::away), "away");
    EXPECT_STREQ(VornSubscriber::nameOf(State::refused), "refused");
    EXPECT_STREQ(VornSubscriber::nameOf(State::stopped), "stopped");
    EXPECT_STREQ(VornSubscriber::nameOf(static_cast<State>(9)), "unknown");
}
