// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// This file is compiled in C++17, C++20 and C++23 by both compilers besides being run: what overload
// resolution makes of a comparison differs between them. It therefore includes nothing of the kit but its
// fixture.

#include "LeakCheckedTest.h"

#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <VornSmartPointer.h>
#include <gtest/gtest.h>

using VornSupport::VornObjectBase;
using VornSupport::VornSmartPointer;
using Journal = std::vector<std::string>;

namespace {

/** Writes down what smart pointers do with it. */
class Recorder : public VornObjectBase {
public:
    Recorder(std::string name, Journal& journal) : m_name(std::move(name)), m_journal(journal) {}

    ~Recorder() override { m_journal.push_back("~" + m_name); }

    void addRef() override {
        m_journal.push_back("+" + m_name);
        VornObjectBase::addRef();
    }

    void release() override {
        m_journal.push_back("-" + m_name);
        VornObjectBase::release();
    }

    int value() const { return 42; }

private:
    std::string m_name;
    Journal& m_journal;
};

class DerivedRecorder : public Recorder {
public:
    using Recorder::Recorder;
};

class Node : public VornObjectBase {
public:
    VornSmartPointer<Node> m_next;
};

using Pointer = VornSmartPointer<Recorder>;

class VornSmartPointerTest : public VornTest::LeakCheckedTest {
protected:
    Recorder* make(const std::string& name) { return new Recorder(name, m_journal); }

    Journal m_journal;
};

template <typename Left, typename Right>
void expectEqual(Left& left, Right&& right) {
    EXPECT_TRUE(left == right);
    EXPECT_TRUE(right == left);
    EXPECT_FALSE(left != right);
    EXPECT_FALSE(right != left);
}

template <typename Left, typename Right>
void expectUnequal(Left& left, Right&& right) {
    EXPECT_FALSE(left == right);
    EXPECT_FALSE(right == left);
    EXPECT_TRUE(left != right);
    EXPECT_TRUE(right != left);
}

// Never defined: a pointer to it may be declared, copied around by reference, and asked for nothing.
class Incomplete;

struct Holder {
    const VornSmartPointer<Incomplete>* m_pointer;
};

static_assert(sizeof(Pointer) == sizeof(Recorder*), "one field, the raw pointer");
static_assert(
    std::is_same<decltype(std::declval<const Pointer&>().operator==(std::declval<const Pointer&>())),
                 int>::value,
    "equality of two smart pointers is an int");
static_assert(
    std::is_same<decltype(std::declval<const Pointer&>() < std::declval<const Pointer&>()), int>::value,
    "the order of two smart pointers is an int");
static_assert(std::is_same<decltype(std::declval<Pointer&>().getOwnership()), Recorder*>::value,
              "ownership leaves as a raw pointer");
static_assert(std::is_nothrow_default_constructible<Pointer>::value, "");
static_assert(std::is_nothrow_constructible<Pointer, Recorder*>::value, "");
static_assert(std::is_nothrow_copy_constructible<Pointer>::value, "");
static_assert(std::is_nothrow_copy_assignable<Pointer>::value, "");
static_assert(std::is_nothrow_assignable<Pointer&, Recorder*>::value, "");
static_assert(std::is_nothrow_destructible<Pointer>::value, "");
static_assert(noexcept(std::declval<Pointer&>().getOwnership()), "");
static_assert(noexcept(std::declval<const Pointer&>().operator->()), "");
static_assert(noexcept(*std::declval<const Pointer&>()), "");
static_assert(noexcept(std::declval<const Pointer&>() == std::declval<const Pointer&>()), "");

} // namespace

TEST_F(VornSmartPointerTest, WhenItTakesANewObject_CountIsOneAlsoAfterAConversion) {
    Recorder* raw = make("a");
    const Pointer pointer(raw);
    const Recorder* converted = pointer;
    EXPECT_EQ(converted, raw);
    EXPECT_EQ(pointer->refCount(), 1);
    EXPECT_EQ(m_journal, Journal{"+a"});
}

TEST_F(VornSmartPointerTest, CopyOfAHolder_HasCountTwoAndTheDestructorRunsOnce) {
    {
        const Pointer first(make("a"));
        const Pointer second(first);
        EXPECT_EQ(first->refCount(), 2);
        EXPECT_EQ(m_journal, (Journal{"+a", "+a"}));
    }
    EXPECT_EQ(m_journal, (Journal{"+a", "+a", "-a", "-a", "~a"}));
}

TEST_F(VornSmartPointerTest, CopyingAssigningNullAndDestroyingAnEmptyPointer_CallNothing) {
    {
        const Pointer empty(static_cast<Recorder*>(nullptr));
        Pointer copy(empty);
        copy = empty;
        copy = nullptr;
        copy = static_cast<Recorder*>(nullptr);
    }
    EXPECT_EQ(m_journal, Journal{});
}

TEST_F(VornSmartPointerTest, AssignmentOfTheSameObject_LeavesTheCount) {
    Pointer pointer(make("a"));
    const Pointer& same = pointer;
    const Pointer other(pointer);
    m_journal.clear();
    pointer = same;
    pointer = other;
    pointer = static_cast<Recorder*>(pointer);
    EXPECT_EQ(pointer->refCount(), 2);
    EXPECT_EQ(m_journal, Journal{});
}

TEST_F(VornSmartPointerTest, Assignment_ReleasesTheOldObjectBeforeTheNewOneGainsItsReference) {
    Pointer first(make("a"));
    const Pointer second(make("b"));
    m_journal.clear();
    first = second;
    EXPECT_EQ(m_journal, (Journal{"-a", "~a", "+b"}));
    EXPECT_EQ(second->refCount(), 2);
}

TEST_F(VornSmartPointerTest, AssignmentOfARawPointer_ReleasesTheOldObjectFirstAndAddsAReference) {
    Pointer pointer(make("a"));
    Recorder* raw = make("b");
    m_journal.clear();
    pointer = raw;
    EXPECT_EQ(m_journal, (Journal{"-a", "~a", "+b"}));
    EXPECT_EQ(raw->refCount(), 1);
}

TEST_F(VornSmartPointerTest, AssignmentToOrOfAnEmptyPointer_OnlyAddsAReferenceOrReleases) {
    Pointer target;
    {
        const Pointer source(make("a"));
        m_journal.clear();
        target = source;
        EXPECT_EQ(m_journal, Journal{"+a"});
    }
    m_journal.clear();
    target = Pointer();
    EXPECT_EQ(m_journal, (Journal{"-a", "~a"}));
    EXPECT_EQ(static_cast<Recorder*>(target), nullptr);
}

TEST_F(VornSmartPointerTest, Assignments_ReturnThePointerItself) {
    Pointer pointer;
    const Pointer other(make("a"));
    EXPECT_EQ(&(pointer = other), &pointer);
    EXPECT_EQ(&(pointer = nullptr), &pointer);
}

TEST_F(VornSmartPointerTest, GetOwnership_EmptiesThePointerAndLeavesTheCount) {
    Recorder* raw = nullptr;
    {
        Pointer pointer(make("a"));
        raw = pointer.getOwnership();
        EXPECT_EQ(static_cast<Recorder*>(pointer), nullptr);
        EXPECT_EQ(pointer.getOwnership(), nullptr);
    }
    EXPECT_EQ(m_journal, Journal{"+a"});
    EXPECT_EQ(raw->refCount(), 1);
    raw->release();
    EXPECT_EQ(m_journal, (Journal{"+a", "-a", "~a"}));
}

TEST_F(VornSmartPointerTest, Dereferencing_ReachesTheObjectFromConstPointersToo) {
    Recorder* raw = make("a");
    Pointer pointer(raw);
    const Pointer& constant = pointer;
    EXPECT_EQ(pointer.operator->(), raw);
    EXPECT_EQ(constant.operator->(), raw);
    EXPECT_EQ(&*pointer, raw);
    EXPECT_EQ(&*constant, raw);
    EXPECT_EQ(constant->value(), 42);
    EXPECT_EQ((*constant).value(), 42);
}

TEST_F(VornSmartPointerTest, Equality_IsOneForTheSameObjectAndForTwoEmptyPointersElseZero) {
    const Pointer a(make("a"));
    const Pointer alias(a);
    const Pointer b(make("b"));
    const Pointer empty;
    const Pointer otherEmpty;
    EXPECT_EQ(a.operator==(alias), 1);
    EXPECT_EQ(empty.operator==(otherEmpty), 1);
    EXPECT_EQ(a.operator==(b), 0);
    EXPECT_EQ(a.operator==(empty), 0);
    EXPECT_EQ(empty.operator==(a), 0);
}

TEST_F(VornSmartPointerTest, Less_IsAlwaysZero) {
    const Pointer a(make("a"));
    const Pointer b(make("b"));
    const Pointer empty;
    EXPECT_EQ(a < b, 0);
    EXPECT_EQ(b < a, 0);
    EXPECT_EQ(a < a, 0);
    EXPECT_EQ(a < empty, 0);
    EXPECT_EQ(empty < a, 0);
}

TEST_F(VornSmartPointerTest, AsACondition_IsTrueWhenItHoldsAnObject) {
    const Pointer a(make("a"));
    const Pointer empty;
    EXPECT_FALSE(!a);
    EXPECT_TRUE(!empty);
    bool seen = false;
    if (a)
        seen = true;
    if (empty)
        seen = false;
    EXPECT_TRUE(seen);
    EXPECT_TRUE(a && !empty);
    EXPECT_EQ(a ? 1 : 2, 1);
}

TEST_F(VornSmartPointerTest, PointersAndRawPointers_CompareOnBothSides) {
    Recorder* raw = make("a");
    const Recorder* constant = raw;
    Recorder* other = make("b");
    Pointer a(raw);
    const Pointer alias(a);
    const Pointer b(other);
    expectEqual(a, alias);
    expectUnequal(a, b);
    expectEqual(a, raw);
    expectEqual(a, constant);
    expectUnequal(a, other);
    expectUnequal(b, constant);
}

TEST_F(VornSmartPointerTest, RawPointersOfABaseOrDerivedClass_Compare) {
    auto* raw = new DerivedRecorder("a", m_journal);
    VornObjectBase* base = raw;
    const VornSmartPointer<DerivedRecorder> derived(raw);
    const Pointer pointer(raw);
    expectEqual(pointer, raw);
    expectEqual(pointer, base);
    expectEqual(derived, base);
}

TEST_F(VornSmartPointerTest, Null_ComparesOnBothSides) {
    Pointer a(make("a"));
    const Pointer empty;
    expectUnequal(a, nullptr);
    expectEqual(empty, nullptr);
}

TEST_F(VornSmartPointerTest, ZeroAndNULL_CompareOnBothSides) {
    Pointer a(make("a"));
    const Pointer empty;
    EXPECT_FALSE(a == 0);
    EXPECT_FALSE(0 == a);
    EXPECT_TRUE(a != 0);
    EXPECT_TRUE(0 != a);
    EXPECT_TRUE(empty == 0);
    EXPECT_TRUE(0 == empty);
    EXPECT_FALSE(empty != 0);
    EXPECT_FALSE(0 != empty);
    EXPECT_TRUE(empty == NULL);
    EXPECT_TRUE(NULL == empty);
    EXPECT_TRUE(a != NULL);
    EXPECT_TRUE(NULL != a);
}

TEST_F(VornSmartPointerTest, APointerFromAnExpression_Compares) {
    const Pointer a(make("a"));
    const auto returned = [&a] { return a; };
    EXPECT_TRUE(returned() == a);
    EXPECT_FALSE(returned() != a);
    EXPECT_FALSE(returned() == nullptr);
    EXPECT_TRUE(returned() != nullptr);
}

TEST_F(VornSmartPointerTest, AFieldOfTheObjectItHolds_IsAssignedThroughACopy) {
    // Release comes first, so the straight form would read from the node that it has just destroyed.
    VornSmartPointer<Node> list(new Node);
    list->m_next = new Node;
    Node* second = list->m_next;
    const VornSmartPointer<Node> next = list->m_next;
    list = next;
    EXPECT_EQ(static_cast<Node*>(list), second);
    EXPECT_EQ(list->refCount(), 2);
}

TEST_F(VornSmartPointerTest, WhenTheEndOfTheOldObjectClearsTheSource_TheAssignedPointerIsEmpty) {
    class Owner : public Recorder {
    public:
        Owner(Pointer& source, Journal& journal) : Recorder("owner", journal), m_source(source) {}

        ~Owner() override { m_source = nullptr; }

    private:
        Pointer& m_source;
    };

    Pointer source(make("new"));
    Pointer assigned(new Owner(source, m_journal));
    m_journal.clear();
    assigned = source;
    EXPECT_TRUE(assigned == nullptr);
    EXPECT_TRUE(source == nullptr);
    EXPECT_EQ(m_journal, (Journal{"-owner", "-new", "~new", "~owner"}));
}

TEST_F(VornSmartPointerTest, CopiesOnManyThreads_DestroyTheObjectOnce) {
    {
        struct Quiet : VornObjectBase {
            explicit Quiet(Journal& journal) : m_journal(journal) {}

            ~Quiet() override { m_journal.push_back("~quiet"); }

            Journal& m_journal;
        };

        VornSmartPointer<Quiet> shared(new Quiet(m_journal));
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([shared] {
                for (int round = 0; round < 2000; ++round) {
                    VornSmartPointer<Quiet> copy(shared);
                    VornSmartPointer<Quiet> other;
                    other = copy;
                    copy = nullptr;
                }
            });
        }
        shared = nullptr;
        for (std::thread& thread : threads)
            thread.join();
        threads.clear();
    }
    EXPECT_EQ(m_journal, Journal{"~quiet"});
}

TEST_F(VornSmartPointerTest, OfAnIncompleteClass_CanBeDeclared) {
    const Holder holder{nullptr};
    EXPECT_EQ(holder.m_pointer, nullptr);
}
