// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include <VornServerSocket.h>
#include <VornSocketConnection.h>

#include "Interpose.h"
#include "LogCapture.h"
#include "Posix.h"
#include "Sandbox.h"
#include "ServerTestSupport.h"

#include <atomic>
#include <cerrno>

#include <arpa/inet.h>
#include <sys/socket.h>

using namespace VornTest;
using VornNet::VornServerSocket;
using VornNet::VornSocketConnection;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Record = LogCapture::Record;

constexpr int port = 5023;

class VornServerSocketTest : public ServerTest {
protected:
    Probe<VornServerSocket> server{port, 5, "*"};
};

class ConnectionProbe : public VornSocketConnection {
public:
    using VornConnection::m_bClientConnection;
    using VornConnection::m_bConnected;
};

std::string readyText(int nPort) {
    return "VornServerSocket::waitForClient: TCP Server on " + std::to_string(nPort) +
           " ready, accepting connections...";
}

/** The port as the log shows it: the bytes of the network, read as a number of this machine. */
std::string portInNetworkOrder(int nPort) {
    return std::to_string(htons(static_cast<std::uint16_t>(nPort)));
}

} // namespace

TEST_F(VornServerSocketTest, WhenConstructed_KeepsItsArgumentsAndMakesNoSocket) {
    const CallTrace trace;
    Probe<VornServerSocket> probe(6000, 7, "127.0.0.1");
    EXPECT_EQ(probe.m_nPort, 6000);
    EXPECT_EQ(probe.m_nBacklog, 7);
    EXPECT_EQ(probe.m_sBindAddress, "127.0.0.1");
    EXPECT_EQ(probe.m_pSocketImpl, nullptr);
    EXPECT_FALSE(probe.m_bInitialized);
    EXPECT_EQ(probe.getPort(), 6000);
    EXPECT_EQ(probe.getBindAddress(), "127.0.0.1");
    EXPECT_THAT(callsOf(trace), IsEmpty());
}

TEST_F(VornServerSocketTest, Init_MakesBindsNamesAndListensWithoutAnySocketOption) {
    Probe<VornServerSocket> probe(port, -3, "*");
    const CallTrace trace;
    probe.init();
    EXPECT_THAT(callsOf(trace), ElementsAre("socket", "fcntl", "bind", "getsockname", "listen"));
    const CallRecord socket = trace.records("socket").at(0);
    EXPECT_EQ(socket.argument, AF_INET);
    EXPECT_EQ(socket.second, SOCK_STREAM);
    EXPECT_EQ(socket.third, 0);
    EXPECT_EQ(trace.records("listen").at(0).second, -3) << "as it was given";
    EXPECT_EQ(socketOf(probe), socket.result);
    EXPECT_TRUE(probe.m_bInitialized);
}

TEST_F(VornServerSocketTest, Init_WithALoopbackAddress_ListensOnlyThere) {
    Probe<VornServerSocket> probe(port, 5, "127.0.0.1");
    probe.init();
    EXPECT_EQ(localAddress(socketOf(probe)), "127.0.0.1");
    EXPECT_THROW(tcpConnect(lanAddress, port), std::system_error);
    const TcpClient loopback(port);
}

TEST_F(VornServerSocketTest, Init_WithAnythingButAStarOrAnAddressOfThisHost_FailsToBindWithoutResolvingIt) {
    for (const char* address : {"localhost", "", "255.255.255.255", "1.2.3.4.5", "192.0.2.1"}) {
        SCOPED_TRACE(address);
        Probe<VornServerSocket> probe(port, 5, address);
        const CallTrace trace;
        EXPECT_EQ(failureOf([&] { probe.init(); }),
                  (Failure{"VornServerSocket::init: failed to bind socket.", EADDRNOTAVAIL}));
        EXPECT_EQ(trace.calls("gethostbyname_r"), 0);
        EXPECT_EQ(probe.m_pSocketImpl, nullptr);
    }
}

TEST_F(VornServerSocketTest, Init_WithPortZero_ListensWhereTheSystemChoosesAndDoesNotLearnIt) {
    const LogCapture log(5);
    Probe<VornServerSocket> probe(0, 5, "*");
    probe.init();
    EXPECT_GT(localPort(socketOf(probe)), 0);
    EXPECT_EQ(probe.getPort(), 0);
    EXPECT_THAT(log.records(),
                ElementsAre(Record{5, "VornServerSocket::init: Using IP Address 0.0.0.0 Port: 0"}));
}

TEST_F(VornServerSocketTest, Init_LogsAddressAndPortAsASigned16BitNumberAtLevel5) {
    const LogCapture log(5);
    Probe<VornServerSocket> probe(40000, 5, "127.0.0.1");
    probe.init();
    EXPECT_THAT(log.records(),
                ElementsAre(Record{5, "VornServerSocket::init: Using IP Address 127.0.0.1 Port: -25536"}));
}

TEST_F(VornServerSocketTest, Wait_ServesOneClientPerCallInTheOrderTheyCame) {
    server.init();
    const TcpClient first(port);
    const TcpClient second(port);
    sendAll(first.fd(), bytes("00 01"));
    sendAll(second.fd(), bytes("00 02"));
    const WaitOutcome one = waitFor(server);
    const WaitOutcome two = waitFor(server);
    EXPECT_EQ(one.spClient->receiveShort(), 1);
    EXPECT_EQ(two.spClient->receiveShort(), 2);
}

TEST_F(VornServerSocketTest, Client_IsAConnectedSocketConnectionThatTalksAndKnowsItsServersPort) {
    server.init();
    const TcpClient peer(port);
    const ImplOutcome outcome = waitForImpl(server);
    EXPECT_EQ(outcome.text, untouchedText);
    EXPECT_EQ(outcome.code, untouchedCode);
    ASSERT_NE(dynamic_cast<VornSocketConnection*>(outcome.client()), nullptr);
    EXPECT_TRUE(fieldOf<bool>(outcome.client(), &ConnectionProbe::m_bConnected));
    EXPECT_FALSE(fieldOf<bool>(outcome.client(), &ConnectionProbe::m_bClientConnection));
    EXPECT_EQ(outcome.client()->getPortName(), "5023");
    EXPECT_EQ(outcome.client()->getServerName(), "127.0.0.1");
    sendAll(peer.fd(), bytes("00 00 00 03 61 62 63"));
    EXPECT_EQ(outcome.client()->receiveString(), "abc");
    outcome.client()->transfer(258);
    EXPECT_EQ(hex(receiveExactly(peer.fd(), 4)), "00 00 01 02");
}

TEST_F(VornServerSocketTest, Client_IsLocalOnlyFrom127_0_0_1) {
    server.init();
    for (const char* address : {"127.0.0.1", "127.0.0.2", lanAddress}) {
        const TcpClient peer(port, address);
        EXPECT_EQ(waitFor(server).client()->getLocalAccess(), std::string("127.0.0.1") == address);
    }
}

TEST_F(VornServerSocketTest, Client_WithIdentify_IsLoggedAtLevel5WithItsPortInNetworkOrder) {
    useHostsFile("127.0.0.2 alpha.example alpha\n");
    server.init();
    const TcpClient peer(port, "127.0.0.2");
    const LogCapture log(5);
    const WaitOutcome outcome = waitFor(server, true);
    EXPECT_THAT(
        log.records(),
        ElementsAre(Record{5, readyText(port)},
                    Record{5, "VornServerSocket::waitForClient () Server connected to alpha.example:" +
                                  portInNetworkOrder(localPort(peer.fd()))}));
}

TEST_F(VornServerSocketTest, Client_WithIdentifyButUnknown_HasNoNameAndIsNotLogged) {
    server.init();
    const TcpClient peer(port, "127.0.0.2");
    const LogCapture log(5);
    EXPECT_EQ(waitFor(server, true).client()->getRemoteName(), "");
    EXPECT_THAT(log.records(), ElementsAre(Record{5, readyText(port)}));
}

TEST_F(VornServerSocketTest, Wait_AfterAnyOtherAcceptError_LogsAtLevel1AndAcceptsAgain) {
    server.init();
    const TcpClient peer(port);
    const LogCapture log(5);
    const FaultRule first("accept", EMFILE, 1);
    const FaultRule second("accept", ECONNABORTED, 2);
    EXPECT_NE(waitFor(server).client(), nullptr);
    EXPECT_THAT(log.records(),
                ElementsAre(Record{5, readyText(port)},
                            Record{1, "VornServerSocket::waitForClient: socket connection error. 24"},
                            Record{5, readyText(port)},
                            Record{1, "VornServerSocket::waitForClient: socket connection error. 103"},
                            Record{5, readyText(port)}));
}

TEST_F(VornServerSocketTest, Wait_WhenSomebodyElseShutsTheListenerDown_EndsQuietly) {
    const LogCapture log(4);
    ClientWait wait(server);
    ASSERT_TRUE(wait.awaitBlocked());
    ASSERT_EQ(::shutdown(socketOf(server), SHUT_RDWR), 0);
    expectQuiet(wait.outcome());
    EXPECT_THAT(log.records(), IsEmpty());
    server.close();
    ClientWait again(server);
    server.waitForInit();
    const TcpClient peer(port);
    EXPECT_NE(again.outcome().client(), nullptr);
}

TEST_F(VornServerSocketTest, Wait_WhenClosedWhileAClientIsAccepted_ReturnsNullAndClosesTheClient) {
    server.init();
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const UniqueFd peer(ends[0]);
    Checkpoint accepting;
    const CallHook hook("accept", [&] { accepting.pass(); });
    FaultRule accepted("accept", 0);
    accepted.returning(ends[1]);
    const CallTrace trace;
    ClientWait wait(server);
    ASSERT_TRUE(accepting.awaitReached());
    WatchedThread closer([&] { server.close(); });
    ASSERT_TRUE(awaitCondition([&] { return trace.calls("shutdown") >= 1; }));
    accepting.open();
    expectQuiet(wait.outcome());
    EXPECT_TRUE(closer.join());
    EXPECT_EQ(receiveToEnd(peer.get()), "");
    EXPECT_FALSE(isOpen(ends[1]));
}

TEST_F(VornServerSocketTest, SetPort_WhileListening_IsIgnored) {
    server.init();
    server.setPort(port + 1);
    EXPECT_EQ(server.getPort(), port);
}

TEST_F(VornServerSocketTest, Close_LogsThePortAtLevel9) {
    Probe<VornServerSocket> probe(40000, 5, "*");
    probe.init();
    const LogCapture log(9);
    probe.close();
    EXPECT_THAT(log.records(), ElementsAre(Record{9, "VornServerSocket::close: closing socket 40000"}));
}

TEST_F(VornServerSocketTest, WhenTheServersSideClosesAClientFirst_ThePortIsRefusedAfterwards) {
    // A port of its own, for it stays taken for a minute.
    constexpr int lost = 6023;
    Probe<VornServerSocket> probe(lost, 5, "*");
    probe.init();
    const UniqueFd peer = tcpConnect("127.0.0.1", lost);
    waitFor(probe);
    EXPECT_EQ(receiveToEnd(peer.get()), "");
    probe.close();
    EXPECT_EQ(waitFor(probe).failure,
              (Failure{"VornServerSocket::init: failed to bind socket.", EADDRINUSE}));
}

TEST_F(VornServerSocketTest, WhenTheClientClosesFirst_ThePortCanBeBoundAtOnce) {
    server.init();
    UniqueFd peer = tcpConnect("127.0.0.1", port);
    {
        const WaitOutcome outcome = waitFor(server);
        peer.reset();
        char byte = 0;
        long error = 0;
        EXPECT_EQ(outcome.client()->receive(&byte, 1, &error, true), -1);
        EXPECT_EQ(error, ENOTCONN);
    }
    server.close();
    EXPECT_EQ(failureOf([&] { server.init(); }), std::nullopt);
}

TEST_F(VornServerSocketTest, Wait_WhenAcceptFailsAndTheListenerCannotBeAsked_EndsQuietly) {
    server.init();
    const LogCapture log(4);
    const FaultRule accepting("accept", EMFILE);
    const FaultRule asking("getsockopt", EBADF);
    expectQuiet(waitFor(server));
    EXPECT_EQ(accepting.calls(), 1);
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(VornServerSocketTest, Close_WhenAnotherIsFaster_DoesNothingMore) {
    server.init();
    const int listener = socketOf(server);
    const CallTrace trace;
    const RecordAction action(9, "close: closing socket", [&] { server.close(); });
    server.close();
    int closes = 0;
    for (const CallRecord& call : trace.records("close"))
        closes += call.argument == listener ? 1 : 0;
    EXPECT_EQ(closes, 1);
    EXPECT_EQ(server.m_pSocketImpl, nullptr);
}

TEST_F(VornServerSocketTest, Close_EndsAWaitThatADerivedClassDoesItself) {
    static std::atomic<bool> isOpen{false};

    class Accepting : public Probe<VornServerSocket> {
    public:
        using Probe::Probe;

        VornSmartPointer<VornConnection> waitForClientImpl(bool, VornString&, int&) override {
            init();
            const int listener = socketOf(*this);
            isOpen = true;
            const UniqueFd client(::accept(listener, nullptr, nullptr));
            return {};
        }
    };

    class Selecting : public Probe<VornServerSocket> {
    public:
        using Probe::Probe;

        VornSmartPointer<VornConnection> waitForClientImpl(bool, VornString&, int&) override {
            init();
            fd_set readable;
            const int listener = socketOf(*this);
            isOpen = true;
            FD_ZERO(&readable);
            FD_SET(listener, &readable);
            ::select(FD_SETSIZE, &readable, nullptr, nullptr, nullptr);
            return {};
        }
    };

    const auto closeAWaitingOne = [](Probe<VornServerSocket>&& probe) {
        isOpen = false;
        ClientWait wait(probe);
        ASSERT_TRUE(awaitCondition([&] { return isOpen.load(); }));
        ASSERT_TRUE(wait.awaitBlocked());
        probe.close();
        const bool hasEnded = wait.thread().join();
        EXPECT_TRUE(hasEnded);
        if (!hasEnded)
            const UniqueFd stranger = tcpConnect("127.0.0.1", port);
        expectQuiet(wait.outcome());
        EXPECT_THROW(tcpConnect("127.0.0.1", port), std::system_error);
    };
    closeAWaitingOne(Accepting(port, 5, "127.0.0.1"));
    closeAWaitingOne(Selecting(port, 5, "127.0.0.1"));
}

TEST_F(VornServerSocketTest, Client_WithIdentifyAndAnAnswerThatIsNeverLongEnough_IsGivenUpAt16Megabytes) {
    server.init();
    const TcpClient peer(port, "127.0.0.2");
    FaultRule tooShort("gethostbyaddr_r", 0, 1, FaultRule::always);
    tooShort.returning(ERANGE);
    EXPECT_EQ(waitFor(server, true).client()->getRemoteName(), "");
    // 1,024 bytes at first, twice as much each time.
    EXPECT_EQ(tooShort.calls(), 15);
}
