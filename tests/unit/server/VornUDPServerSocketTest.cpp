// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include <VornBufferConnection.h>
#include <VornUDPServerSocket.h>

#include "Interpose.h"
#include "LogCapture.h"
#include "Memory.h"
#include "Posix.h"
#include "Process.h"
#include "Sandbox.h"
#include "Sanitizer.h"
#include "ServerTestSupport.h"

#include <cerrno>
#include <iostream>
#include <memory>
#include <optional>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/syscall.h>

using namespace VornTest;
using VornNet::VornBufferConnection;
using VornNet::VornUDPServerSocket;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Record = LogCapture::Record;

constexpr int port = 5023;
constexpr unsigned int sinkBuffer = 16777215;
// The sanitizers' own books about a block of that size are an eighth of it or more.
constexpr long noticeableGrowthKiB = underSanitizer ? 96 * 1024 : 8 * 1024;

class UdpProbe : public Probe<VornUDPServerSocket> {
public:
    using Probe::Probe;
    using VornUDPServerSocket::m_nBufferSize;
};

class VornUDPServerSocketTest : public ServerTest {
protected:
    static void send(const std::string& data, const std::string& from = "127.0.0.1") {
        int own = 0;
        const UniqueFd peer = udpSocket(from, own);
        udpSendTo(peer.get(), "127.0.0.1", port, data);
    }

    UdpProbe server{port, "*", 100};
};

std::string readyText(int nPort) {
    return "VornUDPServerSocket::receive: UDP Server on " + std::to_string(nPort) +
           " ready, accepting messages...";
}

/** All bytes of a connection that holds a datagram. */
std::string contentOf(VornConnection* connection) {
    std::string data(70000, '\0');
    long error = 0;
    const long count = connection->receive(data.data(), static_cast<long>(data.size()), &error, false);
    data.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return data;
}

} // namespace

KIT_ROLE(udpServerWithoutMemory) {
    limitMemory();
    UdpProbe server(port, "*", 0xffffffff);
    const ImplOutcome outcome = waitForImpl(server);
    std::cout << outcome.text << '\n' << outcome.code << '\n';
    return outcome.client() == nullptr ? 0 : 2;
}

TEST_F(VornUDPServerSocketTest, WhenConstructed_KeepsItsArgumentsAndMakesNoSocket) {
    const CallTrace trace;
    UdpProbe probe(6000, "127.0.0.1", 99);
    EXPECT_EQ(probe.m_nPort, 6000);
    EXPECT_EQ(probe.m_nBacklog, 0);
    EXPECT_EQ(probe.m_sBindAddress, "127.0.0.1");
    EXPECT_EQ(probe.m_nBufferSize, 99U);
    EXPECT_EQ(probe.m_pSocketImpl, nullptr);
    EXPECT_FALSE(probe.m_bInitialized);
    EXPECT_EQ(probe.getPort(), 6000);
    EXPECT_EQ(probe.getBindAddress(), "127.0.0.1");
    EXPECT_THAT(callsOf(trace), IsEmpty());
}

TEST_F(VornUDPServerSocketTest, Init_MakesBindsAndNamesTheSocketWithoutAnyOption) {
    const CallTrace trace;
    server.init();
    EXPECT_THAT(callsOf(trace), ElementsAre("socket", "fcntl", "bind", "getsockname"));
    const CallRecord socket = trace.records("socket").at(0);
    EXPECT_EQ(socket.argument, AF_INET);
    EXPECT_EQ(socket.second, SOCK_DGRAM);
    EXPECT_EQ(socket.third, 0);
    EXPECT_EQ(socketOf(server), socket.result);
    EXPECT_TRUE(server.m_bInitialized);
    EXPECT_TRUE(isCloseOnExec(socketOf(server)));
}

TEST_F(VornUDPServerSocketTest, Init_WithATextThatIsNoAddress_BindsTheBroadcastAddressWithoutResolvingIt) {
    for (const char* address : {"localhost", ""}) {
        UdpProbe probe(port, address, 100);
        const CallTrace trace;
        probe.init();
        EXPECT_EQ(localAddress(socketOf(probe)), "255.255.255.255") << address;
        EXPECT_EQ(trace.calls("gethostbyname_r"), 0) << address;
    }
}

TEST_F(VornUDPServerSocketTest, Init_LogsAddressAndConfiguredPortAtLevel5) {
    const LogCapture log(5);
    UdpProbe probe(40000, "127.0.0.1", 100);
    UdpProbe anywhere(0, "*", 100);
    probe.init();
    anywhere.init();
    EXPECT_THAT(log.records(),
                ElementsAre(Record{5, "VornUDPServerSocket::init: Using IP Address 127.0.0.1 Port: 40000"},
                            Record{5, "VornUDPServerSocket::init: Using IP Address 0.0.0.0 Port: 0"}));
}

TEST_F(VornUDPServerSocketTest, Wait_HandsOutADatagramOfTenBytesWhole) {
    server.init();
    send("0123456789");
    const ImplOutcome outcome = waitForImpl(server);
    ASSERT_NE(dynamic_cast<VornBufferConnection*>(outcome.client()), nullptr);
    EXPECT_EQ(contentOf(outcome.client()), "0123456789");
    EXPECT_EQ(contentOf(outcome.client()), "");
    EXPECT_EQ(outcome.text, untouchedText);
    EXPECT_EQ(outcome.code, untouchedCode);
    EXPECT_EQ(outcome.client()->refCount(), 1);
}

TEST_F(VornUDPServerSocketTest, Wait_ForALongerDatagram_HandsOutItsBeginning) {
    UdpProbe probe(port, "*", 4);
    probe.init();
    send("0123456789");
    send("next");
    EXPECT_EQ(contentOf(waitFor(probe).client()), "0123");
    EXPECT_EQ(contentOf(waitFor(probe).client()), "next");
}

TEST_F(VornUDPServerSocketTest, Wait_ForTheLongestDatagram_HandsItOutWhole) {
    UdpProbe probe(port, "*", sinkBuffer);
    probe.init();
    const std::string longest(65507, 'x');
    send(longest);
    EXPECT_EQ(contentOf(waitFor(probe).client()), longest);
}

TEST_F(VornUDPServerSocketTest, Wait_ForAnEmptyDatagram_EndsWithoutClientOrError) {
    server.init();
    send("");
    const LogCapture log(9);
    const ImplOutcome outcome = waitForImpl(server);
    expectNoClient(outcome);
    EXPECT_THAT(
        log.records(),
        ElementsAre(
            Record{9, readyText(port)},
            Record{9, "VornUDPServerSocket::receive: UDP server: exiting gracefully got no message"}));
    send("x");
    EXPECT_EQ(contentOf(waitFor(server).client()), "x") << "it is still bound";
}

TEST_F(VornUDPServerSocketTest, Wait_WithoutABuffer_TakesEveryDatagramForAnEmptyOne) {
    UdpProbe probe(port, "*", 0);
    probe.init();
    send("x");
    expectQuiet(waitFor(probe));
}

TEST_F(VornUDPServerSocketTest, Wait_AfterAnyOtherError_LogsAtLevel1AndReceivesAgain) {
    server.init();
    send("x");
    const LogCapture log(1);
    const FaultRule first("recvfrom", ECONNREFUSED, 1);
    const FaultRule second("recvfrom", EINVAL, 2);
    EXPECT_EQ(contentOf(waitFor(server).client()), "x");
    EXPECT_THAT(
        log.records(),
        ElementsAre(Record{1, "VornUDPServerSocket::receive: UDP server: failed to recvfrom (error:111)"},
                    Record{1, "VornUDPServerSocket::receive: UDP server: failed to recvfrom (error:22)"}));
}

TEST_F(VornUDPServerSocketTest, Wait_WhenClosedWhileADatagramArrives_ReturnsNull) {
    server.init();
    Checkpoint receiving;
    const CallHook hook("recvfrom", [&] { receiving.pass(); });
    FaultRule received("recvfrom", 0);
    received.returning(10);
    const CallTrace trace;
    ClientWait wait(server);
    ASSERT_TRUE(receiving.awaitReached());
    WatchedThread closer([&] { server.close(); });
    ASSERT_TRUE(awaitCondition([&] { return trace.calls("shutdown") >= 1; }));
    receiving.open();
    expectQuiet(wait.outcome());
    EXPECT_TRUE(closer.join());
}

TEST_F(VornUDPServerSocketTest, Client_WithIdentify_HasTheOfficialNameAndIsLoggedWithItsPortInNetworkOrder) {
    useHostsFile("127.0.0.2 alpha.example alpha\n");
    server.init();
    int own = 0;
    const UniqueFd peer = udpSocket("127.0.0.2", own);
    udpSendTo(peer.get(), "127.0.0.1", port, "x");
    const LogCapture log(5);
    EXPECT_EQ(waitFor(server, true).client()->getRemoteName(), "alpha.example");
    EXPECT_THAT(log.records(),
                ElementsAre(Record{5, "VornUDPServerSocket::receive: Server connected to alpha.example:" +
                                          std::to_string(htons(static_cast<std::uint16_t>(own)))}));
}

TEST_F(VornUDPServerSocketTest, Client_WithIdentifyButUnknown_HasNoNameAndIsNotLogged) {
    server.init();
    send("x", "127.0.0.2");
    const LogCapture log(5);
    EXPECT_EQ(waitFor(server, true).client()->getRemoteName(), "");
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(VornUDPServerSocketTest, Client_IsLocalOnlyFrom1_0_0_127) {
    addLocalAddress("lo:2", "1.0.0.127");
    server.init();
    for (const char* address : {"127.0.0.1", "127.0.0.2", lanAddress}) {
        send("x", address);
        EXPECT_FALSE(waitFor(server).client()->getLocalAccess()) << address;
    }
    send("x", "1.0.0.127");
    EXPECT_TRUE(waitFor(server).client()->getLocalAccess());
}

TEST_F(VornUDPServerSocketTest, Close_SendsTheShort1ToItsPortOnLoopback) {
    int observed = port;
    const UniqueFd observer = udpSocket("127.0.0.1", observed);
    for (const bool isWaitedOn : {false, true}) {
        UdpProbe probe(port, "127.0.0.2", 100);
        probe.init();
        std::optional<ClientWait> wait;
        if (isWaitedOn) {
            ASSERT_TRUE(wait.emplace(probe).awaitBlocked());
        }
        probe.close();
        if (isWaitedOn)
            expectQuiet(wait->outcome());
        const Datagram datagram = receiveDatagramFrom(observer.get());
        EXPECT_EQ(hex(datagram.data), "00 01");
        EXPECT_EQ(datagram.address, "127.0.0.1");
    }
}

TEST_F(VornUDPServerSocketTest, Close_WithoutAPortToSendTo_SendsNothingAndLeaksNothing) {
    for (const int nPort : {0, 65536}) {
        UdpProbe probe(nPort, "127.0.0.1", 100);
        probe.init();
        const int before = openDescriptors();
        const CallTrace trace;
        probe.close();
        EXPECT_EQ(trace.calls("sendto"), 0) << nPort;
        EXPECT_EQ(openDescriptors(), before - 1) << nPort;
    }
}

TEST_F(VornUDPServerSocketTest, WaitsWithTheLargestBuffer_CostNoResidentMemory) {
    constexpr int waits = 8;
    std::vector<std::unique_ptr<UdpProbe>> servers;
    std::vector<std::unique_ptr<ClientWait>> threads;
    const PeakMemory memory;
    for (int i = 0; i < waits; ++i) {
        servers.push_back(std::make_unique<UdpProbe>(port + i, "*", sinkBuffer));
        threads.push_back(std::make_unique<ClientWait>(*servers.back()));
        ASSERT_TRUE(threads.back()->awaitBlocked());
    }
    // Eight buffers are 128 MiB.
    EXPECT_LT(memory.grownKiB(), noticeableGrowthKiB);
    for (int i = 0; i < waits; ++i) {
        servers.at(static_cast<std::size_t>(i))->close();
        expectQuiet(threads.at(static_cast<std::size_t>(i))->outcome());
    }
}

TEST_F(VornUDPServerSocketTest, OneWaitAfterAnother_DoesNotKeepBuffers) {
    UdpProbe probe(port, "*", sinkBuffer);
    probe.init();
    const PeakMemory memory;
    for (int i = 0; i < 200; ++i) {
        send("x");
        ASSERT_NE(waitFor(probe).client(), nullptr);
    }
    EXPECT_LT(memory.grownKiB(), noticeableGrowthKiB);
}

TEST_F(VornUDPServerSocketTest, Wait_WithoutMemoryForTheBuffer_ReportsItsOwnText) {
    ChildProcess child = ChildProcess::spawnRoleWith(scarceMemoryEnvironment(), "udpServerWithoutMemory");
    EXPECT_EQ(child.readAllOutput(),
              "VornUDPServerSocket::waitForClientImpl: failed to allocate receive buffer.\n12\n");
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(VornUDPServerSocketTest, Destructor_LogsNothing) {
    LogCapture log(9);
    {
        UdpProbe probe(port, "*", 100);
        probe.init();
        log.clear();
    }
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(VornUDPServerSocketTest, Close_WhileAnotherThreadCloses_WaitsForItAndDoesNothingMore) {
    Checkpoint receiving;
    const CallHook hook("recvfrom", [&] { receiving.pass(); });
    const CallTrace trace;
    ClientWait wait(server);
    ASSERT_TRUE(receiving.awaitReached());
    WatchedThread first([&] { server.close(); });
    ASSERT_TRUE(awaitCondition([&] { return trace.calls("shutdown") > 0; })); // and again each 20 ms
    WatchedThread second([&] { server.close(); });
    EXPECT_TRUE(awaitBlockedOnLock(second.tid()));
    receiving.open();
    expectQuiet(wait.outcome());
    EXPECT_TRUE(first.join());
    EXPECT_TRUE(second.join());
    EXPECT_EQ(trace.calls("sendto"), 1);
}

TEST_F(VornUDPServerSocketTest, Close_WhenItSendsTheWakeUp_HasGivenUpTheSocketAlready) {
    UdpProbe probe(port, "*", sinkBuffer);
    probe.init();
    std::optional<bool> hasSocket;
    {
        const CallHook hook("sendto", [&] {
            hasSocket = __atomic_load_n(&probe.m_pSocketImpl, __ATOMIC_ACQUIRE) != nullptr ||
                        __atomic_load_n(&probe.m_bInitialized, __ATOMIC_ACQUIRE);
        });
        probe.close();
    }
    EXPECT_EQ(hasSocket, std::optional<bool>(false));
}

TEST_F(VornUDPServerSocketTest, Wait_BegunWhileCloseSendsItsDatagram_DoesNotTakeItForAClient) {
    server.init();
    HeldCall sending("sendto");
    WatchedThread closer([&] { server.close(); });
    ASSERT_TRUE(sending.awaitReached());
    ClientWait wait(server);
    // It must not have a socket yet; if it had one, it would be blocked on it.
    ASSERT_TRUE(awaitBlockedIn(wait.thread().tid(), {SYS_futex, SYS_recvfrom}));
    sending.open();
    EXPECT_TRUE(closer.join());
    ASSERT_TRUE(wait.awaitBlocked());
    send("abc");
    ASSERT_NE(wait.outcome().client(), nullptr);
    EXPECT_EQ(contentOf(wait.outcome().client()), "abc");
}

TEST_F(VornUDPServerSocketTest, Close_WhenItsDatagramFails_LetsTheLogHandlerUseTheServer) {
    server.init();
    const FaultRule fault("sendto", ENOBUFS);
    bool isOpenAgain = false;
    WatchedThread closer([&] {
        const RecordAction action(1, "failed to send data", [&] {
            server.init();
            isOpenAgain = server.m_pSocketImpl != nullptr;
        });
        server.close();
    });
    EXPECT_TRUE(closer.join());
    EXPECT_TRUE(isOpenAgain);
    expectDescriptorLeak(1); // of the datagram that was not sent
}
