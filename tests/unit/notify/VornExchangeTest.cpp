// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "Failure.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "Posix.h"
#include "Sandbox.h"

#include <VornBufferConnection.h>
#include <VornExchange.h>
#include <VornPipeConnection.h>
#include <VornSSLSocketConnection.h>
#include <VornSocketConnection.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornTest;
using namespace std::chrono_literals;

namespace {

/** Short enough not to be waited for, long enough to be told from at once. */
constexpr std::chrono::milliseconds shortLimit{60};
constexpr std::chrono::milliseconds longLimit{10000};

std::string readFailure(int code) {
    return "VornConnection::get: failed read " + std::to_string(code);
}

/** How long an operation took. */
std::chrono::milliseconds timeOf(const std::function<void()>& operation) {
    const auto start = std::chrono::steady_clock::now();
    operation();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

std::chrono::milliseconds callLimit(int fd, int option) {
    timeval limit{};
    socklen_t size = sizeof limit;
    ::getsockopt(fd, SOL_SOCKET, option, &limit, &size);
    return std::chrono::seconds(limit.tv_sec) +
           std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::microseconds(limit.tv_usec));
}

/** A library's connection of either kind, and the plain socket at its other end. */
struct Link {
    VornSmartPointer<VornConnection> spConnection;
    UniqueFd peer;
};

Link makeLink(bool isPipe) {
    Link link;
    if (isPipe) {
        int ends[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        link.peer.reset(ends[0]);
        link.spConnection = new VornPipeConnection(&ends[1], 7);
    } else {
        int port = 0;
        const UniqueFd listener = tcpListen("127.0.0.1", port);
        link.peer = tcpConnect("127.0.0.1", port);
        link.spConnection =
            new VornSocketConnection(acceptClient(listener.get()).release(), "10.1.2.3", nullptr, false);
    }
    return link;
}

class VornExchange_Test : public LeakCheckedTest {
protected:
    void TearDown() override { ::unlink(pipePath("alpha").c_str()); }
};

class VornExchange_Open : public VornExchange_Test, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        VornExchange_Test::SetUp();
        if (GetParam()) {
            m_listener = unixListen(pipePath("alpha"));
            m_address = "pipe:alpha";
        } else {
            m_listener = tcpListen("127.0.0.1", m_port);
            m_address = "socket:127.0.0.1:" + std::to_string(m_port);
        }
    }

    void TearDown() override {
        m_listener.reset();
        VornExchange_Test::TearDown();
    }

    /** Accepts one client, and answers the line that it sends. */
    WatchedThread answering(const std::string& line, const std::string& answer) {
        return WatchedThread([this, line, answer] {
            m_client = acceptClient(m_listener.get());
            EXPECT_EQ(receiveExactly(m_client.get(), line.size()), line);
            sendAll(m_client.get(), answer);
            if (answer.empty())
                m_client.reset();
        });
    }

    UniqueFd m_listener;
    UniqueFd m_client;
    std::string m_address;
    int m_port = 0;
};

TEST_P(VornExchange_Open, WithoutAService_ConnectsAndSendsNothing) {
    const auto spConnection = VornExchange::open(m_address, "", longLimit);
    const UniqueFd client = acceptClient(m_listener.get());
    spConnection->transfer(5);
    EXPECT_EQ(hex(receiveExactly(client.get(), 4)), "00 00 00 05");
}

TEST_P(VornExchange_Open, RunsTheHandshakeForTheService) {
    WatchedThread service = answering("builds\r\n", "+");
    const auto spConnection = VornExchange::open(m_address, "builds", longLimit);
    EXPECT_TRUE(service.join());
    EXPECT_EQ(spConnection->getServiceName(), "builds");
    sendAll(m_client.get(), bytes("00 00 01 00"));
    EXPECT_EQ(spConnection->receiveInt(), 256);
    m_client.reset();
}

TEST_F(VornExchange_Test, Open_DoesNotTakeItselfForTheService) {
    needSandbox("a network of its own, whose ports it chooses from");
    // Where nobody listens, the kernel may give the client the very port that it connects to.
    const char* const ports = "/proc/sys/net/ipv4/ip_local_port_range";
    const std::string before = readTextFile(ports);
    std::ofstream(ports) << "40000 40000";
    EXPECT_EQ(thrownBy([] { VornExchange::open("socket:127.0.0.1:40000", "", longLimit); }),
              "VornExchange::open: failed. 111");
    std::ofstream(ports) << before;
}

TEST_P(VornExchange_Open, AServiceThatRefuses_Is111) {
    WatchedThread service = answering("builds\r\n", "-");
    EXPECT_EQ(thrownBy([&] { VornExchange::open(m_address, "builds", longLimit); }),
              "VornExchange::open: service refused. 111");
    EXPECT_TRUE(service.join());
    m_client.reset();
}

TEST_P(VornExchange_Open, AServiceThatClosesWithoutAnAnswer_Is107) {
    WatchedThread service = answering("builds\r\n", "");
    EXPECT_EQ(thrownBy([&] { VornExchange::open(m_address, "builds", longLimit); }),
              "VornExchange::open: failed. 107");
    EXPECT_TRUE(service.join());
}

TEST_P(VornExchange_Open, AServiceThatIsSilent_Is110AfterTheLimit) {
    std::string text;
    const auto elapsed =
        timeOf([&] { text = thrownBy([&] { VornExchange::open(m_address, "builds", shortLimit); }); });
    EXPECT_EQ(text, "VornExchange::open: failed. 110");
    EXPECT_GE(elapsed, shortLimit);
    EXPECT_LT(elapsed, 5s);
}

TEST_P(VornExchange_Open, NobodyThatListens_Is111) {
    m_listener.reset();
    EXPECT_EQ(thrownBy([&] { VornExchange::open(m_address, "", longLimit); }),
              "VornExchange::open: failed. 111");
}

TEST_P(VornExchange_Open, LeavesTheLimitOnEachCall_AndTheSocketCloseOnExec) {
    const auto spConnection = VornExchange::open(m_address, "", 1200ms);
    const int fd = VornExchange::getHandle(*spConnection);
    EXPECT_EQ(callLimit(fd, SO_RCVTIMEO), 1200ms);
    EXPECT_EQ(callLimit(fd, SO_SNDTIMEO), 1200ms);
    EXPECT_TRUE(isCloseOnExec(fd));
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
}

TEST_P(VornExchange_Open, OnceDisconnected_DoesNotConnectAnew) {
    const auto spConnection = VornExchange::open(m_address, "", longLimit);
    spConnection->disconnect();
    EXPECT_EQ(VornExchange::getHandle(*spConnection), -1);
    CallTrace trace;
    EXPECT_EQ(thrownBy([&] { spConnection->receiveInt(); }), readFailure(ENOTCONN));
    EXPECT_EQ(thrownBy([&] { spConnection->transfer(1); }), "VornConnection::put: transfer failed. 107");
    EXPECT_EQ(trace.calls("connect"), 0);
}

TEST_P(VornExchange_Open, WhenASocketCallFails_ClosesAndTellsTheErrorNumber) {
    struct Fault {
        const char* function;
        int nth;
        const char* service;
    };

    // The limits are those of both directions, for connecting and from then on.
    for (const Fault& fault :
         {Fault{"socket", 1, ""}, Fault{"setsockopt", 1, ""}, Fault{"connect", 1, ""},
          Fault{"setsockopt", 2, ""}, Fault{"setsockopt", 3, ""}, Fault{"send", 1, "a"}}) {
        const FaultRule fail(fault.function, ENOBUFS, fault.nth);
        EXPECT_EQ(thrownBy([&] { VornExchange::open(m_address, fault.service, longLimit); }),
                  "VornExchange::open: failed. 105")
            << fault.function << " " << fault.nth;
    }
}

TEST_P(VornExchange_Open, WhenAConnectIsBrokenOffOrOnItsWay_GoesOn) {
    const FaultRule interrupt("connect", EINTR);
    const FaultRule begin("connect", EINPROGRESS, 2);
    const FaultRule goOn("connect", EALREADY, 3);
    const auto spConnection = VornExchange::open(m_address, "", longLimit);
    spConnection->transfer(5);
    const UniqueFd client = acceptClient(m_listener.get());
    EXPECT_EQ(hex(receiveExactly(client.get(), 4)), "00 00 00 05");
}

INSTANTIATE_TEST_SUITE_P(Transports, VornExchange_Open, testing::Bool(),
                         [](const auto& test) { return test.param ? "Pipe" : "Tcp"; });

TEST_F(VornExchange_Test, Open_WaitsForRoomInAPipesQueueUntilTheLimit) {
    const UniqueFd listener = unixListen(pipePath("alpha"), 0);
    const UniqueFd first = unixConnect(pipePath("alpha"));
    EXPECT_EQ(thrownBy([] { VornExchange::open("pipe:alpha", "", shortLimit); }),
              "VornExchange::open: failed. 110");
    VornSmartPointer<VornConnection> spConnection;
    WatchedThread waiting([&] { spConnection = VornExchange::open("pipe:alpha", "", longLimit); });
    ASSERT_TRUE(awaitBlockedInIo(waiting.tid()));
    acceptClient(listener.get());
    EXPECT_TRUE(waiting.join());
    EXPECT_NE(spConnection, nullptr);
}

TEST_F(VornExchange_Test, Open_APipeWithoutAFile_Is2) {
    EXPECT_EQ(thrownBy([] { VornExchange::open("pipe:alpha", "", longLimit); }),
              "VornExchange::open: failed. 2");
}

TEST_F(VornExchange_Test, Open_RefusesWhatIsNoAddress) {
    for (const char* address :
         {"", "alpha", "pipe:", "pipe:.", "pipe:..", "pipe:a/b", "socket:", "socket:127.0.0.1",
          "socket:127.0.0.1:", "socket:127.0.0.1:0", "socket:127.0.0.1:65536", "socket:127.0.0.1:-1",
          "socket:127.0.0.1:80;x", "socket:localhost:80", "socket:0.0.0.0:80", "socket:*:80",
          "socket:127.0.0:80", "udp:127.0.0.1:80", "socket:127.0.0.1: 80"}) {
        EXPECT_EQ(thrownBy([&] { VornExchange::open(address, "", longLimit); }),
                  "VornExchange::open: invalid address. 22")
            << address;
    }
    EXPECT_EQ(thrownBy([] { VornExchange::open("pipe:" + std::string(200, 'x'), "", longLimit); }),
              "VornExchange::open: invalid address. 22");
}

class VornExchange_Limits : public VornExchange_Test, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        VornExchange_Test::SetUp();
        m_link = makeLink(GetParam());
    }

    void TearDown() override {
        m_link = {};
        VornExchange_Test::TearDown();
    }

    VornConnection& connection() { return *m_link.spConnection; }

    int peer() { return m_link.peer.get(); }

    Link m_link;
};

TEST_P(VornExchange_Limits, GetHandle_IsTheSocketUntilItIsClosed) {
    const int fd = VornExchange::getHandle(connection());
    ASSERT_NE(fd, -1);
    ASSERT_EQ(::send(fd, "x", 1, 0), 1);
    EXPECT_EQ(receiveExactly(peer(), 1), "x");
    connection().disconnect();
    EXPECT_EQ(VornExchange::getHandle(connection()), -1);
}

TEST_P(VornExchange_Limits, SetTimeLimit_BoundsEachCall_AndZeroTakesItAway) {
    const int fd = VornExchange::getHandle(connection());
    EXPECT_TRUE(VornExchange::setTimeLimit(connection(), shortLimit));
    EXPECT_EQ(callLimit(fd, SO_RCVTIMEO), shortLimit);
    EXPECT_EQ(callLimit(fd, SO_SNDTIMEO), shortLimit);
    EXPECT_EQ(thrownBy([&] { connection().receiveInt(); }), readFailure(EAGAIN));
    EXPECT_TRUE(VornExchange::setTimeLimit(connection(), 0ms));
    EXPECT_EQ(callLimit(fd, SO_RCVTIMEO), 0ms);
    EXPECT_EQ(callLimit(fd, SO_SNDTIMEO), 0ms);
}

TEST_P(VornExchange_Limits, SetTimeLimit_ThatTheSocketRefuses_IsFalse) {
    const FaultRule fail("setsockopt", ENOBUFS);
    EXPECT_FALSE(VornExchange::setTimeLimit(connection(), shortLimit));
}

TEST_P(VornExchange_Limits, Limited_ReadsAndWritesOverTheSameSocket) {
    const auto spLimited = VornExchange::limited(connection(), longLimit);
    EXPECT_EQ(VornExchange::getHandle(*spLimited), VornExchange::getHandle(connection()));
    EXPECT_EQ(spLimited->getRemoteName(), connection().getRemoteName());
    EXPECT_EQ(spLimited->getAccessRights(), connection().getAccessRights());
    EXPECT_EQ(spLimited->getServerName(), connection().getServerName());
    EXPECT_EQ(spLimited->getPortName(), connection().getPortName());
    spLimited->transfer("text");
    EXPECT_EQ(hex(receiveExactly(peer(), 8)), "00 00 00 04 74 65 78 74");
    sendAll(peer(), bytes("00 00 00 07 2a"));
    char peeked[4];
    int size = sizeof peeked;
    int error = -1;
    EXPECT_TRUE(spLimited->peekBytes(peeked, size, error));
    EXPECT_EQ(error, 0);
    EXPECT_EQ(hex({peeked, sizeof peeked}), "00 00 00 07");
    EXPECT_EQ(spLimited->receiveInt(), 7);
    char byte = '\0';
    long rawError = -1;
    EXPECT_EQ(spLimited->receive(&byte, 1, &rawError, false), 1);
    EXPECT_EQ(rawError, 0);
    EXPECT_EQ(byte, '*');
}

TEST_P(VornExchange_Limits, Limited_EndsAllTogetherAgainstAPeerThatTrickles) {
    // The peer has a byte ready for each look, so only the whole time can end the read.
    const int fd = peer();
    const CallHook trickle(
        "poll", [fd] { EXPECT_EQ(::send(fd, "x", 1, 0), 1); }, 1'000'000);
    VornSmartPointer<VornConnection> spLimited;
    std::string text;
    const auto elapsed = timeOf([&] {
        spLimited = VornExchange::limited(connection(), shortLimit);
        text = thrownBy([&] {
            for (;;)
                spLimited->receiveShort();
        });
    });
    EXPECT_EQ(text, readFailure(ETIMEDOUT));
    EXPECT_GE(elapsed, shortLimit - 5ms);
    EXPECT_LT(elapsed, 5s);
    EXPECT_EQ(thrownBy([&] { spLimited->transfer(1); }), "VornConnection::put: transfer failed. 110");
}

TEST_P(VornExchange_Limits, Limited_WhenNothingComes_TypedAndRawReadsAre110) {
    const auto spLimited = VornExchange::limited(connection(), shortLimit);
    char text[8];
    int size = sizeof text;
    int error = 0;
    EXPECT_FALSE(spLimited->peekBytes(text, size, error));
    EXPECT_EQ(size, 0);
    EXPECT_EQ(error, ETIMEDOUT);
    EXPECT_EQ(thrownBy([&] { spLimited->receiveInt(); }), readFailure(ETIMEDOUT));
    EXPECT_EQ(spLimited->getLine(text, sizeof text, error), nullptr);
    EXPECT_EQ(error, ETIMEDOUT);
}

TEST_P(VornExchange_Limits, Limited_WhenThePeerReadsNothing_AWriteIs110) {
    const auto spLimited = VornExchange::limited(connection(), shortLimit);
    const std::string much(16 << 20, 'x');
    EXPECT_EQ(thrownBy([&] { spLimited->transfer(much); }), "VornConnection::put: transfer failed. 110");
}

TEST_P(VornExchange_Limits, Limited_ToAPeerThatIsGone_IsAnErrorAndNoSignal) {
    const auto previous = std::signal(SIGPIPE, SIG_DFL);
    const auto spLimited = VornExchange::limited(connection(), longLimit);
    resetOnClose(peer());
    m_link.peer.reset();
    EXPECT_TRUE(awaitCondition([&] {
        return thrownBy([&] { spLimited->transfer(1); }) == "VornConnection::put: transfer failed. 32";
    }));
    std::signal(SIGPIPE, previous);
}

TEST_P(VornExchange_Limits, Limited_WhenThePeerHasClosed_AReadIs107) {
    const auto spLimited = VornExchange::limited(connection(), longLimit);
    m_link.peer.reset();
    EXPECT_EQ(thrownBy([&] { spLimited->receiveInt(); }), readFailure(ENOTCONN));
    char text[8];
    int size = sizeof text;
    int error = -1;
    EXPECT_FALSE(spLimited->peekBytes(text, size, error));
    EXPECT_EQ(size, 0);
    EXPECT_EQ(error, 0);
}

TEST_P(VornExchange_Limits, Limited_ToWhatNoClockReaches_WaitsUntilThePeerAnswers) {
    const auto spLimited = VornExchange::limited(connection(), std::chrono::milliseconds::max());
    const CallHook answer("poll", [this] { sendAll(peer(), bytes("00 00 00 07")); });
    EXPECT_EQ(spLimited->receiveInt(), 7);
}

TEST_P(VornExchange_Limits, Limited_ReadingNothing_WaitsForNothing) {
    const auto spLimited = VornExchange::limited(connection(), longLimit);
    char byte = '\0';
    long error = -1;
    EXPECT_EQ(spLimited->receive(&byte, 0, &error, true), 0);
    EXPECT_EQ(error, 0);
}

TEST_P(VornExchange_Limits, Limited_ASignalDoesNotBreakItOff) {
    const auto spLimited = VornExchange::limited(connection(), longLimit);
    const FaultRule interrupt("poll", EINTR);
    const CallHook answer("poll", [this] { sendAll(peer(), bytes("00 00 00 07")); });
    EXPECT_EQ(spLimited->receiveInt(), 7);
}

TEST_P(VornExchange_Limits, Limited_Disconnect_DisconnectsTheConnection) {
    const auto spLimited = VornExchange::limited(connection(), longLimit);
    spLimited->disconnect();
    EXPECT_EQ(VornExchange::getHandle(connection()), -1);
    EXPECT_EQ(VornExchange::getHandle(*spLimited), -1);
    EXPECT_EQ(receiveToEnd(peer()), "");
    EXPECT_EQ(thrownBy([&] { spLimited->receiveInt(); }), readFailure(ENOTCONN));
    EXPECT_EQ(thrownBy([&] { spLimited->transfer(1); }), "VornConnection::put: transfer failed. 107");
    char byte = '\0';
    int size = 1;
    int error = 0;
    EXPECT_FALSE(spLimited->peekBytes(&byte, size, error));
    EXPECT_EQ(error, ENOTCONN);
    spLimited->disconnect(); // again
}

TEST_P(VornExchange_Limits, ReceiveService_TakesTheLineAndNoByteMore) {
    sendAll(peer(), "builds\r\nrest");
    EXPECT_EQ(VornExchange::receiveService(connection(), longLimit), "builds");
    char rest[4];
    EXPECT_EQ(connection().get(rest, sizeof rest), 4);
    EXPECT_EQ(std::string(rest, 4), "rest");
}

TEST_P(VornExchange_Limits, ReceiveService_TakesTheLongestLineInSingleBytes) {
    const std::string name(255, 'n');
    WatchedThread client([&] {
        for (const char byte : name + "\r\n")
            sendAll(peer(), {&byte, 1});
    });
    EXPECT_EQ(VornExchange::receiveService(connection(), longLimit), name);
    EXPECT_TRUE(client.join());
}

TEST_P(VornExchange_Limits, ReceiveService_RefusesLinesThatAreNone) {
    for (const std::string& line :
         {std::string(256, 'n'), std::string("bui\tlds\r\n"), std::string("a\nb\r\n"),
          std::string("a\rb\r\n"), std::string("b\303\244\r\n"), std::string("b\177\r\n"),
          std::string(1, '\0')}) {
        Link link = makeLink(GetParam());
        sendAll(link.peer.get(), line);
        EXPECT_EQ(thrownBy([&] { VornExchange::receiveService(*link.spConnection, longLimit); }),
                  "VornExchange::receiveService: failed. 71")
            << line;
    }
}

TEST_P(VornExchange_Limits, ReceiveService_FromASilentClient_Is110_AndFromOneThatClosed_107) {
    sendAll(peer(), "buil");
    EXPECT_EQ(thrownBy([&] { VornExchange::receiveService(connection(), shortLimit); }),
              "VornExchange::receiveService: failed. 110");
    m_link.peer.reset();
    EXPECT_EQ(thrownBy([&] { VornExchange::receiveService(connection(), longLimit); }),
              "VornExchange::receiveService: failed. 107");
}

TEST_P(VornExchange_Limits, ReceiveService_WhenTheLineCannotBeTaken_TellsTheErrorNumber) {
    sendAll(peer(), "builds\r\n");
    const FaultRule fail("recv", ECONNRESET, 2); // the first one looks
    EXPECT_EQ(thrownBy([&] { VornExchange::receiveService(connection(), longLimit); }),
              "VornExchange::receiveService: failed. 104");
}

TEST_P(VornExchange_Limits, ReceiveService_WithinALimitedConnection_HasTheShorterLimit) {
    const auto spLimited = VornExchange::limited(connection(), shortLimit);
    EXPECT_EQ(thrownBy([&] { VornExchange::receiveService(*spLimited, 1h); }),
              "VornExchange::receiveService: failed. 110");
}

INSTANTIATE_TEST_SUITE_P(Transports, VornExchange_Limits, testing::Bool(),
                         [](const auto& test) { return test.param ? "Pipe" : "Tcp"; });

TEST_F(VornExchange_Test, ConnectionsWithoutASocketOfTheirOwn_HaveNoHandle) {
    VornBufferConnection buffer;
    VornPipeConnection unconnected("alpha");
    VornSSLSocketConnection secure("127.0.0.1", 80, false);
    Link link = makeLink(true);
    link.spConnection->disconnect();
    for (VornConnection* connection :
         {static_cast<VornConnection*>(&buffer), static_cast<VornConnection*>(link.spConnection),
          static_cast<VornConnection*>(&unconnected), static_cast<VornConnection*>(&secure)}) {
        EXPECT_EQ(VornExchange::getHandle(*connection), -1);
        EXPECT_FALSE(VornExchange::setTimeLimit(*connection, shortLimit));
        EXPECT_EQ(thrownBy([&] { VornExchange::limited(*connection, shortLimit); }),
                  "VornExchange::limited: no socket. 22");
    }
}

/** What is written into memory, as hexadecimal text. */
std::string written(const std::function<void(VornConnection&)>& write) {
    VornBufferConnection buffer;
    write(buffer);
    return hex({static_cast<const char*>(buffer.buf()), static_cast<std::size_t>(buffer.size())});
}

/** A connection that holds the bytes of a hexadecimal text. */
VornSmartPointer<VornConnection> holding(const std::string& hexText) {
    std::string data = bytes(hexText);
    return new VornBufferConnection(data.data(), static_cast<int>(data.size()), "");
}

TEST_F(VornExchange_Test, ReceiveService_ReadsAlsoFromMemory) {
    EXPECT_EQ(VornExchange::receiveService(*holding("62 75 69 0d 0a"), longLimit), "bui");
    EXPECT_EQ(thrownBy([] { VornExchange::receiveService(*holding("62 75 69"), longLimit); }),
              "VornExchange::receiveService: failed. 107");
}

TEST_F(VornExchange_Test, ReceiveService_FromAConnectionThatCannotConnect_TellsItsErrorNumber) {
    VornPipeConnection unconnected("alpha");
    EXPECT_EQ(thrownBy([&] { VornExchange::receiveService(unconnected, longLimit); }),
              "VornExchange::receiveService: failed. 2");
}

TEST_F(VornExchange_Test, AnswerService_WritesOneByte) {
    EXPECT_EQ(written([](VornConnection& out) { VornExchange::answerService(out, true); }), "2b");
    EXPECT_EQ(written([](VornConnection& out) { VornExchange::answerService(out, false); }), "2d");
}

TEST_F(VornExchange_Test, TransferError_WritesTheTokenAndTheReason) {
    EXPECT_EQ(written([](VornConnection& out) { VornExchange::transferError(out, "no"); }),
              "00 01 ff ff 00 00 00 02 6e 6f");
}

TEST_F(VornExchange_Test, ReceiveACK_TellsTheTokensApart) {
    const auto received = [](const std::string& hexText, bool hasReason) {
        return thrownBy([&] { VornExchange::receiveACK(*holding(hexText), hasReason); });
    };
    EXPECT_EQ(received("00 01 00 00", true), "nothing");
    EXPECT_EQ(received("00 01 00 00", false), "nothing");
    EXPECT_EQ(received("00 01 ff ff 00 00 00 02 6e 6f", true), "no 1");
    EXPECT_EQ(received("00 01 ff ff 00 00 00 00", true), "VornExchange::receiveACK: refused. 1");
    EXPECT_EQ(received("00 01 ff ff", false), "VornExchange::receiveACK: refused. 1");
    for (const char* other : {"00 02 00 00", "00 00", "00 01 00 01", "ff ff 00 00"})
        EXPECT_EQ(received(other, true), "VornExchange::receiveACK: no acknowledgement. 71") << other;
    EXPECT_EQ(received("00 01 00", true), readFailure(0));
    EXPECT_EQ(received("00 01 ff ff 00 00 00 02 6e", true), readFailure(0));
}

TEST_F(VornExchange_Test, ReadToEnd_ReadsZeroBytesTooUpToTheLimit) {
    Link link = makeLink(true);
    sendAll(link.peer.get(), std::string("a\0b", 3));
    ASSERT_EQ(::shutdown(link.peer.get(), SHUT_WR), 0);
    EXPECT_EQ(VornExchange::readToEnd(*link.spConnection, 3), std::string("a\0b", 3));
    EXPECT_EQ(VornExchange::readToEnd(*holding("61 62"), 2), "ab");
    EXPECT_EQ(VornExchange::readToEnd(*holding(""), 0), "");
}

TEST_F(VornExchange_Test, ReadToEnd_AByteTooMany_Is90) {
    EXPECT_EQ(thrownBy([] { VornExchange::readToEnd(*holding("61 62 63"), 2); }),
              "VornExchange::readToEnd: too long. 90");
    EXPECT_EQ(thrownBy([] { VornExchange::readToEnd(*holding("61"), 0); }),
              "VornExchange::readToEnd: too long. 90");
}

TEST_F(VornExchange_Test, ReadToEnd_ReadsMoreThanOnePiece) {
    std::string data(200'000, 'x');
    VornBufferConnection buffer(data.data(), static_cast<int>(data.size()), "");
    EXPECT_EQ(VornExchange::readToEnd(buffer, std::numeric_limits<std::size_t>::max()), data);
}

TEST_F(VornExchange_Test, ReadToEnd_OfABrokenConnection_TellsTheErrorNumber) {
    Link link = makeLink(true);
    link.spConnection->transfer(1); // closing with unread bytes is a reset
    link.peer.reset();
    EXPECT_EQ(thrownBy([&] { VornExchange::readToEnd(*link.spConnection, 3); }),
              "VornExchange::readToEnd: failed. 104");
}

TEST_F(VornExchange_Test, NumbersOf64Bits_TravelMostSignificantByteFirst) {
    EXPECT_EQ(written([](VornConnection& out) { VornExchange::transferUInt64(out, 0x0102030405060708); }),
              "01 02 03 04 05 06 07 08");
    EXPECT_EQ(written([](VornConnection& out) { VornExchange::transferInt64(out, -2); }),
              "ff ff ff ff ff ff ff fe");
    EXPECT_EQ(VornExchange::receiveUInt64(*holding("ff ff ff ff ff ff ff fe")), 0xfffffffffffffffe);
    EXPECT_EQ(VornExchange::receiveInt64(*holding("ff ff ff ff ff ff ff fe")), -2);
    EXPECT_EQ(thrownBy([] { VornExchange::receiveInt64(*holding("ff ff ff ff ff ff ff")); }), readFailure(0));
}

TEST_F(VornExchange_Test, Doubles_TravelAsTheirBits) {
    EXPECT_EQ(written([](VornConnection& out) { VornExchange::transferDouble(out, -1.5); }),
              "bf f8 00 00 00 00 00 00");
    EXPECT_EQ(VornExchange::receiveDouble(*holding("bf f8 00 00 00 00 00 00")), -1.5);
    EXPECT_TRUE(std::isnan(VornExchange::receiveDouble(*holding("7f f8 00 00 00 00 00 01"))));
    EXPECT_TRUE(std::signbit(VornExchange::receiveDouble(*holding("80 00 00 00 00 00 00 00"))));
}

TEST_F(VornExchange_Test, Blocks_TravelAsTextsThatKeepTheirZeros) {
    EXPECT_EQ(written([](VornConnection& out) { VornExchange::transferBlock(out, "a\0b", 3); }),
              "00 00 00 03 61 00 62");
    EXPECT_EQ(written([](VornConnection& out) { VornExchange::transferBlock(out, nullptr, 0); }),
              "00 00 00 00");
    EXPECT_EQ(VornExchange::receiveBlock(*holding("00 00 00 03 61 00 62"), 3), std::string("a\0b", 3));
    EXPECT_EQ(VornExchange::receiveBlock(*holding("00 00 00 00"), 0), "");
    EXPECT_EQ(thrownBy([] { VornExchange::receiveBlock(*holding("00 00 00 03 61 00"), 3); }), readFailure(0));
}

TEST_F(VornExchange_Test, ABlockThatIsTooLong_IsNeitherWrittenNorRead) {
    VornBufferConnection buffer;
    EXPECT_EQ(thrownBy([&] { VornExchange::transferBlock(buffer, "", std::size_t{1} << 31); }),
              "VornExchange::transferBlock: too long. 90");
    EXPECT_EQ(buffer.size(), -1);
    EXPECT_EQ(thrownBy([] { VornExchange::receiveBlock(*holding("00 00 00 04 61 62 63 64"), 3); }),
              "VornExchange::receiveBlock: too long. 90");
    EXPECT_EQ(thrownBy([] { VornExchange::receiveBlock(*holding("ff ff ff ff"), 3); }),
              "VornExchange::receiveBlock: too long. 90");
}

} // namespace
