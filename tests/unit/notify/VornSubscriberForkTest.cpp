// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * A subscriber in a process that forks, and in one whose handler calls exit().
 */

#include "ForkedChild.h"
#include "LeakCheckedTest.h"
#include "Process.h"
#include "Sandbox.h"
#include "Sanitizer.h"
#include "SubscriptionPeers.h"

#include <VornSubscriber.h>

#include <cstdlib>
#include <memory>

#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornTest;

namespace {

constexpr const char* positionFile = "/opt/builds.position";

/** A plain service, and a subscriber in a process of its own. */
class VornSubscriber_Fork : public LeakCheckedTest, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override { m_listener = unixListen(pipePath("alpha"), 1); }

    void TearDown() override {
        m_service.reset();
        m_listener.reset();
        ::unlink(pipePath("alpha").c_str());
        ::unlink(positionFile);
    }

    ChildProcess spawn(const std::string& role) {
        ChildProcess child =
            ChildProcess::spawnRoleWith(exitOnAnyThread, role, {GetParam() ? "thread" : "loop"});
        m_service = admitClient(m_listener.get(), {1, 1, 0, 60'000});
        return child;
    }

    void say(std::uint64_t number) { sendAll(m_service.get(), WireFrame::event(number, "").bytes()); }

    /** Whether a process has the lock on the position. */
    static bool isLocked() {
        const UniqueFd file(::open(positionFile, O_RDWR | O_CLOEXEC));
        return ::flock(file.get(), LOCK_EX | LOCK_NB) == -1;
    }

    UniqueFd m_listener;
    UniqueFd m_service;
};

INSTANTIATE_TEST_SUITE_P(Ways, VornSubscriber_Fork, testing::Bool(),
                         [](const auto& test) { return test.param ? "Thread" : "Loop"; });

/** Static, so that exit() destroys it. */
std::unique_ptr<VornSubscriber> g_subscriber;

/** Subscribes, and calls @p onEvent with each number until the test ends the input. */
int run(const std::string& way, const std::function<void(std::uint64_t)>& onEvent) {
    VornSubscriber::Options options;
    options.bOwnThread = way == "thread";
    options.sPositionFile = positionFile;
    g_subscriber = std::make_unique<VornSubscriber>(
        "pipe:alpha", "builds",
        [onEvent](VornConnection&, const VornSubscriber::Event& event) { onEvent(event.position.nNumber); },
        options);
    pollfd entries[] = {{STDIN_FILENO, POLLIN, 0}, {g_subscriber->getHandle(), POLLIN, 0}};
    while (::poll(entries, 2, -1) > 0 && entries[0].revents == 0)
        g_subscriber->dispatch();
    return 0;
}

KIT_ROLE(subscriberWhoseChildrenExit) {
    return run(args.at(0), [](std::uint64_t number) {
        std::string line = std::to_string(number);
        if (number == 1)
            line += ", the handler's child: " + childThatExits();
        if (number == 2) {
            // A thread that is not the handler's.
            WatchedThread([&] { line += ", another thread's child: " + childThatExits(); }).join();
        }
        printLine(line);
    });
}

KIT_ROLE(subscriberWhoseHandlerExits) {
    return run(args.at(0), [](std::uint64_t) { std::exit(exitStatus); });
}

TEST_P(VornSubscriber_Fork, WhenChildrenExit_TheParentIsServed) {
    ChildProcess child = spawn("subscriberWhoseChildrenExit");
    say(1);
    EXPECT_EQ(child.readLine(), "1, the handler's child: 7");
    say(2);
    EXPECT_EQ(child.readLine(), "2, another thread's child: 7");
    say(3);
    EXPECT_EQ(child.readLine(), "3");
    EXPECT_TRUE(isLocked());
    child.closeInput();
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(child.readAllErrors(), "");
}

TEST_P(VornSubscriber_Fork, WhenAHandlerExits_TheSubscriberEndsWithItsProcess) {
    ChildProcess child = spawn("subscriberWhoseHandlerExits");
    say(1);
    EXPECT_EQ(child.wait(), exitStatus);
    EXPECT_EQ(child.readAllErrors(), "");
    EXPECT_EQ(receiveToEnd(m_service.get()), "");
    EXPECT_FALSE(isLocked());
}

} // namespace
