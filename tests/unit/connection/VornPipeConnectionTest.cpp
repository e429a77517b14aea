// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "ConnectionTestTools.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"
#include "Process.h"
#include "Sandbox.h"

#include <VornPipeConnection.h>

#include <cerrno>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornTest;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Record = LogCapture::Record;

const char connectFailed[] = "VornPipeConnection::establish: connection request failed.";

class Probe : public VornPipeConnection {
public:
    using VornPipeConnection::VornPipeConnection;

    using VornPipeConnection::m_bClientConnection;
    using VornPipeConnection::m_bConnected;
    using VornPipeConnection::m_bRaw;
    using VornPipeConnection::m_pipeHandle;
    using VornPipeConnection::m_sPipeName;

    int fd() const { return m_pipeHandle != nullptr ? *static_cast<int*>(m_pipeHandle) : -1; }

    void initialize() override { calls.emplace_back("initialize"); }

    std::vector<std::string> calls;
};

class VornPipeConnectionTest : public LeakCheckedTest {
protected:
    ~VornPipeConnectionTest() override {
        // The second one is socat's, which leaves it when it is killed.
        for (const char* name : {"alpha", "echo"})
            ::unlink(pipePath(name).c_str());
    }

    UniqueFd accept() const { return acceptClient(m_listener.get()); }

private:
    const UniqueFd m_listener = unixListen(pipePath("alpha"));
};

} // namespace

// Construction.

TEST_F(VornPipeConnectionTest, WhenMadeByName_HoldsItAndDoesNotConnect) {
    const CallTrace trace;
    Probe client("alpha");
    EXPECT_EQ(client.m_sPipeName, "alpha");
    EXPECT_EQ(client.m_pipeHandle, nullptr);
    EXPECT_EQ(client.getAccessRights(), 1U);
    EXPECT_FALSE(client.m_bConnected);
    EXPECT_FALSE(client.m_bRaw);
    EXPECT_THAT(trace.records(), IsEmpty());
}

TEST_F(VornPipeConnectionTest, WhenMadeByName_IsNoClientConnectionAndHasNoRemoteName) {
    Probe client("alpha");
    EXPECT_FALSE(client.m_bClientConnection);
    EXPECT_EQ(client.getRemoteName(), "");
    client.establish();
    EXPECT_FALSE(client.m_bClientConnection);
    EXPECT_EQ(client.getRemoteName(), "");
}

TEST_F(VornPipeConnectionTest, WhenMadeAroundASocket_CopiesTheDescriptorIntoACellOfItsOwn) {
    SocketPair pair = unixPair(pipePath("beta"));
    int fd = pair.ours.release();
    const int number = fd;
    Probe accepted(&fd, 0xFFFFFFFFU);
    fd = -1;
    EXPECT_EQ(accepted.getAccessRights(), 0xFFFFFFFFU);
    EXPECT_NE(accepted.m_pipeHandle, static_cast<void*>(&fd));
    EXPECT_EQ(accepted.fd(), number);
    EXPECT_EQ(accepted.m_sPipeName, "");
    EXPECT_EQ(accepted.getRemoteName(), "");
    EXPECT_THAT(accepted.calls, IsEmpty());
    accepted.transfer(7);
    EXPECT_EQ(hex(receiveExactly(pair.peer.get(), 4)), "00 00 00 07");
}

TEST_F(VornPipeConnectionTest, WhenMadeAroundASocket_TheConnectedMarkStaysUnset) {
    SocketPair pair = unixPair(pipePath("beta"));
    int fd = pair.ours.release();
    Probe accepted(&fd, 7);
    EXPECT_FALSE(accepted.m_bConnected);
    sendAll(pair.peer.get(), bytes("00 00 00 07"));
    EXPECT_EQ(accepted.receiveInt(), 7);
    EXPECT_FALSE(accepted.m_bConnected);
    EXPECT_THAT(accepted.calls, IsEmpty());
}

// Establishing.

TEST_F(VornPipeConnectionTest, TheHandleAloneDecidesWhetherThereIsSomethingToDo) {
    Probe client("alpha");
    client.m_bConnected = true;
    client.establish();
    EXPECT_GE(client.fd(), 0);
    client.m_bConnected = false;
    const CallTrace trace;
    client.establish();
    EXPECT_THAT(trace.records(), IsEmpty());
    EXPECT_FALSE(client.m_bConnected);
}

TEST_F(VornPipeConnectionTest, TheSocketIsClosedOnExec) {
    const CallTrace trace;
    Probe client("alpha");
    client.establish();
    EXPECT_THAT(trace.names(), ElementsAre("socket", "fcntl", "connect"));
    const CallRecord socket = trace.records("socket").at(0);
    EXPECT_EQ(socket.argument, AF_UNIX);
    EXPECT_EQ(socket.second, SOCK_STREAM);
    EXPECT_EQ(socket.third, 0);
    EXPECT_TRUE(isCloseOnExec(client.fd()));
}

TEST_F(VornPipeConnectionTest, NothingButThePathIsLogged) {
    const LogCapture log(9);
    VornPipeConnection client("alpha");
    client.transfer(7);
    VornPipeConnection nobody("nobody");
    EXPECT_EQ(failureOf([&] { nobody.establish(); }), failure(connectFailed, ENOENT));
    EXPECT_THAT(
        log.records(),
        ElementsAre(
            Record{9, "VornPipeServer::getFullPipeName () : sFullPipeName is : " + pipePath("alpha")},
            Record{9, "VornPipeServer::getFullPipeName () : sFullPipeName is : " + pipePath("nobody")}));
}

TEST_F(VornPipeConnectionTest, RawOperationsEstablishThroughTheVirtualHook) {
    class Refusing : public Probe {
    public:
        using Probe::Probe;

        int establishImpl(VornString& /*message*/) override { return 42; }
    };

    Refusing client("alpha");
    EXPECT_EQ(rawWrite(client, "abc"), raw(0, 42));
    std::string data = "###";
    EXPECT_EQ(rawRead(client, data, 3, true), raw(0, 42));
    EXPECT_EQ(peek(client, 3), peeked(false, 3, 42));
}

TEST_F(VornPipeConnectionTest, DisconnectLeavesTheConnectedMarkToCleanup) {
    class Keeping : public Probe {
    public:
        using Probe::Probe;

        void cleanup() override {}
    };

    Keeping client("alpha");
    client.establish();
    client.disconnect();
    EXPECT_TRUE(client.m_bConnected);
    EXPECT_EQ(client.m_pipeHandle, nullptr);
}

TEST_F(VornPipeConnectionTest, AfterItsServerIsGone_AnAcceptedConnectionFindsNoPipeOfItsName) {
    SocketPair pair = unixPair(pipePath("beta"));
    int fd = pair.ours.release();
    Probe accepted(&fd, 7);
    accepted.disconnect();
    // Without a name the path is the pipe directory, at which nobody listens.
    EXPECT_EQ(failureOf([&] { accepted.transfer(7); }), failure(connectFailed, ECONNREFUSED));
}

// Failures to establish.

TEST_F(VornPipeConnectionTest, WhenThePathIsTooLong_FailsAsNameTooLong) {
    const int before = openDescriptors();
    for (const std::size_t length :
         {sizeof(sockaddr_un::sun_path) + 1, std::size_t{200}, std::size_t{5000}, std::size_t{100'000}}) {
        VornPipeConnection client(std::string(length - pipePath("").size(), 'n'));
        EXPECT_EQ(failureOf([&] { client.establish(); }), failure(connectFailed, ENAMETOOLONG)) << length;
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(VornPipeConnectionTest, TheLongestPathOfAnAddressIsReached) {
    const std::string name(sizeof(sockaddr_un::sun_path) - 1 - pipePath("").size(), 'n');
    const UniqueFd listener = unixListen(pipePath(name));
    VornPipeConnection client(name);
    client.transfer(7);
    const UniqueFd peer = acceptClient(listener.get());
    EXPECT_EQ(hex(receiveExactly(peer.get(), 4)), "00 00 00 07");
    EXPECT_EQ(::unlink(pipePath(name).c_str()), 0);
}

// The service handshake.

TEST_F(VornPipeConnectionTest, WhenTheServiceNameCannotBeSent_TheAnswerIsAwaitedAllTheSame) {
    // A failed write of a pipe returns 0, and the handshake looks for -1 only.
    Probe client("alpha");
    client.setServiceName("svc");
    std::optional<FaultRule> fault(std::in_place, "send", EIO);
    WatchedThread user([&] { client.establish(); });
    const UniqueFd peer = accept();
    EXPECT_TRUE(awaitBlockedIn(user.tid(), {SYS_recvfrom}));
    EXPECT_EQ(fault->failures(), 1);
    fault.reset();
    sendAll(peer.get(), "+");
    EXPECT_TRUE(user.join());
    EXPECT_EQ(user.exceptionText(), std::nullopt);
    EXPECT_TRUE(client.m_bConnected);
}

// Names.

TEST_F(VornPipeConnectionTest, ServerNameAndPortNameAreEmpty) {
    VornPipeConnection client("alpha");
    client.establish();
    EXPECT_EQ(client.getServerName(), "");
    EXPECT_EQ(client.getPortName(), "");
}

// Programs of somebody else as peers.

TEST_F(VornPipeConnectionTest, ValuesEchoedBySocatComeBack) {
    const ChildProcess socat = ChildProcess::spawn({"socat", "UNIX-LISTEN:" + pipePath("echo"), "EXEC:cat"});
    VornPipeConnection connection("echo");
    ASSERT_TRUE(awaitCondition([&] { return !failureOf([&] { connection.establish(); }).has_value(); }));
    connection.transfer(-1L);
    connection.transfer(-2);
    connection.transfer(static_cast<short>(-3));
    connection.transfer(VornString(50'000, 't'));
    EXPECT_EQ(connection.receiveLong(), 4294967295L);
    EXPECT_EQ(connection.receiveInt(), -2);
    EXPECT_EQ(connection.receiveShort(), -3);
    EXPECT_EQ(connection.receiveString(), VornString(50'000, 't'));
}

TEST_F(VornPipeConnectionTest, LinesWrittenThroughSocatAreReadOneByOne) {
    ChildProcess socat = ChildProcess::spawn({"socat", "-u", "STDIN", "UNIX-CONNECT:" + pipePath("alpha")});
    int fd = accept().release();
    VornPipeConnection connection(&fd, 1);
    socat.writeLine("first line\r");
    char line[64];
    int error = untouched;
    EXPECT_STREQ(connection.getLine(line, sizeof(line), error), "first line");
    socat.writeLine("second\r");
    EXPECT_STREQ(connection.getLine(line, sizeof(line), error), "second");
}
