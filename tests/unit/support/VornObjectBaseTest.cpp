// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeakCheckedTest.h"

#include <thread>
#include <vector>

#include <VornObjectBase.h>
#include <VornSmartPointer.h>
#include <gtest/gtest.h>

using namespace VornTest;
using VornSupport::VornObjectBase;
using VornSupport::VornSmartPointer;
using VornSupport::VornString;

namespace ObjectBaseTest {

class Plain : public VornObjectBase {};

class Derived : public Plain {};

template <typename T>
class Box : public VornObjectBase {};

class FirstBase {
public:
    virtual ~FirstBase() = default;
};

class WithSecondBase : public FirstBase, public VornObjectBase {};

} // namespace ObjectBaseTest

namespace {

using namespace ObjectBaseTest;

class Nameless : public VornObjectBase {};

class Counted : public VornObjectBase {
public:
    explicit Counted(int& destroyed) : m_destroyed(destroyed) {}

    ~Counted() override { ++m_destroyed; }

private:
    int& m_destroyed;
};

class VornObjectBaseTest : public LeakCheckedTest {};

} // namespace

TEST_F(VornObjectBaseTest, ReleaseToZero_RunsTheDerivedDestructorOnce) {
    int destroyed = 0;
    VornObjectBase* object = new Counted(destroyed);
    object->addRef();
    EXPECT_EQ(object->refCount(), 1);
    object->addRef();
    EXPECT_EQ(object->refCount(), 2);
    object->release();
    EXPECT_EQ(object->refCount(), 1);
    EXPECT_EQ(destroyed, 0);
    object->release();
    EXPECT_EQ(destroyed, 1);
}

TEST_F(VornObjectBaseTest, CopyAndAssignment_CopyNoReferences) {
    Plain source;
    source.addRef();
    source.addRef();
    const Plain copy(source);
    EXPECT_EQ(copy.refCount(), 0);
    Plain target;
    target.addRef();
    target = source;
    EXPECT_EQ(target.refCount(), 1);
    EXPECT_EQ(source.refCount(), 2);
}

TEST_F(VornObjectBaseTest, ManyThreads_LoseNoCount) {
    Plain object;
    constexpr int cThreads = 4;
    constexpr int cRounds = 5000;
    object.addRef();
    std::vector<std::thread> threads;
    for (int i = 0; i < cThreads; ++i) {
        threads.emplace_back([&object] {
            for (int round = 0; round < cRounds; ++round) {
                object.addRef();
                object.addRef();
                object.release();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(object.refCount(), 1 + cThreads * cRounds);
}

TEST_F(VornObjectBaseTest, ObjectHandedBetweenThreads_IsDestroyedByTheLastOneAfterAllWrites) {
    // The plain int is written by one thread and read in the destructor on the other: the release must order.
    class Carrier : public VornObjectBase {
    public:
        explicit Carrier(int& seen) : m_seen(seen) {}

        ~Carrier() override { m_seen = m_value; }

        int m_value = 0;

    private:
        int& m_seen;
    };

    for (int round = 1; round <= 500; ++round) {
        int seen = 0;
        VornSmartPointer<Carrier> ours(new Carrier(seen));
        {
            VornSmartPointer<Carrier> theirs(ours);
            std::thread writer([theirs, round]() mutable {
                theirs->m_value = round;
                theirs = nullptr;
            });
            theirs = nullptr;
            ours = nullptr;
            writer.join();
        }
        ASSERT_EQ(seen, round);
    }
}

TEST_F(VornObjectBaseTest, ClassNameOfASecondBase_IsThatOfTheWholeObject) {
    const WithSecondBase object;
    const VornObjectBase& base = object;
    EXPECT_EQ(base.getClassName(), "ObjectBaseTest::WithSecondBase");
    EXPECT_TRUE(base.isA(base.getClassName()));
}

TEST_F(VornObjectBaseTest, EveryObject_IsAItsOwnClassName) {
    class Local : public VornObjectBase {};

    const Plain plain;
    const Derived derived;
    const Nameless nameless;
    const Local local;
    const Box<Box<VornString>> box;
    for (const VornObjectBase* object :
         std::vector<const VornObjectBase*>{&plain, &derived, &nameless, &local, &box}) {
        EXPECT_TRUE(object->isA(object->getClassName())) << object->getClassName();
    }
}

TEST_F(VornObjectBaseTest, ClassNameOfALocalType_HasNoLeadingStar) {
    // The compiler marks names which are private to one object file with a star in front.
    const Nameless nameless;
    EXPECT_EQ(nameless.getClassName().find('*'), VornString::npos) << nameless.getClassName();
    EXPECT_NE(nameless.getClassName().find("Nameless"), VornString::npos) << nameless.getClassName();
}

TEST_F(VornObjectBaseTest, IsA_DoesNotLookAtBaseClasses) {
    const Plain plain;
    const Derived derived;
    EXPECT_FALSE(derived.isA(plain.getClassName()));
    EXPECT_FALSE(derived.isA("VornSupport::VornObjectBase"));
}

TEST_F(VornObjectBaseTest, IsA_ComparesEveryByteOfTheName) {
    const Plain object;
    const VornString name = object.getClassName();
    EXPECT_FALSE(object.isA(name.substr(0, name.size() - 1)));
    EXPECT_FALSE(object.isA(name + "x"));
    EXPECT_FALSE(object.isA(name + VornString(1, '\0')));
    EXPECT_FALSE(object.isA(VornString()));
}

TEST_F(VornObjectBaseTest, StaticQueries_TakeObjectsThatAreNotCounted) {
    const FirstBase first;
    const WithSecondBase second;
    const FirstBase& viewed = second;
    EXPECT_EQ(VornObjectBase::getClassName(first), "ObjectBaseTest::FirstBase");
    EXPECT_EQ(VornObjectBase::getClassName(viewed), "ObjectBaseTest::WithSecondBase");
    EXPECT_TRUE(VornObjectBase::isA(viewed, "ObjectBaseTest::WithSecondBase"));
    EXPECT_FALSE(VornObjectBase::isA(viewed, "ObjectBaseTest::FirstBase"));
}

TEST_F(VornObjectBaseTest, OverriddenQueries_AreReachedThroughTheBase) {
    class Renamed : public VornObjectBase {
    public:
        VornString getClassName() const override { return "renamed"; }
    };

    const Renamed object;
    const VornObjectBase& base = object;
    EXPECT_EQ(base.getClassName(), "renamed");
    EXPECT_TRUE(base.isA(base.getClassName()));
    EXPECT_FALSE(base.isA(VornObjectBase::getClassName(object)));
}

TEST_F(VornObjectBaseTest, NormalizeClassName_MakesACompilersNameReadable) {
    EXPECT_EQ(VornObjectBase::normalizeClassName("N14ObjectBaseTest5PlainE"), "ObjectBaseTest::Plain");
}

TEST_F(VornObjectBaseTest, NormalizeClassName_LeavesOtherTextAsItIs) {
    EXPECT_EQ(VornObjectBase::normalizeClassName("no name of a type"), "no name of a type");
    EXPECT_EQ(VornObjectBase::normalizeClassName(""), "");
}
