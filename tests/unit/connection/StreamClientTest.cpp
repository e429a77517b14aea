// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * What clients of the two stream transports, TCP and pipe, have in common until they are connected.
 */

#include "Await.h"
#include "ConnectionTestTools.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"
#include "Sandbox.h"

#include <VornPipeConnection.h>
#include <VornSocketConnection.h>

#include <cerrno>
#include <optional>
#include <stdexcept>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornTest;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/** A place at which a service listens, and a client that connects there. @{ */
struct Tcp {
    static constexpr const char* connectFailed =
        "VornSocketConnection::establish: connection request failed.";
    static constexpr const char* createFailed = "VornSocketConnection::establish: socket creation failed.";

    struct Client : VornSocketConnection {
        explicit Client(const Tcp& tcp) : VornSocketConnection("127.0.0.1", tcp.port, false, false) {}

        const void* cell() const { return m_pClient; }
    };

    int port = 0;
    UniqueFd listener = tcpListen("127.0.0.1", port);
};

struct Pipe {
    static constexpr const char* connectFailed = "VornPipeConnection::establish: connection request failed.";
    static constexpr const char* createFailed = "VornPipeConnection::establish: pipe creation failed.";

    struct Client : VornPipeConnection {
        explicit Client(const Pipe&) : VornPipeConnection("alpha") {}

        const void* cell() const { return m_pipeHandle; }
    };

    ~Pipe() { ::unlink(pipePath("alpha").c_str()); }

    UniqueFd listener = unixListen(pipePath("alpha"));
};

/** @} */

/** A client that shows what becomes of it. */
template <typename Transport>
class Probe : public Transport::Client {
public:
    using Transport::Client::Client;
    using Transport::Client::m_bConnected;

    int establishWith(VornString& message) { return this->establishImpl(message); }

    void initialize() override { calls.emplace_back("initialize"); }

    void cleanup() override {
        calls.emplace_back("cleanup");
        Transport::Client::cleanup();
    }

    std::vector<std::string> calls;
};

template <typename Transport>
class StreamClient : public LeakCheckedTest {
protected:
    using Connection = typename Transport::Client;
    using Client = Probe<Transport>;

    const Transport& place() const { return m_transport; }

    UniqueFd accept() const { return acceptClient(m_transport.listener.get()); }

    void stopListening() { m_transport.listener.reset(); }

    static void expectUnused(const Client& client) {
        EXPECT_FALSE(client.m_bConnected);
        EXPECT_EQ(client.cell(), nullptr);
        EXPECT_THAT(client.calls, IsEmpty());
    }

private:
    Transport m_transport;
};

struct TransportNames {
    template <typename Transport>
    static std::string GetName(int /*index*/) {
        return std::is_same_v<Transport, Tcp> ? "Tcp" : "Pipe";
    }
};

using Transports = testing::Types<Tcp, Pipe>;
TYPED_TEST_SUITE(StreamClient, Transports, TransportNames);

} // namespace

TYPED_TEST(StreamClient, WhenEstablished_HoldsASocketAndIsInitialized) {
    typename TestFixture::Client client(this->place());
    VornString message = "as it was";
    EXPECT_EQ(client.establishWith(message), 0);
    EXPECT_EQ(message, "as it was");
    EXPECT_TRUE(client.m_bConnected);
    ASSERT_NE(client.cell(), nullptr);
    EXPECT_GE(*static_cast<const int*>(client.cell()), 0);
    EXPECT_THAT(client.calls, ElementsAre("initialize"));
}

TYPED_TEST(StreamClient, EveryRawOperationEstablishes) {
    std::string data = "####";
    typename TestFixture::Client writer(this->place());
    EXPECT_EQ(rawWrite(writer, ""), raw(0, 0));
    EXPECT_TRUE(writer.m_bConnected);
    typename TestFixture::Client reader(this->place());
    EXPECT_EQ(rawRead(reader, data, 0, true), raw(0, 0));
    EXPECT_TRUE(reader.m_bConnected);
    const UniqueFd first = this->accept();
    const UniqueFd second = this->accept();
    typename TestFixture::Client looker(this->place());
    PeekResult result;
    WatchedThread user([&] { result = peek(looker, 4); });
    const UniqueFd third = this->accept();
    sendAll(third.get(), "abc");
    EXPECT_TRUE(user.join());
    EXPECT_EQ(result, peeked(true, 3, 0, "abc"));
}

TYPED_TEST(StreamClient, WhenDisconnected_TheNextOperationConnectsToTheSamePlace) {
    typename TestFixture::Client client(this->place());
    client.transfer(1);
    const UniqueFd first = this->accept();
    client.disconnect();
    EXPECT_EQ(client.cell(), nullptr);
    EXPECT_FALSE(client.m_bConnected);
    EXPECT_EQ(hex(receiveToEnd(first.get())), "00 00 00 01");
    client.transfer(2);
    const UniqueFd second = this->accept();
    EXPECT_EQ(hex(receiveExactly(second.get(), 4)), "00 00 00 02");
    EXPECT_THAT(client.calls, ElementsAre("initialize", "cleanup", "initialize"));
}

TYPED_TEST(StreamClient, ASecondDisconnectOnlyCleansUpAgain) {
    typename TestFixture::Client client(this->place());
    client.establish();
    const CallTrace trace;
    client.disconnect();
    client.disconnect();
    EXPECT_EQ(trace.calls("close"), 1);
    EXPECT_THAT(client.calls, ElementsAre("initialize", "cleanup", "cleanup"));
}

TYPED_TEST(StreamClient, WhenDestroyed_ClosesItsSocket) {
    UniqueFd peer;
    {
        typename TestFixture::Connection client(this->place());
        client.establish();
        peer = this->accept();
    }
    EXPECT_EQ(receiveToEnd(peer.get()), "");
}

// Failures to establish.

TYPED_TEST(StreamClient, WhenThereIsNoSocket_EstablishingSucceedsAndTheOperationFails) {
    typename TestFixture::Client client(this->place());
    const LogCapture log(9);
    const FaultRule fault("socket", EMFILE, 1, FaultRule::always);
    VornString message = "as it was";
    EXPECT_EQ(client.establishWith(message), 0);
    EXPECT_EQ(message, "as it was");
    EXPECT_EQ(failureOf([&] { client.establish(); }), std::nullopt);
    EXPECT_EQ(failureOf([&] { client.transfer(7); }), failure(writeFailed, ENOTCONN));
    EXPECT_EQ(failureOf([&] { client.receiveInt(); }), failure(readFailed, ENOTCONN));
    EXPECT_EQ(rawWrite(client, "abc"), raw(0, ENOTCONN));
    EXPECT_EQ(rawWrite(client, ""), raw(0, ENOTCONN));
    std::string data = "###";
    EXPECT_EQ(rawRead(client, data, 3, true), raw(0, ENOTCONN));
    EXPECT_EQ(rawRead(client, data, 0, false), raw(0, ENOTCONN));
    EXPECT_EQ(peek(client, 3), peeked(false, 0, ENOTCONN));
    EXPECT_EQ(log.count(TypeParam::createFailed), 0);
    TestFixture::expectUnused(client);
}

TYPED_TEST(StreamClient, WhenNobodyListens_EveryOperationReportsTheConnectErrorAndHoldsNoDescriptor) {
    this->stopListening();
    typename TestFixture::Client client(this->place());
    const int before = openDescriptors();
    EXPECT_EQ(failureOf([&] { client.transfer(7); }), failure(TypeParam::connectFailed, ECONNREFUSED));
    EXPECT_EQ(failureOf([&] { client.receiveInt(); }), failure(TypeParam::connectFailed, ECONNREFUSED));
    EXPECT_EQ(rawWrite(client, "abc"), raw(0, ECONNREFUSED));
    std::string data = "###";
    EXPECT_EQ(rawRead(client, data, 3, true), raw(0, ECONNREFUSED));
    EXPECT_EQ(rawRead(client, data, 3, false), raw(0, ECONNREFUSED));
    EXPECT_EQ(peek(client, 3), peeked(false, 3, ECONNREFUSED));
    EXPECT_EQ(openDescriptors(), before);
    TestFixture::expectUnused(client);
}

// The service handshake.

TYPED_TEST(StreamClient, WithAServiceName_AsksForTheServiceBeforeAnythingElse) {
    typename TestFixture::Client client(this->place());
    client.setServiceName("svc");
    WatchedThread user([&] { client.transfer(7); });
    const UniqueFd peer = this->accept();
    EXPECT_EQ(receiveExactly(peer.get(), 5), "svc\r\n");
    EXPECT_TRUE(awaitBlockedIn(user.tid(), {SYS_recvfrom}));
    EXPECT_FALSE(client.m_bConnected);
    sendAll(peer.get(), "+");
    EXPECT_TRUE(user.join());
    EXPECT_EQ(user.exceptionText(), std::nullopt);
    EXPECT_EQ(hex(receiveExactly(peer.get(), 4)), "00 00 00 07");
    EXPECT_TRUE(client.m_bConnected);
    EXPECT_THAT(client.calls, ElementsAre("initialize"));
}

TYPED_TEST(StreamClient, WhenTheServiceIsRefusedOrNotAnswered_ThrowsCodeZeroAndHoldsNoDescriptor) {
    for (const char* answer : {"-", ""}) {
        typename TestFixture::Client client(this->place());
        client.setServiceName("svc");
        std::optional<Failure> failed;
        WatchedThread user([&] { failed = failureOf([&] { client.receiveInt(); }); });
        const UniqueFd peer = this->accept();
        EXPECT_EQ(receiveExactly(peer.get(), 5), "svc\r\n");
        sendAll(peer.get(), answer);
        ::shutdown(peer.get(), SHUT_WR);
        EXPECT_TRUE(user.join());
        EXPECT_EQ(failed, failure(serviceFailed, 0));
        TestFixture::expectUnused(client);
        EXPECT_EQ(receiveToEnd(peer.get()), "");
    }
}

TYPED_TEST(StreamClient, WhenTheServiceIsRefused_ARawOperationReportsNotConnected) {
    typename TestFixture::Client client(this->place());
    client.setServiceName("svc");
    RawResult result;
    WatchedThread user([&] { result = rawWrite(client, "abc"); });
    const UniqueFd peer = this->accept();
    sendAll(peer.get(), "-");
    EXPECT_TRUE(user.join());
    EXPECT_EQ(result, raw(0, ENOTCONN));
}

// Exceptions that pass through establishing.

TYPED_TEST(StreamClient, AForeignExceptionPassesAndLeavesNoSocketBehind) {
    class Throwing : public TestFixture::Client {
    public:
        using TestFixture::Client::Client;

        void initialize() override { throw std::runtime_error("foreign"); }
    };

    Throwing client(this->place());
    EXPECT_THROW(client.establish(), std::runtime_error);
    EXPECT_EQ(client.cell(), nullptr);
}

TYPED_TEST(StreamClient, AnOwnExceptionOfTheHooksIsTheResult) {
    class Throwing : public TestFixture::Client {
    public:
        using TestFixture::Client::Client;

        bool connectToServiceImpl() override { throw VornException("own text", 42); }
    };

    Throwing client(this->place());
    EXPECT_EQ(failureOf([&] { client.establish(); }), failure("own text", 42));
    EXPECT_EQ(client.cell(), nullptr);
}
