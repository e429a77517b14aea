// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "BeforeAllocation.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "Posix.h"
#include "Process.h"
#include "Sandbox.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <system_error>

#include <VornLogging.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace VornTest;
using namespace std::chrono_literals;

namespace {

using testing::HasSubstr;

class Kit : public LeakCheckedTest {};

/** A test that is run by hand, as it must fail. */
class LeakyKit : public LeakCheckedTest {
public:
    explicit LeakyKit(int expected) : m_expected(expected) {}

    void runOnce() {
        SetUp();
        m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        expectDescriptorLeak(m_expected);
        TearDown();
    }

    int fd() const { return m_fd; }

private:
    void TestBody() override {}

    int m_expected;
    int m_fd = -1;
};

struct TcpPair {
    int port = 0;
    UniqueFd listener = tcpListen("127.0.0.1", port);
    UniqueFd client = tcpConnect("127.0.0.1", port, "127.0.0.2");
    UniqueFd server = acceptClient(listener.get());
};

} // namespace

KIT_ROLE(sleeper) {
    std::cout << "ready" << std::endl;
    std::cin.get();
    return 0;
}

KIT_ROLE(pipeSignal) {
    std::signal(SIGPIPE, SIG_DFL);
    int ends[2];
    if (::pipe(ends) != 0 || ::close(ends[0]) != 0)
        return 1;
    return ::write(ends[1], "x", 1) == 1 ? 2 : 3;
}

TEST_F(Kit, SandboxHasPipeDirectoryAndNothingElse) {
    needSandbox("a sandbox to be tested");
    struct stat information = {};
    ASSERT_EQ(::stat(pipeDirectory(), &information), 0);
    EXPECT_EQ(information.st_mode & 07777, 0770U);
    EXPECT_NE(::access("/opt/vorn", W_OK), -1);
    EXPECT_EQ(pipePath("x"), std::string(pipeDirectory()) + "x");
}

TEST_F(Kit, LeaksAreReported) {
    int fd = -1;
    EXPECT_NONFATAL_FAILURE(
        {
            LeakyKit test(0);
            test.runOnce();
            fd = test.fd();
        },
        "left open: descriptor");
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(Kit, ExpectedLeaksAreClosed) {
    LeakyKit test(1);
    test.runOnce();
    EXPECT_FALSE(isOpen(test.fd()));
}

TEST_F(Kit, WatchedThreadIsSeenBlocked) {
    TcpPair pair;
    char buffer[1];
    WatchedThread thread([&] { EXPECT_EQ(::recv(pair.server.get(), buffer, 1, 0), 1); });
    EXPECT_TRUE(awaitBlockedIn(thread.tid(), {SYS_recvfrom}));
    EXPECT_TRUE(awaitBlockedInIo(thread.tid()));
    EXPECT_FALSE(thread.finished());
    EXPECT_NONFATAL_FAILURE(EXPECT_FALSE(thread.join(10ms)), "did not end within 10 ms");
    sendAll(pair.client.get(), "x");
    EXPECT_TRUE(thread.join());
    EXPECT_EQ(thread.exceptionText(), std::nullopt);
}

TEST_F(Kit, WatchedThreadSurvivesCancellationInAnInterposedCall) {
    TcpPair pair;
    CallTrace trace;
    char buffer[1];
    WatchedThread thread([&] { ::recv(pair.server.get(), buffer, 1, 0); });
    EXPECT_TRUE(awaitBlockedInIo(thread.tid()));
    ::pthread_cancel(thread.handle());
    EXPECT_TRUE(thread.join());
    EXPECT_EQ(thread.exceptionText(), "cancelled");
}

TEST_F(Kit, LockedThreadIsSeenBlocked) {
    std::mutex mutex;
    std::unique_lock<std::mutex> lock(mutex);
    WatchedThread thread([&] { const std::lock_guard<std::mutex> inner(mutex); });
    EXPECT_TRUE(awaitBlockedOnLock(thread.tid()));
    lock.unlock();
    EXPECT_TRUE(thread.join());
}

TEST_F(Kit, ConditionWhichNeverComesTrueTimesOut) {
    EXPECT_FALSE(awaitCondition([] { return false; }, 20ms));
}

TEST_F(Kit, ChildIsKilledAtItsEnd) {
    ChildProcess child = ChildProcess::spawnRole("sleeper");
    EXPECT_EQ(child.readLine(), "ready");
    EXPECT_THROW(child.readLine(20ms), std::system_error);
    EXPECT_THROW(child.wait(20ms), std::system_error);
    const pid_t pid = child.pid();
    child = ChildProcess::spawnRole("sleeper");
    EXPECT_EQ(::kill(pid, 0), -1);
    child.kill(SIGTERM);
    EXPECT_EQ(child.wait(), 128 + SIGTERM);
}

TEST_F(Kit, SignalsOfRolesAreTold) {
    EXPECT_EQ(ChildProcess::spawnRole("pipeSignal").wait(), 128 + SIGPIPE);
}

TEST_F(Kit, FailedCloseClosesNevertheless) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    FaultRule fault("close", EIO, 1, FaultRule::always);
    EXPECT_EQ(::close(fd), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(Kit, SharedLibrariesAreInterposed) {
    // The logger's default output is the library's own write(2).
    FaultRule fault("write", EIO, 1, FaultRule::always);
    VornSupport::VornLogging::getInstance().setLogLevel(9);
    VornSupport::VornLogging::getInstance()
        << VornSupport::setloglevel(1) << "lost" << VornSupport::endrecord;
    VornSupport::VornLogging::getInstance().setLogLevel(VornSupport::VornLogging::cOff);
    EXPECT_EQ(fault.failures(), 1);
}

TEST_F(Kit, ActionComesBeforeTheNextAllocationOfItsThread) {
    int actions = 0;
    const std::function<void()> action = [&] { actions += std::string(100, 'x').size() == 100 ? 1 : 0; };
    beforeNextAllocation(action);
    WatchedThread([] { EXPECT_EQ(std::string(100, 'x').size(), 100U); }).join();
    const std::string second(100, 'x');
    const std::string third(100, 'x');
    EXPECT_EQ(actions, 1);
}

TEST(KitGuard, HangingTestIsDescribed) {
    constexpr const char* hangs = "VORNTEST_HANGS";
    if (std::getenv(hangs) != nullptr) { // in the child, which the guard ends
        const WatchedThread thread([] { ::pause(); });
        return;
    }
    ChildProcess child =
        ChildProcess::spawn({"/proc/self/exe", "--gtest_filter=KitGuard.HangingTestIsDescribed"},
                            {"VORNTEST_GUARD_SECONDS=1", std::string(hangs) + "=1"});
    const std::string errors = child.readAllErrors();
    EXPECT_EQ(child.wait(), 128 + SIGABRT);
    EXPECT_THAT(errors, HasSubstr("test KitGuard.HangingTestIsDescribed hangs"));
    EXPECT_THAT(errors, HasSubstr("comm="));
}
