// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * Sinks in a process that forks, starts programs, or exits from a callback.
 */

#include "ForkedChild.h"
#include "Interpose.h"
#include "NotificationPeer.h"
#include "Process.h"
#include "Sanitizer.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <spawn.h>
#include <unistd.h>

using namespace VornTest;

namespace {

using testing::Values;
using Connection = VornNet::VornSmartPointer<VornNet::VornConnection>;

constexpr int everyTime = std::numeric_limits<int>::max();

class VornLibraryCallbackSink_Fork : public NotificationTestOfKind {};

class VornLibraryCallbackSink_ForkOnPorts : public NotificationTestOfKind {};

class VornLibraryCallbackSink_ForkOnStreams : public NotificationTestOfKind {};

INSTANTIATE_TEST_SUITE_P(Kind, VornLibraryCallbackSink_Fork, Values(Kind::pipe, Kind::socket, Kind::udp),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Kind, VornLibraryCallbackSink_ForkOnPorts, Values(Kind::socket, Kind::udp),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Kind, VornLibraryCallbackSink_ForkOnStreams, Values(Kind::pipe, Kind::socket),
                         testing::PrintToStringParamName());

/** Starts a program that does nothing, as posix_spawn() does it: without the handlers of fork(). */
pid_t spawnProgram() {
    pid_t child = -1;
    std::array<char*, 2> arguments{const_cast<char*>("true"), nullptr};
    EXPECT_EQ(::posix_spawnp(&child, "true", nullptr, nullptr, arguments.data(), environ), 0);
    return child;
}

/** Starts one by fork() and exec. */
pid_t forkProgram() {
    const pid_t child = ::fork();
    if (child == 0) {
        ::execlp("true", "true", nullptr);
        ::_exit(1);
    }
    return child;
}

/** The sink of a process that ends while it is there. */
std::unique_ptr<SinkProbe> g_sink;

} // namespace

TEST_P(VornLibraryCallbackSink_Fork, LetsGoOfItsServerInTheChild) {
    const int without = openDescriptors();
    WatchedSink sink(GetParam());
    ASSERT_TRUE(sink.awaitServing());
    const CallbackPointer callback = addCallback(*sink);
    EXPECT_EQ(inChild([without] { return openDescriptors() == without ? 0 : 1; }), 0);
    deliver(sink, callback, "still there");
    EXPECT_THAT(callback->contents(), testing::ElementsAre("still there"));
}

TEST_P(VornLibraryCallbackSink_Fork, LeavesAPendingCancellationToTheChild) {
    WatchedSink sink(GetParam());
    ASSERT_TRUE(sink.awaitServing());
    pid_t child = -1;
    WatchedThread forker([&] {
        ::pthread_cancel(::pthread_self());
        child = ::fork(); // is no place where a thread can be cancelled
        if (child == 0) {
            ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); // the coverage is written to files
            ::_exit(exitStatus);
        }
        ::pthread_testcancel();
    });
    EXPECT_TRUE(forker.join());
    EXPECT_EQ(statusOf(child), exitStatus);
}

TEST_P(VornLibraryCallbackSink_Fork, DestroyedInTheChildAlsoDuringADelivery_ServesTheParent) {
    WatchedSink sink(GetParam());
    const auto destroyInChild = [&sink] {
        return inChild([&sink] {
            sink.destroy();
            return 0;
        });
    };
    ASSERT_TRUE(sink.awaitServing());
    EXPECT_EQ(destroyInChild(), 0);
    HeldCallback held;
    const CallbackPointer callback = addCallback(*sink, held.action());
    sendWhenServing(sink, onWire(0));
    ASSERT_TRUE(held.awaitEntered());
    EXPECT_EQ(destroyInChild(), 0);
    held.letGoOn();
    EXPECT_TRUE(callback->awaitCalls(1));
    deliver(sink, callback, "");
}

TEST_P(VornLibraryCallbackSink_ForkOnPorts, LetsGoOfThePortThatItIsAboutToOpen) {
    const int without = openDescriptors();
    HeldCall held("getsockname");
    WatchedThread starter([] { const WatchedSink sink(GetParam()); });
    ASSERT_TRUE(held.awaitReached());
    EXPECT_EQ(inChild([without] { return openDescriptors() == without ? 0 : 1; }), 0);
    // A file of the child's may have the socket's number then.
    EXPECT_EQ(inChild([] {
                  const UniqueFd file(::dup(STDERR_FILENO));
                  return inChild([&file] { return isOpen(file.get()) ? 0 : 1; });
              }),
              0);
    held.open();
    EXPECT_TRUE(starter.join());
}

TEST_P(VornLibraryCallbackSink_ForkOnPorts, ForkedByTheThreadThatOpensThePort_LeavesItToTheChild) {
    const int without = openDescriptors();
    int status = hangs;
    {
        const CallHook fork("getsockname", [&] {
            status = inChild([without] { return openDescriptors() == without + 1 ? 0 : 1; });
        });
        WatchedSink sink(GetParam());
        EXPECT_TRUE(sink.awaitServing());
    }
    EXPECT_EQ(status, 0);
}

TEST_P(VornLibraryCallbackSink_ForkOnStreams, LetsGoOfTheConnectionThatItServes) {
    const int without = openDescriptors();
    WatchedSink sink(GetParam());
    ASSERT_TRUE(sink.awaitServing());
    const UniqueFd silent = connectToSink(sink.address());
    ASSERT_TRUE(sink.awaitReading());
    EXPECT_EQ(inChild([without] { return openDescriptors() == without + 1 ? 0 : 1; }), 0);
}

/*
 * A program that was started holds the port until it runs. A sink that meets it pauses; that this machine
 * runs the program within the sink's pauses is not what is tested, so that they last until it does.
 */

TEST_P(VornLibraryCallbackSink_ForkOnPorts, WhenACallbackStartsPrograms_StaysAtItsAddress) {
    WatchedSink sink(GetParam());
    const std::string address = sink.address();
    std::atomic<pid_t> child = -1; // of the sink's thread, and at the end of this one
    const auto awaitChild = [&child] {
        if (const pid_t started = child.exchange(-1); started != -1) {
            EXPECT_EQ(statusOf(started), 0);
        }
    };
    const CallHook pause("clock_nanosleep", awaitChild, everyTime);
    const CallbackPointer callback = addCallback(*sink, [&](Connection& connection) {
        awaitChild();
        child = forkProgram();
        return readToEnd(*connection);
    });
    for (int i = 0; i < 60; ++i)
        ASSERT_NO_FATAL_FAILURE(deliver(sink, callback, "x")) << i;
    EXPECT_EQ(sink.address(), address);
    EXPECT_TRUE(sink.awaitServing());
    awaitChild();
}

TEST_P(VornLibraryCallbackSink_ForkOnPorts, WhenAnotherThreadStartsPrograms_StaysAtItsAddress) {
    WatchedSink sink(GetParam());
    const std::string address = sink.address();
    const CallbackPointer callback = addCallback(*sink);
    std::mutex starting;
    const CallHook pause(
        "clock_nanosleep", [&] { const std::lock_guard hasEnded(starting); }, everyTime);
    std::jthread starter([&](const std::stop_token& token) {
        while (!token.stop_requested()) {
            const std::lock_guard begins(starting);
            EXPECT_EQ(statusOf(spawnProgram()), 0);
        }
    });
    for (int i = 0; i < 200; ++i)
        ASSERT_NO_FATAL_FAILURE(deliver(sink, callback, "x")) << i;
    EXPECT_EQ(sink.address(), address);
}

KIT_ROLE(sinkWhoseCallbackExits) {
    useTypeText(args.at(0));
    g_sink = std::make_unique<SinkProbe>("exiting");
    addCallback(*g_sink, [bLetsGo = args.at(1) == "without server"](Connection&) -> std::string {
        if (bLetsGo)
            g_sink->m_spCallbackServer = nullptr; // as a derived class may do
        std::exit(exitStatus);
    });
    std::cout << g_sink->getCallbackAddress() << std::endl;
    std::cin.get();
    return 0;
}

TEST_P(VornLibraryCallbackSink_Fork, WhenACallbackExits_EndsWithItsProcess) {
    for (const char* how : {"with server", "without server"}) {
        ChildProcess child =
            ChildProcess::spawnRoleWith(exitOnAnyThread, "sinkWhoseCallbackExits", {nameOf(GetParam()), how});
        sendByHand(child.readLine(), onWire(0));
        EXPECT_EQ(child.wait(), exitStatus) << how;
        EXPECT_EQ(child.readAllErrors(), "") << how;
    }
}

KIT_ROLE(sinkWhoseChildrenExit) {
    useTypeText(args.at(0));
    g_sink = std::make_unique<SinkProbe>("forking");
    const CallbackPointer callback = addCallback(*g_sink, [&](Connection& connection) {
        const pid_t child = ::fork();
        if (child == 0 && args.at(1) == "throws")
            throw exitStatus; // it ends the thread, and with its last thread the child
        if (child == 0)
            std::exit(exitStatus);
        return readToEnd(*connection) + ", the callback's child: " + std::to_string(statusOf(child));
    });
    printLine("main's child: " + childThatExits());
    printLine(g_sink->getCallbackAddress());
    if (callback->awaitCalls(1))
        printLine(callback->contents().at(0));
    return 0;
}

TEST_P(VornLibraryCallbackSink_Fork, WhenChildrenExit_ServesTheParent) {
    for (const bool bThrows : {false, true}) {
        ChildProcess child = ChildProcess::spawnRoleWith(exitOnAnyThread, "sinkWhoseChildrenExit",
                                                         {nameOf(GetParam()), bThrows ? "throws" : "exits"});
        EXPECT_EQ(child.readLine(), "main's child: 7");
        sendByHand(child.readLine(), onWire(0) + "served");
        // The thread sanitizer itself falls, with 66, when the only thread of a child ends.
        const std::string status = !bThrows ? "7" : underThreadSanitizer ? "66" : "0";
        EXPECT_EQ(child.readLine(), "served, the callback's child: " + status);
        EXPECT_EQ(child.wait(), 0);
    }
}
