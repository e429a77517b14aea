// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * What a process finds that was forked while other threads of its parent were in the library.
 */

#include "Checkpoint.h"
#include "ForkedChild.h"
#include "LeakCheckedTest.h"
#include "Sanitizer.h"

#include <atomic>
#include <memory>
#include <mutex>

#include <ForkHandlers.h>
#include <VornCriticalSection.h>
#include <VornEvent.h>
#include <VornLogging.h>
#include <VornThread.h>
#include <gtest/gtest.h>

using namespace VornTest;
using namespace VornSupport;

namespace {

class BlockedThread : public VornThread {
public:
    using VornThread::run;

    explicit BlockedThread(Checkpoint& point) : VornThread("blocked"), m_point(point) {}

    ~BlockedThread() override {
        stop();
        wait(-1);
    }

    int run() override {
        m_point.pass();
        return 0;
    }

private:
    Checkpoint& m_point; // not of this object: the child destroys that
};

void log(const char* text) {
    VornLogging::getInstance() << setloglevel(VornLogging::cError) << text << endrecord;
}

class ForkedProcess : public LeakCheckedTest {
protected:
    void TearDown() override { VornLogging::setRecordHandler({}); }
};

} // namespace

TEST_F(ForkedProcess, WhenALogHandlerRunsInAnotherThread_IsForkedWhenItHasReturned) {
    Checkpoint point;
    std::mutex ofHandler;
    VornLogging::setRecordHandler([&](int, const VornString& text) {
        const std::lock_guard lock(ofHandler);
        if (text == "slow")
            point.pass();
    });
    WatchedThread writer([] { log("slow"); });
    ASSERT_TRUE(point.awaitReached());
    int status = hangs;
    WatchedThread forker([&] {
        status = inChild([] {
            log("in the child");
            return 0;
        });
    });
    awaitBlockedOnLock(forker.tid());
    point.open();
    EXPECT_TRUE(forker.join());
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(writer.join());
}

TEST_F(ForkedProcess, WhenForkedByALogHandler_Logs) {
    if (underThreadSanitizer)
        GTEST_SKIP() << takesItForTheParentsThread;
    int records = 0;
    int status = hangs;
    VornLogging::setRecordHandler([&](int, const VornString&) {
        if (++records == 1) {
            status = inChild([&] {
                WatchedThread([] { log("by another thread in the child"); }).join();
                log("in the child");
                return records == 3 ? 0 : 1;
            });
        }
    });
    log("in the parent");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(records, 1);
}

TEST_F(ForkedProcess, WhileThreadsLog_Logs) {
    VornLogging::setRecordHandler([](int, const VornString&) {});
    std::atomic<bool> ends{false};
    const auto write = [&] {
        while (!ends)
            log("in the parent");
    };
    WatchedThread first(write);
    WatchedThread second(write);
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(inChild([] {
                      log("in the child");
                      return 0;
                  }),
                  0)
            << "child " << i;
    }
    ends = true;
    EXPECT_TRUE(first.join());
    EXPECT_TRUE(second.join());
}

TEST_F(ForkedProcess, AThreadOfTheParent_HasEnded) {
    Checkpoint point;
    auto thread = std::make_unique<BlockedThread>(point);
    thread->start();
    ASSERT_TRUE(point.awaitReached());
    EXPECT_EQ(inChild([&] {
                  if (!thread->wait(0))
                      return 1;
                  delete thread.release();
                  return 0;
              }),
              0);
    EXPECT_FALSE(thread->wait(0));
    point.open();
}

TEST_F(ForkedProcess, AnEventThatTheParentWaitsFor_IsSetAndDestroyed) {
    auto event = std::make_unique<VornEvent>();
    WatchedThread waiting([&] { event->wait(-1); });
    ASSERT_TRUE(awaitBlockedOnLock(waiting.tid()));
    EXPECT_EQ(inChild([&] {
                  event->set();
                  const bool isSet = event->wait(0);
                  delete event.release();
                  return isSet ? 0 : 1;
              }),
              0);
    EXPECT_FALSE(waiting.finished());
    event->set();
    EXPECT_TRUE(waiting.join());
}

TEST_F(ForkedProcess, AMutexThatTheParentHolds_IsFree) {
    VornCriticalSectionObject mutex;
    Checkpoint point;
    WatchedThread holder([&] {
        const VornCriticalSection lock(mutex, true);
        point.pass();
    });
    ASSERT_TRUE(point.awaitReached());
    EXPECT_EQ(inChild([&] {
                  const VornCriticalSection lock(mutex, true);
                  return 0;
              }),
              0);
    point.open();
    EXPECT_TRUE(holder.join());
}

namespace {

struct RenewedState : RenewedInChild<RenewedState> {
    static void startAfresh() {}
};

} // namespace

TEST_F(ForkedProcess, WhenItsForkMeetsTheFirstUseOfAType_UsesTheTypeToo) {
    if (underThreadSanitizer)
        GTEST_SKIP() << takesItForTheParentsThread;
    static Checkpoint during;
    std::atomic<bool> hasUsedIt{false};
    const ForkHandlers slow([] { during.pass(); }, [] {}, [] {});
    WatchedThread user([&] {
        during.awaitReached(); // the fork has begun, and holds the list of handlers
        const RenewedState first;
        hasUsedIt = true;
    });
    WatchedThread opener([&] {
        during.awaitReached();
        awaitCondition([&] { return hasUsedIt || awaitBlockedOnLock(user.tid()); });
        during.open();
    });
    EXPECT_EQ(inChild([] {
                  const RenewedState own;
                  return 0;
              }),
              0);
    EXPECT_TRUE(user.join());
    EXPECT_TRUE(opener.join());
}
