// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * What the two stream transports, TCP and pipe, have in common once they are connected.
 */

#include "Await.h"
#include "ConnectionTestTools.h"
#include "Interpose.h"
#include "Interruptions.h"
#include "LeakCheckedTest.h"
#include "Process.h"
#include "Sandbox.h"

#include <VornPipeConnection.h>
#include <VornSmartPointer.h>
#include <VornSocketConnection.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <iterator>
#include <optional>
#include <ostream>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

using namespace VornNet;
using namespace VornTest;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const auto none = std::optional<Failure>();

/** A transport and in what it differs from the other one. */
struct Transport {
    const char* name;
    SocketPair (*makePair)();
    VornConnection* (*wrap)(int fd);
    /** What a raw write returns after a failed send(). */
    long failedWrite;
    /** What the first write to a peer that is gone is told; every further one is told EPIPE. */
    int firstBrokenWrite;
};

void PrintTo(const Transport& transport, std::ostream* out) {
    *out << transport.name;
}

SocketPair makeUnixPair() {
    return unixPair(pipePath("stream"));
}

VornConnection* wrapSocket(int fd) {
    return new VornSocketConnection(fd, "peer", nullptr, false);
}

VornConnection* wrapPipe(int fd) {
    return new VornPipeConnection(&fd, 1);
}

const Transport transports[] = {
    {"Tcp", &tcpPair, &wrapSocket, -1, ECONNRESET},
    {"Pipe", &makeUnixPair, &wrapPipe, 0, EPIPE},
};

class StreamConnectionTest : public LeakCheckedTest, public testing::WithParamInterface<Transport> {
    SocketPair m_pair = GetParam().makePair();

protected:
    int peer() const { return m_pair.peer.get(); }

    void closePeer() { m_pair.peer.reset(); }

    /** How many bytes have arrived at the connection's descriptor and have not been read. */
    int unread() const {
        int count = -1;
        EXPECT_EQ(::ioctl(fd, FIONREAD, &count), 0);
        return count;
    }

    const int fd = m_pair.ours.release();
    const VornSmartPointer<VornConnection> connection{GetParam().wrap(fd)};
};

} // namespace

KIT_ROLE(writeToNobody) {
    std::signal(SIGPIPE, SIG_DFL);
    const Transport& transport = *std::find_if(std::begin(transports), std::end(transports),
                                               [&](const Transport& one) { return one.name == args.at(0); });
    SocketPair pair = transport.makePair();
    const VornSmartPointer<VornConnection> connection(transport.wrap(pair.ours.release()));
    connection->transfer(7);
    pair.peer.reset();
    for (int i = 0; i < 3; ++i)
        failureOf([&] { connection->transfer(7); });
    return 3;
}

// Writing.

TEST_P(StreamConnectionTest, TransferSendsAllWithoutFlags) {
    const CallTrace trace;
    EXPECT_EQ(rawWrite(*connection, "abc"), raw(3, 0));
    EXPECT_THAT(trace.names(), ElementsAre("send"));
    EXPECT_EQ(trace.records("send").at(0).third, 0);
    EXPECT_EQ(receiveExactly(peer(), 3), "abc");
}

TEST_P(StreamConnectionTest, WhenSendTakesLessThanAll_TransferSendsTheRest) {
    const TransferLimit limit(1, fd);
    const CallTrace trace;
    EXPECT_EQ(rawWrite(*connection, "abcde"), raw(5, 0));
    EXPECT_EQ(trace.calls("send"), 5);
    EXPECT_EQ(receiveExactly(peer(), 5), "abcde");
}

TEST_P(StreamConnectionTest, TransferOfNothingSendsNothing) {
    const CallTrace trace;
    char byte = 'x';
    for (const long length : {0L, -1L, LONG_MIN}) {
        long error = untouched;
        EXPECT_EQ(connection->transfer(&byte, length, &error), 0) << length;
        EXPECT_EQ(error, 0) << length;
    }
    EXPECT_THAT(trace.records(), IsEmpty());
}

TEST_P(StreamConnectionTest, WhenSendFailsMidWay_TransferDoesNotTellWhatWasSent) {
    const TransferLimit limit(2, fd);
    const FaultRule fault("send", ENOBUFS, 2);
    EXPECT_EQ(rawWrite(*connection, "abcde"), raw(GetParam().failedWrite, ENOBUFS));
    EXPECT_EQ(receiveExactly(peer(), 2), "ab");
}

TEST_P(StreamConnectionTest, WhenThePeerIsGone_TransferReportsTheBrokenConnection) {
    connection->transfer(7);
    closePeer(); // without having read, which breaks the connection off
    EXPECT_EQ(rawWrite(*connection, "abc"), raw(GetParam().failedWrite, GetParam().firstBrokenWrite));
    EXPECT_EQ(rawWrite(*connection, "abc"), raw(GetParam().failedWrite, EPIPE));
    EXPECT_EQ(failureOf([&] { connection->transfer(7); }), failure(writeFailed, EPIPE));
    EXPECT_TRUE(isOpen(fd));
}

TEST_P(StreamConnectionTest, WhenASignalArrives_AWriteIsBrokenOff) {
    const InterruptingSignal signal;
    std::vector<char> data(64U * 1024 * 1024); // far more than both ends can hold
    std::optional<Failure> failed;
    WatchedThread writer(
        [&] { failed = failureOf([&] { connection->put(data.data(), static_cast<int>(data.size())); }); });
    EXPECT_TRUE(awaitBlockedIn(writer.tid(), {SYS_sendto}));
    // A send() which had taken some bytes already returns their count, and the next one is interrupted.
    EXPECT_TRUE(awaitCondition([&] {
        InterruptingSignal::sendTo(writer.tid());
        return writer.finished();
    }));
    EXPECT_TRUE(writer.join());
    EXPECT_EQ(failed, failure(writeFailed, EINTR));
}

TEST_P(StreamConnectionTest, WhenTheProcessDoesNotIgnoreSigpipe_WritingToNobodyKillsIt) {
    ChildProcess child = ChildProcess::spawnRole("writeToNobody", std::string(GetParam().name));
    EXPECT_EQ(child.wait(), 128 + SIGPIPE);
}

// Reading.

TEST_P(StreamConnectionTest, WhenItIsToWait_ReceiveReturnsOnlyTheWhole) {
    std::string data(8, '#');
    RawResult result;
    WatchedThread reader([&] { result = rawRead(*connection, data, 6, true); });
    sendAll(peer(), "abc");
    EXPECT_TRUE(awaitCondition([&] { return unread() == 0; }));
    EXPECT_TRUE(awaitBlockedIn(reader.tid(), {SYS_recvfrom}));
    sendAll(peer(), "defg");
    EXPECT_TRUE(reader.join());
    EXPECT_EQ(result, raw(6, 0));
    EXPECT_EQ(data, "abcdef##");
    EXPECT_EQ(rawRead(*connection, data, 1, true), raw(1, 0));
    EXPECT_EQ(data[0], 'g');
}

TEST_P(StreamConnectionTest, ReceiveReadsInPiecesWithoutFlags) {
    sendAll(peer(), "abcde");
    const TransferLimit limit(2, fd);
    const CallTrace trace;
    std::string data(5, '#');
    EXPECT_EQ(rawRead(*connection, data, 5, true), raw(5, 0));
    EXPECT_EQ(data, "abcde");
    ASSERT_EQ(trace.calls("recv"), 3);
    EXPECT_EQ(trace.records("recv").at(1).second, 3);
    EXPECT_EQ(trace.records("recv").at(1).third, 0);
}

TEST_P(StreamConnectionTest, ReceiveOfNothingDoesNotTouchTheSocket) {
    const CallTrace trace;
    std::string data = "###";
    for (const long length : {0L, -1L, LONG_MIN}) {
        EXPECT_EQ(rawRead(*connection, data, length, true), raw(0, 0)) << length;
        EXPECT_EQ(rawRead(*connection, data, length, false), raw(0, 0)) << length;
    }
    EXPECT_EQ(data, "###");
    EXPECT_THAT(trace.records(), IsEmpty());
}

TEST_P(StreamConnectionTest, WhenThePeerHasClosed_ReceiveReportsNotConnected) {
    sendAll(peer(), "ab");
    closePeer();
    std::string data(4, '#');
    EXPECT_EQ(rawRead(*connection, data, 4, true), raw(-1, ENOTCONN));
    EXPECT_EQ(data, "ab##");
    EXPECT_EQ(rawRead(*connection, data, 4, false), raw(-1, ENOTCONN));
    EXPECT_EQ(failureOf([&] { connection->receiveInt(); }), failure(readFailed, ENOTCONN));
}

TEST_P(StreamConnectionTest, WhenThePeerHasBrokenOff_ReceiveReportsIt) {
    connection->transfer(7);
    closePeer(); // without having read
    std::string data(4, '#');
    EXPECT_EQ(rawRead(*connection, data, 4, true), raw(-1, ECONNRESET));
}

TEST_P(StreamConnectionTest, WhenAReadFailsMidWay_ReceiveReturnsMinusOne) {
    std::string data(4, '#');
    const RecvScript script({RecvStep::bytes("ab"), RecvStep::failure(EIO)}, fd);
    EXPECT_EQ(rawRead(*connection, data, 4, true), raw(-1, EIO));
    EXPECT_EQ(data, "ab##");
    EXPECT_TRUE(script.exhausted());
}

TEST_P(StreamConnectionTest, WhenASignalArrives_AReadIsBrokenOff) {
    const InterruptingSignal signal;
    std::optional<Failure> failed;
    WatchedThread reader([&] { failed = failureOf([&] { connection->receiveInt(); }); });
    EXPECT_TRUE(awaitBlockedIn(reader.tid(), {SYS_recvfrom}));
    InterruptingSignal::sendTo(reader.tid());
    EXPECT_TRUE(reader.join());
    EXPECT_EQ(failed, failure(readFailed, EINTR));
    EXPECT_EQ(rawWrite(*connection, "still usable"), raw(12, 0));
}

TEST_P(StreamConnectionTest, WhenTheThreadIsCancelled_ATypedReadLetsItPass) {
    WatchedThread reader([&] { connection->receiveString(); });
    EXPECT_TRUE(awaitBlockedIn(reader.tid(), {SYS_recvfrom}));
    ::pthread_cancel(reader.handle());
    EXPECT_TRUE(reader.join());
    EXPECT_EQ(reader.exceptionText(), "cancelled");
}

// The step back after "message too long". Linux never reports it on a stream.

namespace {

class StreamConnection_StepBack : public StreamConnectionTest {
protected:
    /** Reads after guard bytes, which the step back may reach. */
    RawResult read(std::vector<RecvStep> steps, long toRead, bool waitForAll) {
        guarded = "<<<<########";
        const RecvScript script(std::move(steps), fd);
        long error = untouched;
        const long count = connection->receive(guarded.data() + 4, toRead, &error, waitForAll);
        EXPECT_TRUE(script.exhausted());
        requests.clear();
        for (const RecvRequest& request : script.requests()) {
            const long place = static_cast<const char*>(request.buffer) - (guarded.data() + 4);
            requests.push_back(std::to_string(request.length) + " bytes at " + std::to_string(place));
        }
        return {count, error};
    }

    std::string guarded;
    std::vector<std::string> requests;
};

} // namespace

TEST_P(StreamConnection_StepBack, WhenItIsToWait_TheReadGoesOnOneByteEarlier) {
    EXPECT_EQ(read({RecvStep::bytes("ab"), RecvStep::failure(EMSGSIZE), RecvStep::bytes("xyz")}, 4, true),
              raw(4, EMSGSIZE));
    EXPECT_EQ(guarded, "<<<<axyz####");
    EXPECT_THAT(requests, ElementsAre("4 bytes at 0", "2 bytes at 2", "3 bytes at 1"));
}

TEST_P(StreamConnection_StepBack, TheFirstStepReachesBeforeTheBuffer) {
    EXPECT_EQ(read({RecvStep::failure(EMSGSIZE), RecvStep::bytes("vwxyz")}, 4, true), raw(4, EMSGSIZE));
    EXPECT_EQ(guarded, "<<<vwxyz####");
    EXPECT_THAT(requests, ElementsAre("4 bytes at 0", "5 bytes at -1"));
}

TEST_P(StreamConnection_StepBack, EveryFurtherFailureIsAFurtherStep) {
    EXPECT_EQ(read({RecvStep::failure(EMSGSIZE), RecvStep::failure(EMSGSIZE), RecvStep::bytes("uv"),
                    RecvStep::bytes("wxyz")},
                   4, true),
              raw(4, EMSGSIZE));
    EXPECT_EQ(guarded, "<<uvwxyz####");
    EXPECT_THAT(requests, ElementsAre("4 bytes at 0", "5 bytes at -1", "6 bytes at -2", "4 bytes at 0"));
}

TEST_P(StreamConnection_StepBack, WhenItIsNotToWait_TheCountIsLessOnePerStep) {
    EXPECT_EQ(read({RecvStep::failure(EMSGSIZE), RecvStep::bytes("abc")}, 4, false), raw(2, EMSGSIZE));
    EXPECT_EQ(guarded, "<<<abc######");
    EXPECT_THAT(requests, ElementsAre("4 bytes at 0", "5 bytes at -1"));
    EXPECT_EQ(
        read({RecvStep::failure(EMSGSIZE), RecvStep::failure(EMSGSIZE), RecvStep::bytes("abc")}, 4, false),
        raw(1, EMSGSIZE));
    EXPECT_EQ(guarded, "<<abc#######");
    EXPECT_THAT(requests, ElementsAre("4 bytes at 0", "5 bytes at -1", "6 bytes at -2"));
}

TEST_P(StreamConnection_StepBack, AnotherFailureAfterAStepIsReported) {
    EXPECT_EQ(read({RecvStep::failure(EMSGSIZE), RecvStep::failure(EIO)}, 4, true), raw(-1, EIO));
    EXPECT_EQ(read({RecvStep::failure(EMSGSIZE), RecvStep::failure(EIO)}, 4, false), raw(-1, EIO));
    EXPECT_EQ(read({RecvStep::failure(EMSGSIZE), RecvStep::end()}, 4, true), raw(-1, ENOTCONN));
    EXPECT_EQ(read({RecvStep::failure(EMSGSIZE), RecvStep::end()}, 4, false), raw(-1, ENOTCONN));
    EXPECT_EQ(guarded, "<<<<########");
}

TEST_P(StreamConnection_StepBack, GetTakesTheCountAndNotTheRemainingError) {
    std::string data = "<<<<####";
    const RecvScript script({RecvStep::failure(EMSGSIZE), RecvStep::bytes("vwxyz")}, fd);
    EXPECT_EQ(failureOf([&] { connection->get(data.data() + 4, 4); }), none);
    EXPECT_EQ(data, "<<<vwxyz");
}

// Looking.

TEST_P(StreamConnectionTest, PeekBlocksUntilSomethingIsWaitingAndLeavesIt) {
    PeekResult result;
    WatchedThread looker([&] { result = peek(*connection, 8); });
    EXPECT_TRUE(awaitBlockedIn(looker.tid(), {SYS_recvfrom}));
    sendAll(peer(), "abc");
    EXPECT_TRUE(looker.join());
    EXPECT_EQ(result, peeked(true, 3, 0, "abc"));
    EXPECT_EQ(peek(*connection, 2), peeked(true, 2, 0, "ab"));
    std::string data(3, '#');
    EXPECT_EQ(rawRead(*connection, data, 3, true), raw(3, 0));
    EXPECT_EQ(data, "abc");
}

TEST_P(StreamConnectionTest, WhenThePeerHasClosed_PeekReturnsFalseWithoutAnError) {
    closePeer();
    EXPECT_EQ(peek(*connection, 8), peeked(false, 0, 0));
}

TEST_P(StreamConnectionTest, WhenPeekFails_ItReturnsFalseWithTheError) {
    const RecvScript script({RecvStep::failure(EINTR), RecvStep::failure(EMSGSIZE)}, fd);
    EXPECT_EQ(peek(*connection, 8), peeked(false, 0, EINTR));
    EXPECT_EQ(peek(*connection, 8), peeked(false, 0, EMSGSIZE));
}

TEST_P(StreamConnectionTest, PeekOfANegativeSizeWritesNothing) {
    sendAll(peer(), "abc");
    char data[] = "###";
    int size = -1;
    int error = untouched;
    EXPECT_FALSE(connection->peekBytes(data, size, error));
    EXPECT_EQ(size, 0);
    EXPECT_EQ(error, 0);
    EXPECT_STREQ(data, "###");
}

// Lines.

TEST_P(StreamConnectionTest, LineThatHasArrivedInPartIsNoLineYet) {
    sendAll(peer(), "abc\r\ndef");
    char line[64];
    int error = untouched;
    EXPECT_STREQ(connection->getLine(line, sizeof(line), error), "abc");
    EXPECT_EQ(connection->getLine(line, sizeof(line), error), nullptr);
    EXPECT_EQ(error, 0);
    sendAll(peer(), "\r\n");
    EXPECT_TRUE(awaitCondition([&] { return peek(*connection, 8).size == 5; }));
    EXPECT_STREQ(connection->getLine(line, sizeof(line), error), "def");
}

TEST_P(StreamConnectionTest, WhenThePeerHasClosed_GetLineStillWaits) {
    closePeer();
    const CallTrace trace;
    char line[64];
    int error = untouched;
    const char* result = line;
    WatchedThread reader([&] { result = connection->getLine(line, sizeof(line), error); });
    EXPECT_TRUE(awaitCondition([&] { return trace.calls("recv") >= 7; }));
    EXPECT_FALSE(reader.finished());
    // Nothing but an error ends it.
    const FaultRule fault("recv", EIO, 1, FaultRule::always);
    EXPECT_TRUE(reader.join());
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(error, EIO);
}

INSTANTIATE_TEST_SUITE_P(Connection, StreamConnectionTest, testing::ValuesIn(transports),
                         [](const auto& transport) { return std::string(transport.param.name); });
INSTANTIATE_TEST_SUITE_P(Connection, StreamConnection_StepBack, testing::ValuesIn(transports),
                         [](const auto& transport) { return std::string(transport.param.name); });
