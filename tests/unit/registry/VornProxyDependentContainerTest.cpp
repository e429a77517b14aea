// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "BeforeAllocation.h"
#include "LeakCheckedTest.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <VornCriticalSection.h>
#include <VornProxyDependent.h>
#include <VornProxyDependentContainer.h>
#include <VornSmartPointer.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using namespace VornSupport;
using VornNet::VornProxyDependent;
using VornNet::VornProxyDependentContainer;

namespace {

using testing::ElementsAre;
using ProxyPointer = VornSmartPointer<VornProxyDependent>;

class Proxy : public VornProxyDependent {
public:
    Proxy(const VornString& name, long handle, std::atomic<int>& destroyed)
        : VornProxyDependent(name, handle), m_destroyed(destroyed) {}

    ~Proxy() override { ++m_destroyed; }

private:
    std::atomic<int>& m_destroyed;
};

VornProxyDependentContainer& registry() {
    return VornProxyDependentContainer::getInstance();
}

class VornProxyDependentContainerTest : public LeakCheckedTest {
protected:
    void SetUp() override { VornProxyDependentContainer::deleteInstance(); }

    void TearDown() override { VornProxyDependentContainer::deleteInstance(); }

    VornProxyDependent* make(const VornString& name, long handle) {
        return new Proxy(name, handle, m_destroyed);
    }

    /** The keys in the order in which the registry shows them. */
    static std::vector<std::string> keys() {
        std::vector<std::string> result;
        const VornCriticalSection lock(registry().getlock(), true);
        for (int i = 0; i < registry().size(); ++i) {
            const ProxyPointer proxy = registry()[i];
            result.push_back(proxy->getRemoteName() + " " + std::to_string(proxy->getDependentHandle()));
        }
        return result;
    }

    std::atomic<int> m_destroyed{0};
};

} // namespace

TEST_F(VornProxyDependentContainerTest, GetInstanceRacedByManyThreads_IsOne) {
    for (int round = 0; round < 50; ++round) {
        VornProxyDependentContainer::deleteInstance();
        constexpr int cThreads = 6;
        std::atomic<int> ready{0};
        std::vector<VornProxyDependentContainer*> seen(cThreads);
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < cThreads; ++i) {
            threads.emplace_back([&, i] {
                ++ready;
                while (ready < cThreads)
                    std::this_thread::yield();
                seen[i] = &registry();
                seen[i]->add(make("pipe:x", static_cast<long>(i)));
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(seen, std::vector<VornProxyDependentContainer*>(cThreads, &registry()));
        EXPECT_EQ(registry().size(), cThreads);
    }
}

TEST_F(VornProxyDependentContainerTest, DeleteInstance_ReleasesEveryProxyAndTheNextInstanceIsEmpty) {
    const ProxyPointer held(make("pipe:held", 1));
    registry().add(held);
    registry().add(make("pipe:x", 1));
    registry().add(make("pipe:x", 2));
    EXPECT_EQ(held->refCount(), 2);
    VornProxyDependentContainer::deleteInstance();
    EXPECT_EQ(m_destroyed.load(), 2);
    EXPECT_EQ(held->refCount(), 1);
    EXPECT_EQ(registry().size(), 0);
    EXPECT_TRUE(registry().lookup("pipe:held", 1) == nullptr);
}

TEST_F(VornProxyDependentContainerTest, DeleteInstance_WhenAProxyAsksForTheRegistry_GivesItTheSameOneEmpty) {
    class Asking : public VornProxyDependent {
    public:
        explicit Asking(int& size) : VornProxyDependent("pipe:x", 1), m_size(size) {}

        ~Asking() override {
            m_size = registry().size();
            registry().add(new VornProxyDependent("pipe:z", 3));
        }

    private:
        int& m_size;
    };

    int size = -1;
    registry().add(new Asking(size));
    registry().add(make("pipe:y", 2));
    VornProxyDependentContainer::deleteInstance();
    EXPECT_EQ(size, 0);
    EXPECT_EQ(registry().size(), 0);
    EXPECT_TRUE(registry().lookup("pipe:z", 3) == nullptr);
}

TEST_F(VornProxyDependentContainerTest, Instance_IsNullUntilItIsAskedForAndAfterItIsDeleted) {
    struct Probe : VornProxyDependentContainer {
        static VornProxyDependentContainer* instance() { return m_pThis; }
    };

    EXPECT_EQ(Probe::instance(), nullptr);
    VornProxyDependentContainer* instance = &registry();
    EXPECT_EQ(Probe::instance(), instance);
    VornProxyDependentContainer::deleteInstance();
    EXPECT_EQ(Probe::instance(), nullptr);
}

TEST_F(VornProxyDependentContainerTest, DeleteInstance_WhileAnotherThreadHoldsTheLock_Waits) {
    registry().add(make("pipe:x", 1));
    std::unique_ptr<WatchedThread> visitor;
    {
        const VornCriticalSection lock(registry().getlock(), true);
        visitor = std::make_unique<WatchedThread>([] { VornProxyDependentContainer::deleteInstance(); });
        EXPECT_TRUE(awaitBlockedOnLock(visitor->tid()));
        EXPECT_FALSE(visitor->finished());
        EXPECT_EQ(m_destroyed.load(), 0);
    }
    EXPECT_TRUE(visitor->join());
    EXPECT_EQ(m_destroyed.load(), 1);
}

TEST_F(VornProxyDependentContainerTest, Lookup_FindsExactlyTheKeyAndTakesAReference) {
    VornProxyDependent* proxy = make("pipe:quorax1f3a", 3);
    registry().add(proxy);
    EXPECT_EQ(proxy->refCount(), 1);
    {
        const ProxyPointer found = registry().lookup("pipe:quorax1f3a", 3);
        EXPECT_EQ(static_cast<VornProxyDependent*>(found), proxy);
        EXPECT_EQ(proxy->refCount(), 2);
    }
    EXPECT_TRUE(registry().lookup("pipe:quorax1f3a", 4) == nullptr);
    EXPECT_TRUE(registry().lookup("pipe:quorax1f3", 3) == nullptr);
    EXPECT_TRUE(registry().lookup("pipe:quorax1f3ab", 3) == nullptr);
    EXPECT_TRUE(registry().lookup("", 3) == nullptr);
    EXPECT_EQ(registry().size(), 1);
}

TEST_F(VornProxyDependentContainerTest, ASecondProxyWithTheSameKey_ReplacesAndReleasesTheFirst) {
    registry().add(make("pipe:x", 1));
    VornProxyDependent* second = make("pipe:x", 1);
    registry().add(second);
    EXPECT_EQ(registry().size(), 1);
    EXPECT_EQ(m_destroyed.load(), 1);
    EXPECT_EQ(static_cast<VornProxyDependent*>(registry().lookup("pipe:x", 1)), second);
    EXPECT_EQ(second->refCount(), 1);
}

TEST_F(VornProxyDependentContainerTest, TheSameProxyAddedTwice_IsHeldOnce) {
    const ProxyPointer proxy(make("pipe:x", 1));
    registry().add(proxy);
    registry().add(proxy);
    EXPECT_EQ(registry().size(), 1);
    EXPECT_EQ(proxy->refCount(), 2);
}

TEST_F(VornProxyDependentContainerTest, TheEntries_AreInTheOrderOfTheKeys) {
    registry().add(make("socket:10.0.0.5:5023", 2));
    registry().add(make("pipe:quorax1f3a", 9));
    registry().add(make("udp:10", 1));
    registry().add(make("udp:1", 5));
    registry().add(make("pipe:quorax1f3a", 3));
    registry().add(make("pipe:quorax1f3a", -1));
    EXPECT_THAT(keys(), ElementsAre("pipe:quorax1f3a -1", "pipe:quorax1f3a 3", "pipe:quorax1f3a 9",
                                    "socket:10.0.0.5:5023 2", "udp:1 5", "udp:10 1"));
}

TEST_F(VornProxyDependentContainerTest, PositionalAccessOutsideTheEntries_IsEmptyAndRemovesNothing) {
    registry().add(make("pipe:x", 1));
    for (const int index : {-1, 1, 1000, -2147483647 - 1, 2147483647}) {
        EXPECT_TRUE(registry()[index] == nullptr) << index;
        registry().remove(index);
        EXPECT_EQ(registry().size(), 1) << index;
    }
}

TEST_F(VornProxyDependentContainerTest, RemoveByPosition_RemovesThatEntryInTheOrderOfTheKeys) {
    registry().add(make("c", 1));
    registry().add(make("a", 1));
    registry().add(make("b", 1));
    registry().remove(1);
    EXPECT_THAT(keys(), ElementsAre("a 1", "c 1"));
    EXPECT_EQ(m_destroyed.load(), 1);
    registry().remove(1);
    EXPECT_THAT(keys(), ElementsAre("a 1"));
    registry().remove(0);
    EXPECT_EQ(registry().size(), 0);
    EXPECT_EQ(m_destroyed.load(), 3);
}

TEST_F(VornProxyDependentContainerTest, RemoveByKey_RemovesExactlyThatEntry) {
    registry().add(make("pipe:x", 1));
    registry().add(make("pipe:x", 2));
    registry().remove("pipe:x", 3);
    registry().remove("pipe:", 1);
    EXPECT_EQ(registry().size(), 2);
    registry().remove("pipe:x", 1);
    EXPECT_THAT(keys(), ElementsAre("pipe:x 2"));
    EXPECT_EQ(m_destroyed.load(), 1);
    registry().remove("pipe:x", 1);
    EXPECT_EQ(registry().size(), 1);
}

TEST_F(VornProxyDependentContainerTest, AHandleOfMoreThan32Bits_IsStoredUnderItsCutValue) {
    const long handle = (1L << 32) + 7;
    registry().add(make("pipe:x", handle));
    EXPECT_TRUE(registry().lookup("pipe:x", handle) == nullptr);
    EXPECT_TRUE(registry().lookup("pipe:x", 7) != nullptr);
    registry().remove("pipe:x", handle);
    EXPECT_EQ(registry().size(), 1);
    registry().remove("pipe:x", 7);
    EXPECT_EQ(registry().size(), 0);
}

TEST_F(VornProxyDependentContainerTest, AHandleWithBit31Set_IsWidenedWithItsSign) {
    registry().add(make("pipe:x", 0x80000000L));
    EXPECT_TRUE(registry().lookup("pipe:x", 0x80000000L) == nullptr);
    EXPECT_TRUE(registry().lookup("pipe:x", -0x80000000L) != nullptr);
}

TEST_F(VornProxyDependentContainerTest, AnEntryRemovedWhileSomebodyHoldsIt_LivesOn) {
    registry().add(make("pipe:x", 1));
    {
        const ProxyPointer held = registry()[0];
        registry().remove(0);
        EXPECT_EQ(m_destroyed.load(), 0);
        EXPECT_EQ(held->getRemoteName(), "pipe:x");
    }
    EXPECT_EQ(m_destroyed.load(), 1);
}

TEST_F(VornProxyDependentContainerTest, TheHolderOfTheLock_MayCallEveryOperation) {
    const VornCriticalSection lock(registry().getlock(), true);
    registry().add(make("pipe:x", 1));
    registry().add(make("pipe:x", 2));
    EXPECT_TRUE(registry().lookup("pipe:x", 1) != nullptr);
    EXPECT_TRUE(registry()[1] != nullptr);
    registry().remove("pipe:x", 1);
    registry().remove(0);
    EXPECT_EQ(registry().size(), 0);
}

TEST_F(VornProxyDependentContainerTest, WhileTheLockIsHeld_TheOperationsOfAnotherThreadWait) {
    registry().add(make("pipe:x", 1));
    const std::vector<std::function<void()>> operations = {
        [this] { registry().add(make("pipe:y", 1)); },
        [] { registry().lookup("pipe:x", 1); },
        [] { registry()[0]; },
        [] { registry().remove("pipe:y", 1); },
        [] { registry().remove(0); },
    };
    for (std::size_t i = 0; i < operations.size(); ++i) {
        std::unique_ptr<WatchedThread> visitor;
        {
            const VornCriticalSection lock(registry().getlock(), true);
            visitor = std::make_unique<WatchedThread>(operations[i]);
            EXPECT_TRUE(awaitBlockedOnLock(visitor->tid())) << "operation " << i;
            EXPECT_FALSE(visitor->finished()) << "operation " << i;
        }
        EXPECT_TRUE(visitor->join());
    }
}

TEST_F(VornProxyDependentContainerTest, WhileTheLockIsHeld_SizeOfAnotherThreadDoesNotWait) {
    registry().add(make("pipe:x", 1));
    int size = -1;
    const VornCriticalSection lock(registry().getlock(), true);
    WatchedThread visitor([&] { size = registry().size(); });
    EXPECT_TRUE(visitor.join());
    EXPECT_EQ(size, 1);
}

TEST_F(VornProxyDependentContainerTest, Size_MayBeReadWhileOthersAddAndRemove) {
    constexpr int cEntries = 50;
    std::atomic<bool> done{false};
    int least = cEntries;
    int most = 0;
    {
        WatchedThread reader([&] {
            while (!done) {
                const int size = registry().size();
                least = std::min(least, size);
                most = std::max(most, size);
            }
        });
        WatchedThread writer([&] {
            for (int round = 0; round < 20; ++round) {
                for (long handle = 0; handle < cEntries; ++handle)
                    registry().add(make("pipe:x", handle));
                while (registry().size() > 0)
                    registry().remove(0);
            }
            done = true;
        });
        EXPECT_TRUE(writer.join() && reader.join());
    }
    EXPECT_GE(least, 0);
    EXPECT_LE(most, cEntries);
    EXPECT_EQ(registry().size(), 0);
}

TEST_F(VornProxyDependentContainerTest, WhenAnotherIsFasterAtMakingIt_EverybodyHasTheOthersInstance) {
    VornProxyDependentContainer* others = nullptr;
    std::function<void()> action = [&] {
        others = &registry();
        others->add(make("pipe:x", 1));
    };
    beforeNextAllocation(action);
    const VornProxyDependentContainer* const own = &registry();
    EXPECT_EQ(own, others);
    EXPECT_THAT(keys(), ElementsAre("pipe:x 1"));
}
