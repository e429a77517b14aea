// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "LeakCheckedTest.h"
#include "Posix.h"
#include "Process.h"

#include <csignal>
#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace VornTest;
using namespace std::chrono_literals;

namespace {

using testing::HasSubstr;

class Kit : public LeakCheckedTest {};

/** A test that leaves a descriptor open. */
class LeakyKit : public LeakCheckedTest {
public:
    explicit LeakyKit(int expected) : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        expectDescriptorLeak(expected);
    }

    int fd() const { return m_fd; }

private:
    void TestBody() override {}

    const int m_fd;
};

} // namespace

TEST_F(Kit, LeaksAreReported) {
    int fd = -1;
    EXPECT_NONFATAL_FAILURE(fd = LeakyKit(0).fd(), "left open: descriptor");
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(Kit, ExpectedLeaksAreClosed) {
    const int fd = LeakyKit(1).fd();
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(Kit, ConditionWhichNeverComesTrueTimesOut) {
    EXPECT_FALSE(awaitCondition([] { return false; }, 20ms));
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
