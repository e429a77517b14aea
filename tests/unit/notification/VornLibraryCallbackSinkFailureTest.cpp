// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * Failures: of a callback, of the wait, of the making of the server, and what a hostile sender can do.
 */

#include "Interpose.h"
#include "Interruptions.h"
#include "NotificationPeer.h"
#include "Process.h"
#include "Sandbox.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <stdexcept>

#include <VornException.h>
#include <VornLogging.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

using namespace VornTest;
using namespace std::chrono_literals;

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::Values;
using VornSupport::VornException;

using Connection = VornNet::VornSmartPointer<VornNet::VornConnection>;

class VornLibraryCallbackSink_Failure : public NotificationTest {};

class VornLibraryCallbackSink_FailureOfAnyKind : public NotificationTestOfKind {};

class VornLibraryCallbackSink_FailureOnStreams : public NotificationTestOfKind {};

class VornLibraryCallbackSink_FailureOnPorts : public NotificationTestOfKind {};

INSTANTIATE_TEST_SUITE_P(Kind, VornLibraryCallbackSink_FailureOfAnyKind,
                         Values(Kind::pipe, Kind::socket, Kind::udp), testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Kind, VornLibraryCallbackSink_FailureOnStreams, Values(Kind::pipe, Kind::socket),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Kind, VornLibraryCallbackSink_FailureOnPorts, Values(Kind::socket, Kind::udp),
                         testing::PrintToStringParamName());

RecordingCallback::Action throwing(int code) {
    return [code](Connection& connection) -> std::string {
        readToEnd(*connection);
        throw VornException("a callback's failure", code);
    };
}

/** The records of a notification's way until its callback has failed, and what comes then. */
std::vector<std::string> recordsOfFailure(const std::string& address,
                                          const std::vector<std::string>& afterwards) {
    std::vector<std::string> records = {debugRecord("run: received data : " + address),
                                        debugRecord("run: hCallback=0"),
                                        debugRecord("run: found callback... invoking")};
    std::transform(afterwards.begin(), afterwards.end(), std::back_inserter(records), debugRecord);
    return records;
}

} // namespace

KIT_ROLE(sinkMaker) {
    VornSupport::VornLogging::setRecordHandler(
        [](int level, const VornSupport::VornString& text) { std::printf("%d %s\n", level, text.c_str()); });
    VornSupport::VornLogging::getInstance().setLogLevel(std::stoi(args.at(0)));
    std::printf("constructing\n");
    SinkProbe sink("stuck");
    std::printf("constructed\n");
    return 0;
}

TEST_F(VornLibraryCallbackSink_Failure, WhenLocalhostIsUnknown_TcpConstructorDoesNotReturn) {
    useHostsFile("127.0.0.1 vega\n");
    ChildProcess child = ChildProcess::spawnRoleWith({"QUORAX_CALLB_CONN_TYPE=socket"}, "sinkMaker", {"9"});
    EXPECT_EQ(child.readLine(), "constructing");
    int waits = 0;
    while (waits < 8) {
        const std::string line = child.readLine();
        ASSERT_EQ(line.find("constructed"), std::string::npos) << line;
        waits += line.find("run: waiting for data : socket::5023") != std::string::npos ? 1 : 0;
    }
}

// A sink whose server cannot be made.

TEST_F(VornLibraryCallbackSink_Failure, WhenServerCannotBeMade_ConstructorWaitsAndThreadTellsWhy) {
    const MissingPipeDirectory missing;
    ChildProcess child = ChildProcess::spawnRole("sinkMaker", "1");
    EXPECT_EQ(child.readLine(), "constructing");
    const std::string record = child.readLine();
    EXPECT_THAT(record, AllOf(StartsWith("1 "), HasSubstr("stuck"),
                              HasSubstr("VornPipeServer::init: failed to prepare pipe."), HasSubstr("2")));
    const std::string task = "/proc/" + std::to_string(child.pid());
    const auto switches = [&] {
        const std::string status = readTextFile(task + "/status");
        return std::stol(status.substr(status.find("\nvoluntary_ctxt_switches:") + 25));
    };
    const auto worked = processorTime(task);
    const auto before = std::chrono::steady_clock::now();
    const long first = switches();
    ASSERT_TRUE(awaitCondition([&] { return switches() >= first + 500; })) << "the constructor must poll";
    EXPECT_LT(processorTime(task) - worked, 0.6 * (std::chrono::steady_clock::now() - before));
    child.kill(SIGKILL);
    EXPECT_EQ(child.wait(), 128 + SIGKILL);
    EXPECT_EQ(child.readAllOutput(), "");
}

// A callback that throws.

TEST_P(VornLibraryCallbackSink_FailureOfAnyKind, OtherCode_IsRememberedAndLoopGoesOn) {
    LogCapture log;
    std::string address;
    {
        WatchedSink sink(GetParam());
        address = sink.address();
        addCallback(*sink, throwing(5));
        const CallbackPointer good = addCallback(*sink);
        ASSERT_TRUE(sink.awaitServing());
        log.clear();
        sendByHand(address, onWire(0));
        ASSERT_TRUE(log.await("waiting for data"));
        EXPECT_THAT(sinkRecords(log),
                    ElementsAreArray(recordsOfFailure(address, {"run: waiting for data : " + address})))
            << "the failure itself is not logged";
        EXPECT_TRUE(WatchedThread([&] { sink->getCallbackContainer().getNewId(); }).join())
            << "the container is still locked";
        deliver(sink, good, "goes on");
        ASSERT_TRUE(sink.awaitServing());
    }
    EXPECT_EQ(log.count("run: exiting rc=5"), 1);
}

TEST_P(VornLibraryCallbackSink_FailureOfAnyKind, LastOtherCode_IsWhatRunReturns) {
    // A code that ends the loop leaves the result as it was.
    for (const auto& [last, result] : {std::pair(-7, -7), std::pair(0, 0), std::pair(ECONNRESET, 5)}) {
        LogCapture log;
        {
            WatchedSink sink(GetParam());
            addCallback(*sink, throwing(5));
            addCallback(*sink, throwing(last));
            sendWhenServing(sink, onWire(0));
            ASSERT_TRUE(awaitCondition([&] { return log.count("waiting for data") == 2; }));
            sendWhenServing(sink, onWire(1));
            ASSERT_TRUE(awaitCondition([&] { return log.count("waiting for data") == 3 || sink->wait(0); }));
        }
        EXPECT_EQ(log.count("run: exiting rc=" + std::to_string(result)), 1) << "after " << last;
    }
}

TEST_P(VornLibraryCallbackSink_FailureOfAnyKind, ConnectionResetAndInterruption_EndLoop) {
    for (const int code : {ECONNRESET, EINTR}) {
        LogCapture log;
        WatchedSink sink(GetParam());
        const std::string address = sink.address();
        addCallback(*sink, throwing(code));
        ASSERT_TRUE(sink.awaitServing());
        log.clear();
        sendByHand(address, onWire(0));
        ASSERT_TRUE(sink.awaitEnd());
        EXPECT_THAT(sinkRecords(log),
                    ElementsAreArray(recordsOfFailure(
                        address, {"run: exception=" + std::to_string(code) + " connection closed, exiting",
                                  "run: exiting rc=0"})));
        // The server stays open: who sends meets no error.
        EXPECT_NO_THROW(sendByHand(address, onWire(0)));
    }
}

TEST_F(VornLibraryCallbackSink_Failure, AddressInUse_EndsPipeSink) {
    LogCapture log;
    WatchedSink sink(Kind::pipe);
    const std::string address = sink.address();
    addCallback(*sink, throwing(EADDRINUSE));
    ASSERT_TRUE(sink.awaitServing());
    log.clear();
    sendByHand(address, onWire(0));
    ASSERT_TRUE(sink.awaitEnd());
    EXPECT_THAT(sinkRecords(log), ElementsAreArray(recordsOfFailure(
                                      address, {"run: exception=98 cannot establish connection, exiting",
                                                "run: exiting rc=0"})));
    EXPECT_EQ(sink.address(), address);
}

TEST_P(VornLibraryCallbackSink_FailureOnPorts, AddressInUse_MovesPortWhateverItsSource) {
    LogCapture log;
    WatchedSink sink(GetParam());
    const std::string address = sink.address();
    const std::string next = nameOf(GetParam()) + ":127.0.0.1:5024";
    addCallback(*sink, throwing(EADDRINUSE));
    const CallbackPointer good = addCallback(*sink);
    ASSERT_TRUE(sink.awaitServing());
    log.clear();
    sendByHand(address, onWire(0));
    ASSERT_TRUE(log.await("waiting for data"));
    EXPECT_THAT(
        sinkRecords(log),
        ElementsAreArray(recordsOfFailure(
            address, {"tryNextPort: retrying " + nameOf(GetParam()) + " server on socket 5024",
                      "run: exception=98 trying next port=5024", "run: waiting for data : " + next})));
    EXPECT_EQ(sink.address(), next);
    EXPECT_EQ(sink->getCallbackSocket(), 5024);
    // The server was not closed, so it is still where it was.
    ASSERT_TRUE(sink.awaitServing());
    sendByHand(address, onWire(1) + "old port");
    ASSERT_TRUE(good->awaitCalls(1));
    EXPECT_THAT(good->contents(), ElementsAre("old port"));
}

TEST_P(VornLibraryCallbackSink_FailureOfAnyKind, OtherExceptions_EndThreadWithRecordAtLevelOne) {
    LogCapture log;
    WatchedSink sink(GetParam(), "falcon");
    addCallback(*sink, [](Connection&) -> std::string { throw std::runtime_error("not of the library"); });
    sendWhenServing(sink, onWire(0));
    ASSERT_TRUE(sink.awaitEnd());
    EXPECT_TRUE(log.contains(1, "not of the library"));
    EXPECT_TRUE(log.contains(1, "falcon"));
    EXPECT_EQ(log.count("run: exiting rc="), 0);
    EXPECT_NO_THROW(sendByHand(sink.address(), onWire(0))) << "the server stays open";
}

// Senders that do not keep to the exchange.

TEST_P(VornLibraryCallbackSink_FailureOfAnyKind, HandleCutShort_IsAFailedRead) {
    LogCapture log;
    {
        WatchedSink sink(GetParam());
        const CallbackPointer callback = addCallback(*sink);
        ASSERT_TRUE(sink.awaitServing());
        log.clear();
        sendByHand(sink.address(), bytes("00 00"));
        ASSERT_TRUE(log.await("waiting for data"));
        EXPECT_THAT(sinkRecords(log), ElementsAre(debugRecord("run: received data : " + sink.address()),
                                                  debugRecord("run: waiting for data : " + sink.address())));
        deliver(sink, callback, "goes on");
        ASSERT_TRUE(sink.awaitServing());
    }
    EXPECT_EQ(log.count(GetParam() == Kind::udp ? "run: exiting rc=0" : "run: exiting rc=107"), 1);
}

TEST_P(VornLibraryCallbackSink_FailureOnStreams, ClientThatSendsNothing_HoldsSinkUntilItCloses) {
    WatchedSink sink(GetParam());
    const CallbackPointer callback = addCallback(*sink);
    ASSERT_TRUE(sink.awaitServing());
    UniqueFd silent = connectToSink(sink.address());
    ASSERT_TRUE(sink.awaitReading());
    const UniqueFd behind = connectToSink(sink.address());
    sendAll(behind.get(), onWire(0) + "behind");
    ::shutdown(behind.get(), SHUT_WR);
    EXPECT_EQ(callback->calls(), 0);
    silent.reset();
    // A failed read leaves the server open, with its queue.
    ASSERT_TRUE(callback->awaitCalls(1));
    EXPECT_THAT(callback->contents(), ElementsAre("behind"));
}

TEST_F(VornLibraryCallbackSink_Failure, ResetBeforeHandle_EndsTcpSink) {
    LogCapture log;
    WatchedSink sink(Kind::socket);
    const std::string address = sink.address();
    ASSERT_TRUE(sink.awaitServing());
    log.clear();
    UniqueFd client = connectToSink(address);
    ASSERT_TRUE(sink.awaitReading());
    resetOnClose(client.get());
    client.reset();
    ASSERT_TRUE(sink.awaitEnd());
    EXPECT_THAT(sinkRecords(log), ElementsAre(debugRecord("run: received data : " + address),
                                              debugRecord("run: exception=104 connection closed, exiting"),
                                              debugRecord("run: exiting rc=0")));
    EXPECT_NO_THROW(connectToSink(address)) << "the server stays open";
}

TEST_F(VornLibraryCallbackSink_Failure, EmptyDatagram_EndsUdpSink) {
    LogCapture log;
    WatchedSink sink(Kind::udp);
    const std::string address = sink.address();
    ASSERT_TRUE(sink.awaitServing());
    log.clear();
    sendByHand(address, "");
    ASSERT_TRUE(sink.awaitEnd());
    EXPECT_THAT(sinkRecords(log),
                ElementsAre(debugRecord("run: NULL returned from waitForClient : " + address + ", exiting"),
                            debugRecord("run: exiting rc=0")));
    EXPECT_NO_THROW(sendByHand(address, onWire(0))) << "who sends learns nothing of it";
}

// A wait that fails.

TEST_P(VornLibraryCallbackSink_FailureOnPorts, BindThatFailsAtFirst_IsTriedUntilItSucceeds) {
    LogCapture log;
    {
        FaultRule failing("bind", EADDRNOTAVAIL, 1, 3);
        const CallTrace trace;
        WatchedSink sink(GetParam());
        EXPECT_EQ(failing.calls(), 4) << "the constructor waits for the server";
        std::vector<long> pauses; // when each ends
        for (const CallRecord& pause : trace.records("clock_nanosleep")) {
            if (pause.tid == sink.tid())
                pauses.push_back(pause.third);
        }
        ASSERT_EQ(pauses.size(), 3U) << "of 1, 2 and 4 ms";
        EXPECT_GE(pauses[1] - pauses[0], 2'000'000);
        EXPECT_GE(pauses[2] - pauses[1], 4'000'000);
        EXPECT_EQ(sink.address(), nameOf(GetParam()) + ":127.0.0.1:5023");
        const CallbackPointer callback = addCallback(*sink);
        deliver(sink, callback, "x");
        ASSERT_TRUE(sink.awaitServing());
    }
    EXPECT_EQ(log.count("run: exiting rc=99"), 1);
}

TEST_P(VornLibraryCallbackSink_FailureOfAnyKind, WaitThatKeepsFailing_BacksOffAndRecovers) {
    LogCapture log;
    WatchedSink sink(GetParam());
    const CallbackPointer callback = addCallback(*sink);
    {
        FaultRule failing("bind", EACCES, 1, FaultRule::always);
        failing.onlyThread(sink.tid());
        sendWhenServing(sink, onWire(4711));
        ASSERT_TRUE(awaitCondition([&] { return failing.failures() > 0; }));
        const auto before = processorTime(sink.tid());
        const int failures = failing.failures();
        letPass(1s);
        // Pauses of 1, 2, 4 ... 64 and then 100 ms: some sixteen.
        EXPECT_GE(failing.failures() - failures, 3);
        EXPECT_LE(failing.failures() - failures, 60);
        EXPECT_LT((processorTime(sink.tid()) - before).count(), 500);
    }
    deliver(sink, callback, "again");
    EXPECT_THAT(callback->contents(), ElementsAre("again"));
}

TEST_P(VornLibraryCallbackSink_FailureOfAnyKind, IsDestroyedWhileItBacksOff) {
    WatchedSink sink(GetParam());
    FaultRule failing("bind", EACCES, 1, FaultRule::always);
    failing.onlyThread(sink.tid());
    sendWhenServing(sink, onWire(4711));
    ASSERT_TRUE(awaitCondition([&] { return failing.failures() >= 8; }));
    WatchedThread destroyer([&] { sink.destroy(); });
    EXPECT_TRUE(destroyer.join(5s));
}

TEST_P(VornLibraryCallbackSink_FailureOfAnyKind, BelowDebugLevel_LogsNeitherDeliveriesNorItsEnd) {
    LogCapture log(8);
    WatchedSink sink(GetParam());
    addCallback(*sink, throwing(ECONNRESET));
    deliver(sink, addCallback(*sink), "delivered");
    sendWhenServing(sink, onWire(0));
    ASSERT_TRUE(sink.awaitEnd());
    EXPECT_THAT(sinkRecords(log), IsEmpty());
}

TEST_P(VornLibraryCallbackSink_FailureOnPorts, WhenTheServerHasBeenLetGoOf_MovesAndEndsAllTheSame) {
    LogCapture log;
    WatchedSink sink(GetParam());
    addCallback(*sink, throwing(ECONNRESET));
    sendWhenServing(sink, onWire(0));
    ASSERT_TRUE(sink.awaitEnd());
    sink->m_spCallbackServer = nullptr; // as a derived class may do, now that the thread is gone
    sink->waitForServerPort();
    EXPECT_TRUE(sink->tryNextPort());
    EXPECT_EQ(sink.address(), nameOf(GetParam()) + ":127.0.0.1:5024");
    WatchedThread destroyer([&] { sink.destroy(); });
    EXPECT_TRUE(destroyer.join(5s));
    EXPECT_EQ(log.count("~VornLibraryCallbackSink: closing socket"), 0);
}
