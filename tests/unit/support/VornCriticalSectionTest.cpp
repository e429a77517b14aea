// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "LeakCheckedTest.h"

#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <VornCriticalSection.h>
#include <gtest/gtest.h>

using namespace VornTest;
using VornSupport::VornCriticalSection;
using VornSupport::VornCriticalSectionObject;

namespace {

class VornCriticalSectionTest : public LeakCheckedTest {
protected:
    /** A thread which takes the lock and lets go of it at once. */
    std::unique_ptr<WatchedThread> startVisitor() {
        return std::make_unique<WatchedThread>([this] { const VornCriticalSection lock(m_object, true); });
    }

    VornCriticalSectionObject m_object;
};

} // namespace

TEST_F(VornCriticalSectionTest, WhileHeld_KeepsOtherThreadsOutUntilTheEndOfTheBlock) {
    std::unique_ptr<WatchedThread> visitor;
    {
        const VornCriticalSection lock(m_object, true);
        visitor = startVisitor();
        EXPECT_TRUE(awaitBlockedOnLock(visitor->tid()));
        EXPECT_FALSE(visitor->finished());
    }
    EXPECT_TRUE(visitor->join());
}

TEST_F(VornCriticalSectionTest, TheHolder_MayTakeItAgain) {
    std::unique_ptr<WatchedThread> visitor;
    {
        const VornCriticalSection outer(m_object, true);
        {
            const VornCriticalSection inner(m_object, true);
            const VornCriticalSection innermost(m_object, true);
        }
        // Two of three holds are gone, which is not enough.
        visitor = startVisitor();
        EXPECT_TRUE(awaitBlockedOnLock(visitor->tid()));
        EXPECT_FALSE(visitor->finished());
    }
    EXPECT_TRUE(visitor->join());
}

TEST_F(VornCriticalSectionTest, WithFlagFalse_NeitherTakesNorLetsGo) {
    {
        const VornCriticalSection noLock(m_object, false);
        EXPECT_TRUE(startVisitor()->join());
    }
    std::unique_ptr<WatchedThread> visitor;
    {
        const VornCriticalSection lock(m_object, true);
        { const VornCriticalSection noLock(m_object, false); }
        visitor = startVisitor();
        EXPECT_TRUE(awaitBlockedOnLock(visitor->tid()));
        EXPECT_FALSE(visitor->finished());
    }
    EXPECT_TRUE(visitor->join());
}

TEST_F(VornCriticalSectionTest, WithFlagFalse_DoesNotWaitForAnotherHolder) {
    const VornCriticalSection lock(m_object, true);
    WatchedThread passer([this] { const VornCriticalSection noLock(m_object, false); });
    EXPECT_TRUE(passer.join());
}

TEST_F(VornCriticalSectionTest, WhenAnExceptionLeavesTheBlock_IsFree) {
    const auto throwing = [this] {
        const VornCriticalSection lock(m_object, true);
        throw std::runtime_error("out");
    };
    EXPECT_THROW(throwing(), std::runtime_error);
    EXPECT_TRUE(startVisitor()->join());
}

TEST_F(VornCriticalSectionTest, TwoObjects_AreIndependent) {
    VornCriticalSectionObject other;
    const VornCriticalSection lock(other, true);
    EXPECT_TRUE(startVisitor()->join());
}

TEST_F(VornCriticalSectionTest, ManyThreads_LoseNoUpdateOfWhatItGuards) {
    long counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 2000; ++round) {
                const VornCriticalSection outer(m_object, true);
                const VornCriticalSection inner(m_object, true);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 8000);
}
