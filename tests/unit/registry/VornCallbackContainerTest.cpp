// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "LeakCheckedTest.h"

#include <atomic>
#include <climits>
#include <functional>
#include <memory>
#include <vector>

#include <VornCallbackContainer.h>
#include <VornCriticalSection.h>
#include <VornNotificationCallback.h>
#include <VornSmartPointer.h>
#include <gtest/gtest.h>

using namespace VornTest;
using namespace VornSupport;
using VornNet::VornCallbackContainer;
using VornNet::VornConnection;
using VornNet::VornNotificationCallback;

namespace {

using CallbackPointer = VornSmartPointer<VornNotificationCallback>;

class Callback : public VornNotificationCallback {
public:
    Callback(int id, std::atomic<int>& destroyed) : VornNotificationCallback(id), m_destroyed(destroyed) {}

    ~Callback() override { ++m_destroyed; }

protected:
    void doCallback(VornSmartPointer<VornConnection>&) override {}

private:
    std::atomic<int>& m_destroyed;
};

class Probe : public VornCallbackContainer {
public:
    using VornCallbackContainer::m_callbackMap;
    using VornCallbackContainer::m_nIdCounter;
};

class VornCallbackContainerTest : public LeakCheckedTest {
protected:
    VornNotificationCallback* make(int id) { return new Callback(id, m_destroyed); }

    std::atomic<int> m_destroyed{0};
    Probe m_container;
};

} // namespace

TEST_F(VornCallbackContainerTest, GetNewId_GivesZeroThenOneMoreEachTimeWithoutALookAtThoseInUse) {
    m_container.add(make(0));
    EXPECT_EQ(m_container.getNewId(), 0);
    EXPECT_EQ(m_container.getNewId(), 1);
    EXPECT_EQ(m_container.getNewId(), 2);
}

TEST_F(VornCallbackContainerTest, GetNewId_DoesNotReuseTheIdOfARemovedCallback) {
    const int id = m_container.getNewId();
    m_container.add(make(id));
    m_container.remove(id);
    EXPECT_EQ(m_container.getNewId(), id + 1);
}

TEST_F(VornCallbackContainerTest, GetNewId_WrapsAroundUnchecked) {
    m_container.m_nIdCounter = INT_MAX;
    EXPECT_EQ(m_container.getNewId(), INT_MAX);
    EXPECT_EQ(m_container.getNewId(), INT_MIN);
}

TEST_F(VornCallbackContainerTest, Lookup_FindsACallbackUnderItsOwnIdAndTakesAReference) {
    VornNotificationCallback* callback = make(17);
    m_container.add(callback);
    EXPECT_EQ(callback->refCount(), 1);
    const CallbackPointer found = m_container.lookup(17);
    EXPECT_EQ(static_cast<VornNotificationCallback*>(found), callback);
    EXPECT_EQ(callback->refCount(), 2);
}

TEST_F(VornCallbackContainerTest, AnyId_MayBeAdded) {
    for (const int id : {-1, 0, INT_MIN, INT_MAX, 1000000}) {
        m_container.add(make(id));
        EXPECT_TRUE(m_container.lookup(id) != nullptr) << id;
    }
}

TEST_F(VornCallbackContainerTest, LookupOfAnIdNeverAdded_IsNull) {
    EXPECT_TRUE(m_container.lookup(0) == nullptr);
    m_container.add(make(1));
    EXPECT_TRUE(m_container.lookup(0) == nullptr);
    EXPECT_TRUE(m_container.lookup(-1) == nullptr);
    EXPECT_EQ(m_container.m_callbackMap.size(), 1U);
}

TEST_F(VornCallbackContainerTest, ASecondCallbackWithTheSameId_ReplacesAndReleasesTheFirst) {
    m_container.add(make(5));
    VornNotificationCallback* second = make(5);
    m_container.add(second);
    EXPECT_EQ(m_destroyed.load(), 1);
    EXPECT_EQ(static_cast<VornNotificationCallback*>(m_container.lookup(5)), second);
    EXPECT_EQ(second->refCount(), 1);
    EXPECT_EQ(m_container.m_callbackMap.size(), 1U);
}

TEST_F(VornCallbackContainerTest, TheSameCallbackAddedTwice_IsHeldOnce) {
    const CallbackPointer callback(make(5));
    m_container.add(callback);
    m_container.add(callback);
    EXPECT_EQ(callback->refCount(), 2);
    EXPECT_EQ(m_container.m_callbackMap.size(), 1U);
}

TEST_F(VornCallbackContainerTest, Remove_ReleasesTheCallback) {
    m_container.add(make(1));
    m_container.add(make(2));
    m_container.remove(1);
    EXPECT_EQ(m_destroyed.load(), 1);
    EXPECT_TRUE(m_container.lookup(2) != nullptr);
}

TEST_F(VornCallbackContainerTest, RemoveOfAnAbsentId_ChangesNothing) {
    m_container.remove(3);
    m_container.add(make(1));
    m_container.remove(3);
    m_container.remove(-1);
    EXPECT_EQ(m_destroyed.load(), 0);
    EXPECT_EQ(m_container.m_callbackMap.size(), 1U);
    EXPECT_TRUE(m_container.lookup(1) != nullptr);
}

TEST_F(VornCallbackContainerTest, ACallbackRemovedWhileSomebodyHoldsIt_LivesOn) {
    m_container.add(make(1));
    {
        const CallbackPointer held = m_container.lookup(1);
        m_container.remove(1);
        EXPECT_EQ(m_destroyed.load(), 0);
        EXPECT_EQ(held->refCount(), 1);
    }
    EXPECT_EQ(m_destroyed.load(), 1);
}

TEST_F(VornCallbackContainerTest, ItsDestructor_ReleasesEveryCallback) {
    const CallbackPointer held(make(2));
    {
        const std::unique_ptr<VornCallbackContainer> container = std::make_unique<Probe>();
        container->add(make(1));
        container->add(held);
        EXPECT_EQ(held->refCount(), 2);
    }
    EXPECT_EQ(m_destroyed.load(), 1);
    EXPECT_EQ(held->refCount(), 1);
}

TEST_F(VornCallbackContainerTest, TheHolderOfTheMutex_MayCallEveryOperation) {
    const VornCriticalSection lock(m_container.mutex(), true);
    const int id = m_container.getNewId();
    m_container.add(make(id));
    EXPECT_TRUE(m_container.lookup(id) != nullptr);
    m_container.remove(id);
    EXPECT_TRUE(m_container.lookup(id) == nullptr);
}

TEST_F(VornCallbackContainerTest, WhileTheMutexIsHeld_EveryOperationOfAnotherThreadWaits) {
    const std::vector<std::function<void()>> operations = {
        [this] { m_container.getNewId(); },
        [this] { m_container.add(make(1)); },
        [this] { m_container.lookup(1); },
        [this] { m_container.remove(1); },
    };
    for (std::size_t i = 0; i < operations.size(); ++i) {
        std::unique_ptr<WatchedThread> visitor;
        {
            const VornCriticalSection lock(m_container.mutex(), true);
            visitor = std::make_unique<WatchedThread>(operations[i]);
            EXPECT_TRUE(awaitBlockedOnLock(visitor->tid())) << "operation " << i;
            EXPECT_FALSE(visitor->finished()) << "operation " << i;
        }
        EXPECT_TRUE(visitor->join());
    }
}

TEST_F(VornCallbackContainerTest, ManyThreads_MayAddLookUpAndRemove) {
    {
        std::vector<std::unique_ptr<WatchedThread>> threads;
        for (int i = 0; i < 3; ++i) {
            threads.push_back(std::make_unique<WatchedThread>([this, i] {
                for (int round = 0; round < 300; ++round) {
                    m_container.add(make(round % 7));
                    const CallbackPointer found = m_container.lookup((round + i) % 7);
                    if (found != nullptr)
                        found->set();
                    m_container.remove((round + 3) % 7);
                }
            }));
        }
        for (const auto& thread : threads)
            EXPECT_TRUE(thread->join());
    }
    const int left = static_cast<int>(m_container.m_callbackMap.size());
    EXPECT_EQ(m_destroyed.load() + left, 900);
}
