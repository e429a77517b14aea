// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "DispatcherTestSupport.h"
#include "ForkedChild.h"
#include "Interpose.h"
#include "Process.h"
#include "Sanitizer.h"

#include <VornLogging.h>

#include <csignal>
#include <future>
#include <iostream>
#include <memory>
#include <sstream>

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

using namespace std::chrono_literals;
using namespace VornTest;

namespace {

/** What a dispatcher costs the process it lives in, and what it does to it. */
class VornDispatcher_Process : public DispatcherTest {
protected:
    static std::string taskFile(pid_t tid, const std::string& name) {
        return readTextFile("/proc/self/task/" + std::to_string(tid) + "/" + name);
    }

    /** The threads that came since @p before. */
    static std::vector<pid_t> newThreads(const std::vector<pid_t>& before) {
        std::vector<pid_t> found;
        for (const pid_t tid : threadIds()) {
            if (std::find(before.begin(), before.end(), tid) == before.end())
                found.push_back(tid);
        }
        return found;
    }

    static std::size_t bytesInUse() { return ::mallinfo2().uordblks + ::mallinfo2().hblkhd; }

    static long switchesOf(pid_t tid) {
        std::istringstream status(taskFile(tid, "status"));
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0)
                return std::stol(line.substr(24));
        }
        return -1;
    }
};

} // namespace

TEST_F(VornDispatcher_Process, ItsThreadsHaveItsNameAndAllSignalsBlocked) {
    const std::vector<pid_t> before = threadIds();
    VornDispatcher dispatcher(optionsWithResults([](auto& o) { o.sName = "a name of twenty let"; }));
    const std::vector<pid_t> threads = newThreads(before);
    EXPECT_EQ(threads.size(), 2U);
    for (const pid_t tid : threads) {
        EXPECT_EQ(taskFile(tid, "comm"), "a name of twent\n");
        // All but the two that the C library keeps for itself, and those that nobody can block.
        EXPECT_NE(taskFile(tid, "status").find("SigBlk:\tfffffffe7ffbfeff"), std::string::npos)
            << taskFile(tid, "status");
    }
    dispatcher.stop(0ms);
    // A joined thread may be listed a moment longer.
    EXPECT_TRUE(awaitCondition([&] { return newThreads(before).empty(); }));
}

TEST_F(VornDispatcher_Process, AfterStopNoDescriptorIsLeftAndEachWasCloseOnExec) {
    const auto before = descriptorTable();
    const UniqueFd listener = listen("peer");
    int nPort = 0;
    const UniqueFd socket = tcpListen("127.0.0.1", nPort);
    VornDispatcher dispatcher(optionsWithResults([](auto& o) { o.datagramPause = 10s; }));
    post(dispatcher, "pipe:peer");
    post(dispatcher, "socket:127.0.0.1:" + std::to_string(nPort));
    for (int i = 0; i < 2; ++i)
        post(dispatcher, "udp:127.0.0.1:" + std::to_string(nPort));
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nConnections == 3; }));
    for (const auto& [fd, what] : descriptorTable())
        EXPECT_TRUE(before.count(fd) != 0 || (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0) << fd << " " << what;
    dispatcher.stop(0ms);
    EXPECT_EQ(descriptorTable().size(), before.size() + 2);
}

TEST_F(VornDispatcher_Process, SigpipeAtItsDefaultDoesNoHarm) {
    struct sigaction before {};

    struct sigaction byDefault {};

    byDefault.sa_handler = SIG_DFL;
    ASSERT_EQ(::sigaction(SIGPIPE, &byDefault, &before), 0);
    int nPort = 0;
    const UniqueFd listeners[] = {listen("peer"), tcpListen("127.0.0.1", nPort)};
    VornDispatcher dispatcher;
    const std::string sContent(4UL * 1024 * 1024, 'x');
    postWith(termsOf(10s, 1), dispatcher, "pipe:peer", sContent);
    postWith(termsOf(10s, 1), dispatcher, "socket:127.0.0.1:" + std::to_string(nPort), sContent);
    for (const UniqueFd& listener : listeners) {
        const UniqueFd client = acceptClient(listener.get());
        receiveExactly(client.get(), 1000);
    }
    EXPECT_TRUE(dispatcher.flush(10s));
    EXPECT_EQ(dispatcher.statistics().nUnread, 2U);
    ::sigaction(SIGPIPE, &before, nullptr);
}

TEST_F(VornDispatcher_Process, PostingCostsNoSystemCallWhileAnEarlierOneIsOnItsWay) {
    const UniqueFd listener = listen("peer");
    VornDispatcher dispatcher;
    post(dispatcher, "pipe:peer");
    const UniqueFd client = acceptClient(listener.get());
    EXPECT_EQ(receiveToEnd(client.get()), cHandle); // and is not closed, so the thread waits for it
    const CallTrace trace(CallTrace::Scope::CallingThread);
    for (int i = 0; i < 1000; ++i)
        post(dispatcher, "pipe:peer", "content");
    EXPECT_TRUE(trace.names().empty()) << trace.names().front();
    dispatcher.cancel("pipe:peer");
}

TEST_F(VornDispatcher_Process, AnAddressForWhichNothingWaitsCostsNothing) {
    int nPort = 0;
    const UniqueFd socket = udpSocket("127.0.0.1", nPort);
    const std::vector<pid_t> before = threadIds();
    VornDispatcher dispatcher(optionsWithResults());
    const auto postToMany = [&] {
        for (int i = 0; i < 10'000; ++i)
            post(dispatcher, "udp:127.0." + std::to_string(1 + i / 250) + "." + std::to_string(1 + i % 250) +
                                 ":" + std::to_string(nPort));
        for (int i = 0; i < 10'000; ++i)
            post(dispatcher, "pipe:client" + std::to_string(i));
        for (int i = 0; i < 10'000; ++i)
            dispatcher.cancel("pipe:client" + std::to_string(i));
        for (int i = 0; i < 10'000; ++i)
            dispatcher.cancel("udp:127.0." + std::to_string(1 + i / 250) + "." + std::to_string(1 + i % 250) +
                              ":" + std::to_string(nPort));
        EXPECT_TRUE(dispatcher.flush(10s));
    };
    const std::size_t nAtFirst = bytesInUse();
    postToMany();
    EXPECT_EQ(dispatcher.statistics().nAddresses, 0U);
    ASSERT_TRUE(awaitCondition([&] { return bytesInUse() < nAtFirst + 20'000UL * 1024; }));

    const pid_t engine = newThreads(before).back();
    EXPECT_TRUE(awaitCondition([&] {
        const long nSwitches = switchesOf(engine);
        return !awaitCondition([&] { return switchesOf(engine) != nSwitches; }, 300ms);
    })) << "the thread works without work";
}

TEST_F(VornDispatcher_Process, ManyPostsLeaveNoMemory) {
    int nPort = 0;
    const UniqueFd socket = udpSocket("127.0.0.1", nPort);
    const std::string sAddress = "udp:127.0.0.1:" + std::to_string(nPort);
    VornDispatcher::Options options;
    options.datagramPause = 0us;
    options.nQueueLimit = 1000;
    options.overflow = VornDispatcher::Overflow::wait;
    VornDispatcher dispatcher(options);
    std::size_t nAfterTheFirst = 0;
    for (int i = 0; i < 200'000; ++i) {
        post(dispatcher, sAddress, "content");
        if (i == 20'000) {
            ASSERT_TRUE(dispatcher.flush(30s));
            nAfterTheFirst = bytesInUse();
        }
    }
    ASSERT_TRUE(dispatcher.flush(30s));
    EXPECT_LE(bytesInUse(), nAfterTheFirst + 64UL * 1024);
    EXPECT_EQ(dispatcher.statistics().nSent, 200'000U);
}

KIT_ROLE(forksWithADispatcher) {
    static VornDispatcher dispatcher;
    BytesProxy proxy("pipe:nobody");
    dispatcher.post(proxy, VornNotification(1));
    return std::stoi(childThatExits()); // and destroys its copy
}

TEST_F(VornDispatcher_Process, AChildThatWasForkedEndsWithoutIt) {
    EXPECT_EQ(ChildProcess::spawnRoleWith(exitOnAnyThread, "forksWithADispatcher").wait(), exitStatus);
}

TEST_F(VornDispatcher_Process, AChildThatHoldsItsSocketsDisturbsNothing) {
    const UniqueFd listener = listen("peer");
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, "pipe:peer", "content");
    const UniqueFd client = acceptClient(listener.get());
    EXPECT_EQ(receiveExactly(client.get(), 8), cHandle);
    const pid_t child = forkChild([] { return ::pause(); });
    ASSERT_NE(child, -1);
    EXPECT_EQ(dispatcher.cancel("pipe:peer"), 1U);
    EXPECT_EQ(receiveToEnd(client.get()), "content") << "although the child has the socket, too";
    sendAll(client.get(), "an event of a socket that the dispatcher has closed");
    post(dispatcher, "pipe:peer", "next");
    EXPECT_EQ(takeOne(listener.get()), cHandle + "next");
    EXPECT_TRUE(dispatcher.flush(10s));
    ::kill(child, SIGKILL);
    EXPECT_EQ(statusOf(child), 128 + SIGKILL);
}

KIT_ROLE(handlerThatExits) {
    static std::unique_ptr<VornDispatcher> spDispatcher; // which exit() destroys
    VornDispatcher::Options options;
    options.onResult = [](const Result&) { std::exit(exitStatus); };
    spDispatcher = std::make_unique<VornDispatcher>(options);
    BytesProxy proxy("pipe:nobody");
    VornDispatcher::Terms terms;
    terms.timeLimit = 1ms;
    spDispatcher->post(proxy, VornNotification(1), terms);
    ::pause();
    return 0;
}

TEST_F(VornDispatcher_Process, AResultHandlerThatExitsEndsTheProcessInGoodOrder) {
    // The thread sanitizer finds no order between the threads of a process of which one ends it.
    ChildProcess child = ChildProcess::spawnRoleWith({"TSAN_OPTIONS=report_bugs=0"}, "handlerThatExits");
    EXPECT_EQ(child.wait(), exitStatus);
    EXPECT_EQ(child.readAllErrors(), "");
}

KIT_ROLE(destroyedByItsHandler) {
    std::set_terminate([] {
        std::cout << "terminated" << std::endl;
        ::_exit(3);
    });
    VornSupport::VornLogging::setAccessAllowed(true);
    VornSupport::VornLogging::getInstance().setLogLevel(1);
    VornSupport::VornLogging::setRecordHandler(
        [](int nLevel, const std::string& sText) { std::cout << nLevel << " " << sText << std::endl; });
    VornDispatcher* pDispatcher = nullptr;
    std::promise<void> made;
    VornDispatcher::Options options;
    options.onResult = [&](const Result&) {
        made.get_future().wait();
        delete pDispatcher;
    };
    pDispatcher = new VornDispatcher(options);
    BytesProxy proxy("pipe:nobody");
    VornDispatcher::Terms terms;
    terms.timeLimit = 1ms;
    pDispatcher->post(proxy, VornNotification(1), terms);
    made.set_value();
    ::pause();
    return 0;
}

TEST_F(VornDispatcher_Process, DestroyingItInItsResultHandlerEndsTheProcess) {
    ChildProcess child = ChildProcess::spawnRole("destroyedByItsHandler");
    EXPECT_EQ(child.readLine(), "1 VornDispatcher::~VornDispatcher: destroyed by its own result handler");
    EXPECT_EQ(child.readLine(), "terminated");
    EXPECT_EQ(child.wait(), 3);
}

TEST_F(VornDispatcher_Process, AThreadCancelledWhileItWaitsLeavesEverythingInOrder) {
    if (underAddressSanitizer)
        GTEST_SKIP() << overflowsByItself;
    const UniqueFd listener = listen("peer");
    VornDispatcher dispatcher(optionsWithRoomFor(1, VornDispatcher::Overflow::wait));
    post(dispatcher, "pipe:peer");
    WatchedThread flushing([&] { dispatcher.flush(-1ms); });
    WatchedThread posting([&] { post(dispatcher, "pipe:peer"); });
    for (WatchedThread* thread : {&flushing, &posting}) {
        ASSERT_TRUE(awaitBlockedOnLock(thread->tid()));
        ::pthread_cancel(thread->handle());
        EXPECT_TRUE(thread->join());
        EXPECT_EQ(thread->exceptionText(), "cancelled");
    }
    takeOne(listener.get());
    EXPECT_TRUE(dispatcher.flush(10s));
    EXPECT_EQ(dispatcher.statistics().nPosted, 1U);
}
