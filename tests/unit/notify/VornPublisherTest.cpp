// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ClockShift.h"
#include "LogCapture.h"
#include "Process.h"
#include "PublisherFixture.h"

#include <VornSubscriber.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <iostream>
#include <stdexcept>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/filter.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornTest;
using namespace std::chrono_literals;

namespace {

using testing::ElementsAre;
using Options = VornPublisher::Options;

const char invalidOption[] = "VornPublisher::VornPublisher: invalid option. 22";

std::string openFailure(const std::string& address, const std::vector<std::string>& topics = {"builds"},
                        const Options& options = {}) {
    return thrownBy([&] { const VornPublisher publisher(address, topics, options); });
}

/** Options with one of them changed. */
Options with(const std::function<void(Options&)>& change) {
    Options options;
    change(options);
    return options;
}

} // namespace

// Opening.

using VornPublisher_Open = PublisherFixture;

TEST_F(VornPublisher_Open, RefusesWhatIsNoAddress) {
    for (const char* address :
         {"", "alpha", "pipe:", "pipe:.", "pipe:..", "pipe:a/b", "socket:", "socket:127.0.0.1",
          "socket:127.0.0.1:", "socket:127.0.0.1:65536", "socket:127.0.0.1:-1", "socket:localhost:0",
          "socket:**:0", "socket:127.0.0:0", "udp:127.0.0.1:0", "ssl:127.0.0.1:0"})
        EXPECT_EQ(openFailure(address), invalidOption) << address;
    EXPECT_EQ(openFailure("pipe:" + std::string(200, 'x')), invalidOption);
    EXPECT_EQ(openFailure(std::string("pipe:a\0b", 8)), invalidOption);
    EXPECT_EQ(openFailure(std::string("socket:127.0.0.1\0:80", 20)), invalidOption);
    EXPECT_EQ(openFailure("udp:127.0.0.1:80"), invalidOption);
}

TEST_F(VornPublisher_Open, TakesTheLongestPipeName) {
    const std::string name(107 - std::string(pipeDirectory()).size(), 'x');
    EXPECT_EQ(VornPublisher("pipe:" + name, {"builds"}).getAddress(), "pipe:" + name);
    EXPECT_EQ(openFailure("pipe:" + name + "x"), invalidOption);
}

TEST_F(VornPublisher_Open, RefusesWhatIsNoTopic) {
    for (const std::string& topic :
         {std::string(), std::string(65, 't'), std::string(".builds"), std::string("bui lds"),
          std::string("bui/lds"), std::string("b\303\274"), std::string("builds\0", 7)}) {
        EXPECT_EQ(openFailure("pipe:alpha", {"fine", topic}), invalidOption) << topic;
        EXPECT_EQ(thrownBy([&] { VornPublisher("pipe:alpha", {}).addTopic(topic); }),
                  "VornPublisher::addTopic: invalid topic. 22");
    }
    EXPECT_EQ(openFailure("pipe:alpha", {std::string(64, 't'), "A-Z.a_z-0.9", "_", "-"}), "nothing");
}

TEST_F(VornPublisher_Open, RefusesInvalidOptions) {
    const std::pair<const char*, std::function<void(Options&)>> changes[] = {
        {"network", [](Options& o) { o.allowedNetworks = {"10.0.0.0/33"}; }},
        {"network address",
         [](Options& o) {
             o.allowedNetworks = {"10.0.0.5", "localhost"};
         }},
        {"network prefix", [](Options& o) { o.allowedNetworks = {"10.0.0.5/"}; }},
        {"group", [](Options& o) { o.sPipeGroup = "no such group"; }},
        {"history", [](Options& o) { o.nHistoryBytes = 4095; }},
        {"event", [](Options& o) { o.nEventLimit = 0; }},
        {"requests", [](Options& o) { o.nRequestLimit = 0; }},
        {"request limit", [](Options& o) { o.requestLimit = 0ms; }},
        {"negative request limit", [](Options& o) { o.requestLimit = -1ms; }},
        {"beat", [](Options& o) { o.beat = 0ms; }},
        {"stop limit", [](Options& o) { o.stopLimit = -1ms; }},
    };
    for (const auto& [name, change] : changes)
        EXPECT_EQ(openFailure("pipe:alpha", {"builds"}, with(change)), invalidOption) << name;
    EXPECT_EQ(openFailure("pipe:alpha", {"builds"}, with([](Options& o) {
                              o.nHistoryBytes = 4096;
                              o.nSubscriberLimit = 0;
                              o.stopLimit = 0ms;
                              o.allowedNetworks = {"10.0.0.5", "0.0.0.0/0"};
                          })),
              "nothing");
}

TEST_F(VornPublisher_Open, TellsItsAddress) {
    EXPECT_EQ(VornPublisher("pipe:alpha", {}).getAddress(), "pipe:alpha");
    EXPECT_THAT(VornPublisher("socket:127.0.0.1:0", {}).getAddress(),
                testing::MatchesRegex("socket:127\\.0\\.0\\.1:[1-9][0-9]*"));
    const int port = unusedTcpPort();
    EXPECT_EQ(VornPublisher("socket:127.0.0.1:" + std::to_string(port), {}).getAddress(),
              "socket:127.0.0.1:" + std::to_string(port));
    // Clients can connect to what it tells.
    EXPECT_THAT(VornPublisher("socket:*:0", {}).getAddress(),
                testing::MatchesRegex("socket:127\\.0\\.0\\.1:[1-9][0-9]*"));
}

TEST_F(VornPublisher_Open, GivesThePipesFileModeAndGroup) {
    const mode_t previous = ::umask(0777);

    struct stat status {};

    {
        const VornPublisher publisher("pipe:alpha", {}, with([](Options& o) { o.sPipeGroup = "root"; }));
        ASSERT_EQ(::stat(pipePath("alpha").c_str(), &status), 0);
    }
    ::umask(previous);
    EXPECT_EQ(status.st_mode & 07777, 0770U);
    EXPECT_EQ(status.st_gid, 0U);
}

TEST_F(VornPublisher_Open, ALivingServersPipeIs98_ADeadOnesIsReplaced) {
    {
        const UniqueFd living = unixListen(pipePath("alpha"));
        EXPECT_EQ(openFailure("pipe:alpha"), "VornPublisher::VornPublisher: failed to open server. 98");
        EXPECT_EQ(::access(pipePath("alpha").c_str(), F_OK), 0);
    }
    EXPECT_EQ(openFailure("pipe:alpha"), "nothing");
    const VornPublisher first("pipe:alpha", {});
    EXPECT_EQ(openFailure("pipe:alpha"), "VornPublisher::VornPublisher: failed to open server. 98");
    connectTo("pipe:alpha");
}

TEST_F(VornPublisher_Open, APortInUseIs98) {
    int port = 0;
    const UniqueFd living = tcpListen("127.0.0.1", port);
    EXPECT_EQ(openFailure("socket:127.0.0.1:" + std::to_string(port)),
              "VornPublisher::VornPublisher: failed to open server. 98");
}

TEST_F(VornPublisher_Open, WithoutAPipeDirectoryIs2) {
    const std::string away = std::string(pipeDirectory(), std::string(pipeDirectory()).size() - 1);
    ASSERT_EQ(::rename(away.c_str(), (away + ".away").c_str()), 0);
    EXPECT_EQ(openFailure("pipe:alpha"), "VornPublisher::VornPublisher: failed to open server. 2");
    ASSERT_EQ(::rename((away + ".away").c_str(), away.c_str()), 0);
}

TEST_F(VornPublisher_Open, WhenACallFails_TellsWhatWasBeingOpened) {
    const std::string notOpened = "VornPublisher::VornPublisher: failed to open server. 13";
    for (const char* function : {"socket", "bind", "chmod", "listen"}) {
        const FaultRule rule(function, EACCES);
        EXPECT_EQ(openFailure("pipe:alpha"), notOpened) << function;
        EXPECT_NE(::access(pipePath("alpha").c_str(), F_OK), 0);
    }
    {
        const FaultRule rule("setsockopt", EACCES);
        EXPECT_EQ(openFailure("socket:127.0.0.1:0"), notOpened);
    }
    for (const int nth : {1, 2}) { // the second is of what sends to callback addresses
        const FaultRule rule("eventfd", EMFILE, nth);
        EXPECT_EQ(
            openFailure("pipe:alpha", {"builds"}, with([](Options& o) { o.bCallbackAddresses = true; })),
            "VornPublisher::VornPublisher: failed to start. 24");
    }
}

TEST_F(VornPublisher_Open, NamesItsThreadsAndBlocksTheirSignals) {
    open(with([](Options& o) {
        o.sName = "a-name-that-is-cut";
        o.onLeave = [](const auto&, auto, int) {};
    }));
    const std::string threads = describeThreads();
    EXPECT_EQ(threads.find("a-name-that-is-"), threads.find("a-name-that-is")) << threads;
    std::size_t named = 0;
    for (const pid_t tid : threadIds()) {
        const std::string status = readTextFile("/proc/self/task/" + std::to_string(tid) + "/status");
        if (status.find("Name:\ta-name-that-is-\n") == std::string::npos)
            continue;
        ++named;
        EXPECT_NE(status.find("SigBlk:\tfffffffe7ffbfeff"), std::string::npos) << status;
    }
    EXPECT_EQ(named, 2U);
}

TEST_F(VornPublisher_Open, ItsDescriptorsAreCloseOnExec) {
    const auto before = descriptorTable();
    open();
    for (const auto& [fd, what] : descriptorTable()) {
        if (before.count(fd) == 0) {
            EXPECT_EQ(::fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << what;
        }
    }
}

TEST_F(VornPublisher_Open, RemovesItsFileAtTheEnd_AndNobodyElses) {
    open();
    m_publisher.reset();
    EXPECT_NE(::access(pipePath("alpha").c_str(), F_OK), 0);
    open();
    const UniqueFd other = unixListen(pipePath("alpha"));
    m_publisher.reset();
    EXPECT_EQ(::access(pipePath("alpha").c_str(), F_OK), 0);
    ::unlink(pipePath("alpha").c_str());
}

TEST_F(VornPublisher_Open, AFileThatVanishesIsMadeAgain) {
    open();
    const RawSubscriber standing(address(), "builds");
    ::unlink(pipePath("alpha").c_str());
    EXPECT_TRUE(awaitCondition([this] { return isAccepting(); }));
    const RawSubscriber later(address(), "builds");
    publish("x");
    EXPECT_EQ(standing.next(), WireFrame::event(1, "x"));
    EXPECT_EQ(later.next(), WireFrame::event(1, "x"));
}

TEST_F(VornPublisher_Open, AFileThatCannotBeMadeAgain_IsTriedAgain) {
    open();
    const FaultRule fault("bind", EACCES);
    ::unlink(pipePath("alpha").c_str());
    EXPECT_TRUE(awaitCondition([this] { return isAccepting(); }));
    EXPECT_EQ(fault.failures(), 1);
    const RawSubscriber subscriber(address(), "builds");
}

// Publishing.

using VornPublisher_Publish = PublisherFixture;

TEST_F(VornPublisher_Publish, NumbersTheEventsOfEachTopic) {
    open();
    EXPECT_EQ(publish("a"), 1U);
    EXPECT_EQ(publish("b"), 2U);
    EXPECT_EQ(publisher().publish("other", writing("c")), 1U);
    EXPECT_EQ(publisher().position("builds").nNumber, 2U);
    EXPECT_EQ(publisher().position("other").nNumber, 1U);
    EXPECT_NE(publisher().position("builds").nHistory, 0U);
    EXPECT_NE(publisher().position("builds").nHistory, publisher().position("other").nHistory);
    EXPECT_EQ(publisher().statistics().nPublished, 3U);
}

TEST_F(VornPublisher_Publish, RefusesUnknownTopics) {
    open();
    EXPECT_EQ(thrownBy([&] { publisher().publish("none", writing("a")); }),
              "VornPublisher::publish: unknown topic. 22");
    EXPECT_EQ(thrownBy([&] { publisher().position("none"); }), "VornPublisher::position: unknown topic. 22");
}

TEST_F(VornPublisher_Publish, AddTopic_AddsOneAndLeavesOneThatIsThere) {
    open();
    publish("a");
    const VornPosition position = publisher().position("builds");
    publisher().addTopic("builds");
    publisher().addTopic("later");
    EXPECT_EQ(publisher().position("builds"), position);
    EXPECT_EQ(publisher().publish("later", writing("b")), 1U);
    EXPECT_EQ(RawSubscriber(address(), "later").place.newest, 1U);
}

TEST_F(VornPublisher_Publish, CallsTheWriterOnceAtOnceOnTheCallersThread) {
    open();
    int calls = 0;
    publisher().publish("builds", [&, self = std::this_thread::get_id()](VornConnection&) {
        ++calls;
        EXPECT_EQ(std::this_thread::get_id(), self);
    });
    EXPECT_EQ(calls, 1);
}

TEST_F(VornPublisher_Publish, TheContentIsWhatTheWriterWrites) {
    open();
    const RawSubscriber subscriber(address(), "builds");
    publisher().publish("builds", [](VornConnection& content) {
        content.transfer(7);
        content.transfer("text");
        content.transfer(true);
        content.transfer(5L);
        content.disconnect();
        content.transferACK();
    });
    EXPECT_EQ(subscriber.next(),
              WireFrame::event(1, bytes("00 00 00 07 00 00 00 04 74 65 78 74 00 01 00 00 00 05"
                                        "00 00 00 00 00 01 00 00")));
    publisher().publish("builds", [](VornConnection&) {});
    EXPECT_EQ(subscriber.next(), WireFrame::event(2, ""));
}

TEST_F(VornPublisher_Publish, AWriterThatReads_Is95_AndNothingIsPublished) {
    open();
    const std::function<void(VornConnection&)> reads[] = {
        [](VornConnection& content) { content.receiveInt(); },
        [](VornConnection& content) { content.receiveString(); },
        [](VornConnection& content) {
            char byte = '\0';
            int size = 1;
            int error = 0;
            content.peekBytes(&byte, size, error);
        },
        [](VornConnection& content) {
            thrownBy([&] { content.receiveInt(); }); // what it catches counts all the same
        },
    };
    for (const auto& read : reads)
        EXPECT_EQ(thrownBy([&] { publisher().publish("builds", read); }),
                  "VornPublisher::publish: the writer must not read. 95");
    EXPECT_EQ(publisher().position("builds").nNumber, 0U);
}

TEST_F(VornPublisher_Publish, WhatTheWriterThrows_Passes_AndNothingIsPublished) {
    open();
    EXPECT_THROW(publisher().publish("builds",
                                     [](VornConnection& content) {
                                         content.transfer(1);
                                         throw std::string("mine");
                                     }),
                 std::string);
    EXPECT_EQ(publisher().position("builds").nNumber, 0U);
}

TEST_F(VornPublisher_Publish, AWriterMayPublish) {
    open();
    EXPECT_EQ(publisher().publish("builds",
                                  [&](VornConnection& content) {
                                      publisher().publish("builds", writing("inner"));
                                      content.transfer("outer");
                                  }),
              2U);
}

TEST_F(VornPublisher_Publish, AnEventAboveTheLimit_Is90) {
    const char tooLong[] = "VornPublisher::publish: event too long. 90";
    open(with([](Options& o) { o.nEventLimit = 10; }));
    EXPECT_EQ(thrownBy([&] { publish(std::string(11, 'x')); }), tooLong);
    EXPECT_EQ(publish(std::string(10, 'x')), 1U);
    open(with([](Options& o) { o.nHistoryBytes = 8192; }), "pipe:beta");
    EXPECT_EQ(thrownBy([&] { publish(std::string(2049, 'x')); }), tooLong);
    EXPECT_EQ(publish(std::string(2048, 'x')), 1U);
    EXPECT_EQ(thrownBy([&] {
                  publisher().publish("builds", [](VornConnection& content) {
                      for (int i = 0; i < 1000; ++i)
                          content.transfer(i);
                  });
              }),
              tooLong);
    EXPECT_EQ(publisher().position("builds").nNumber, 1U);
}

TEST_F(VornPublisher_Publish, AfterStop_Is108) {
    open();
    publisher().stop(0ms);
    EXPECT_EQ(thrownBy([&] { publish("a"); }), "VornPublisher::publish: stopped. 108");
}

TEST_F(VornPublisher_Publish, StoppedWhileTheWriterWrites_Is108) {
    open();
    const auto writeLate = [&](VornConnection& out) {
        publisher().stop(0ms);
        out.transfer(1);
    };
    EXPECT_EQ(thrownBy([&] { publisher().publish("builds", writeLate); }),
              "VornPublisher::publish: stopped. 108");
    EXPECT_EQ(publisher().position("builds").nNumber, 0U);
}

TEST_F(VornPublisher_Publish, ManyThreads_GiveEachEventANumberOfItsOwn) {
    open(with([](Options& o) { o.nHistoryBytes = 64 * 1024; }));
    RawSubscriber subscriber(address(), "builds");
    constexpr std::uint64_t each = 5000;
    std::vector<std::unique_ptr<WatchedThread>> threads;
    for (const char* name : {"a", "b", "c"})
        threads.push_back(std::make_unique<WatchedThread>([&, name] {
            for (std::uint64_t i = 0; i < each; ++i)
                publish(name + std::string(i % 50, '.'));
        }));
    // Whatever it is sent: each number once, in order, and gaps exactly where they are told.
    for (std::uint64_t expected = 1; expected <= 3 * each;) {
        const WireFrame frame = subscriber.next();
        if (frame.kind == 2) {
            ASSERT_EQ(numberOf(frame.rest, 8), expected);
            ASSERT_GT(numberOf(frame.rest, 16), expected);
            expected = numberOf(frame.rest, 16);
            continue;
        }
        ASSERT_EQ(frame.kind, 1U);
        ASSERT_EQ(frame.number(), expected++);
        ASSERT_EQ(frame.content().find_first_not_of('.', 1), std::string::npos);
    }
    for (const auto& thread : threads)
        EXPECT_TRUE(thread->join());
}

// The exchange.

class VornPublisher_Wire : public PublisherFixture, public testing::WithParamInterface<bool> {
protected:
    VornPublisher& open(const Options& options = {}) {
        return PublisherFixture::open(options, GetParam() ? "pipe:alpha" : "socket:127.0.0.1:0");
    }

    /** A client about whom the handler decides, as soon as the barrier is open. */
    UniqueFd askAHandlerThatWaits() {
        open(with([this](Options& o) {
            o.onLeave = m_departures.handler();
            o.onSubscribe = [this](const auto&) {
                m_barrier.pass();
                return VornString();
            };
        }));
        UniqueFd client = ask(address());
        EXPECT_TRUE(m_barrier.awaitReached());
        return client;
    }

    /** Waits until the publisher accepts again after so many clients, each with its grace. */
    static bool awaitAcceptingAfter(int clients, const CallTrace& traceSinceItsOpening) {
        // It watches its event and its listener, and for each client that one, and the listener no more, and
        // again.
        return awaitCondition([&] { return traceSinceItsOpening.calls("epoll_ctl") == 2 + 3 * clients; });
    }

    /** What is answered to a line. */
    std::string answerTo(const std::string& line) {
        const UniqueFd client = connectTo(address());
        sendAll(client.get(), line);
        return receiveToEnd(client.get());
    }

    /** Why a request is refused. */
    std::string refusalTo(const std::string& request) {
        const UniqueFd client = connectTo(address());
        sendAll(client.get(), "builds\r\n" + request);
        EXPECT_EQ(receiveExactly(client.get(), 1), "+");
        return refusalOf(client.get());
    }
};

INSTANTIATE_TEST_SUITE_P(Transports, VornPublisher_Wire, testing::Bool(),
                         [](const auto& test) { return test.param ? "Pipe" : "Tcp"; });

TEST_P(VornPublisher_Wire, AdmitsWithPlaceAndBeat) {
    open(with([](Options& o) { o.beat = 4321ms; }));
    publish("a");
    publish("b");
    const RawSubscriber subscriber(address(), "builds");
    EXPECT_EQ(subscriber.place.history, publisher().position("builds").nHistory);
    EXPECT_EQ(subscriber.place.first, 3U);
    EXPECT_EQ(subscriber.place.newest, 2U);
    EXPECT_EQ(subscriber.place.beat, 4321U);
    publish("c");
    EXPECT_EQ(subscriber.next(), WireFrame::event(3, "c"));
}

TEST_P(VornPublisher_Wire, BeginsWhereTheClientSays) {
    open();
    for (const char* content : {"a", "b", "c"})
        publish(content);
    const std::uint64_t history = publisher().position("builds").nHistory;

    struct Begin {
        WireRequest request;
        std::uint64_t first;
    };

    for (const Begin& begin : {Begin{{.begin = 0}, 4}, Begin{{.begin = 1}, 3}, Begin{{.begin = 2}, 1},
                               Begin{{.begin = 3, .history = history, .number = 0}, 1},
                               Begin{{.begin = 3, .history = history, .number = 2}, 3},
                               Begin{{.begin = 3, .history = history, .number = 3}, 4}}) {
        const RawSubscriber subscriber(address(), "builds", begin.request);
        EXPECT_EQ(subscriber.place.first, begin.first);
        EXPECT_EQ(subscriber.place.newest, 3U);
        for (std::uint64_t number = begin.first; number <= 3; ++number)
            EXPECT_EQ(subscriber.next(),
                      WireFrame::event(number, std::string(1, static_cast<char>('a' + number - 1))));
    }
}

TEST_P(VornPublisher_Wire, BeforeTheFirstEvent_EveryBeginIsTheFirst) {
    open();
    for (const std::uint32_t begin : {0U, 1U, 2U}) {
        const RawSubscriber subscriber(address(), "builds", {.begin = begin});
        EXPECT_EQ(subscriber.place.first, 1U);
        EXPECT_EQ(subscriber.place.newest, 0U);
    }
}

TEST_P(VornPublisher_Wire, APositionOfAnotherHistoryOrAhead_IsAGapFromZero) {
    open();
    publish("a");
    const std::uint64_t history = publisher().position("builds").nHistory;
    for (const WireRequest& request :
         {WireRequest{.begin = 3, .history = history + 1, .number = 1},
          WireRequest{.begin = 3, .history = history, .number = 2}, WireRequest{.begin = 3}}) {
        const RawSubscriber subscriber(address(), "builds", request);
        EXPECT_EQ(subscriber.place.first, 1U);
        EXPECT_EQ(subscriber.next(), WireFrame::gap(history, 0, 1));
        EXPECT_EQ(subscriber.next(), WireFrame::event(1, "a"));
    }
    EXPECT_EQ(publisher().statistics().nGaps, 3U);
    EXPECT_EQ(publisher().statistics().nMissed, 0U);
}

TEST_P(VornPublisher_Wire, APositionBeforeTheOldest_IsAGapWithItsNumbers) {
    open(with([](Options& o) { o.nHistoryBytes = 4096; }));
    for (int i = 0; i < 1000; ++i)
        publish(std::string(48, 'x'));
    // 64 bytes for each event, so the newest 64 are kept.
    const std::uint64_t history = publisher().position("builds").nHistory;
    const RawSubscriber oldest(address(), "builds", {.begin = 2});
    EXPECT_EQ(oldest.place.first, 937U);
    EXPECT_EQ(oldest.next().number(), 937U);
    const RawSubscriber subscriber(address(), "builds", {.begin = 3, .history = history, .number = 5});
    EXPECT_EQ(subscriber.place.first, 937U);
    EXPECT_EQ(subscriber.next(), WireFrame::gap(history, 6, 937));
    EXPECT_EQ(subscriber.next().number(), 937U);
    const RawSubscriber edge(address(), "builds", {.begin = 3, .history = history, .number = 936});
    EXPECT_EQ(edge.next().number(), 937U);
    EXPECT_EQ(publisher().statistics().nGaps, 1U);
    EXPECT_EQ(publisher().statistics().nMissed, 931U);
}

TEST_P(VornPublisher_Wire, ALineThatIsNoKnownTopic_IsAnsweredWithMinus) {
    open();
    for (const std::string& line :
         {std::string("none\r\n"), std::string("\r\n"), std::string("bui lds\r\n"), std::string("Builds\r\n"),
          std::string("builds \r\n"), std::string("../builds\r\n"), std::string(65, 'x') + "\r\n",
          std::string(66, 'x'), std::string("builds\n") + std::string(60, 'x')})
        EXPECT_EQ(answerTo(line), "-") << line;
    EXPECT_EQ(publisher().statistics().nRefused, 9U);
}

TEST_P(VornPublisher_Wire, TakesTheRequestInSingleBytesAndAllAtOnce) {
    open();
    const std::string all = "builds\r\n" + WireRequest{.words = std::string(4096, 'w')}.bytes();
    const UniqueFd atOnce = connectTo(address());
    sendAll(atOnce.get(), all);
    EXPECT_EQ(hex(receiveExactly(atOnce.get(), 5)), "2b 00 01 00 00");
    const UniqueFd single = connectTo(address());
    for (const char byte : all)
        sendAll(single.get(), {&byte, 1});
    EXPECT_EQ(hex(receiveExactly(single.get(), 5)), "2b 00 01 00 00");
    EXPECT_EQ(publisher().subscribers().at(0).sWords, std::string(4096, 'w'));
}

TEST_P(VornPublisher_Wire, ARequestThatIsNotSound_IsRefusedWithTheReason) {
    open();
    EXPECT_EQ(refusalTo(WireRequest{.version = 2}.bytes()), "version not supported");
    EXPECT_EQ(refusalTo(wireInt(0)), "version not supported");
    EXPECT_EQ(refusalTo(WireRequest{.callback = "nowhere"}.bytes()), "invalid callback address");
    EXPECT_EQ(refusalTo(wireInt(1) + wireInt(0x80000000)), "invalid callback address");
    EXPECT_EQ(refusalTo(WireRequest{.callback = "pipe:sink"}.bytes()), "callback addresses are not accepted");
    EXPECT_EQ(refusalTo(WireRequest{.begin = 4}.bytes()), "invalid request");
    EXPECT_EQ(refusalTo(WireRequest{.words = std::string(4097, 'w')}.bytes()), "invalid request");
    EXPECT_EQ(refusalTo(WireRequest{}.bytes() + "x"), "invalid request");
    EXPECT_EQ(publisher().statistics().nRefused, 8U);
    EXPECT_EQ(publisher().statistics().nSubscribed, 0U);
}

TEST_P(VornPublisher_Wire, ASubscriberThatSendsAnything_IsViolated) {
    open(with([&](Options& o) { o.onLeave = m_departures.handler(); }));
    const RawSubscriber subscriber(address(), "builds");
    const FaultRule nothing("recv", EAGAIN);
    const FaultRule interrupted("recv", EINTR, 2);
    sendAll(subscriber.fd(), "x");
    EXPECT_THAT(m_departures.awaited(1), ElementsAre("1 violated 0"));
    EXPECT_EQ(nothing.failures() + interrupted.failures(), 2);
    EXPECT_EQ(publisher().statistics().nSubscribers, 0U);
    EXPECT_EQ(publisher().statistics().nLeft, 1U);
}

TEST_P(VornPublisher_Wire, ASubscriberThatEndsItsSendingSideOrCloses_HasClosed) {
    open(with([&](Options& o) { o.onLeave = m_departures.handler(); }));
    const RawSubscriber ending(address(), "builds");
    ::shutdown(ending.fd(), SHUT_WR);
    EXPECT_EQ(receiveToEnd(ending.fd()), "");
    ASSERT_TRUE(m_departures.await(1));
    RawSubscriber closing(address(), "builds");
    closing.socket().reset();
    EXPECT_THAT(m_departures.awaited(2), ElementsAre("1 closed 0", "2 closed 0"));
}

TEST_P(VornPublisher_Wire, ASubscriberThatClosesWithUnreadEvents_HasClosedWith104Or32) {
    open(with([&](Options& o) { o.onLeave = m_departures.handler(); }));
    RawSubscriber closing(address(), "builds");
    publish("x");
    ASSERT_TRUE(publisher().flush(5s));
    ASSERT_TRUE(awaitCondition([&] {
        char byte = '\0';
        return ::recv(closing.fd(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
    }));
    closing.socket().reset();
    ASSERT_TRUE(m_departures.await(1));
    EXPECT_THAT(m_departures.lines().at(0), testing::AnyOf("1 closed 104", "1 closed 32"));
}

TEST_P(VornPublisher_Wire, SentNothingForABeat_ASubscriberIsGivenASign) {
    open(with([](Options& o) { o.beat = 20ms; }));
    publish("a");
    const RawSubscriber subscriber(address(), "builds");
    EXPECT_EQ(subscriber.next(), WireFrame::sign(1));
    EXPECT_EQ(subscriber.next(), WireFrame::sign(1));
    publish("b");
    EXPECT_EQ(subscriber.nextButSigns(), WireFrame::event(2, "b"));
    EXPECT_EQ(subscriber.next(), WireFrame::sign(2));
}

TEST_P(VornPublisher_Wire, Stop_SendsWhatIsLeftAndSaysGoodbye) {
    open(with([&](Options& o) { o.onLeave = m_departures.handler(); }));
    const RawSubscriber subscriber(address(), "builds");
    for (int i = 1; i <= 100; ++i)
        publish(std::to_string(i));
    WatchedThread stopping([&] { publisher().stop(5s); });
    for (std::uint64_t i = 1; i <= 100; ++i)
        ASSERT_EQ(subscriber.next(), WireFrame::event(i, std::to_string(i)));
    EXPECT_EQ(subscriber.next(), WireFrame::last(1, "the service stops"));
    EXPECT_EQ(receiveToEnd(subscriber.fd()), "");
    EXPECT_FALSE(stopping.finished()); // it gives the client a moment to close
    ::shutdown(subscriber.fd(), SHUT_RDWR);
    EXPECT_TRUE(stopping.join());
    EXPECT_THAT(m_departures.lines(), ElementsAre("1 stopped 0"));
}

TEST_P(VornPublisher_Wire, Drop_TellsTheReason) {
    open(with([&](Options& o) { o.onLeave = m_departures.handler(); }));
    const RawSubscriber first(address(), "builds");
    const RawSubscriber second(address(), "builds");
    EXPECT_TRUE(publisher().drop(1, "too loud"));
    EXPECT_FALSE(publisher().drop(1, "again"));
    EXPECT_FALSE(publisher().drop(3, "nobody"));
    EXPECT_EQ(first.next(), WireFrame::last(2, "too loud"));
    EXPECT_EQ(receiveToEnd(first.fd()), "");
    EXPECT_THAT(m_departures.awaited(1), ElementsAre("1 dropped 0"));
    publish("x");
    EXPECT_EQ(second.next(), WireFrame::event(1, "x"));
}

TEST_P(VornPublisher_Wire, Drop_OfOneThatIsLeaving_DoesNothing) {
    open(with([&](Options& o) { o.onLeave = m_departures.handler(); }));
    RawSubscriber leaving(address(), "builds");
    HeldCall hearing("recv");
    leaving.socket().reset();
    ASSERT_TRUE(hearing.awaitReached());
    EXPECT_TRUE(publisher().drop(1, "too late"));
    hearing.open();
    EXPECT_THAT(m_departures.awaited(1), ElementsAre("1 closed 0"));
    const RawSubscriber subscriber(address(), "builds");
}

TEST_P(VornPublisher_Wire, Drop_WhenTheReasonCannotBeSent_ClosesAtOnce) {
    open();
    const RawSubscriber subscriber(address(), "builds");
    const FaultRule fault("send", EPIPE);
    EXPECT_TRUE(publisher().drop(1, "too loud"));
    EXPECT_EQ(receiveToEnd(subscriber.fd()), "");
}

TEST_P(VornPublisher_Wire, Drop_OfOneThatReadsSlowly_TellsTheReasonInPieces) {
    open();
    const RawSubscriber subscriber(address(), "builds");
    const std::string reason(5000, 'x');
    {
        const TransferLimit limit(1000);
        EXPECT_TRUE(publisher().drop(1, reason));
        EXPECT_EQ(subscriber.next(), WireFrame::last(2, reason));
    }
    EXPECT_EQ(receiveToEnd(subscriber.fd()), "");
}

TEST_P(VornPublisher_Wire, Drop_OfOneThatReadsNothingAndCloses_LeavesNoDescriptor) {
    open(with([](Options& o) {
        o.nHistoryBytes = 16 * 1024 * 1024;
        o.beat = 60s; // over TCP it would be lost after three of them
    }));
    const int before = openDescriptors();
    RawSubscriber slow(address(), "builds");
    for (int i = 0; i < 10; ++i)
        publish(std::string(1024 * 1024, 'x'));
    ASSERT_FALSE(publisher().flush(20ms));
    EXPECT_TRUE(publisher().drop(1, "too slow"));
    ASSERT_TRUE(awaitSubscribers(0));
    slow.socket().reset();
    EXPECT_TRUE(awaitCondition([&] { return openDescriptors() == before; }));
}

TEST_P(VornPublisher_Wire, WhatADroppedOneSends_IsThrownAway) {
    open();
    const int before = openDescriptors();
    RawSubscriber dropped(address(), "builds");
    EXPECT_TRUE(publisher().drop(1, ""));
    EXPECT_EQ(dropped.next(), WireFrame::last(2, ""));
    {
        const FaultRule nothing("recv", EAGAIN);
        const FaultRule interrupted("recv", EINTR, 2);
        sendAll(dropped.fd(), "x");
        EXPECT_TRUE(awaitCondition([&] { return interrupted.calls() >= 3; }));
    }
    EXPECT_EQ(openDescriptors(), before + 2);
    dropped.socket().reset();
    EXPECT_TRUE(awaitCondition([&] { return openDescriptors() == before; }));
}

TEST_P(VornPublisher_Wire, ManyThatAreRefusedAndStay_AreCutInTheirOrder) {
    open(with([](Options& o) { o.nRequestLimit = 1; }));
    const UniqueFd first = connectTo(address());
    sendAll(first.get(), "none\r\n");
    EXPECT_EQ(receiveToEnd(first.get()), "-");
    EXPECT_EQ(answerTo("none\r\n"), "-");
    EXPECT_TRUE(
        awaitCondition([&] { return ::send(first.get(), "x", 1, MSG_NOSIGNAL) == -1 && errno == EPIPE; }));
}

TEST_P(VornPublisher_Wire, OneThatIsCutAsItSpeaks_IsNotHeard) {
    const CallTrace trace;
    open(with([](Options& o) { o.nRequestLimit = 1; }));
    const pid_t sending = threadIds().back();
    const RawSubscriber standing(address(), "builds");
    const UniqueFd cut = connectTo(address());
    ASSERT_TRUE(awaitAcceptingAfter(2, trace));
    ASSERT_TRUE(awaitBlockedInIo(sending));
    HeldCall waiting("epoll_wait");
    EXPECT_TRUE(publisher().drop(1, "")); // so that it looks for what has happened
    ASSERT_TRUE(waiting.awaitReached());
    const UniqueFd next = connectTo(address());
    sendAll(cut.get(), "builds\r\n");
    sendAll(next.get(), "builds\r\n");
    waiting.open();
    EXPECT_EQ(receiveExactly(next.get(), 1), "+");
    EXPECT_TRUE(
        awaitCondition([&] { return ::send(cut.get(), "x", 1, MSG_NOSIGNAL) == -1 && errno == EPIPE; }));
}

TEST_P(VornPublisher_Wire, WhoeverAsksAndLeaves_GivesItsPlaceBackAtOnce) {
    open(with([](Options& o) { o.nRequestLimit = 1; }));
    HeldCall accepting("accept4");
    UniqueFd leaving = connectTo(address());
    leaving.reset();
    const UniqueFd next = connectTo(address());
    sendAll(next.get(), "builds\r\n");
    ASSERT_TRUE(accepting.awaitReached());
    accepting.open();
    EXPECT_EQ(receiveExactly(next.get(), 1), "+");
    EXPECT_EQ(publisher().statistics().nTimedOut, 0U);
}

TEST_P(VornPublisher_Wire, WhileTheHandlerDecidesAboutAllThatMayAsk_NobodyElseIsAccepted) {
    const CallTrace trace;
    open(with([&](Options& o) {
        o.nRequestLimit = 1;
        o.onSubscribe = [&](const auto&) {
            m_barrier.pass();
            return VornString();
        };
    }));
    const UniqueFd first = connectTo(address());
    ASSERT_TRUE(awaitAcceptingAfter(1, trace));
    sendAll(first.get(), "builds\r\n" + WireRequest{}.bytes());
    ASSERT_TRUE(m_barrier.awaitReached());
    const UniqueFd waiting = connectTo(address());
    sendAll(waiting.get(), "builds\r\n");
    EXPECT_FALSE(awaitCondition([&] { return publisher().statistics().nConnections > 1; }, 150ms));
    if (GetParam()) { // a file that vanishes meanwhile is made again
        ::unlink(pipePath("alpha").c_str());
        EXPECT_TRUE(awaitCondition([] { return ::access(pipePath("alpha").c_str(), F_OK) == 0; }));
    }
    m_barrier.open();
    EXPECT_TRUE(awaitSubscribers(1));
    const RawSubscriber later(address(), "builds");
}

TEST_P(VornPublisher_Wire, ASlowSubscriberFallsOut_AndOthersDoNotNotice) {
    open(with([](Options& o) {
        o.nHistoryBytes = 64 * 1024;
        o.beat = 60s; // over TCP it would be lost after three of them
    }));
    const RawSubscriber slow(address(), "builds");
    const RawSubscriber fast(address(), "builds");
    const std::string content(1000, 'x');
    constexpr std::uint64_t count = 20'000;
    for (std::uint64_t number = 1; number <= count; ++number) {
        publish(content);
        ASSERT_EQ(fast.next().number(), number);
    }
    std::uint64_t expected = 1;
    std::uint64_t gaps = 0;
    while (expected <= count) {
        const WireFrame frame = slow.next();
        if (frame.kind == 2) {
            ++gaps;
            ASSERT_EQ(numberOf(frame.rest, 8), expected);
            expected = numberOf(frame.rest, 16);
        } else {
            ASSERT_EQ(frame, WireFrame::event(expected++, content));
        }
    }
    EXPECT_GE(gaps, 1U);
    EXPECT_EQ(publisher().statistics().nGaps, gaps);
}

TEST_P(VornPublisher_Wire, AnEventRightAfterAnother_ArrivesToo) {
    open();
    const pid_t sending = threadIds().back();
    const RawSubscriber subscriber(address(), "builds");
    const ClockShift shift(CLOCK_MONOTONIC);
    for (const std::chrono::seconds ahead : {10s, 0s}) { // so the second comes no time after the first
        ClockShift::set(ahead);
        ASSERT_TRUE(awaitBlockedInIo(sending));
        WatchedThread publishing([&] { publish("x"); });
        EXPECT_TRUE(publishing.join());
        EXPECT_EQ(subscriber.nextButSigns().content(), "x");
    }
}

TEST_P(VornPublisher_Wire, WhenSendsAreCut_TheBytesAreTheSame) {
    open();
    const RawSubscriber subscriber(address(), "builds");
    const TransferLimit limit(3);
    for (std::uint64_t number = 1; number <= 50; ++number)
        publish(std::string(number, 'c'));
    for (std::uint64_t number = 1; number <= 50; ++number)
        ASSERT_EQ(subscriber.next(), WireFrame::event(number, std::string(number, 'c')));
}

TEST_P(VornPublisher_Wire, TellsWhoSubscribes) {
    open();
    const RawSubscriber first(address(), "builds", {.words = "me"});
    const RawSubscriber second(address(), "other");
    publish("x");
    ASSERT_TRUE(publisher().flush(5s));
    const auto all = publisher().subscribers();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0].nId, 1U);
    EXPECT_EQ(all[0].sTopic, "builds");
    EXPECT_EQ(all[0].sWords, "me");
    EXPECT_EQ(all[0].sCallback, "");
    EXPECT_EQ(all[0].position, publisher().position("builds"));
    EXPECT_EQ(all[0].nBehind, 0U);
    EXPECT_EQ(all[1].nId, 2U);
    EXPECT_EQ(all[1].sTopic, "other");
    if (GetParam()) {
        EXPECT_EQ(all[0].nProcess, ::getpid());
        EXPECT_EQ(all[0].nUser, ::geteuid());
        EXPECT_EQ(all[0].nGroup, ::getegid());
        EXPECT_EQ(all[0].sFrom, "pid " + std::to_string(::getpid()) + " user " + std::to_string(::geteuid()));
    } else {
        EXPECT_EQ(all[0].nProcess, -1);
        EXPECT_EQ(all[0].nUser, ~0U);
        EXPECT_EQ(all[0].nGroup, ~0U);
        EXPECT_EQ(all[0].sFrom, "127.0.0.1:" + std::to_string(localPort(first.fd())));
    }
}

TEST_P(VornPublisher_Wire, CountsWhatItSends) {
    open();
    {
        const RawSubscriber first(address(), "builds");
        const RawSubscriber second(address(), "builds");
        publish("x");
        publish("y");
        ASSERT_TRUE(publisher().flush(5s));
        const VornPublisher::Statistics statistics = publisher().statistics();
        EXPECT_EQ(statistics.nPublished, 2U);
        EXPECT_EQ(statistics.nSent, 4U);
        EXPECT_EQ(statistics.nSentBytes, 2 * (32 + 2 * 17U));
        EXPECT_EQ(statistics.nConnections, 2U);
        EXPECT_EQ(statistics.nSubscribed, 2U);
        EXPECT_EQ(statistics.nSubscribers, 2U);
        EXPECT_EQ(statistics.nBehind, 0U);
    }
    ASSERT_TRUE(awaitSubscribers(0));
    EXPECT_EQ(publisher().statistics().nLeft, 2U);
}

TEST_P(VornPublisher_Wire, Flush_WaitsForThoseWhoAreBehind) {
    open(with([](Options& o) { o.nHistoryBytes = 16 * 1024 * 1024; }));
    EXPECT_TRUE(publisher().flush(0ms));
    RawSubscriber slow(address(), "builds");
    const int room = 65'536; // over TCP the kernel would give one that reads room for all
    ASSERT_EQ(::setsockopt(slow.fd(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room), 0);
    const std::string content(1024 * 1024, 'x');
    for (int i = 0; i < 10; ++i)
        publish(content);
    EXPECT_FALSE(publisher().flush(0ms));
    EXPECT_FALSE(publisher().flush(30ms));
    EXPECT_EQ(publisher().statistics().nBehind, 1U);
    EXPECT_GT(publisher().subscribers().at(0).nBehind, 0U);
    WatchedThread flushing([&] { EXPECT_TRUE(publisher().flush(-1ms)); });
    for (std::uint64_t number = 1; number <= 10; ++number)
        ASSERT_EQ(slow.next(), WireFrame::event(number, content));
    EXPECT_TRUE(flushing.join());
    EXPECT_EQ(publisher().statistics().nBehind, 0U);
    // Whoever leaves is not waited for.
    for (int i = 0; i < 10; ++i)
        publish(content);
    WatchedThread again([&] { EXPECT_TRUE(publisher().flush(-1ms)); });
    ASSERT_TRUE(awaitBlockedOnLock(again.tid()));
    slow.socket().reset();
    EXPECT_TRUE(again.join());
}

// Time limits and limits of number.

TEST_P(VornPublisher_Wire, AClientThatDoesNotAskInTime_IsCutWithoutAnAnswer) {
    open(with([](Options& o) { o.requestLimit = 300ms; }));
    const UniqueFd silent = connectTo(address());
    EXPECT_EQ(receiveToEnd(silent.get()), "");
    const UniqueFd half = connectTo(address());
    sendAll(half.get(), "builds\r\n" + wireInt(1));
    EXPECT_EQ(receiveToEnd(half.get()), "+");
    EXPECT_EQ(publisher().statistics().nTimedOut, 2U);
}

TEST_P(VornPublisher_Wire, OneMoreThanMayAsk_AndTheOldestIsCut) {
    open(with([](Options& o) { o.nRequestLimit = 3; }));
    std::vector<UniqueFd> silent;
    for (int i = 0; i < 4; ++i) {
        silent.push_back(connectTo(address()));
        ASSERT_TRUE(awaitCondition(
            [&] { return publisher().statistics().nConnections == static_cast<std::uint64_t>(i) + 1; }));
    }
    EXPECT_EQ(receiveToEnd(silent[0].get()), "");
    EXPECT_EQ(publisher().statistics().nTimedOut, 1U);
    sendAll(silent[1].get(), "builds\r\n");
    EXPECT_EQ(receiveExactly(silent[1].get(), 1), "+");
}

TEST_P(VornPublisher_Wire, OneMoreThanMaySubscribe_IsRefused) {
    open(with([](Options& o) { o.nSubscriberLimit = 1; }));
    RawSubscriber first(address(), "builds");
    EXPECT_EQ(refusalTo(WireRequest{}.bytes()), "too many subscribers");
    EXPECT_EQ(publisher().statistics().nRefused, 1U);
    first.socket().reset();
    ASSERT_TRUE(awaitSubscribers(0));
    const RawSubscriber second(address(), "builds");
}

TEST_P(VornPublisher_Wire, WhoeverIsNotAllowed_IsRefused) {
    open(with([](Options& o) {
        o.allowedUsers = {::geteuid() + 1};
        o.allowedNetworks = {"10.0.0.0/8", "127.0.0.2"};
    }));
    EXPECT_EQ(refusalTo(WireRequest{}.bytes()), "not allowed");
    EXPECT_EQ(publisher().statistics().nRefused, 1U);
    m_publisher.reset();
    open(with([](Options& o) {
        o.allowedUsers = {::geteuid() + 1, ::geteuid()};
        o.allowedNetworks = {"10.0.0.0/8", "127.0.0.0/8"};
    }));
    const RawSubscriber subscriber(address(), "builds");
}

TEST_P(VornPublisher_Wire, WithoutDescriptors_ItGoesOnAndLooksAgain) {
    open();
    const RawSubscriber standing(address(), "builds");
    std::uint64_t number = 0;
    for (const int error : {EMFILE, ENFILE, ENOBUFS}) {
        std::optional<FaultRule> full(std::in_place, "accept4", error, 1, FaultRule::always);
        WatchedThread later([&] { const RawSubscriber subscriber(address(), "builds"); });
        ASSERT_TRUE(awaitCondition([&] { return full->calls() >= 2; }));
        publish("x");
        EXPECT_EQ(standing.next(), WireFrame::event(++number, "x"));
        full.reset();
        EXPECT_TRUE(later.join());
    }
}

// Handlers.

TEST_P(VornPublisher_Wire, AReasonThatIsTooLong_IsCutToWhatAClientReads) {
    constexpr std::size_t longest = 65'536;
    const std::string reason(longest + 1, 'x');
    open(with([&](Options& o) {
        o.onSubscribe = [&](const VornPublisher::Subscriber& asking) {
            return asking.nId == 1 ? reason : "";
        };
    }));
    const UniqueFd refused = ask(address());
    EXPECT_EQ(receiveExactly(refused.get(), 1), "+");
    EXPECT_EQ(refusalOf(refused.get()), reason.substr(0, longest));
    const RawSubscriber dropped(address(), "builds");
    EXPECT_TRUE(publisher().drop(2, reason));
    EXPECT_EQ(dropped.next(), WireFrame::last(2, reason.substr(0, longest - 8)));
}

TEST_P(VornPublisher_Wire, OnSubscribe_SeesWhoAsksAndDecides) {
    std::vector<VornPublisher::Subscriber> asked;
    open(with([&](Options& o) {
        o.onSubscribe = [&](const VornPublisher::Subscriber& asking) {
            asked.push_back(asking);
            return VornString(asking.sWords == "friend" ? "" : "not for you");
        };
    }));
    EXPECT_EQ(refusalTo(WireRequest{.begin = 3, .history = 7, .number = 9, .words = "foe"}.bytes()),
              "not for you");
    const RawSubscriber subscriber(address(), "builds", {.words = "friend"});
    ASSERT_EQ(asked.size(), 2U);
    EXPECT_EQ(asked[0].nId, 1U);
    EXPECT_EQ(asked[0].sTopic, "builds");
    EXPECT_EQ(asked[0].position, (VornPosition{7, 9}));
    EXPECT_EQ(asked[1].nId, 2U);
    EXPECT_EQ(asked[1].position, VornPosition());
    EXPECT_EQ(publisher().statistics().nRefused, 1U);
    EXPECT_EQ(publisher().subscribers().at(0).nId, 2U);
}

TEST_P(VornPublisher_Wire, OnSubscribeThatThrows_HasRefusedAndIsLogged) {
    LogCapture log(1);
    open(with([](Options& o) {
        o.onSubscribe = [](const auto&) -> VornString { throw std::runtime_error("mine"); };
    }));
    EXPECT_EQ(refusalTo(WireRequest{}.bytes()), "refused");
    EXPECT_TRUE(log.contains(1, "VornPublisher::onSubscribe: the handler threw: mine"));
}

TEST_P(VornPublisher_Wire, OnLeaveThatThrows_IsLogged) {
    LogCapture log(1);
    open(with([](Options& o) { o.onLeave = [](const auto&, auto, int) { throw 5; }; }));
    RawSubscriber(address(), "builds");
    EXPECT_TRUE(log.await("VornPublisher::onLeave: the handler threw"));
}

TEST_P(VornPublisher_Wire, ASlowHandler_DelaysNewSubscriptionsAndNothingElse) {
    open(with([&](Options& o) {
        o.requestLimit = 400ms; // does not count while the handler decides
        o.onSubscribe = [&](const VornPublisher::Subscriber& asking) {
            if (asking.sWords == "slow")
                m_barrier.pass();
            return VornString();
        };
    }));
    const RawSubscriber standing(address(), "builds");
    WatchedThread asking([&] { const RawSubscriber slow(address(), "builds", {.words = "slow"}); });
    ASSERT_TRUE(m_barrier.awaitReached());
    publish("x");
    EXPECT_EQ(standing.next(), WireFrame::event(1, "x"));
    // Its limit would have cut it by the time that this one has been cut.
    EXPECT_EQ(receiveToEnd(connectTo(address()).get()), "");
    EXPECT_FALSE(asking.finished());
    m_barrier.open();
    EXPECT_TRUE(asking.join());
}

TEST_P(VornPublisher_Wire, WhoeverLeavesWhileTheHandlerDecides_IsASubscriberThatLeaves) {
    UniqueFd client = askAHandlerThatWaits();
    client.reset();
    m_barrier.open();
    ASSERT_TRUE(m_departures.await(1));
    EXPECT_THAT(m_departures.lines().at(0), testing::StartsWith("1 closed"));
    EXPECT_EQ(publisher().statistics().nSubscribed, 1U);
    EXPECT_EQ(publisher().statistics().nLeft, 1U);
}

TEST_P(VornPublisher_Wire, WhoeverIsAdmittedAndCannotBeWatched_IsLost) {
    const CallTrace trace;
    open(with([&](Options& o) {
        o.onLeave = m_departures.handler();
        o.onSubscribe = [](const auto&) { return VornString(); };
    }));
    ASSERT_TRUE(awaitAcceptingAfter(0, trace));
    const FaultRule fault("epoll_ctl", ENOMEM, 3); // once it has been accepted, and left to the handler
    const UniqueFd client = ask(address());
    EXPECT_THAT(m_departures.awaited(1), ElementsAre("1 lost 12"));
    EXPECT_EQ(receiveToEnd(client.get()), "+");
}

TEST_P(VornPublisher_Wire, Handlers_MayCallAllButFlushAndStop) {
    std::string flushed;
    std::string stopped;
    open(with([&](Options& o) {
        o.onSubscribe = [&](const auto&) {
            publish("by the handler");
            publisher().subscribers();
            publisher().statistics();
            publisher().addTopic("later");
            publisher().drop(99, "");
            flushed = thrownBy([&] { publisher().flush(0ms); });
            stopped = thrownBy([&] { publisher().stop(0ms); });
            return VornString();
        };
    }));
    const RawSubscriber subscriber(address(), "builds");
    EXPECT_EQ(subscriber.place.newest, 1U);
    EXPECT_EQ(flushed, "VornPublisher::flush: called by a handler. 35");
    EXPECT_EQ(stopped, "VornPublisher::stop: called by a handler. 35");
}

// Stopping.

TEST_P(VornPublisher_Wire, Stop_WithoutTimeEndsAtOnce) {
    open(with([](Options& o) { o.nHistoryBytes = 16 * 1024 * 1024; }));
    const RawSubscriber slow(address(), "builds");
    const UniqueFd silent = connectTo(address());
    for (int i = 0; i < 10; ++i)
        publish(std::string(1024 * 1024, 'x'));
    const auto start = std::chrono::steady_clock::now();
    publisher().stop(0ms);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 900ms);
    EXPECT_EQ(publisher().statistics().nSubscribers, 0U);
    EXPECT_TRUE(publisher().subscribers().empty());
    EXPECT_FALSE(publisher().drop(1, ""));
    EXPECT_TRUE(publisher().flush(-1ms));
    publisher().addTopic("later");
    publisher().stop(-1ms);
    EXPECT_EQ(publisher().position("builds").nNumber, 10U);
}

TEST_P(VornPublisher_Wire, Stop_WithoutALimit_WaitsForTheSlowest) {
    open(with([](Options& o) {
        o.nHistoryBytes = 16 * 1024 * 1024;
        o.nRequestLimit = 1; // which does not count for those who are told goodbye
    }));
    const RawSubscriber slow(address(), "builds");
    const RawSubscriber idle(address(), "other");
    for (int i = 0; i < 10; ++i)
        publish(std::string(1024 * 1024, 'x'));
    WatchedThread stopping([&] { publisher().stop(-1ms); });
    EXPECT_FALSE(awaitCondition([&] { return stopping.finished(); }, 30ms));
    for (std::uint64_t number = 1; number <= 10; ++number)
        ASSERT_EQ(slow.next().number(), number);
    for (const RawSubscriber* subscriber : {&slow, &idle}) {
        EXPECT_EQ(subscriber->next(), WireFrame::last(1, "the service stops"));
        EXPECT_FALSE(awaitCondition([&] { return stopping.finished(); }, 20ms));
        ::shutdown(subscriber->fd(), SHUT_RDWR);
    }
    EXPECT_TRUE(stopping.join());
}

TEST_P(VornPublisher_Wire, Stop_FromASecondThread_WaitsUntilTheFirstIsThrough) {
    open(with([&](Options& o) { o.onLeave = [&](const auto&, auto, int) { m_barrier.pass(); }; }));
    const RawSubscriber subscriber(address(), "builds");
    WatchedThread first([&] { publisher().stop(0ms); });
    ASSERT_TRUE(m_barrier.awaitReached());
    WatchedThread second([&] { publisher().stop(0ms); });
    ASSERT_TRUE(awaitBlockedOnLock(second.tid()));
    EXPECT_FALSE(first.finished());
    m_barrier.open();
    EXPECT_TRUE(first.join());
    EXPECT_TRUE(second.join());
}

TEST_P(VornPublisher_Wire, Stop_IsGoneThroughAlsoByAThreadThatIsCancelled) {
    open(with([&](Options& o) { o.onLeave = [&](const auto&, auto, int) { m_barrier.pass(); }; }));
    RawSubscriber(address(), "builds");
    ASSERT_TRUE(m_barrier.awaitReached());
    WatchedThread stopping([&] { publisher().stop(0ms); });
    ASSERT_TRUE(awaitBlockedOnLock(stopping.tid()));
    ::pthread_cancel(stopping.handle());
    m_barrier.open();
    EXPECT_TRUE(stopping.join());
    EXPECT_EQ(stopping.exceptionText(), std::nullopt);
}

TEST_P(VornPublisher_Wire, Publish_WakesTheSenderAlsoOnAThreadThatIsCancelled) {
    open();
    const pid_t sender = threadIds().back();
    const RawSubscriber subscriber(address(), "builds");
    ASSERT_TRUE(awaitBlockedInIo(sender));
    WatchedThread publishing([&] {
        ::pthread_cancel(::pthread_self());
        publish("x");
    });
    EXPECT_TRUE(publishing.join());
    EXPECT_EQ(publishing.exceptionText(), std::nullopt);
    EXPECT_EQ(subscriber.next(), WireFrame::event(1, "x"));
}

TEST_P(VornPublisher_Wire, AnEventThatComesAlone_IsSentToAFewByWhoeverPublishes) {
    open();
    const pid_t sender = threadIds().back();
    std::vector<RawSubscriber> subscribers;
    for (std::uint64_t number = 1; number <= 5; ++number) {
        subscribers.emplace_back(address(), "builds");
        ASSERT_TRUE(awaitBlockedInIo(sender));
        const CallTrace here(CallTrace::Scope::CallingThread);
        publish("x");
        EXPECT_EQ(here.calls("send"), number <= 4 ? static_cast<int>(number) : 0);
        for (const RawSubscriber& subscriber : subscribers)
            EXPECT_EQ(subscriber.next(), WireFrame::event(number, "x"));
    }
    EXPECT_TRUE(publisher().flush(5s));
}

TEST_P(VornPublisher_Wire, WhoeverPublishesAndTheSender_KeepTheOrderWhileClientsComeAndGo) {
    constexpr std::uint64_t count = 600;
    open();
    const RawSubscriber subscriber(address(), "builds");
    std::atomic<std::uint64_t> left{count};
    const auto publishAll = [&] {
        for (std::uint64_t number = left--; number != 0 && number <= count; number = left--) {
            publish("x");
            const auto end = std::chrono::steady_clock::now() + 20us; // so that some come alone
            while (std::chrono::steady_clock::now() < end)
                std::this_thread::yield();
        }
    };
    WatchedThread one(publishAll);
    WatchedThread other(publishAll);
    WatchedThread guests([&] {
        while (left <= count && left != 0)
            RawSubscriber(address(), "builds");
    });
    for (std::uint64_t number = 1; number <= count; ++number)
        ASSERT_EQ(subscriber.next(), WireFrame::event(number, "x"));
    EXPECT_TRUE(one.join());
    EXPECT_TRUE(other.join());
    EXPECT_TRUE(guests.join());
    EXPECT_TRUE(awaitSubscribers(1));
}

TEST_P(VornPublisher_Wire, AClientThatIsGoneWhenAnEventComesAlone_HasLeft) {
    open(with([&](Options& o) { o.onLeave = m_departures.handler(); }));
    const pid_t sender = threadIds().back();
    const RawSubscriber subscriber(address(), "builds");
    ASSERT_TRUE(awaitBlockedInIo(sender));
    {
        const FaultRule gone("send", EPIPE);
        publish("x");
    }
    EXPECT_THAT(m_departures.awaited(1), ElementsAre("1 closed 32"));
    EXPECT_EQ(receiveToEnd(subscriber.fd()), "");
    EXPECT_TRUE(awaitSubscribers(0));
}

TEST_P(VornPublisher_Wire, Stop_LeavesNoDescriptorAndNoThread) {
    const int descriptors = openDescriptors();
    const std::size_t threads = threadIds().size();
    open(with([](Options& o) { o.onLeave = [](const auto&, auto, int) {}; }));
    publisher().stop(0ms);
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_TRUE(awaitCondition([&] { return threadIds().size() == threads; }));
}

TEST_P(VornPublisher_Wire, Stop_WhileAHandlerDecides_TellsWhomItAdmitted) {
    const UniqueFd client = askAHandlerThatWaits();
    const int before = openDescriptors();
    const UniqueFd next = ask(address()); // whom the handler is not asked about any more
    EXPECT_EQ(receiveExactly(next.get(), 1), "+");
    ASSERT_TRUE(awaitCondition([&] { return openDescriptors() == before + 2; }));
    WatchedThread stopping([&] { publisher().stop(0ms); });
    ASSERT_TRUE(awaitBlockedOnLock(stopping.tid()));
    m_barrier.open();
    EXPECT_TRUE(stopping.join());
    EXPECT_THAT(m_departures.lines(), ElementsAre("1 stopped 0"));
    EXPECT_EQ(refusalOf(next.get()), "refused");
}

TEST_P(VornPublisher_Wire, Stop_WhileAHandlerDecidesAboutOneThatCannotBeWatched_EndsAllTheSame) {
    const UniqueFd client = askAHandlerThatWaits();
    WatchedThread stopping([&] { publisher().stop(0ms); });
    ASSERT_TRUE(awaitCondition([&] { return !isAccepting(); })); // it has begun to stop
    const FaultRule fault("epoll_ctl", ENOMEM, 1, FaultRule::always);
    m_barrier.open();
    EXPECT_TRUE(stopping.join());
    EXPECT_THAT(m_departures.lines(), ElementsAre("1 stopped 0"));
}

// Peers that are gone.

using VornPublisher_Leases = PublisherFixture;

KIT_ROLE(subscribeAndWait) {
    const RawSubscriber subscriber(args.at(0), "builds");
    std::cout << "subscribed" << std::endl;
    receiveToEnd(subscriber.fd());
    return 0;
}

TEST_F(VornPublisher_Leases, AKilledClientHasClosed) {
    open(with([&](Options& o) { o.onLeave = m_departures.handler(); }));
    ChildProcess client = ChildProcess::spawnRole("subscribeAndWait", "pipe:alpha");
    ASSERT_EQ(client.readLine(), "subscribed");
    EXPECT_EQ(publisher().subscribers().at(0).nProcess, client.pid());
    client.kill(SIGKILL);
    EXPECT_THAT(m_departures.awaited(1), ElementsAre("1 closed 0"));
}

TEST_F(VornPublisher_Leases, OverTcpAClientThatTakesNothingForThreeBeats_IsLostWith110) {
    open(with([&](Options& o) {
             o.beat = 40ms;
             o.nHistoryBytes = 32 * 1024 * 1024;
             o.onLeave = m_departures.handler();
         }),
         "socket:127.0.0.1:0");
    const RawSubscriber stopped(address(), "builds");
    for (int i = 0; i < 30; ++i)
        publish(std::string(1024 * 1024, 'x'));
    EXPECT_THAT(m_departures.awaited(1), ElementsAre("1 lost 110"));
}

TEST_F(VornPublisher_Leases, OverTcpAClientWhoseHostIsGone_IsLostWith110AfterThreeBeats) {
    open(with([&](Options& o) {
             o.beat = 100ms;
             o.onLeave = m_departures.handler();
         }),
         "socket:127.0.0.1:0");
    const RawSubscriber gone(address(), "builds");
    const RawSubscriber other(address(), "builds");
    // What comes to this socket is thrown away from here on, and is not acknowledged.
    sock_filter nothing[] = {BPF_STMT(BPF_RET | BPF_K, 0)};
    const sock_fprog filter{1, nothing};
    ASSERT_EQ(::setsockopt(gone.fd(), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter), 0);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(m_departures.await(1));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);
    EXPECT_THAT(m_departures.lines(), ElementsAre("1 lost 110"));
    EXPECT_EQ(other.next().kind, 3U);
}

TEST_F(VornPublisher_Leases, WhateverTheKernelSaysOfAHostThatIsGone_IsLostWith110) {
    open(with([&](Options& o) { o.onLeave = m_departures.handler(); }), "socket:127.0.0.1:0");
    std::size_t count = 0;
    for (const int error : {ETIMEDOUT, EHOSTUNREACH, ENETUNREACH}) {
        const RawSubscriber gone(address(), "builds");
        const FaultRule rule("send", error);
        publish("x");
        ASSERT_TRUE(m_departures.await(++count)) << error;
    }
    EXPECT_THAT(m_departures.lines(), ElementsAre("1 lost 110", "2 lost 110", "3 lost 110"));
}

TEST_F(VornPublisher_Leases, WhenTheTimeOfDayJumps_NobodyIsLostOrLate) {
    const Options options = with([&](Options& o) {
        o.beat = 200ms;
        o.requestLimit = 60s;
        o.onLeave = m_departures.handler();
    });
    open(options);
    std::atomic<std::uint64_t> seen{0};
    const VornSubscriber client(
        "pipe:alpha", "builds",
        [&](VornConnection&, const VornSubscriber::Event& event) { seen = event.position.nNumber; });
    ASSERT_TRUE(awaitSubscribers(1));
    RawSubscriber subscriber(address(), "builds");
    UniqueFd asking = connectTo(address());
    ASSERT_TRUE(awaitCondition([&] { return publisher().statistics().nConnections == 3; }));
    const ClockShift shift(CLOCK_REALTIME);
    std::uint64_t number = 0;
    for (const std::chrono::seconds ahead : {24h, -24h}) {
        ClockShift::set(ahead);
        EXPECT_EQ(subscriber.next(), WireFrame::sign(number));
        publish("x");
        ++number;
        EXPECT_TRUE(publisher().flush(5s));
        EXPECT_TRUE(awaitCondition([&] { return seen == number; }));
        EXPECT_EQ(subscriber.nextButSigns(), WireFrame::event(number, "x"));
    }
    sendAll(asking.get(), "builds\r\n" + WireRequest().bytes());
    EXPECT_EQ(hex(receiveExactly(asking.get(), 5)), hex("+" + bytes("00 01 00 00")));
    EXPECT_THAT(m_departures.lines(), testing::IsEmpty());
    EXPECT_EQ(client.statistics().nSubscriptions, 1U);
    subscriber.socket().reset();
    asking.reset();
    m_publisher.reset();
    ClockShift::set(24h); // in the pause between two tries
    ClockShift::set(-24h);
    open(options);
    EXPECT_TRUE(awaitCondition([&] { return client.statistics().nSubscriptions == 2; }));
}

TEST_F(VornPublisher_Leases, OverAPipeAClientThatTakesNothing_Stays) {
    open(with([](Options& o) {
        o.beat = 10ms;
        o.nHistoryBytes = 4096;
    }));
    const RawSubscriber stopped(address(), "builds");
    const RawSubscriber other(address(), "other");
    for (int i = 0; i < 10'000; ++i)
        publish(std::string(1000, 'x'));
    for (int i = 0; i < 10; ++i) // ten beats have passed when the other one has had ten signs of life
        EXPECT_EQ(other.next(), WireFrame::sign(0));
    EXPECT_EQ(publisher().statistics().nSubscribers, 2U);
}

TEST_F(VornPublisher_Leases, NoSignalIsRaisedByAClientThatIsGone) {
    const auto previous = std::signal(SIGPIPE, SIG_DFL);
    open();
    for (int i = 0; i < 20; ++i) {
        RawSubscriber(address(), "builds");
        publish("x");
    }
    EXPECT_TRUE(awaitSubscribers(0));
    std::signal(SIGPIPE, previous);
}

TEST(VornPublisher, NameOf_IsTheNameInTheSource) {
    using Leaving = VornPublisher::Leaving;
    EXPECT_STREQ(VornPublisher::nameOf(Leaving::closed), "closed");
    EXPECT_STREQ(VornPublisher::nameOf(Leaving::lost), "lost");
    EXPECT_STREQ(VornPublisher::nameOf(Leaving::violated), "violated");
    EXPECT_STREQ(VornPublisher::nameOf(Leaving::dropped), "dropped");
    EXPECT_STREQ(VornPublisher::nameOf(Leaving::stopped), "stopped");
    EXPECT_STREQ(VornPublisher::nameOf(static_cast<Leaving>(5)), "unknown");
    EXPECT_STREQ(VornPublisher::nameOf(static_cast<Leaving>(-1)), "unknown");
}
