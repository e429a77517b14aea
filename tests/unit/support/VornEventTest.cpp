// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "Posix.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <VornEvent.h>
#include <VornNotification.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>

using namespace VornTest;
using namespace std::chrono_literals;
using VornSupport::VornEvent;
using VornSupport::VornNotification;
using Clock = std::chrono::steady_clock;

namespace {

class VornEventTest : public LeakCheckedTest {
protected:
    /** Makes the event one for which the operation makes that call. */
    void prepareFor(const std::string& function) {
        if (function == "eventfd") {
            m_event.emplace();
            return;
        }
        m_event->getHandle();
        if (function == "write") {
            m_event->reset();
        } else {
            m_event->set();
        }
    }

    std::optional<VornEvent> m_event{std::in_place};
};

/** What poll() says of the descriptor, without waiting by default. */
short polled(int fd, int milliseconds = 0) {
    pollfd entry = {fd, POLLIN, 0};
    ::poll(&entry, 1, milliseconds);
    return entry.revents;
}

} // namespace

TEST_F(VornEventTest, WhenSet_StaysSetForEveryWaitUntilReset) {
    m_event->reset();
    m_event->set();
    m_event->set();
    for (const int limit : {0, 1000, -1})
        EXPECT_EQ(m_event->wait(limit), true);
    m_event->reset();
    EXPECT_EQ(m_event->wait(0), false);
}

TEST_F(VornEventTest, WhenTheTimeRunsOut_WaitIsFalseAndNotTooEarly) {
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(m_event->wait(30), false);
    EXPECT_GE(Clock::now() - start, 30ms);
}

TEST_F(VornEventTest, WhenSetByAnotherThread_EndsAWaitWithoutLimit) {
    for (const int limit : {-1, INT_MIN, INT_MAX, 100000}) {
        m_event->reset();
        bool result = false;
        WatchedThread waiter([&] { result = m_event->wait(limit); });
        EXPECT_TRUE(awaitBlockedOnLock(waiter.tid())) << "limit " << limit;
        EXPECT_FALSE(waiter.finished()) << "limit " << limit;
        m_event->set();
        EXPECT_TRUE(waiter.join());
        EXPECT_EQ(result, true) << "limit " << limit;
    }
}

TEST_F(VornEventTest, WhenSet_WakesEveryWaiter) {
    std::vector<std::unique_ptr<WatchedThread>> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.push_back(std::make_unique<WatchedThread>([this] { m_event->wait(-1); }));
        EXPECT_TRUE(awaitBlockedOnLock(waiters.back()->tid()));
    }
    m_event->set();
    for (const auto& waiter : waiters)
        EXPECT_TRUE(waiter->join());
}

TEST_F(VornEventTest, ASignalThatIsHandled_DoesNotEndAWait) {
    static std::atomic<int> handled{0};
    handled = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) { handled = 1; };
    struct sigaction oldAction = {};
    ::sigaction(SIGUSR1, &action, &oldAction);
    WatchedThread waiter([this] { m_event->wait(-1); });
    EXPECT_TRUE(awaitBlockedOnLock(waiter.tid()));
    ::pthread_kill(waiter.handle(), SIGUSR1);
    EXPECT_TRUE(awaitCondition([] { return handled == 1; }));
    EXPECT_TRUE(awaitBlockedOnLock(waiter.tid()));
    EXPECT_FALSE(waiter.finished());
    m_event->set();
    EXPECT_TRUE(waiter.join());
    ::sigaction(SIGUSR1, &oldAction, nullptr);
}

TEST_F(VornEventTest, Handle_IsReadableExactlyWhileTheEventIsSet) {
    m_event->set();
    const int handle = m_event->getHandle();
    ASSERT_GE(handle, 0);
    EXPECT_TRUE(isCloseOnExec(handle));
    EXPECT_EQ(polled(handle), POLLIN);
    m_event->reset();
    EXPECT_EQ(polled(handle), 0);
    m_event->set();
    EXPECT_EQ(polled(handle), POLLIN);
    m_event->wait(0);
    EXPECT_EQ(polled(handle), POLLIN);
    m_event->set();
    m_event->reset();
    EXPECT_EQ(polled(handle), 0);
    m_event->set();
    EXPECT_EQ(polled(handle), POLLIN);
    EXPECT_EQ(m_event->getHandle(), handle);
}

TEST_F(VornEventTest, Handle_WakesAPollOfAnotherThread) {
    const int handle = m_event->getHandle();
    short result = 0;
    WatchedThread poller([&] { result = polled(handle, -1); });
    EXPECT_TRUE(awaitBlockedIn(poller.tid(), {SYS_poll, SYS_ppoll}));
    m_event->set();
    EXPECT_TRUE(poller.join());
    EXPECT_EQ(result, POLLIN);
}

TEST_F(VornEventTest, WithoutAHandle_MakesNoSystemCall) {
    const CallTrace trace;
    {
        VornEvent event;
        event.set();
        event.wait(0);
        event.reset();
    }
    EXPECT_EQ(trace.records().size(), 0U);
}

TEST_F(VornEventTest, WhenNoDescriptorCanBeMade_HandleIsMinusOneAndWaitingStillWorks) {
    const FaultRule none("eventfd", EMFILE);
    errno = 0;
    EXPECT_EQ(m_event->getHandle(), -1);
    EXPECT_EQ(errno, EMFILE);
    m_event->set();
    EXPECT_EQ(m_event->wait(0), true);
    m_event->reset();
    EXPECT_EQ(m_event->wait(0), false);
}

TEST_F(VornEventTest, WhileOneThreadIsInAnOperation_ThoseOfAnotherWait) {
    // Each with the call that it makes.
    const std::vector<std::pair<const char*, std::function<void()>>> operations = {
        {"eventfd", [this] { m_event->getHandle(); }},
        {"write", [this] { m_event->set(); }},
        {"read", [this] { m_event->reset(); }},
    };
    for (const auto& [function, operation] : operations) {
        prepareFor(function);
        for (int other = 0; other < 4; ++other) {
            HeldCall held(function);
            WatchedThread first(operation);
            ASSERT_TRUE(held.awaitReached()) << function;
            WatchedThread second([this, other] {
                switch (other) {
                case 0:
                    m_event->set();
                    break;
                case 1:
                    m_event->reset();
                    break;
                case 2:
                    m_event->wait(0);
                    break;
                default:
                    m_event->getHandle();
                }
            });
            EXPECT_TRUE(awaitBlockedOnLock(second.tid())) << function << ' ' << other;
            EXPECT_FALSE(second.finished()) << function << ' ' << other;
            held.open();
            EXPECT_TRUE(first.join() && second.join());
            prepareFor(function);
        }
    }
}

TEST_F(VornEventTest, CreateNotification_MakesANewOneWithIdZero) {
    VornNotification* first = m_event->createNotification();
    VornNotification* second = m_event->createNotification();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->getId(), 0);
    EXPECT_NE(first, second);
    m_event->destroyNotification(first);
    m_event->destroyNotification(second);
    m_event->destroyNotification(nullptr);
}

TEST_F(VornEventTest, AWaiter_MayDestroyTheEventAsSoonAsItWakes) {
    for (int round = 0; round < 200; ++round) {
        auto event = std::make_unique<VornEvent>();
        VornEvent* shared = event.get();
        WatchedThread waiter([owned = std::shared_ptr<VornEvent>(std::move(event))]() mutable {
            owned->wait(-1);
            owned.reset();
        });
        shared->set();
        ASSERT_TRUE(waiter.join());
    }
}

TEST_F(VornEventTest, ManyThreads_MaySetResetWaitAndPoll) {
    const int handle = m_event->getHandle();
    {
        WatchedThread setter([this] {
            for (int round = 0; round < 1000; ++round) {
                m_event->set();
                m_event->reset();
            }
        });
        WatchedThread waiter([&] {
            for (int round = 0; round < 200; ++round) {
                m_event->wait(0);
                polled(handle);
            }
        });
        EXPECT_TRUE(setter.join() && waiter.join());
    }
    EXPECT_EQ(m_event->wait(0), false);
    EXPECT_EQ(polled(handle), 0);
}
