// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "QuietThread.h"
#include "LeakCheckedTest.h"

#include <csignal>
#include <future>

#include <gtest/gtest.h>
#include <sys/prctl.h>

using VornNet::QuietThread;

namespace {

class QuietThreadTest : public VornTest::LeakCheckedTest {};

sigset_t currentMask() {
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return mask;
}

} // namespace

TEST_F(QuietThreadTest, HasAllSignalsBlockedAndItsStarterHasNot) {
    QuietThread thread;
    std::promise<sigset_t> seen;
    thread.start("quiet", [&seen] { seen.set_value(currentMask()); });
    const sigset_t theirs = seen.get_future().get();
    thread.join();
    const sigset_t mine = currentMask();
    for (const int number :
         {SIGHUP, SIGINT, SIGPIPE, SIGALRM, SIGTERM, SIGCHLD, SIGSEGV, SIGRTMIN, SIGRTMAX}) {
        EXPECT_EQ(::sigismember(&theirs, number), 1) << number;
        EXPECT_EQ(::sigismember(&mine, number), 0) << number;
    }
}

TEST_F(QuietThreadTest, SleepsNoLongerThanAskedFor) {
    QuietThread thread;
    std::promise<int> slack;
    thread.start("quiet", [&slack] { slack.set_value(::prctl(PR_GET_TIMERSLACK)); });
    EXPECT_EQ(slack.get_future().get(), 1);
    thread.join();
}
