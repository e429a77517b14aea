// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What every server does, whatever its kind and wherever it is bound. A further kind is a line of `kinds`.
 */

#include <VornPipeServer.h>
#include <VornSSLServerSocket.h>
#include <VornServerSocket.h>
#include <VornUDPServerSocket.h>

#include "Interpose.h"
#include "Interruptions.h"
#include "Posix.h"
#include "Sandbox.h"
#include "Sanitizer.h"
#include "ServerTestSupport.h"

#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <thread>

using namespace VornTest;
using VornNet::VornCertificate;
using VornNet::VornPipeServer;
using VornNet::VornServerSocket;
using VornNet::VornSSLServerSocket;
using VornNet::VornUDPServerSocket;

namespace {

constexpr const char* pipeName = "conformance";

// As large as a sink's, but the address sanitizer takes a hundredth of a second for such a block.
constexpr unsigned int udpBuffer = underSanitizer ? 65536 : 16777215;

/** A server whose port the test can learn, also when the system has chosen it. */
class Reachable {
public:
    virtual int boundPort() const = 0;

protected:
    ~Reachable() = default;
};

template <typename Server>
class ReachableServer : public Probe<Server>, public Reachable {
public:
    using Probe<Server>::Probe;

    int boundPort() const override { return localPort(socketOf(*this)); }
};

int portOf(VornIPCServer& server) {
    return dynamic_cast<const Reachable&>(server).boundPort();
}

/** One way of having a server. */
struct ServerKind {
    std::string name;
    /** Makes a server; the port is one that no other test uses. */
    std::function<VornIPCServer*(int port)> make;
    /** Makes a client that sends the bytes; empty for a kind whose servers never have clients. */
    std::function<UniqueFd(VornIPCServer& server, const std::string& data)> meet;
    /** What a wait tells that a signal has interrupted. */
    std::optional<Failure> interrupted;
    /** What a wait may tell that was closed at its very start. */
    std::optional<Failure> closedEarly;

    friend void PrintTo(const ServerKind& kind, std::ostream* out) { *out << kind.name; }
};

ServerKind pipeKind(const std::string& name) {
    return {name, [](int) { return new VornPipeServer(pipeName); },
            [](VornIPCServer&, const std::string& data) {
                UniqueFd peer = unixConnect(pipePath(pipeName));
                sendAll(peer.get(), data);
                return peer;
            },
            Failure{"VornPipeServer::waitForClient: pipe read error. ", 0},
            Failure{"VornPipeServer::waitForClient: pipe not setup. ", 0}};
}

enum class Port { Fixed, Any };

ServerKind tcpKind(const std::string& name, const char* bound, const char* reached, Port choice) {
    return {name,
            [=](int port) {
                return new ReachableServer<VornServerSocket>(choice == Port::Any ? 0 : port, 5, bound);
            },
            [=](VornIPCServer& server, const std::string& data) {
                UniqueFd peer = tcpConnect(reached, portOf(server));
                sendAll(peer.get(), data);
                return peer;
            },
            std::nullopt, std::nullopt};
}

ServerKind udpKind(const std::string& name, const char* bound, const char* reached, Port choice) {
    return {name,
            [=](int port) {
                return new ReachableServer<VornUDPServerSocket>(choice == Port::Any ? 0 : port, bound,
                                                                udpBuffer);
            },
            [=](VornIPCServer& server, const std::string& data) {
                int own = 0;
                UniqueFd peer = udpSocket(reached, own);
                udpSendTo(peer.get(), reached, portOf(server), data);
                return peer;
            },
            std::nullopt, std::nullopt};
}

ServerKind sslKind(const std::string& name) {
    return {name,
            [](int port) {
                return new VornSSLServerSocket(port, VornCertificate("c.pem", "PEM", "k.pem", "PEM"), 5, "*");
            },
            {},
            std::nullopt,
            std::nullopt};
}

const std::vector<ServerKind>& kinds() {
    static const std::vector<ServerKind> table = {
        pipeKind("pipe"),
        tcpKind("tcp", "*", "127.0.0.1", Port::Fixed),
        tcpKind("tcp_lan", lanAddress, lanAddress, Port::Fixed),
        tcpKind("tcp_any_port", "*", "127.0.0.1", Port::Any),
        udpKind("udp", "*", "127.0.0.1", Port::Fixed),
        udpKind("udp_lan", lanAddress, lanAddress, Port::Fixed),
        udpKind("udp_any_port", "*", "127.0.0.1", Port::Any),
        sslKind("ssl"),
    };
    return table;
}

/**
 * Uses sockets of its own all the time; whoever touches one of them by a number it had before is found out.
 */
void useSockets() {
    int tcpPort = 0;
    const UniqueFd listener = tcpListen("127.0.0.1", tcpPort);
    UniqueFd client = tcpConnect("127.0.0.1", tcpPort);
    const UniqueFd accepted = acceptClient(listener.get());
    sendAll(client.get(), "own");
    EXPECT_EQ(receiveExactly(accepted.get(), 3), "own");
    int udpPort = 0;
    const UniqueFd datagrams = udpSocket("127.0.0.1", udpPort);
    udpSendTo(datagrams.get(), "127.0.0.1", udpPort, "own");
    EXPECT_EQ(receiveDatagram(datagrams.get()), "own");
    reset(client);
}

class ServerConformance : public ServerTest, public testing::WithParamInterface<ServerKind> {
protected:
    VornIPCServer& server() { return *m_spServer; }

    static bool hasClients() { return static_cast<bool>(GetParam().meet); }

    /** Waits until the thread can be met, or until its wait is over where there are no clients. */
    static void awaitReady(ClientWait& wait) {
        if (hasClients()) {
            wait.server().waitForInit();
            ASSERT_TRUE(wait.awaitBlocked());
        } else {
            ASSERT_TRUE(awaitCondition([&] { return wait.thread().finished(); }));
        }
    }

    /** One client is served, or none where there are none. */
    void serveClient(char value) {
        ClientWait wait(server());
        awaitReady(wait);
        UniqueFd peer;
        if (hasClients())
            peer = GetParam().meet(server(), std::string("\0", 1) + value);
        checkClient(wait.outcome(), value);
        if (peer)
            reset(peer);
    }

    static void checkClient(const WaitOutcome& outcome, char value) {
        EXPECT_EQ(outcome.failure, std::nullopt);
        ASSERT_EQ(outcome.client() != nullptr, hasClients());
        if (hasClients()) {
            EXPECT_EQ(outcome.client()->receiveShort(), value);
            EXPECT_EQ(outcome.client()->getRemoteName(), "");
            EXPECT_EQ(outcome.client()->refCount(), 1);
        }
    }

    struct CycleResult {
        int clients = 0;
        std::optional<Failure> firstFailure;
    };

    /** So many waits, each of them ended at a random moment by one of the closing threads. */
    CycleResult runCycles(int cycles, int closers);

    static inline int s_nextPort = 5023;
    VornSmartPointer<VornIPCServer> m_spServer{GetParam().make(s_nextPort++)};
};

/** Lets a random, short time pass without giving up the processor for long. */
void dawdle(std::mt19937& random) {
    for (auto left = random() % 2000; left > 0; --left)
        std::atomic_signal_fence(std::memory_order_seq_cst);
    if (random() % 4 == 0)
        std::this_thread::yield();
}

ServerConformance::CycleResult ServerConformance::runCycles(int cycles, int closers) {
    CycleResult result;
    std::atomic<bool> over{false};
    WatchedThread waiter([&] {
        for (int i = 0; i < cycles; ++i) {
            const WaitOutcome outcome = waitFor(server());
            result.clients += outcome.client() != nullptr ? 1 : 0;
            if (!result.firstFailure && outcome.failure != GetParam().closedEarly)
                result.firstFailure = outcome.failure;
        }
        over = true;
    });
    std::vector<std::unique_ptr<WatchedThread>> threads;
    for (int i = 0; i < closers; ++i) {
        threads.push_back(std::make_unique<WatchedThread>([&, i] {
            std::mt19937 random(static_cast<unsigned>(i));
            while (!over) {
                dawdle(random);
                server().close();
            }
        }));
    }
    waiter.join(std::chrono::seconds(100));
    for (const auto& thread : threads)
        EXPECT_TRUE(thread->join());
    return result;
}

} // namespace

TEST_P(ServerConformance, ServesOneClientAfterAnother) {
    for (const char value : {'a', 'b', 'c'})
        serveClient(value);
}

TEST_P(ServerConformance, WhenClosedBeforeTheFirstWait_ServesAfterwards) {
    server().close();
    serveClient('x');
}

TEST_P(ServerConformance, WhenClosedAgainAndAgainAfterEachOf200Clients_ServesThemAll) {
    for (int i = 0; i < 200 && !HasFailure(); ++i) {
        serveClient(static_cast<char>(i % 100));
        for (int times = 0; times < 3; ++times)
            server().close();
    }
}

TEST_P(ServerConformance, WhenClosedWhileAThreadWaits_ServesAfterwards) {
    for (const char value : {'a', 'b', 'c'}) {
        ClientWait wait(server());
        awaitReady(wait);
        server().close();
        expectQuiet(wait.outcome());
        serveClient(value);
    }
}

TEST_P(ServerConformance, WhenClosedWithAClientWaiting_DoesNotServeItLater) {
    {
        ClientWait first(server());
        awaitReady(first);
        UniqueFd peer;
        UniqueFd pending;
        if (hasClients()) {
            peer = GetParam().meet(server(), std::string("\0\1", 2));
            checkClient(first.outcome(), 1);
            pending = GetParam().meet(server(), std::string("\0\2", 2));
            reset(peer);
        }
        server().close();
    }
    ClientWait wait(server());
    awaitReady(wait);
    server().close();
    expectQuiet(wait.outcome());
}

TEST_P(ServerConformance, WhenDestroyedWhileAThreadWaits_EndsTheWaitQuietly) {
    ClientWait wait(server());
    awaitReady(wait);
    m_spServer = nullptr;
    expectQuiet(wait.outcome());
}

TEST_P(ServerConformance, OpensNoDescriptorThatAnotherProgramWouldInherit) {
    const std::map<int, std::string> before = descriptorTable();
    ClientWait wait(server());
    awaitReady(wait);
    for (const auto& [fd, target] : descriptorTable())
        EXPECT_TRUE(before.count(fd) != 0 || isCloseOnExec(fd)) << target;
    server().close();
    expectQuiet(wait.outcome());
}

TEST_P(ServerConformance, WhenAProgramWasStartedWhileItListened_ServesAgainAfterClose) {
    ClientWait wait(server());
    awaitReady(wait);
    // It inherits whatever is not closed when it is started.
    FILE* const bystander = ::popen("cat", "we");
    ASSERT_NE(bystander, nullptr);
    server().close();
    expectQuiet(wait.outcome());
    serveClient('x');
    EXPECT_EQ(::pclose(bystander), 0);
}

TEST_P(ServerConformance, WhenASignalInterruptsTheWait_EndsAsItsKindSays) {
    const InterruptingSignal signal;
    ClientWait wait(server());
    awaitReady(wait);
    InterruptingSignal::sendTo(wait.thread().tid());
    EXPECT_EQ(wait.outcome().client(), nullptr);
    EXPECT_EQ(wait.outcome().failure, GetParam().interrupted);
    serveClient('x');
}

TEST_P(ServerConformance, WithMoreThan1024DescriptorsOpen_ServesAndIsClosed) {
    // What was opened at construction has a low number still.
    server().close();
    const ManyDescriptors many;
    serveClient('x');
    ClientWait wait(server());
    awaitReady(wait);
    server().close();
    expectQuiet(wait.outcome());
}

TEST_P(ServerConformance, WhenTwoThreadsCloseAtOnce_NoDescriptorIsClosedTwice) {
    const int rounds = underSanitizer ? 50 : 300;
    int failedCloses = 0;
    for (int i = 0; i < rounds; ++i) {
        ClientWait wait(server());
        awaitReady(wait);
        const CallTrace trace;
        std::atomic<int> ready{0};
        const auto closeTogether = [&] {
            ++ready;
            while (ready < 2)
                std::this_thread::yield();
            server().close();
        };
        WatchedThread first(closeTogether);
        WatchedThread second(closeTogether);
        expectQuiet(wait.outcome());
        EXPECT_TRUE(first.join());
        EXPECT_TRUE(second.join());
        for (const CallRecord& call : trace.records("close"))
            failedCloses += call.error != 0 ? 1 : 0;
    }
    EXPECT_EQ(failedCloses, 0);
}

TEST_P(ServerConformance, TenThousandCycles_HaveNoFailureNoStrayClientAndNoLeak) {
    server().close();
    const int before = openDescriptors();
    const CycleResult result = runCycles(underSanitizer ? 1000 : 10000, 1);
    EXPECT_EQ(result.clients, 0);
    EXPECT_EQ(result.firstFailure, std::nullopt);
    server().close();
    EXPECT_EQ(openDescriptors(), before);
    serveClient('x');
}

TEST_P(ServerConformance, CyclesWithTwoClosingThreads_NeverTouchASocketOfSomebodyElse) {
    std::atomic<bool> over{false};
    WatchedThread stranger([&] {
        while (!over)
            useSockets();
    });
    const CycleResult result = runCycles(underSanitizer ? 300 : 1000, 2);
    over = true;
    EXPECT_TRUE(stranger.join(std::chrono::seconds(30)));
    EXPECT_EQ(stranger.exceptionText(), std::nullopt);
    EXPECT_EQ(result.clients, 0);
    EXPECT_EQ(result.firstFailure, std::nullopt);
    server().close();
    serveClient('x');
}

INSTANTIATE_TEST_SUITE_P(Kinds, ServerConformance, testing::ValuesIn(kinds()),
                         [](const testing::TestParamInfo<ServerKind>& row) { return row.param.name; });
