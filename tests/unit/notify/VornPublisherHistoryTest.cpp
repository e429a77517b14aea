// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Process.h"
#include "PublisherFixture.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornTest;
using namespace std::chrono_literals;

namespace {

using testing::ElementsAre;
using Options = VornPublisher::Options;

const std::string file = historyDirectory + "/builds.history";
constexpr std::size_t historyBytes = 8192;
constexpr std::size_t headerBytes = 4096;
constexpr std::size_t bootId = 8;
constexpr std::size_t isClosed = 48;

Options withDirectory() {
    Options options = keepingHistories();
    options.nHistoryBytes = historyBytes;
    options.stopLimit = 0ms;
    return options;
}

/** Publishes until it is killed, and tells each number that publish() has returned. */
KIT_ROLE(publishUntilKilled) {
    VornPublisher publisher("pipe:alpha", {"builds"}, withDirectory());
    std::cout << publisher.position("builds").nHistory << std::endl;
    for (std::uint64_t number = 0;;) {
        number =
            publisher.publish("builds", writing(std::to_string(number + 1) + std::string(number % 90, '.')));
        ::write(STDERR_FILENO, "x", 1); // one byte for each number, kept by the pipe when it is killed
    }
}

class VornPublisher_History : public HistoryFixture {
protected:
    VornPosition reopen() {
        m_publisher.reset();
        open(withDirectory());
        return publisher().position("builds");
    }

    std::string openFailure(const Options& options) {
        return thrownBy([&] { const VornPublisher other("pipe:beta", {"builds"}, options); });
    }

    /** All events that are kept, as numbers and contents. */
    std::vector<std::string> kept() {
        const RawSubscriber subscriber(address(), "builds", {.begin = 2});
        std::vector<std::string> all;
        for (std::uint64_t number = subscriber.place.first; number <= subscriber.place.newest; ++number) {
            const WireFrame frame = subscriber.next();
            EXPECT_EQ(frame.number(), number);
            all.push_back(std::to_string(frame.number()) + " " + frame.content());
        }
        return all;
    }

    static void overwrite(std::size_t at, const std::string& data) {
        std::fstream out(file, std::ios::in | std::ios::out | std::ios::binary);
        out.seekp(static_cast<std::streamoff>(at));
        out << data;
    }

    /** Whether the next publisher goes on with the history. */
    bool goesOn(const VornPosition& position) {
        const VornPosition now = reopen();
        return now.nHistory == position.nHistory && now.nNumber == position.nNumber;
    }

    /** A history of three events that was left in order. */
    VornPosition makeHistory() {
        open(withDirectory());
        for (const char* content : {"a", "b", "c"})
            publish(content);
        const VornPosition position = publisher().position("builds");
        m_publisher.reset();
        return position;
    }
};

} // namespace

TEST_F(VornPublisher_History, IsGoneOnWithByTheNextPublisher) {
    const VornPosition before = makeHistory();
    EXPECT_EQ(reopen(), before);
    EXPECT_THAT(kept(), ElementsAre("1 a", "2 b", "3 c"));
    EXPECT_EQ(publish("d"), 4U);
    EXPECT_EQ(publisher().statistics().nPublished, 1U);
    const RawSubscriber subscriber(address(), "builds",
                                   {.begin = 3, .history = before.nHistory, .number = 2});
    EXPECT_EQ(subscriber.next(), WireFrame::event(3, "c"));
    EXPECT_EQ(subscriber.next(), WireFrame::event(4, "d"));
}

TEST_F(VornPublisher_History, IsAFileOfItsSizeThatOnlyItsOwnerReads) {
    makeHistory();

    struct stat status {};

    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(static_cast<std::size_t>(status.st_size), headerBytes + historyBytes);
    EXPECT_GE(static_cast<std::size_t>(status.st_blocks) * 512, headerBytes + historyBytes);
}

TEST_F(VornPublisher_History, RoundTheBlock_TheNewestAreKept) {
    open(withDirectory());
    for (int i = 1; i <= 3000; ++i)
        publish(std::string(static_cast<std::size_t>(i % 200), 'x'));
    const auto before = kept();
    const VornPosition position = publisher().position("builds");
    EXPECT_EQ(reopen(), position);
    EXPECT_EQ(kept(), before);
    EXPECT_GT(before.size(), 40U);
}

TEST_F(VornPublisher_History, APositionFarFromBothEnds_IsFound) {
    open(withDirectory());
    for (int i = 1; i <= 300; ++i)
        publish(std::to_string(i));
    const VornPosition newest = publisher().position("builds");
    for (const std::uint64_t number : {100U, 250U}) {
        const RawSubscriber subscriber(address(), "builds",
                                       {.begin = 3, .history = newest.nHistory, .number = number});
        EXPECT_EQ(subscriber.next(), WireFrame::event(number + 1, std::to_string(number + 1)));
    }
}

TEST_F(VornPublisher_History, WithoutADirectory_ANewProcessBeginsANewOne) {
    open();
    const VornPosition before = publisher().position("builds");
    publish("a");
    m_publisher.reset();
    open();
    EXPECT_EQ(publisher().position("builds").nNumber, 0U);
    EXPECT_NE(publisher().position("builds").nHistory, before.nHistory);
}

TEST_F(VornPublisher_History, OfAnotherProcessIs11_AndFreeAfterStop) {
    open(withDirectory());
    const std::string failed = "VornPublisher::VornPublisher: failed to open history. ";
    EXPECT_EQ(openFailure(withDirectory()), failed + "11");
    publisher().stop(0ms);
    EXPECT_EQ(openFailure(withDirectory()), "nothing");
}

TEST_F(VornPublisher_History, WhatCannotBeOpened_TellsTheErrorNumber) {
    const std::string failed = "VornPublisher::VornPublisher: failed to open history. ";
    Options options = withDirectory();
    options.sDirectory = "/opt/none";
    EXPECT_EQ(openFailure(options), failed + "2");
    {
        const FaultRule full("posix_fallocate", ENOSPC);
        EXPECT_EQ(openFailure(withDirectory()), failed + "28");
    }
    EXPECT_EQ(std::filesystem::file_size(file), 0U);
    EXPECT_NE(::access(pipePath("beta").c_str(), F_OK), 0);
    open(withDirectory());
    {
        const FaultRule full("posix_fallocate", ENOSPC);
        EXPECT_EQ(thrownBy([&] { publisher().addTopic("later"); }),
                  "VornPublisher::addTopic: failed to open history. 28");
    }
    publisher().addTopic("later");
    EXPECT_TRUE(std::filesystem::exists(historyDirectory + "/later.history"));
    Options huge;
    huge.nHistoryBytes = std::size_t{1} << 62;
    EXPECT_EQ(openFailure(huge), failed + "12");
    ASSERT_EQ(::mkfifo((historyDirectory + "/beta.history").c_str(), 0600), 0);
    EXPECT_EQ(thrownBy([] { const VornPublisher other("pipe:beta", {"beta"}, withDirectory()); }),
              failed + "22");
}

TEST_F(VornPublisher_History, ThatTheFileSystemHasNoRoomFor_Stays) {
    const VornPosition before = makeHistory();
    {
        const FaultRule full("posix_fallocate", ENOSPC);
        EXPECT_EQ(openFailure(withDirectory()), "VornPublisher::VornPublisher: failed to open history. 28");
    }
    EXPECT_TRUE(goesOn(before));
}

TEST_F(VornPublisher_History, OfAnotherSizeOrCut_IsBegunAnew) {
    const VornPosition before = makeHistory();
    std::filesystem::resize_file(file, headerBytes + historyBytes - 1);
    EXPECT_FALSE(goesOn(before));
    const VornPosition after = publisher().position("builds");
    EXPECT_EQ(after.nNumber, 0U);
    m_publisher.reset();
    Options options = withDirectory();
    options.nHistoryBytes = 2 * historyBytes;
    open(options);
    EXPECT_NE(publisher().position("builds").nHistory, after.nHistory);
    m_publisher.reset();
    std::ofstream(file, std::ios::trunc);
    EXPECT_EQ(reopen().nNumber, 0U);
}

TEST_F(VornPublisher_History, ThatIsNotSound_IsBegunAnew) {
    struct Damage {
        const char* what;
        std::size_t at;
        std::string data;
    };

    const std::string eight(8, '\xff');
    for (const Damage& damage :
         {Damage{"magic", 0, "x"}, Damage{"capacity", 56, eight}, Damage{"history", 64, std::string(8, '\0')},
          Damage{"oldest", 72, eight}, Damage{"end", 80, eight},
          Damage{"end one less", 80, std::string(1, '\x32')},
          Damage{"end within a head", 80, std::string(1, '\x2a')},
          Damage{"oldest at the end", 72, std::string(1, '\x33')}, Damage{"kind", headerBytes, wireInt(2)},
          Damage{"length", headerBytes + 4, wireInt(10)}, Damage{"short length", headerBytes + 4, wireInt(3)},
          Damage{"long length", headerBytes + 4, wireInt(0x7fffffff)},
          Damage{"first number", headerBytes + 8, wireNumber(5)},
          Damage{"zero number", headerBytes + 8, wireNumber(0)},
          Damage{"second number", headerBytes + 17 + 8, wireNumber(1)},
          Damage{"zeros", headerBytes, std::string(60, '\0')}}) {
        const VornPosition before = makeHistory();
        ASSERT_TRUE(goesOn(before)) << damage.what;
        m_publisher.reset();
        overwrite(damage.at, damage.data);
        EXPECT_FALSE(goesOn(before)) << damage.what;
        EXPECT_EQ(publish("works"), 1U) << damage.what;
        m_publisher.reset();
        std::filesystem::remove(file);
    }
}

TEST_F(VornPublisher_History, WithAFrameThatCrossesTheBlocksEnd_IsBegunAnew) {
    constexpr std::size_t frame = 116; // 70 of them in one round
    open(withDirectory());
    for (int i = 0; i < 75; ++i)
        publish(std::string(frame - 16, 'x'));
    const VornPosition before = publisher().position("builds");
    EXPECT_TRUE(goesOn(before));
    m_publisher.reset();
    overwrite(headerBytes + 69 * frame + 4, wireInt(historyBytes - 69 * frame));
    EXPECT_FALSE(goesOn(before));
}

TEST_F(VornPublisher_History, ThatIsReadWhereItIsWrittenNext_IsWaitedFor) {
    open(withDirectory());
    const RawSubscriber subscriber(address(), "builds");
    HeldCall sending("send");
    WatchedThread first([&] { publish("the one that is read"); });
    ASSERT_TRUE(sending.awaitReached());
    WatchedThread others([&] {
        for (int i = 0; i < 1000; ++i)
            publish(std::string(100, 'x'));
    });
    ASSERT_TRUE(awaitBlockedOnLock(others.tid()));
    sending.open();
    EXPECT_TRUE(first.join());
    EXPECT_TRUE(others.join());
    EXPECT_EQ(subscriber.next(), WireFrame::event(1, "the one that is read"));
}

TEST_F(VornPublisher_History, GoesOnWhenItWasClosed_AndElseOnlyInTheBootThatWroteIt) {
    for (const std::string boot : {"this", "another", "one that cannot be told"}) {
        for (const bool wasClosed : {true, false}) {
            SCOPED_TRACE(boot + (wasClosed ? ", closed" : ", not closed"));
            std::optional<FaultRule> unreadable;
            if (boot == "one that cannot be told")
                unreadable.emplace("read", EIO, 1, FaultRule::always);
            const VornPosition before = makeHistory();
            if (boot == "another")
                overwrite(bootId, "another");
            if (!wasClosed)
                overwrite(isClosed, std::string(1, '\0'));
            EXPECT_EQ(goesOn(before), wasClosed || boot == "this");
            m_publisher.reset();
            std::filesystem::remove(file);
        }
    }
}

TEST_F(VornPublisher_History, ThatDoesNotReachTheDisk_IsNotClosed) {
    open(withDirectory());
    {
        const FaultRule fault("msync", EIO);
        publisher().stop(0ms);
    }
    for (const char* topic : {"builds", "other"}) {
        std::ifstream in(historyDirectory + "/" + topic + ".history", std::ios::binary);
        in.seekg(static_cast<std::streamoff>(isClosed));
        EXPECT_EQ(in.get(), topic[0] == 'b' ? 0 : 1);
    }
}

TEST_F(VornPublisher_History, Stop_BringsItToTheDisk) {
    open(withDirectory());
    publish("a");
    const CallTrace trace;
    publisher().stop(0ms);
    EXPECT_EQ(trace.calls("msync"), 4); // two topics: the whole, and then the word that it is there
}

TEST_F(VornPublisher_History, APublisherThatIsKilled_LosesNothingThatWasPublished) {
    for (int round = 0; round < 5; ++round) {
        ChildProcess service = ChildProcess::spawnRole("publishUntilKilled");
        const std::uint64_t history = std::stoull(service.readLine());
        const RawSubscriber watching("pipe:alpha", "builds", {.begin = 2});
        while (watching.next().number() < 500) {
        }
        service.kill(SIGKILL);
        service.wait();
        const std::size_t returned = service.readAllErrors().size();
        const VornPosition position = reopen();
        EXPECT_EQ(position.nHistory, history);
        EXPECT_GE(position.nNumber, returned);
        EXPECT_LE(position.nNumber, returned + 1);
        for (const std::string& event : kept()) {
            const std::size_t blank = event.find(' ');
            const std::uint64_t number = std::stoull(event.substr(0, blank));
            EXPECT_EQ(event.substr(blank + 1), std::to_string(number) + std::string((number - 1) % 90, '.'));
        }
        m_publisher.reset();
        std::filesystem::remove(file);
    }
}
