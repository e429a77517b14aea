// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "BeforeAllocation.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"
#include "Posix.h"
#include "Process.h"
#include "Sandbox.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <system_error>

#include <VornLogging.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace VornTest;
using namespace std::chrono_literals;

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Kit : public LeakCheckedTest {
protected:
    void SetUp() override {
        useInterposition();
        LeakCheckedTest::SetUp();
    }
};

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

std::string resolve(const char* name) {
    char buffer[1024];
    hostent entry = {};
    hostent* result = nullptr;
    int error = 0;
    if (::gethostbyname_r(name, &entry, buffer, sizeof(buffer), &result, &error) != 0 || result == nullptr)
        return "error " + std::to_string(error);
    char text[INET_ADDRSTRLEN];
    return ::inet_ntop(AF_INET, result->h_addr_list[0], text, sizeof(text));
}

struct TcpPair {
    int port = 0;
    UniqueFd listener = tcpListen("127.0.0.1", port);
    UniqueFd client = tcpConnect("127.0.0.1", port, "127.0.0.2");
    UniqueFd server = acceptClient(listener.get());
};

} // namespace

KIT_ROLE(echo) {
    std::string line;
    while (std::getline(std::cin, line))
        std::cout << args.at(0) << line << '\n';
    std::cerr << "descriptors: " << openDescriptors() << '\n';
    return 7;
}

KIT_ROLE(environment) {
    const char* value = std::getenv("QUORAX_CALLB_CONN_TYPE");
    std::cout << (value != nullptr ? value : "none") << '\n';
    return ::access(pipeDirectory(), F_OK);
}

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

TEST_F(Kit, HostsFileDecidesNames) {
    EXPECT_EQ(resolve("localhost"), "127.0.0.1");
    EXPECT_EQ(resolve("alpha"), "error " + std::to_string(HOST_NOT_FOUND));
    useHostsFile("127.0.0.9 alpha\n");
    EXPECT_EQ(resolve("alpha"), "127.0.0.9");
    useHostsFile("127.0.0.10 beta alpha\n");
    EXPECT_EQ(resolve("alpha"), "127.0.0.10");
    EXPECT_EQ(resolve("localhost"), "error " + std::to_string(HOST_NOT_FOUND));
}

TEST_F(Kit, GroupFileDecidesGroups) {
    useGroupFile("root:x:0:\nfalcon:x:4711:\n");
    EXPECT_EQ(readTextFile("/etc/group"), "root:x:0:\nfalcon:x:4711:\n");
}

TEST_F(Kit, HexTextIsReversible) {
    EXPECT_EQ(bytes("00 01fF"), std::string("\0\1\xff", 3));
    EXPECT_EQ(hex(bytes("00 01 ff")), "00 01 ff");
    EXPECT_THROW(bytes("0"), std::invalid_argument);
    EXPECT_THROW(bytes("zz"), std::invalid_argument);
}

TEST_F(Kit, TcpPeersTalk) {
    TcpPair pair;
    sendAll(pair.client.get(), "hello");
    EXPECT_EQ(receiveExactly(pair.server.get(), 5), "hello");
    EXPECT_EQ(peerAddress(pair.server.get()), "127.0.0.2");
    EXPECT_EQ(peerPort(pair.client.get()), pair.port);
    pair.server.reset();
    EXPECT_EQ(receiveToEnd(pair.client.get()), "");
}

TEST_F(Kit, ResetReachesPeer) {
    TcpPair pair;
    resetOnClose(pair.client.get());
    pair.client.reset();
    EXPECT_THROW(receiveToEnd(pair.server.get()), std::system_error);
}

TEST_F(Kit, UnixPeersTalk) {
    const std::string path = pipePath("selftest");
    {
        const UniqueFd listener = unixListen(path);
        const UniqueFd client = unixConnect(path);
        const UniqueFd server = acceptClient(listener.get());
        sendAll(server.get(), "ab");
        EXPECT_THROW(
            {
                ::shutdown(server.get(), SHUT_WR);
                receiveExactly(client.get(), 3);
            },
            std::system_error);
    }
    EXPECT_EQ(::unlink(path.c_str()), 0);
    EXPECT_THROW(unixConnect(path), std::system_error);
}

TEST_F(Kit, UdpPeersTalk) {
    int portA = 0;
    int portB = 0;
    const UniqueFd a = udpSocket("127.0.0.1", portA);
    const UniqueFd b = udpSocket("127.0.0.1", portB);
    udpSendTo(a.get(), "127.0.0.1", portB, "one");
    udpSendTo(a.get(), "127.0.0.1", portB, "");
    const Datagram datagram = receiveDatagramFrom(b.get());
    EXPECT_EQ(datagram.data, "one");
    EXPECT_EQ(datagram.address, "127.0.0.1");
    EXPECT_EQ(datagram.port, portA);
    EXPECT_EQ(receiveDatagram(b.get()), "");
}

TEST_F(Kit, Ipv6LoopbackWorksWhereThereIsOne) {
    if (::access("/proc/net/if_inet6", F_OK) != 0)
        return; // a kernel without IPv6
    int port = 0;
    const UniqueFd listener = tcpListen("::1", port);
    const UniqueFd client = tcpConnect("::1", port);
    EXPECT_EQ(peerAddress(client.get()), "::1");
}

TEST_F(Kit, UnusedPortsRefuse) {
    const int port = unusedTcpPort();
    EXPECT_THROW(tcpConnect("127.0.0.1", port), std::system_error);
    EXPECT_GT(unusedUdpPort(), 0);
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

TEST_F(Kit, WatchedThreadKeepsExceptions) {
    WatchedThread standard([] { throw std::runtime_error("broken"); });
    WatchedThread other([] { throw 5; });
    EXPECT_TRUE(standard.join());
    EXPECT_TRUE(other.join());
    EXPECT_EQ(standard.exceptionText(), "broken");
    EXPECT_EQ(other.exceptionText(), "int");
    EXPECT_THROW(std::rethrow_exception(standard.exception()), std::runtime_error);
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

TEST_F(Kit, RoleTalksToTest) {
    const UniqueFd inheritable(::fcntl(STDERR_FILENO, F_DUPFD, 100));
    ChildProcess child = ChildProcess::spawnRole("echo", "<");
    child.writeLine("one");
    EXPECT_EQ(child.readLine(), "<one");
    child.writeLine("two");
    child.closeInput();
    EXPECT_EQ(child.wait(), 7);
    EXPECT_EQ(child.readAllOutput(), "<two\n");
    EXPECT_THAT(child.readAllErrors(), HasSubstr("descriptors: 3"));
}

TEST_F(Kit, RoleSharesSandboxAndGetsEnvironment) {
    ChildProcess child = ChildProcess::spawnRoleWith({"QUORAX_CALLB_CONN_TYPE=udp"}, "environment");
    EXPECT_EQ(child.readLine(), "udp");
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(std::getenv("QUORAX_CALLB_CONN_TYPE"), nullptr);
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

TEST_F(Kit, ProgramsCanBeStarted) {
    ChildProcess child = ChildProcess::spawn({"sh", "-c", "echo \"$KIT\"; exit 3"}, {"KIT=text"});
    EXPECT_EQ(child.readAllOutput(), "text\n");
    EXPECT_EQ(child.wait(), 3);
    EXPECT_THROW(ChildProcess::spawn({"/no/such/program"}), std::system_error);
}

TEST_F(Kit, FaultRuleFailsTheRightCalls) {
    FaultRule fault("socket", EMFILE, 2, 2);
    const UniqueFd first(::socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_TRUE(first);
    EXPECT_EQ(::socket(AF_INET, SOCK_STREAM, 0), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(::socket(AF_INET, SOCK_STREAM, 0), -1);
    const UniqueFd fourth(::socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_TRUE(fourth);
    EXPECT_EQ(fault.calls(), 4);
    EXPECT_EQ(fault.failures(), 2);
}

TEST_F(Kit, FailedCloseClosesNevertheless) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    FaultRule fault("close", EIO, 1, FaultRule::always);
    EXPECT_EQ(::close(fd), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(Kit, FaultRuleCanBeLimitedAndReturnAnything) {
    TcpPair pair;
    FaultRule select("select", 0);
    select.returning(5).onlyThread(currentTid());
    EXPECT_EQ(::select(0, nullptr, nullptr, nullptr, nullptr), 5);
    FaultRule send("send", EPIPE, 1, FaultRule::always);
    send.onlyDescriptor(pair.server.get());
    sendAll(pair.client.get(), "x");
    EXPECT_THROW(sendAll(pair.server.get(), "x"), std::system_error);
    EXPECT_EQ(send.calls(), 1);
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

TEST_F(Kit, TraceRecordsCalls) {
    CallTrace trace(CallTrace::Scope::CallingThread);
    WatchedThread([] { ::shutdown(-1, SHUT_RD); }).join();
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(::shutdown(fd, SHUT_WR), -1);
    EXPECT_EQ(::close(fd), 0);
    EXPECT_THAT(trace.names(), ElementsAre("socket", "shutdown", "close"));
    EXPECT_EQ(trace.calls("shutdown"), 1);
    const CallRecord record = trace.records("shutdown").at(0);
    EXPECT_EQ(record.argument, fd);
    EXPECT_EQ(record.second, SHUT_WR);
    EXPECT_EQ(record.result, -1);
    EXPECT_EQ(record.error, ENOTCONN);
}

TEST_F(Kit, RecvScriptReplacesResults) {
    TcpPair pair;
    const int fd = pair.server.get();
    RecvScript script({RecvStep::failure(EINTR), RecvStep::bytes("abc"), RecvStep::end()}, fd);
    char buffer[2];
    EXPECT_EQ(::recv(fd, buffer, 2, MSG_PEEK), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(::recv(fd, buffer, 2, 0), 2);
    EXPECT_EQ(std::string(buffer, 2), "ab");
    EXPECT_EQ(::recv(fd, buffer, 2, 0), 1);
    EXPECT_FALSE(script.exhausted());
    EXPECT_EQ(::recv(fd, buffer, 2, 0), 0);
    EXPECT_TRUE(script.exhausted());
    sendAll(pair.client.get(), "z");
    EXPECT_EQ(::recv(fd, buffer, 2, 0), 1);
    ASSERT_EQ(script.requests().size(), 5U);
    EXPECT_EQ(script.requests()[0].flags, MSG_PEEK);
    EXPECT_EQ(script.requests()[0].buffer, buffer);
    EXPECT_EQ(script.requests()[0].length, 2U);
}

TEST_F(Kit, TransferLimitMakesShortTransfers) {
    TcpPair pair;
    const TransferLimit limit(2);
    EXPECT_EQ(::send(pair.client.get(), "12345", 5, 0), 2);
    char buffer[5];
    EXPECT_EQ(::recv(pair.server.get(), buffer, 5, 0), 2);
}

TEST_F(Kit, HookRunsBeforeTheCall) {
    int calls = 0;
    const CallHook hook("close", [&] { ++calls; });
    const CallTrace trace;
    ::close(-1);
    ::close(-1);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(trace.calls("close"), 2);
}

TEST_F(Kit, HeldCallWaitsBeforeItIsMade) {
    HeldCall held("close");
    const CallTrace trace;
    WatchedThread caller([] { ::close(-1); });
    EXPECT_TRUE(held.awaitReached());
    EXPECT_EQ(trace.calls("close"), 0);
    held.open();
    EXPECT_TRUE(caller.join());
    EXPECT_EQ(trace.calls("close"), 1);
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

TEST_F(Kit, ResolverFailuresCanBeInjected) {
    FaultRule fault("gethostbyname_r", TRY_AGAIN);
    fault.returning(0);
    EXPECT_EQ(resolve("localhost"), "error " + std::to_string(TRY_AGAIN));
    EXPECT_EQ(resolve("localhost"), "127.0.0.1");
}

TEST_F(Kit, LogRecordsAreCaptured) {
    LogCapture capture(5);
    VornSupport::VornLogging& logger = VornSupport::VornLogging::getInstance();
    logger << VornSupport::setloglevel(3) << "first" << VornSupport::endrecord;
    WatchedThread thread(
        [&] { logger << VornSupport::setloglevel(5) << "second" << VornSupport::endrecord; });
    EXPECT_TRUE(capture.await("second"));
    EXPECT_TRUE(thread.join());
    EXPECT_THAT(capture.texts(), ElementsAre("first", "second"));
    EXPECT_TRUE(capture.contains(3, "first"));
    EXPECT_FALSE(capture.contains(5, "first"));
    EXPECT_EQ(capture.count("s"), 2);
    EXPECT_FALSE(capture.await("third", 10ms));
    EXPECT_EQ(VornSupport::VornLogging::getInstance().getLogLevel(), 5);
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
