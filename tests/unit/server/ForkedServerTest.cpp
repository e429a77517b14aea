// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * What becomes of the servers of a process that forks.
 */

#include <VornPipeServer.h>
#include <VornServerSocket.h>
#include <VornUDPServerSocket.h>

#include "ForkedChild.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "Posix.h"
#include "Sandbox.h"
#include "Sanitizer.h"
#include "ServerTestSupport.h"

#include <memory>
#include <string>

using namespace VornTest;
using VornNet::VornPipeServer;
using VornNet::VornServerSocket;
using VornNet::VornUDPServerSocket;

namespace {

using testing::Values;

constexpr int port = 6301;
constexpr const char* pipeName = "forked";

enum class Kind { Pipe, Tcp, Udp };

VornIPCServer* makeServer(Kind kind, int number = 0) {
    if (kind == Kind::Pipe)
        return new VornPipeServer(pipeName + std::to_string(number));
    if (kind == Kind::Tcp)
        return new VornServerSocket(port + number, 5, "127.0.0.1");
    return new VornUDPServerSocket(port + number, "127.0.0.1", 1000);
}

/** A client of plain POSIX calls that has sent the bytes; nothing for a datagram. */
UniqueFd meet(Kind kind, const std::string& data) {
    UniqueFd peer;
    if (kind == Kind::Udp) {
        int own = 0;
        peer = udpSocket("127.0.0.1", own);
        udpSendTo(peer.get(), "127.0.0.1", port, data);
        return {};
    }
    peer = kind == Kind::Pipe ? unixConnect(pipePath(pipeName + std::string("0")))
                              : tcpConnect("127.0.0.1", port);
    sendAll(peer.get(), data);
    return peer;
}

/** A server on which a thread of this process waits. */
class ForkedServer : public LeakCheckedTest, public testing::WithParamInterface<Kind> {
protected:
    ForkedServer() { EXPECT_TRUE(m_wait.awaitBlocked()); }

    ~ForkedServer() override { m_spServer->close(); }

    /** Checks that the parent's wait goes on, and that a client is still served. */
    void expectToServe() {
        EXPECT_FALSE(m_wait.thread().finished());
        UniqueFd peer = meet(GetParam(), bytes("00 00 00 07"));
        ASSERT_NE(m_wait.outcome().client(), nullptr);
        EXPECT_EQ(m_wait.outcome().spClient->receiveInt(), 7);
        if (peer.get() != -1 && GetParam() == Kind::Tcp)
            reset(peer);
    }

    const int m_descriptors = openDescriptors(); ///< before there was a server
    const VornSmartPointer<VornIPCServer> m_spServer{makeServer(GetParam())};
    ClientWait m_wait{*m_spServer};
};

/** A server that is open, and on which nobody waits. */
VornSmartPointer<VornIPCServer> openServer(Kind kind) {
    VornSmartPointer<VornIPCServer> spServer = makeServer(kind);
    ClientWait opening(*spServer);
    EXPECT_TRUE(opening.awaitBlocked());
    UniqueFd peer = meet(kind, "");
    opening.outcome();
    if (kind != Kind::Udp)
        reset(peer); // or the port would be taken for a minute
    return spServer;
}

class OpenTcpServer : public Opened<VornServerSocket> {
public:
    using Opened::Opened;
    using VornServerSocket::init;

    /** Keeps its socket at another place in memory, as a derived class may. */
    void replaceSocket() {
        const std::unique_ptr<int> previous(static_cast<int*>(m_pSocketImpl));
        m_pSocketImpl = new int(*previous);
    }
};

class ForkedPipeServer : public LeakCheckedTest {};

} // namespace

INSTANTIATE_TEST_SUITE_P(Kind, ForkedServer, Values(Kind::Pipe, Kind::Tcp, Kind::Udp), [](const auto& kind) {
    return std::string(kind.param == Kind::Pipe ? "pipe" : kind.param == Kind::Tcp ? "tcp" : "udp");
});

TEST_P(ForkedServer, ClosedInTheChild_ServesTheParent) {
    EXPECT_EQ(inChild([this] {
                  m_spServer->close();
                  return openDescriptors() == m_descriptors ? 0 : 1;
              }),
              0);
    expectToServe();
}

TEST_P(ForkedServer, DestroyedInTheChild_ServesTheParent) {
    EXPECT_EQ(inChild([this] {
                  delete static_cast<VornIPCServer*>(m_spServer);
                  return openDescriptors() == m_descriptors ? 0 : 1;
              }),
              0);
    expectToServe();
}

TEST_P(ForkedServer, IsOpenInTheChild) {
    const int before = openDescriptors();
    EXPECT_EQ(inChild([before] { return openDescriptors() == before ? 0 : 1; }), 0);
    expectToServe();
}

TEST_P(ForkedServer, AnotherOneInTheChild_WaitsAndCloses) {
    if (underThreadSanitizer)
        GTEST_SKIP() << takesItForTheParentsThread;
    EXPECT_EQ(inChild([] {
                  const VornSmartPointer<VornIPCServer> spOwn = makeServer(GetParam(), 1);
                  ClientWait wait(*spOwn); // its stack is that of the parent's thread
                  if (!wait.awaitBlocked())
                      return 1;
                  spOwn->close();
                  return wait.thread().join() && wait.outcome().client() == nullptr ? 0 : 2;
              }),
              0);
    expectToServe();
}

TEST_P(ForkedServer, ClosedInTheChildWhileAThreadThereWaits_ServesTheParent) {
    if (underThreadSanitizer)
        GTEST_SKIP() << takesItForTheParentsThread;
    EXPECT_EQ(inChild([this] {
                  auto* wait = new ClientWait(*m_spServer);
                  if (!wait->awaitBlocked())
                      return 1;
                  m_spServer->close();
                  // What would end the thread's accept() or recvfrom() would end the parent's.
                  return GetParam() != Kind::Pipe || wait->thread().join() ? 0 : 2;
              }),
              0);
    expectToServe();
}

TEST(ForkedTcpServer, ClosedInTheChildWhileTwoThreadsThereWait_IsLetGoOfByTheLast) {
    if (underThreadSanitizer)
        GTEST_SKIP() << takesItForTheParentsThread;
    const int before = openDescriptors();
    const VornSmartPointer<VornIPCServer> spServer = openServer(Kind::Tcp);
    EXPECT_EQ(inChild([&] {
                  ClientWait first(*spServer);
                  ClientWait second(*spServer);
                  if (!first.awaitBlocked() || !second.awaitBlocked())
                      return 1;
                  spServer->close();
                  UniqueFd peer = meet(Kind::Tcp, "");
                  const auto hasEnded = [&] {
                      return first.thread().finished() != second.thread().finished();
                  };
                  if (!awaitCondition(hasEnded))
                      return 2;
                  reset(peer);
                  if (openDescriptors() != before + 1)
                      return 3;
                  peer = meet(Kind::Tcp, "");
                  if (first.outcome().client() != nullptr || second.outcome().client() != nullptr)
                      return 4;
                  reset(peer);
                  return openDescriptors() == before ? 0 : 5;
              }),
              0);
}

TEST(ForkedTcpServer, TwoClosedInTheChildWhileThreadsThereWait_AreLetGoOfOneByOne) {
    if (underThreadSanitizer)
        GTEST_SKIP() << takesItForTheParentsThread;
    const int before = openDescriptors();
    const VornSmartPointer<VornIPCServer> spServer = openServer(Kind::Tcp);
    Opened<VornServerSocket> another(port + 1, 5, "127.0.0.1");
    EXPECT_EQ(inChild([&] {
                  ClientWait first(*spServer);
                  ClientWait second(another);
                  if (!first.awaitBlocked() || !second.awaitBlocked())
                      return 1;
                  spServer->close();
                  another.close();
                  UniqueFd peer = meet(Kind::Tcp, "");
                  if (first.outcome().client() != nullptr)
                      return 2;
                  reset(peer);
                  if (openDescriptors() != before + 1)
                      return 3;
                  peer = tcpConnect("127.0.0.1", port + 1);
                  if (second.outcome().client() != nullptr)
                      return 4;
                  reset(peer);
                  return openDescriptors() == before ? 0 : 5;
              }),
              0);
}

TEST(ForkedTcpServer, WhoseClassHasPutAnotherSocketThere_EndsThatWhenItCloses) {
    OpenTcpServer server(port, 5, "127.0.0.1");
    const auto replaceAndClose = [&] {
        server.replaceSocket();
        const CallTrace trace;
        server.close();
        return trace.calls("shutdown");
    };
    EXPECT_EQ(inChild(replaceAndClose), 1);
    EXPECT_EQ(replaceAndClose(), 1);
}

TEST(ForkedTcpServer, OpenedAnewInTheChild_IsItsOwn) {
    if (underThreadSanitizer)
        GTEST_SKIP() << takesItForTheParentsThread;
    const auto server = std::make_unique<OpenTcpServer>(port, 5, "127.0.0.1");
    EXPECT_EQ(inChild([&] {
                  server->close();
                  server->setPort(port + 1);
                  server->init(); // perhaps where the parent's socket was in memory
                  ClientWait wait(*server);
                  if (!wait.awaitBlocked())
                      return 1;
                  server->close(); // ends the wait
                  return wait.thread().join() && wait.outcome().client() == nullptr ? 0 : 2;
              }),
              0);
}

TEST_F(ForkedPipeServer, WithoutAWakeUpPipeOfItsOwn_CannotBeWaitedOn) {
    const VornSmartPointer<VornIPCServer> spServer = makeServer(Kind::Pipe);
    EXPECT_EQ(inChild([&] {
                  const FaultRule fault("pipe", EMFILE);
                  const Failure expected{"VornPipeServer::init: failed to create pipe.", EMFILE};
                  return waitFor(*spServer).failure == expected ? 0 : 1;
              }),
              0);
    ClientWait wait(*spServer);
    ASSERT_TRUE(wait.awaitBlocked());
    spServer->close();
    expectQuiet(wait.outcome());
}

TEST_F(ForkedPipeServer, OpenedAnewInTheChild_KeepsItsOwnWakeUpPipe) {
    const VornSmartPointer<VornIPCServer> spServer = openServer(Kind::Pipe);
    EXPECT_EQ(inChild([&] {
                  const CallTrace trace;
                  const CallHook close("select", [&] { spServer->close(); });
                  spServer->close();
                  waitFor(*spServer); // its record may be where the parent's was in memory
                  return trace.calls("pipe");
              }),
              1);
}

// A program that opens a server for its children, and closes what it does not need itself.
TEST(ForkingServer, ClosedByItself_GoesOnInTheChild) {
    for (const Kind kind : {Kind::Pipe, Kind::Tcp, Kind::Udp}) {
        const VornSmartPointer<VornIPCServer> spServer = openServer(kind);
        const pid_t child = forkChild([&] {
            const WaitOutcome outcome = waitFor(*spServer);
            return outcome.client() != nullptr && outcome.spClient->receiveInt() == 7 ? 0 : 1;
        });
        spServer->close();
        UniqueFd peer = meet(kind, bytes("00 00 00 07"));
        EXPECT_EQ(statusOf(child), 0) << static_cast<int>(kind);
        if (kind != Kind::Udp)
            reset(peer);
    }
}

// A program that opens a server and serves each client in a child.
TEST(ForkingServer, ServesEachClientInAChild) {
    for (const Kind kind : {Kind::Pipe, Kind::Tcp}) {
        const VornSmartPointer<VornIPCServer> spServer = openServer(kind);
        for (int i = 0; i < 3; ++i) {
            UniqueFd peer = meet(kind, bytes("00 00 00 07"));
            const WaitOutcome outcome = waitFor(*spServer);
            ASSERT_NE(outcome.client(), nullptr);
            const int status = inChild([&] {
                spServer->close();
                outcome.spClient->transfer(outcome.spClient->receiveInt() + i);
                return 0;
            });
            EXPECT_EQ(status, 0);
            EXPECT_EQ(hex(receiveExactly(peer.get(), 4)), "00 00 00 0" + std::to_string(7 + i));
            reset(peer);
        }
    }
}
