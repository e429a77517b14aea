// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What TCP and UDP servers have in common, and pipe servers do not.
 */

#include <VornServerSocket.h>
#include <VornUDPServerSocket.h>

#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"
#include "Posix.h"
#include "Sandbox.h"
#include "ServerTestSupport.h"

#include <cerrno>
#include <chrono>
#include <memory>

using namespace VornTest;
using VornNet::VornServerSocket;
using VornNet::VornUDPServerSocket;

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr int port = 5023;
constexpr int retries = 50;

/** A transport: its server, a client of it, and another owner of its port. @{ */
struct Tcp {
    struct Server : Probe<VornServerSocket> {
        explicit Server(int nPort = port, const char* address = "*") : Probe(nPort, 5, address) {}
    };

    static UniqueFd connect(int nPort, const char* from) { return tcpConnect("127.0.0.1", nPort, from); }

    static UniqueFd take(int& nPort) { return tcpListen("127.0.0.1", nPort); }

    static constexpr const char* waitsIn = "accept";
    static constexpr const char* readyRecord = "ready, accepting connections";
    static constexpr int passingError = EMFILE;
    static constexpr int endingErrors[] = {EINTR, EBADF, ENONET, ENOTSOCK, EHOSTDOWN};

    static int endingCode(int) { return untouchedCode; }

    static auto endingTexts(int) { return ElementsAre(HasSubstr(readyRecord)); }

    static constexpr const char* bindFailed = "VornServerSocket::init: failed to bind socket.";
};

struct Udp {
    struct Server : Probe<VornUDPServerSocket> {
        explicit Server(int nPort = port, const char* address = "*") : Probe(nPort, address, 100) {}
    };

    static UniqueFd connect(int nPort, const char* from) {
        int own = 0;
        UniqueFd peer = udpSocket(from, own);
        udpSendTo(peer.get(), "127.0.0.1", nPort, "x");
        return peer;
    }

    static UniqueFd take(int& nPort) { return udpSocket("127.0.0.1", nPort); }

    static constexpr const char* waitsIn = "recvfrom";
    static constexpr const char* readyRecord = "ready, accepting messages";
    static constexpr int passingError = ECONNREFUSED;
    static constexpr int endingErrors[] = {EINTR, EBADF, ENONET, ENOTSOCK, ECONNRESET, EHOSTDOWN};

    static int endingCode(int error) { return error; }

    static auto endingTexts(int error) {
        return ElementsAre(HasSubstr(readyRecord), "VornUDPServerSocket::waitForClientImpl: socket error=" +
                                                       std::to_string(error) + ", exiting");
    }

    static constexpr const char* bindFailed = "VornUDPServerSocket::init: failed to bind socket.";
};

/** @} */

template <typename Transport>
class PortServer : public LeakCheckedTest {
protected:
    using Server = typename Transport::Server;
    using OpenServer = Opened<Server>;

    /** A client, which leaves no port in TIME_WAIT. */
    class Client {
    public:
        explicit Client(int nPort = port, const char* from = "127.0.0.1")
            : m_socket(Transport::connect(nPort, from)) {}

        ~Client() { reset(m_socket); }

    private:
        UniqueFd m_socket;
    };
};

struct TransportNames {
    template <typename Transport>
    static std::string GetName(int /*index*/) {
        return std::is_same_v<Transport, Tcp> ? "Tcp" : "Udp";
    }
};

using Transports = testing::Types<Tcp, Udp>;
TYPED_TEST_SUITE(PortServer, Transports, TransportNames);

} // namespace

TYPED_TEST(PortServer, Client_WithoutIdentify_HasNoNameAndNobodyIsAsked) {
    useHostsFile("127.0.0.1 alpha\n");
    typename TestFixture::OpenServer server;
    const typename TestFixture::Client client;
    const CallTrace trace;
    EXPECT_EQ(waitFor(server, false).client()->getRemoteName(), "");
    EXPECT_EQ(trace.calls("gethostbyaddr_r"), 0);
}

TYPED_TEST(PortServer, Init_TakesTheLow16BitsOfThePort) {
    typename TestFixture::OpenServer high(70000, "127.0.0.1");
    typename TestFixture::OpenServer negative(-1, "127.0.0.1");
    EXPECT_EQ(localPort(socketOf(high)), 70000 - 65536);
    EXPECT_EQ(localPort(socketOf(negative)), 65535);
    EXPECT_EQ(high.getPort(), 70000);
}

TYPED_TEST(PortServer, Init_WhenOpen_DoesNothing) {
    typename TestFixture::OpenServer server;
    const int socket = socketOf(server);
    const CallTrace trace;
    server.init();
    EXPECT_THAT(callsOf(trace), IsEmpty());
    EXPECT_EQ(socketOf(server), socket);
}

TYPED_TEST(PortServer, WhenThePortIsInUse_ThrowsTheBindTextAndTriesAnotherPortLater) {
    int taken = 0;
    const UniqueFd other = TypeParam::take(taken);
    typename TestFixture::Server server(taken, "127.0.0.1");
    EXPECT_EQ(waitFor(server).failure, (Failure{TypeParam::bindFailed, EADDRINUSE}));
    server.setPort(port);
    ClientWait wait(server);
    server.waitForInit();
    const typename TestFixture::Client client;
    EXPECT_NE(wait.outcome().client(), nullptr);
}

TYPED_TEST(PortServer, Init_AsksTheVirtualBindAddress) {
    class Elsewhere : public TestFixture::Server {
    public:
        const VornString& getBindAddress() override { return m_sElsewhere; }

    private:
        VornString m_sElsewhere = "127.0.0.2";
    };

    Elsewhere server;
    server.init();
    EXPECT_EQ(localAddress(socketOf(server)), "127.0.0.2");
}

TYPED_TEST(PortServer, WaitForInit_LooksEveryMillisecondUntilAnotherThreadHasBound) {
    typename TestFixture::Server server;
    const CallTrace trace;
    WatchedThread thread([&] { server.waitForInit(); });
    ASSERT_TRUE(awaitCondition([&] { return trace.calls("usleep") >= 3; }));
    EXPECT_FALSE(thread.finished());
    for (const CallRecord& call : trace.records("usleep"))
        EXPECT_EQ(call.second, 1000);
    server.init();
    EXPECT_TRUE(thread.join());
}

TYPED_TEST(PortServer, Wait_RunsTheVirtualInitAndReportsWhatItThrows) {
    class Failing : public TestFixture::Server {
        void init() override { throw VornException("derived", 12); }
    };

    Failing server;
    const ImplOutcome outcome = waitForImpl(server);
    expectNoClient(outcome, "derived", 12);
}

TYPED_TEST(PortServer, Wait_AfterAnErrorThatEndsIt_TellsAndLogsOnlyWhatItsKindDoesAndTheNextWaitServes) {
    typename TestFixture::OpenServer server;
    for (const int error : TypeParam::endingErrors) {
        const LogCapture log(9);
        const FaultRule fault(TypeParam::waitsIn, error, 1, 2);
        const ImplOutcome outcome = waitForImpl(server);
        SCOPED_TRACE(error);
        expectNoClient(outcome, untouchedText, TypeParam::endingCode(error));
        EXPECT_EQ(fault.calls(), 1) << error;
        EXPECT_THAT(log.texts(), TypeParam::endingTexts(error));
        expectQuiet(waitFor(server));
        const typename TestFixture::Client client;
        EXPECT_NE(waitFor(server).client(), nullptr) << error;
    }
}

TYPED_TEST(PortServer, Wait_WhenClosedBeforeItBlocks_EndsQuietly) {
    typename TestFixture::OpenServer server;
    const CallTrace trace;
    const RecordAction action(9, TypeParam::readyRecord, [&] { server.close(); });
    expectQuiet(waitFor(server));
    EXPECT_EQ(server.m_pSocketImpl, nullptr);
    EXPECT_EQ(trace.calls(TypeParam::waitsIn), 0);
}

TYPED_TEST(PortServer, Wait_RetriesWithoutLimitAndWithoutDelay) {
    typename TestFixture::OpenServer server;
    const typename TestFixture::Client client;
    const FaultRule fault(TypeParam::waitsIn, TypeParam::passingError, 1, 1000);
    const FaultRule sleeps("usleep", 0, 1, 0);
    EXPECT_NE(waitFor(server).client(), nullptr);
    EXPECT_EQ(fault.failures(), 1000);
    EXPECT_EQ(sleeps.calls(), 0);
}

TYPED_TEST(PortServer, Wait_WhenADerivedClassGivesTheSocketUpMeanwhile_ReturnsNoClient) {
    typename TestFixture::OpenServer server;
    const std::unique_ptr<int> cell(static_cast<int*>(server.m_pSocketImpl));
    const UniqueFd socket(*cell);
    const CallHook hook(TypeParam::waitsIn,
                        [&] { __atomic_store_n(&server.m_pSocketImpl, nullptr, __ATOMIC_RELEASE); });
    const typename TestFixture::Client client;
    const ImplOutcome outcome = waitForImpl(server);
    expectNoClient(outcome);
}

TYPED_TEST(PortServer, Wait_WhenAnotherThreadsCloseHasEndedIt_ReturnsOnlyWhenThatCloseIsOver) {
    typename TestFixture::Server server;
    ClientWait wait(server);
    ASSERT_TRUE(wait.awaitBlocked());
    HeldCall closing("close");
    WatchedThread closer([&] { server.close(); });
    ASSERT_TRUE(closing.awaitReached());
    EXPECT_TRUE(awaitBlockedOnLock(wait.thread().tid()));
    EXPECT_FALSE(wait.thread().finished());
    closing.open();
    expectQuiet(wait.outcome());
    EXPECT_TRUE(closer.join());
}

TYPED_TEST(PortServer, Wait_BegunDuringAnotherThreadsClose_OpensTheServerAgainAfterwardsAndServes) {
    typename TestFixture::OpenServer server;
    HeldCall closing("close");
    WatchedThread closer([&] { server.close(); });
    ASSERT_TRUE(closing.awaitReached());
    ClientWait wait(server);
    EXPECT_TRUE(awaitBlockedOnLock(wait.thread().tid()));
    EXPECT_FALSE(wait.thread().finished());
    closing.open();
    EXPECT_TRUE(closer.join());
    ASSERT_TRUE(wait.awaitBlocked());
    const typename TestFixture::Client client;
    EXPECT_NE(wait.outcome().client(), nullptr);
}

TYPED_TEST(PortServer, TwoWaitsOnOneServer_DoNotHoldEachOtherUp) {
    typename TestFixture::OpenServer server;
    ClientWait first(server);
    ASSERT_TRUE(first.awaitBlocked());
    ClientWait second(server);
    ASSERT_TRUE(second.awaitBlocked());
    const auto finished = [&] { return first.thread().finished() + second.thread().finished(); };
    const typename TestFixture::Client one;
    EXPECT_TRUE(awaitCondition([&] { return finished() == 1; }));
    const typename TestFixture::Client other;
    EXPECT_TRUE(awaitCondition([&] { return finished() == 2; }));
    EXPECT_NE(first.outcome().client(), nullptr);
    EXPECT_NE(second.outcome().client(), nullptr);
}

TYPED_TEST(PortServer, Close_WhenNeverOpened_DoesNothing) {
    typename TestFixture::Server server;
    const LogCapture log(9);
    const CallTrace trace;
    server.close();
    EXPECT_THAT(callsOf(trace), IsEmpty());
    EXPECT_THAT(log.records(), IsEmpty());
}

TYPED_TEST(PortServer, Close_ReleasesAndTheNextInitTakesThePortThenConfigured) {
    typename TestFixture::OpenServer server;
    const int old = socketOf(server);
    server.close();
    EXPECT_FALSE(isOpen(old));
    EXPECT_EQ(server.m_pSocketImpl, nullptr);
    EXPECT_FALSE(server.m_bInitialized);
    int same = port;
    EXPECT_NO_THROW(TypeParam::take(same));
    server.setPort(port + 1);
    server.init();
    EXPECT_EQ(localPort(socketOf(server)), port + 1);
}

TYPED_TEST(PortServer, Close_ClosesTheSocketOnlyWhenNobodyUsesIt) {
    typename TestFixture::Server server(port, "127.0.0.2");
    const CallTrace trace;
    ClientWait wait(server);
    ASSERT_TRUE(wait.awaitBlocked());
    const int socket = socketOf(server);
    server.close();
    expectQuiet(wait.outcome());
    std::vector<std::string> uses;
    for (const CallRecord& call : trace.records()) {
        // After these two the number may be that of another socket.
        if (uses.size() < 2 && call.argument == socket &&
            (call.name == TypeParam::waitsIn || call.name == "close"))
            uses.push_back(call.name);
    }
    EXPECT_THAT(uses, ElementsAre(TypeParam::waitsIn, "close"));
}

// A port in use.

TYPED_TEST(PortServer, Bind_WhereTheServerWasOpenBefore_IsTriedAgainEachMillisecondForAWhile) {
    typename TestFixture::Server server;
    const auto now = [] {
        return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
    };
    server.init();
    server.close();
    {
        const FaultRule inUse("bind", EADDRINUSE, 1, retries);
        EXPECT_EQ(failureOf([&] { server.init(); }), std::nullopt);
        EXPECT_EQ(inUse.calls(), retries + 1);
        server.close();
    }
    const FaultRule inUse("bind", EADDRINUSE, 1, FaultRule::always);
    FaultRule noPause("clock_nanosleep", 0, 1, FaultRule::always);
    noPause.returning(0);
    const CallTrace trace;
    const long begin = now();
    EXPECT_EQ(failureOf([&] { server.init(); }), (Failure{TypeParam::bindFailed, EADDRINUSE}));
    EXPECT_EQ(inUse.calls(), 1 + retries);
    const std::vector<CallRecord> pauses = trace.records("clock_nanosleep");
    ASSERT_EQ(pauses.size(), static_cast<std::size_t>(retries));
    EXPECT_GE(pauses.front().third, begin + 1'000'000);
    EXPECT_LE(pauses.back().third, now() + 1'000'000);
}

TYPED_TEST(PortServer, Bind_AtTheFirstOpeningOnAnotherPortOrWithAnotherError_FailsAtOnce) {
    typename TestFixture::Server server;
    const auto expectOneTry = [&](int error) {
        const FaultRule fault("bind", error, 1, FaultRule::always);
        EXPECT_EQ(failureOf([&] { server.init(); }), (Failure{TypeParam::bindFailed, error}));
        EXPECT_EQ(fault.calls(), 1);
    };
    expectOneTry(EADDRINUSE);
    server.init();
    server.close();
    expectOneTry(EACCES);
    server.setPort(port + 1);
    expectOneTry(EADDRINUSE);
}
