// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * The end of a sink, whatever it is doing at that time.
 */

#include "Interpose.h"
#include "NotificationPeer.h"
#include "Process.h"
#include "Sanitizer.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <system_error>

#include <VornLogging.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

using namespace VornTest;
using namespace std::chrono_literals;

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Values;

using Connection = VornNet::VornSmartPointer<VornNet::VornConnection>;

constexpr int destructions = underThreadSanitizer ? 50 : 200;

/** Far beyond the 200 ms after which a destructor cuts clients off. */
constexpr std::chrono::milliseconds endsWithin = 5s;

class VornLibraryCallbackSink_End : public NotificationTest {};

class VornLibraryCallbackSink_EndOfAnyKind : public NotificationTestOfKind {};

class VornLibraryCallbackSink_EndOnStreams : public NotificationTestOfKind {};

INSTANTIATE_TEST_SUITE_P(Kind, VornLibraryCallbackSink_EndOfAnyKind,
                         Values(Kind::pipe, Kind::socket, Kind::udp), testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Kind, VornLibraryCallbackSink_EndOnStreams, Values(Kind::pipe, Kind::socket),
                         testing::PrintToStringParamName());

/** Destroys a sink; false if that takes too long. */
bool destroyInTime(WatchedSink& sink) {
    WatchedThread destroyer([&] { sink.destroy(); });
    return destroyer.join(endsWithin);
}

/** Two connected sockets, to see whether somebody interferes with them. */
struct SocketPair {
    SocketPair() {
        std::array<int, 2> ends = {};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
            throw std::system_error(errno, std::generic_category(), "socketpair()");
        first.reset(ends[0]);
        second.reset(ends[1]);
    }

    UniqueFd first;
    UniqueFd second;
};

/** Whether somebody's reading has been ended. */
bool isCutOff(const CallTrace& trace) {
    const auto calls = trace.records("shutdown");
    return std::any_of(calls.begin(), calls.end(),
                       [](const CallRecord& call) { return call.second == SHUT_RD; });
}

/** Waits until clients would have been cut off: nothing tells that a cut is not going to be made. */
void passTheTimeOfTheCut() {
    letPass(600ms);
}

} // namespace

KIT_ROLE(sinkDeletedByItsCallback) {
    VornSupport::VornLogging::getInstance().setLogLevel(std::stoi(args.at(1)));
    useTypeText(args.at(0));
    auto* sink = new SinkProbe("falcon");
    addCallback(*sink, [&](Connection&) {
        delete sink;
        std::printf("survived\n");
        return std::string();
    });
    std::printf("%s\n", sink->getCallbackAddress().c_str());
    std::cin.get();
    return 0;
}

TEST_P(VornLibraryCallbackSink_EndOfAnyKind, WhileItWaits_WaitEndsWithoutClient) {
    LogCapture log;
    WatchedSink sink(GetParam());
    const std::string address = sink.address();
    ASSERT_TRUE(sink.awaitServing());
    log.clear();
    EXPECT_TRUE(destroyInTime(sink));
    EXPECT_THAT(sinkRecords(log),
                ElementsAre("9 VornLibraryCallbackSink::~VornLibraryCallbackSink: closing socket",
                            "9 VornLibraryCallbackSink::run: NULL returned from waitForClient : " + address +
                                ", exiting",
                            "9 VornLibraryCallbackSink::run: exiting rc=0"));
}

TEST_P(VornLibraryCallbackSink_EndOfAnyKind, RightAfterConstruction_Ends) {
    for (int i = 0; i < 50; ++i) {
        WatchedSink sink(GetParam());
        ASSERT_TRUE(destroyInTime(sink));
    }
}

TEST_P(VornLibraryCallbackSink_EndOfAnyKind, GivesItsAddressBack) {
    std::string first;
    {
        WatchedSink sink(GetParam());
        first = sink.address();
    }
    WatchedSink sink(GetParam());
    EXPECT_EQ(sink.address(), first);
    const CallbackPointer callback = addCallback(*sink);
    deliver(sink, callback, "to the second");
    EXPECT_THAT(callback->contents(), ElementsAre("to the second"));
}

TEST_P(VornLibraryCallbackSink_EndOfAnyKind, UnderTraffic_EndsEveryTime) {
    Traffic traffic(2);
    for (int i = 0; i < destructions; ++i) {
        WatchedSink sink(GetParam());
        const CallbackPointer callback = addCallback(*sink);
        ASSERT_TRUE(awaitCondition([&] {
            traffic.aim(sink.address());
            return callback->calls() > 0;
        })) << "sink "
            << i << '\n'
            << describeThreads();
        ASSERT_TRUE(destroyInTime(sink)) << "sink " << i;
        ASSERT_EQ(callback->refCount(), 1) << "sink " << i << " still serves";
    }
}

TEST_P(VornLibraryCallbackSink_EndOfAnyKind, WhileCallbackRuns_WaitsForIt) {
    LogCapture log;
    WatchedSink sink(GetParam());
    HeldCallback held;
    // Of the type that an object has while its destructor runs.
    VornNet::VornLibraryCallbackSink& dying = *sink;
    const CallbackPointer callback = addCallback(*sink, held.action({}, [&](Connection&) {
        // The sink's members must still be there.
        return std::to_string(dying.getCallbackContainer().getNewId());
    }));
    sendWhenServing(sink, onWire(0));
    ASSERT_TRUE(held.awaitEntered());
    log.clear();
    WatchedThread destroyer([&] { sink.destroy(); });
    ASSERT_TRUE(log.await("closing socket"));
    EXPECT_TRUE(awaitBlockedOnLock(destroyer.tid()));
    EXPECT_FALSE(destroyer.finished());
    held.letGoOn();
    EXPECT_TRUE(destroyer.join(endsWithin));
    EXPECT_THAT(callback->contents(), ElementsAre("1"));
    EXPECT_EQ(log.count("run: callback returned"), 1);
}

TEST_P(VornLibraryCallbackSink_EndOnStreams, WithSilentClient_Ends) {
    LogCapture log;
    WatchedSink sink(GetParam());
    ASSERT_TRUE(sink.awaitServing());
    const UniqueFd silent = connectToSink(sink.address());
    ASSERT_TRUE(sink.awaitReading());
    EXPECT_TRUE(destroyInTime(sink));
    EXPECT_EQ(receiveToEnd(silent.get()), "") << "the client sees the end";
    EXPECT_EQ(log.count("run: exiting rc=107"), 1) << "to the sink it is as if the client had closed";
}

TEST_F(VornLibraryCallbackSink_End, WhenASilentClientCannotBeCutOffAtFirst_Ends) {
    WatchedSink sink(Kind::pipe);
    ASSERT_TRUE(sink.awaitServing());
    const UniqueFd silent = connectToSink(sink.address());
    ASSERT_TRUE(sink.awaitReading());
    const FaultRule failing("shutdown", ENOTCONN, 1, 3);
    EXPECT_TRUE(destroyInTime(sink));
    EXPECT_EQ(failing.failures(), 3);
}

TEST_F(VornLibraryCallbackSink_End, WithClientThatIsBeingServed_CutsItOffAfter200Milliseconds) {
    using Clock = std::chrono::steady_clock;
    LogCapture log;
    WatchedSink sink(Kind::pipe);
    Gate entered;
    Gate cut;
    addCallback(*sink, [&](Connection& connection) {
        entered.open();
        return readToEnd(*connection);
    });
    const UniqueFd silent = connectWhenServing(sink, onWire(0));
    ASSERT_TRUE(entered.await());
    ASSERT_TRUE(sink.awaitReading());
    log.clear();
    Clock::time_point cutTime;
    std::vector<std::string> records;
    const CallHook hook("shutdown", [&] {
        cutTime = Clock::now();
        records = log.texts();
        cut.open();
    });
    const Clock::time_point start = Clock::now();
    EXPECT_TRUE(destroyInTime(sink));
    ASSERT_TRUE(cut.isOpen());
    EXPECT_GE(cutTime - start, 200ms);
    // An upper limit on a clock would depend on the machine. The destructor closes the server every 20 ms,
    // and so no more than eleven times until then.
    EXPECT_LE(std::count(records.begin(), records.end(), "VornPipeServer::close"), 11);
}

TEST_P(VornLibraryCallbackSink_EndOnStreams, WithCallbackThatWaits_WhatHasArrivedCanBeRead) {
    WatchedSink sink(GetParam());
    HeldCallback held;
    const CallbackPointer callback =
        addCallback(*sink, held.action({}, [](Connection& connection) { return readToEnd(*connection); }));
    const UniqueFd client = connectWhenServing(sink, onWire(0) + "arrived");
    ASSERT_TRUE(held.awaitEntered());
    CallTrace trace;
    WatchedThread destroyer([&] { sink.destroy(); });
    ASSERT_TRUE(awaitCondition([&] { return isCutOff(trace); }));
    held.letGoOn();
    EXPECT_TRUE(destroyer.join(endsWithin));
    EXPECT_THAT(callback->contents(), ElementsAre("arrived"));
}

TEST_P(VornLibraryCallbackSink_EndOnStreams, WhenCallbackHasDisconnected_NoStrangerIsCutOff) {
    WatchedSink sink(GetParam());
    HeldCallback held;
    std::unique_ptr<SocketPair> stranger;
    const auto disconnect = [&](Connection& connection) {
        connection->disconnect();
        stranger = std::make_unique<SocketPair>(); // gets the number that has just become free
        return std::string();
    };
    addCallback(*sink, held.action(disconnect, {}));
    const UniqueFd client = connectWhenServing(sink, onWire(0));
    ASSERT_TRUE(held.awaitEntered());
    CallTrace trace;
    WatchedThread destroyer([&] { sink.destroy(); });
    passTheTimeOfTheCut();
    EXPECT_FALSE(destroyer.finished());
    EXPECT_FALSE(isCutOff(trace));
    sendAll(stranger->first.get(), "to second");
    sendAll(stranger->second.get(), "to first");
    EXPECT_EQ(receiveExactly(stranger->second.get(), 9), "to second");
    EXPECT_EQ(receiveExactly(stranger->first.get(), 8), "to first");
    held.letGoOn();
    EXPECT_TRUE(destroyer.join(endsWithin));
}

TEST_F(VornLibraryCallbackSink_End, WhileClientIsCutOff_ItsSocketIsNotClosedAndNoOtherServiceBeginsOrEnds) {
    WatchedSink other(Kind::socket, "other");
    WatchedSink leaving(Kind::udp, "leaving"); // its client has no socket to close
    WatchedSink sink(Kind::pipe);
    Gate entered;
    Gate leavingEntered;
    std::atomic<bool> leaves{false};
    const auto awaitLeaving = [&] {
        while (!leaves) {
            std::this_thread::yield(); // not on a lock: the test looks for the one that is meant
        }
        return std::string();
    };
    addCallback(*sink, [&](Connection& connection) {
        entered.open();
        awaitLeaving();
        connection->disconnect();
        return std::string();
    });
    addCallback(*leaving, [&](Connection&) {
        leavingEntered.open();
        return awaitLeaving();
    });
    sendWhenServing(leaving, onWire(0));
    ASSERT_TRUE(leavingEntered.await());
    ASSERT_TRUE(other.awaitServing());
    const UniqueFd client = connectWhenServing(sink, onWire(0));
    ASSERT_TRUE(entered.await());
    HeldCall cutting("shutdown");
    WatchedThread destroyer([&] { sink.destroy(); });
    ASSERT_TRUE(cutting.awaitReached());
    leaves = true;
    EXPECT_TRUE(awaitBlockedOnLock(sink.tid()));
    EXPECT_TRUE(awaitBlockedOnLock(leaving.tid()));
    UniqueFd beginning = connectToSink(other.address());
    EXPECT_TRUE(awaitBlockedOnLock(other.tid()));
    EXPECT_FALSE(destroyer.finished());
    cutting.open();
    beginning.reset();
    EXPECT_TRUE(destroyer.join(endsWithin));
    EXPECT_TRUE(other.awaitServing());
}

// The thread sanitizer fails it when the connection opens a socket unseen by the sink's destructor.
TEST_P(VornLibraryCallbackSink_EndOnStreams, WhileCallbackConnectsAnew_Ends) {
    WatchedSink sink(GetParam());
    Gate entered;
    Gate leave;
    addCallback(*sink, [&](Connection& connection) {
        while (!leave.isOpen()) {
            connection->disconnect();
            long nError = 0;
            connection->transfer("x", 1, &nError);
            EXPECT_NE(nError, 0) << "there is nobody to connect to";
            entered.open();
        }
        return std::string();
    });
    sendWhenServing(sink, onWire(0));
    ASSERT_TRUE(entered.await());
    WatchedThread destroyer([&] { sink.destroy(); });
    passTheTimeOfTheCut();
    leave.open();
    EXPECT_TRUE(destroyer.join(endsWithin));
}

TEST_P(VornLibraryCallbackSink_EndOnStreams, WhenCallbackHasLetGoOfItsConnection_NothingOfItIsLookedAt) {
    WatchedSink sink(GetParam());
    HeldCallback held;
    std::vector<std::string> strangers;
    const auto letGo = [&](Connection& connection) {
        connection = nullptr;
        // One of them gets the memory that has just become free.
        for (std::size_t size = 100; size < 400; ++size)
            strangers.emplace_back(size, '\x01');
        return std::string();
    };
    addCallback(*sink, held.action(letGo, {}));
    const UniqueFd client = connectWhenServing(sink, onWire(0));
    ASSERT_TRUE(held.awaitEntered());
    WatchedThread destroyer([&] { sink.destroy(); });
    passTheTimeOfTheCut();
    EXPECT_FALSE(destroyer.finished());
    held.letGoOn();
    EXPECT_TRUE(destroyer.join(endsWithin));
}

TEST_P(VornLibraryCallbackSink_EndOnStreams, OtherSinksClient_IsNotCutOff) {
    WatchedSink staying(GetParam(), "staying");
    Gate entered;
    const CallbackPointer callback = addCallback(*staying, [&](Connection& connection) {
        entered.open();
        return readToEnd(*connection);
    });
    UniqueFd slow = connectWhenServing(staying, onWire(0) + "before ");
    ASSERT_TRUE(entered.await());
    WatchedSink ending(GetParam(), "ending");
    ASSERT_TRUE(ending.awaitServing());
    const UniqueFd silent = connectToSink(ending.address());
    ASSERT_TRUE(ending.awaitReading());
    EXPECT_TRUE(destroyInTime(ending));
    sendAll(slow.get(), "and after");
    slow.reset();
    ASSERT_TRUE(callback->awaitCalls(1));
    EXPECT_THAT(callback->contents(), ElementsAre("before and after"));
}

TEST_P(VornLibraryCallbackSink_EndOfAnyKind, DeletedByItsOwnCallback_EndsProcessAndSaysSoAtLevelOne) {
    for (const int level : {0, 1}) {
        ChildProcess child =
            ChildProcess::spawnRole("sinkDeletedByItsCallback", nameOf(GetParam()), std::to_string(level));
        sendByHand(child.readLine(), onWire(0));
        EXPECT_EQ(child.wait(), 128 + SIGABRT);
        EXPECT_EQ(child.readAllOutput(), "");
        const auto saysSo =
            HasSubstr("VornLibraryCallbackSink::~VornLibraryCallbackSink: destroyed by one of "
                      "its own callbacks\n");
        EXPECT_EQ(testing::Value(child.readAllErrors(), saysSo), level == 1);
    }
}

TEST_F(VornLibraryCallbackSink_End, WhileCallbackReadsADatagramForLong_HasNobodyToCutOff) {
    WatchedSink sink(Kind::udp);
    HeldCallback held;
    addCallback(*sink, held.action());
    sendWhenServing(sink, onWire(0));
    ASSERT_TRUE(held.awaitEntered());
    const CallTrace trace;
    WatchedThread destroyer([&] { sink.destroy(); });
    passTheTimeOfTheCut();
    EXPECT_FALSE(destroyer.finished());
    EXPECT_FALSE(isCutOff(trace));
    held.letGoOn();
    EXPECT_TRUE(destroyer.join(endsWithin));
}

TEST_F(VornLibraryCallbackSink_End, OfTwoThatServeAtOnce_TheFirstMayBeDoneFirst) {
    WatchedSink first(Kind::socket, "first");
    HeldCallback held;
    const CallbackPointer ofFirst = addCallback(*first, held.action());
    sendWhenServing(first, onWire(0) + "one");
    ASSERT_TRUE(held.awaitEntered());
    WatchedSink second(Kind::socket, "second");
    const CallbackPointer ofSecond = addCallback(*second);
    UniqueFd slow = connectWhenServing(second, onWire(0) + "t");
    ASSERT_TRUE(second.awaitReading());
    held.letGoOn();
    ASSERT_TRUE(ofFirst->awaitCalls(1));
    EXPECT_TRUE(destroyInTime(first));
    sendAll(slow.get(), "wo");
    slow.reset();
    ASSERT_TRUE(ofSecond->awaitCalls(1));
    EXPECT_THAT(ofFirst->contents(), ElementsAre("one"));
    EXPECT_THAT(ofSecond->contents(), ElementsAre("two"));
}

TEST_P(VornLibraryCallbackSink_EndOfAnyKind, WhileItsOwnerIsBeingCancelled_EndsFirst) {
    const int before = openDescriptors();
    bool hasEnded = false;
    WatchedThread owner([&] {
        {
            WatchedSink sink(GetParam());
            ASSERT_TRUE(sink.awaitServing());
            ::pthread_cancel(::pthread_self());
        }
        hasEnded = true;
        ::pthread_testcancel();
        ADD_FAILURE() << "the cancellation has got lost";
    });
    EXPECT_TRUE(owner.join());
    EXPECT_TRUE(hasEnded);
    EXPECT_EQ(owner.exceptionText(), "cancelled");
    EXPECT_EQ(openDescriptors(), before);
}
