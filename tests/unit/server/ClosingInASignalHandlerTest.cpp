// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * A signal handler that closes the server on which its own thread waits, or ends the process there.
 */

#include <VornPipeServer.h>
#include <VornServerSocket.h>
#include <VornUDPServerSocket.h>

#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "Posix.h"
#include "Process.h"
#include "Sanitizer.h"
#include "ServerTestSupport.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

using namespace VornTest;
using VornNet::VornPipeServer;
using VornNet::VornServerSocket;
using VornNet::VornUDPServerSocket;

namespace {

constexpr int port = 6401;
constexpr int exitStatus = 3;

VornIPCServer* g_pServer = nullptr;

void closeServer(int) {
    const int savedErrno = errno;
    g_pServer->close();
    errno = savedErrno;
}

void endProcess(int) {
    std::exit(exitStatus);
}

void handle(int signalNumber, void (*handler)(int), int flags) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    ::sigaction(signalNumber, &action, nullptr);
}

std::unique_ptr<VornIPCServer> makeServer(const std::string& kind, int number = 0) {
    if (kind == "pipe")
        return std::make_unique<VornPipeServer>("signalled" + std::to_string(number));
    if (kind == "tcp")
        return std::make_unique<VornServerSocket>(port + number, 5, "127.0.0.1");
    return std::make_unique<VornUDPServerSocket>(port + number, "127.0.0.1", 1000);
}

class ClosingInASignalHandler : public LeakCheckedTest, public testing::WithParamInterface<std::string> {};

class EndingInASignalHandler : public LeakCheckedTest, public testing::WithParamInterface<std::string> {};

const auto kindName = [](const auto& kind) { return kind.param; };

} // namespace

INSTANTIATE_TEST_SUITE_P(Kind, ClosingInASignalHandler, testing::Values("tcp", "udp"), kindName);
INSTANTIATE_TEST_SUITE_P(Kind, EndingInASignalHandler, testing::Values("pipe", "tcp", "udp"), kindName);

TEST_P(ClosingInASignalHandler, EndsTheWaitOfItsThread) {
    if (underThreadSanitizer)
        GTEST_SKIP() << runsHandlersLate;
    const std::unique_ptr<VornIPCServer> other = makeServer(GetParam(), 1);
    ClientWait otherWait(*other);
    ASSERT_TRUE(otherWait.awaitBlocked());
    for (const int flags : {0, SA_RESTART}) {
        handle(SIGUSR1, closeServer, flags);
        const std::unique_ptr<VornIPCServer> server = makeServer(GetParam());
        g_pServer = server.get();
        for (int i = 0; i < 3; ++i) { // the port is free again each time
            ClientWait wait(*server);
            ASSERT_TRUE(wait.awaitBlocked());
            ::pthread_kill(wait.thread().handle(), SIGUSR1);
            expectQuiet(wait.outcome());
        }
    }
    handle(SIGUSR1, SIG_DFL, 0);
    EXPECT_FALSE(otherWait.thread().finished());
    other->close();
    expectQuiet(otherWait.outcome());
}

TEST_P(ClosingInASignalHandler, WhileAnotherThreadCloses_LeavesItToThatThread) {
    if (underThreadSanitizer)
        GTEST_SKIP() << runsHandlersLate;
    handle(SIGUSR1, closeServer, 0);
    const std::unique_ptr<VornIPCServer> server = makeServer(GetParam());
    g_pServer = server.get();
    ClientWait wait(*server);
    ASSERT_TRUE(wait.awaitBlocked());
    const FaultRule fault("shutdown", ENOBUFS, 1, FaultRule::always); // only the signal ends the wait
    WatchedThread closer([&] { server->close(); });
    ASSERT_TRUE(awaitCondition([&] { return fault.failures() > 0; }));
    ::pthread_kill(wait.thread().handle(), SIGUSR1);
    expectQuiet(wait.outcome());
    EXPECT_TRUE(closer.join());
    handle(SIGUSR1, SIG_DFL, 0);
}

KIT_ROLE(processThatEndsInASignalHandler) {
    static auto* const otherWait = new ClientWait(*makeServer(args.at(0), 1).release());
    otherWait->awaitBlocked();
    static const std::unique_ptr<VornIPCServer> server = makeServer(args.at(0));
    handle(SIGUSR1, endProcess, 0);
    const pthread_t waiting = ::pthread_self();
    std::thread([waiting, tid = currentTid()] {
        awaitBlockedInIo(tid);
        ::pthread_kill(waiting, SIGUSR1);
    }).detach();
    waitFor(*server);
    return 1;
}

TEST_P(EndingInASignalHandler, EndsTheProcessWithItsStatus) {
    ChildProcess child = ChildProcess::spawnRole("processThatEndsInASignalHandler", GetParam());
    EXPECT_EQ(child.wait(std::chrono::seconds(5)), exitStatus);
}
