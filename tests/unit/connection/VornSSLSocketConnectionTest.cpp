// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ConnectionTestTools.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"

#include <VornSSLSocketConnection.h>
#include <VornServerSocket.h>
#include <VornSmartPointer.h>

#include <cerrno>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornNet;
using namespace VornTest;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const auto none = std::optional<Failure>();

class Probe : public VornSSLSocketConnection {
public:
    using VornSSLSocketConnection::VornSSLSocketConnection;

    using VornSSLSocketConnection::m_bClientConnection;
    using VornSSLSocketConnection::m_bConnected;
    using VornSSLSocketConnection::m_bIdentify;
    using VornSSLSocketConnection::m_bRaw;
    using VornSSLSocketConnection::m_client;
    using VornSSLSocketConnection::m_nPort;
    using VornSSLSocketConnection::m_pClient;
    using VornSSLSocketConnection::m_pSourceServer;
    using VornSSLSocketConnection::m_pSSLImpl;

    int establishWith(VornString& message) { return establishImpl(message); }

    int fd() const { return m_pClient != nullptr ? *static_cast<int*>(m_pClient) : -1; }

    void initialize() override { calls.emplace_back("initialize"); }

    void cleanup() override {
        calls.emplace_back("cleanup");
        VornSSLSocketConnection::cleanup();
    }

    std::vector<std::string> calls;
};

class VornSSLSocketConnectionTest : public LeakCheckedTest {};

/** A connection which has a socket but is not marked connected; nothing of the library makes such a one. */
class VornSSLSocketConnection_Unmarked : public VornSSLSocketConnectionTest {
    SocketPair m_pair = tcpPair();

protected:
    VornSSLSocketConnection_Unmarked() { connection.m_bConnected = false; }

    int peer() const { return m_pair.peer.get(); }

    void closePeer() { m_pair.peer.reset(); }

    Probe connection{m_pair.ours.release(), "peer", nullptr, false};
};

void expectNotConnected(VornConnection& connection) {
    std::string data = "###";
    EXPECT_EQ(rawWrite(connection, "abc"), raw(-1, ENOTCONN));
    EXPECT_EQ(rawWrite(connection, ""), raw(-1, ENOTCONN));
    EXPECT_EQ(rawRead(connection, data, 3, true), raw(-1, ENOTCONN));
    EXPECT_EQ(rawRead(connection, data, 0, false), raw(-1, ENOTCONN));
    EXPECT_EQ(peek(connection, 3), peeked(false, 0, ENOTCONN));
    EXPECT_EQ(data, "###");
}

} // namespace

// Construction.

TEST_F(VornSSLSocketConnectionTest, WhenMadeAsClient_HoldsItsArgumentsAndIsNotIdentified) {
    const Probe client("host1", 4711, true);
    EXPECT_EQ(client.m_nPort, 4711);
    EXPECT_FALSE(client.m_bIdentify);
    EXPECT_TRUE(client.m_bRaw);
    EXPECT_TRUE(client.m_bClientConnection);
    EXPECT_FALSE(client.m_bConnected);
    EXPECT_EQ(client.m_pClient, nullptr);
    EXPECT_EQ(client.m_client, nullptr);
    EXPECT_EQ(client.m_pSSLImpl, nullptr);
    EXPECT_FALSE(Probe("host1", 4711, false).m_bRaw);
}

TEST_F(VornSSLSocketConnectionTest, WhenMadeAroundASocket_IsConnectedFromBirth) {
    VornServerSocket server(4711, 5, "127.0.0.1");
    SocketPair pair = tcpPair();
    const int fd = pair.ours.release();
    Probe accepted(fd, "peer", &server, false);
    EXPECT_TRUE(accepted.m_bConnected);
    EXPECT_FALSE(accepted.m_bClientConnection);
    EXPECT_EQ(accepted.m_pSourceServer, &server);
    EXPECT_EQ(accepted.m_client, nullptr);
    EXPECT_EQ(accepted.m_pSSLImpl, nullptr);
    EXPECT_EQ(accepted.fd(), fd);
    EXPECT_EQ(accepted.getRemoteName(), "peer");
    EXPECT_EQ(accepted.getPortName(), "4711");
    EXPECT_EQ(accepted.getServerName(), "127.0.0.1");
    EXPECT_THAT(accepted.calls, IsEmpty());
}

TEST_F(VornSSLSocketConnectionTest, TheEncryptionLayersStartAndEndDoNothing) {
    const CallTrace trace;
    VNETInitSSL();
    VNETFinitSSL();
    VNETInitSSL();
    EXPECT_THAT(trace.records(), IsEmpty());
}

// A client's connection.

TEST_F(VornSSLSocketConnectionTest, AClientIsEstablishedWithoutTouchingTheNetwork) {
    const CallTrace trace;
    Probe client("no-such-host.invalid", 4711, false);
    VornString message = "as it was";
    EXPECT_EQ(client.establishWith(message), 0);
    EXPECT_EQ(client.establishWith(message), 0);
    EXPECT_EQ(message, "as it was");
    EXPECT_TRUE(client.m_bConnected);
    EXPECT_EQ(client.getSocket(), nullptr);
    EXPECT_THAT(client.calls, ElementsAre("initialize"));
    EXPECT_THAT(trace.records(), IsEmpty());
}

TEST_F(VornSSLSocketConnectionTest, TypedOperationsOfAClientEstablishAndThenFail) {
    const LogCapture log(9);
    const CallTrace trace;
    Probe client("127.0.0.1", 4711, false);
    EXPECT_EQ(failureOf([&] { client.transfer(7); }), failure(writeFailed, ENOTCONN));
    EXPECT_TRUE(client.m_bConnected);
    EXPECT_EQ(failureOf([&] { client.transfer("abc"); }), failure(writeFailed, ENOTCONN));
    EXPECT_EQ(failureOf([&] { client.receiveString(); }), failure(readFailed, ENOTCONN));
    EXPECT_THAT(trace.records(), IsEmpty());
    expectNotConnected(client);
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(VornSSLSocketConnectionTest, BeforeItIsEstablished_RawOperationsOfAClientFailToo) {
    Probe client("127.0.0.1", 4711, false);
    expectNotConnected(client);
    EXPECT_FALSE(client.m_bConnected);
    EXPECT_THAT(client.calls, IsEmpty());
}

TEST_F(VornSSLSocketConnectionTest, AServiceNameOfAClientMakesNoHandshake) {
    Probe client("127.0.0.1", 4711, false);
    client.setServiceName("svc");
    EXPECT_EQ(failureOf([&] { client.establish(); }), none);
}

TEST_F(VornSSLSocketConnectionTest, WhenDisconnected_AClientIsEstablishedAnew) {
    Probe client("127.0.0.1", 4711, false);
    client.establish();
    client.disconnect();
    EXPECT_FALSE(client.m_bConnected);
    client.establish();
    EXPECT_TRUE(client.m_bConnected);
    EXPECT_THAT(client.calls, ElementsAre("initialize", "cleanup", "initialize"));
}

// An accepted socket.

TEST_F(VornSSLSocketConnectionTest, OfAnAcceptedSocketNothingIsReadOrWritten) {
    SocketPair pair = tcpPair();
    sendAll(pair.peer.get(), "abc");
    {
        VornSSLSocketConnection accepted(pair.ours.release(), "peer", nullptr, false);
        const CallTrace trace;
        expectNotConnected(accepted);
        EXPECT_THAT(trace.records(), IsEmpty());
        char byte = 'x';
        EXPECT_EQ(failureOf([&] { accepted.put(&byte, 1); }), failure(writeFailed, ENOTCONN));
        // Read by plain means, so that the end of the connection is an orderly one.
        EXPECT_EQ(receiveExactly(*static_cast<int*>(accepted.getSocket()), 3), "abc");
    }
    EXPECT_EQ(receiveToEnd(pair.peer.get()), "");
}

// Wrapping another connection.

TEST_F(VornSSLSocketConnectionTest, WhenItWraps_SharesDescriptorAndNameAndHoldsAReference) {
    SocketPair pair = tcpPair();
    const int fd = pair.ours.release();
    const VornSmartPointer<VornSocketConnection> plain(new VornSocketConnection(fd, "peer", nullptr, false));
    int ignored = 0;
    {
        Probe wrapper(plain, &ignored);
        EXPECT_EQ(wrapper.fd(), fd);
        EXPECT_NE(wrapper.getSocket(), plain->getSocket());
        EXPECT_EQ(wrapper.getRemoteName(), "peer");
        EXPECT_EQ(wrapper.m_client, plain);
        EXPECT_EQ(plain->refCount(), 2);
        EXPECT_EQ(wrapper.m_pSSLImpl, nullptr);
        EXPECT_EQ(wrapper.m_pSourceServer, nullptr);
        EXPECT_TRUE(wrapper.m_bClientConnection);
        EXPECT_TRUE(wrapper.m_bConnected);
        EXPECT_TRUE(wrapper.m_bRaw);
        EXPECT_EQ(wrapper.m_nPort, 0);
        EXPECT_THAT(wrapper.calls, IsEmpty());
        expectNotConnected(wrapper);
        plain->transfer(7);
        EXPECT_EQ(hex(receiveExactly(pair.peer.get(), 4)), "00 00 00 07");
    }
    EXPECT_EQ(plain->refCount(), 1);
}

TEST_F(VornSSLSocketConnectionTest, WhenItWraps_AsksForTheNameAndThenForTheSocketAndForEachOnce) {
    class Asked : public VornSocketConnection {
    public:
        using VornSocketConnection::VornSocketConnection;

        const VornString& getRemoteName() override {
            m_questions.emplace_back("name");
            return VornSocketConnection::getRemoteName();
        }

        void* getSocket() override {
            m_questions.emplace_back("socket");
            return VornSocketConnection::getSocket();
        }

        std::vector<std::string> m_questions;
    };

    SocketPair pair = tcpPair();
    auto* asked = new Asked(pair.ours.release(), "peer", nullptr, false);
    const VornSmartPointer<VornSocketConnection> plain(asked);
    const Probe wrapper(plain, nullptr);
    EXPECT_THAT(asked->m_questions, ElementsAre("name", "socket"));
}

TEST_F(VornSSLSocketConnectionTest, WhenTheWrapperGoes_TheSharedDescriptorIsClosedAndLaterClosedAgain) {
    SocketPair pair = tcpPair();
    const int fd = pair.ours.release();
    VornSmartPointer<VornSocketConnection> plain(new VornSocketConnection(fd, "peer", nullptr, false));
    const CallTrace trace;
    delete new VornSSLSocketConnection(plain, nullptr);
    EXPECT_FALSE(isOpen(fd));
    EXPECT_NE(plain->getSocket(), nullptr);
    // Nothing is opened in between: the number would be another descriptor's.
    plain = nullptr;
    const std::vector<CallRecord> closes = trace.records("close");
    ASSERT_EQ(closes.size(), 2U);
    EXPECT_EQ(closes[0].argument, fd);
    EXPECT_EQ(closes[0].error, 0);
    EXPECT_EQ(closes[1].argument, fd);
    EXPECT_EQ(closes[1].error, EBADF);
}

TEST_F(VornSSLSocketConnectionTest, WhenThereIsNothingToWrap_ThrowsNotConnected) {
    const char nothing[] = "VornSSLSocketConnection::VornSSLSocketConnection: no socket to wrap.";
    const VornSmartPointer<VornSocketConnection> empty;
    EXPECT_EQ(failureOf([&] { const Probe wrapper(empty, nullptr); }), failure(nothing, ENOTCONN));
    const VornSmartPointer<VornSocketConnection> unconnected(
        new VornSocketConnection("127.0.0.1", 4711, false, false));
    EXPECT_EQ(failureOf([&] { const Probe wrapper(unconnected, nullptr); }), failure(nothing, ENOTCONN));
    EXPECT_EQ(unconnected->refCount(), 1);
}

// With an encryption state, which nothing of the library sets.

TEST_F(VornSSLSocketConnectionTest, WithAnEncryptionState_NothingIsTransferredAndNothingFails) {
    Probe client("127.0.0.1", 4711, false);
    client.establish();
    int state = 0;
    client.m_pSSLImpl = &state;
    EXPECT_EQ(rawWrite(client, "abc"), raw(0, 0));
    std::string data = "###";
    EXPECT_EQ(rawRead(client, data, 3, true).count, 0);
    EXPECT_EQ(data, "###");
    char byte = '#';
    int size = 5;
    int error = 0;
    EXPECT_TRUE(client.peekBytes(&byte, size, error));
    EXPECT_EQ(size, 5);
    size = 0;
    EXPECT_FALSE(client.peekBytes(&byte, size, error));
    EXPECT_EQ(byte, '#');
    client.disconnect();
    EXPECT_EQ(client.m_pSSLImpl, nullptr);
}

// With a socket, but not marked connected.

TEST_F(VornSSLSocketConnection_Unmarked, OneSendIsMadeAndTheErrorIsNotWritten) {
    const CallTrace trace;
    EXPECT_EQ(rawWrite(connection, "abc"), raw(3, untouched));
    ASSERT_THAT(trace.names(), ElementsAre("send"));
    EXPECT_EQ(trace.records("send").at(0).third, 0);
    EXPECT_EQ(receiveExactly(peer(), 3), "abc");
}

TEST_F(VornSSLSocketConnection_Unmarked, APartialSendIsReturnedAsItIs) {
    const TransferLimit limit(2, connection.fd());
    const CallTrace trace;
    EXPECT_EQ(rawWrite(connection, "abc"), raw(2, untouched));
    EXPECT_EQ(trace.calls("send"), 1);
    EXPECT_EQ(receiveExactly(peer(), 2), "ab");
}

TEST_F(VornSSLSocketConnection_Unmarked, AFailedSendIsMinusOneWithoutAnError) {
    const FaultRule fault("send", EPIPE);
    EXPECT_EQ(rawWrite(connection, "abc"), raw(-1, untouched));
}

TEST_F(VornSSLSocketConnection_Unmarked, OneReadIsMadeWhetherOrNotItIsToWait) {
    for (const bool waitForAll : {true, false}) {
        sendAll(peer(), "abc");
        std::string data(8, '#');
        EXPECT_EQ(rawRead(connection, data, 8, waitForAll), raw(3, untouched));
        EXPECT_EQ(data, "abc#####");
    }
}

TEST_F(VornSSLSocketConnection_Unmarked, WhileTheReadWouldBlock_ItIsTriedAgainAfterAPause) {
    FaultRule noPause("usleep", 0, 1, FaultRule::always);
    noPause.returning(0);
    const RecvScript script({RecvStep::failure(EAGAIN), RecvStep::failure(EAGAIN), RecvStep::bytes("ab")},
                            connection.fd());
    const CallTrace trace;
    std::string data(3, '#');
    EXPECT_EQ(rawRead(connection, data, 3, true), raw(2, untouched));
    EXPECT_EQ(data, "ab#");
    EXPECT_THAT(trace.names(), ElementsAre("recv", "usleep", "recv", "usleep", "recv"));
    EXPECT_EQ(trace.records("usleep").at(0).second, 100'000);
    EXPECT_EQ(trace.records("recv").at(0).third, 0);
}

TEST_F(VornSSLSocketConnection_Unmarked, AnyOtherFailureOfTheReadIsMinusOneWithoutAnError) {
    std::string data(3, '#');
    for (const int error : {EINTR, ECONNRESET, EMSGSIZE}) {
        const RecvScript script({RecvStep::failure(error)}, connection.fd());
        EXPECT_EQ(rawRead(connection, data, 3, true), raw(-1, untouched));
    }
}

TEST_F(VornSSLSocketConnection_Unmarked, WhenThePeerHasClosed_TheReadReturnsZero) {
    closePeer();
    std::string data(3, '#');
    EXPECT_EQ(rawRead(connection, data, 3, true), raw(0, untouched));
}

TEST_F(VornSSLSocketConnection_Unmarked, PeekFailsAllTheSame) {
    EXPECT_EQ(peek(connection, 3), peeked(false, 0, ENOTCONN));
}

TEST_F(VornSSLSocketConnection_Unmarked, EstablishingMarksItAndThenItFails) {
    EXPECT_EQ(failureOf([&] { connection.transfer(7); }), failure(writeFailed, ENOTCONN));
    EXPECT_TRUE(connection.m_bConnected);
    EXPECT_THAT(connection.calls, ElementsAre("initialize"));
}
