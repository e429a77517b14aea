// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "LeakCheckedTest.h"

#include <atomic>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

#include <VornCollaborator.h>
#include <VornDependent.h>
#include <VornNotification.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using namespace VornSupport;

namespace {

using testing::ElementsAre;

/** Writes down what it is told, and may do something then. */
class Listener : public VornDependent {
public:
    Listener(std::string name, std::vector<std::string>& journal)
        : m_name(std::move(name)), m_journal(journal) {}

    void handleNotification(VornCollaborator& collaborator, const VornNotification& notification) override {
        m_journal.push_back(m_name + std::to_string(notification.getId()));
        if (m_action)
            m_action(collaborator);
    }

    std::function<void(VornCollaborator&)> m_action;

private:
    std::string m_name;
    std::vector<std::string>& m_journal;
};

class VornCollaboratorTest : public LeakCheckedTest {
protected:
    VornCollaborator m_subject;
    std::vector<std::string> m_journal;
    Listener m_a{"a", m_journal};
    Listener m_b{"b", m_journal};
    Listener m_c{"c", m_journal};
};

} // namespace

TEST_F(VornCollaboratorTest, TellsItsDependentsOnceAndInTheOrderTheyWereAdded) {
    m_subject.notify(VornNotification(6));
    m_subject.addDependent(m_b);
    m_subject.addDependent(m_a);
    m_subject.addDependent(m_c);
    m_subject.addDependent(m_b);
    m_subject.notify(VornNotification(7));
    EXPECT_THAT(m_journal, ElementsAre("b7", "a7", "c7"));
}

TEST_F(VornCollaboratorTest, ARemovedDependent_IsToldNothing) {
    m_subject.addDependent(m_a);
    m_subject.addDependent(m_b);
    m_subject.removeDependent(m_a);
    m_subject.removeDependent(m_a);
    m_subject.notify(VornNotification(1));
    EXPECT_THAT(m_journal, ElementsAre("b1"));
}

TEST_F(VornCollaboratorTest, ADependentRemovedByAnEarlierOne_IsPassedOver) {
    m_subject.addDependent(m_a);
    m_subject.addDependent(m_b);
    m_subject.addDependent(m_c);
    m_a.m_action = [this](VornCollaborator& subject) { subject.removeDependent(m_b); };
    m_subject.notify(VornNotification(1));
    EXPECT_THAT(m_journal, ElementsAre("a1", "c1"));
}

TEST_F(VornCollaboratorTest, ADependentThatRemovesItself_IsToldNoMoreAndTheOthersAre) {
    m_subject.addDependent(m_a);
    m_subject.addDependent(m_b);
    m_a.m_action = [this](VornCollaborator& subject) { subject.removeDependent(m_a); };
    m_subject.notify(VornNotification(1));
    m_subject.notify(VornNotification(2));
    EXPECT_THAT(m_journal, ElementsAre("a1", "b1", "b2"));
}

TEST_F(VornCollaboratorTest, ADependentAddedMeanwhile_IsToldFromTheNextNotification) {
    m_subject.addDependent(m_a);
    m_a.m_action = [this](VornCollaborator& subject) { subject.addDependent(m_b); };
    m_subject.notify(VornNotification(1));
    m_subject.notify(VornNotification(2));
    EXPECT_THAT(m_journal, ElementsAre("a1", "a2", "b2"));
}

TEST_F(VornCollaboratorTest, WhatADependentThrows_PassesThroughAndThoseBehindItAreNotTold) {
    m_subject.addDependent(m_a);
    m_subject.addDependent(m_b);
    m_a.m_action = [](VornCollaborator&) { throw std::runtime_error("no"); };
    EXPECT_THROW(m_subject.notify(VornNotification(1)), std::runtime_error);
    EXPECT_THAT(m_journal, ElementsAre("a1"));
    m_a.m_action = nullptr;
    WatchedThread other([this] { m_subject.notify(VornNotification(2)); });
    EXPECT_TRUE(other.join());
    EXPECT_THAT(m_journal, ElementsAre("a1", "a2", "b2"));
}

TEST_F(VornCollaboratorTest, WhileADependentIsBeingTold_TheOperationsOfAnotherThreadWait) {
    std::promise<void> entered;
    std::promise<void> leave;
    m_subject.addDependent(m_a);
    m_a.m_action = [&](VornCollaborator&) {
        entered.set_value();
        leave.get_future().wait();
    };
    WatchedThread notifier([this] { m_subject.notify(VornNotification(1)); });
    entered.get_future().wait();
    WatchedThread remover([this] { m_subject.removeDependent(m_a); });
    WatchedThread adder([this] { m_subject.addDependent(m_b); });
    for (WatchedThread* thread : {&remover, &adder}) {
        EXPECT_TRUE(awaitBlockedOnLock(thread->tid()));
        EXPECT_FALSE(thread->finished());
    }
    leave.set_value();
    EXPECT_TRUE(remover.join() && adder.join());
    EXPECT_TRUE(notifier.join());
}

TEST_F(VornCollaboratorTest, ManyThreads_MayAddRemoveAndNotify) {
    class Counter : public VornDependent {
    public:
        void handleNotification(VornCollaborator&, const VornNotification&) override { ++m_count; }

        std::atomic<int> m_count{0};
    };

    Counter steady;
    Counter changing;
    m_subject.addDependent(steady);
    {
        WatchedThread changer([&] {
            for (int round = 0; round < 500; ++round) {
                m_subject.addDependent(changing);
                m_subject.removeDependent(changing);
            }
        });
        const auto notify = [&] {
            for (int round = 0; round < 500; ++round)
                m_subject.notify(VornNotification(round));
        };
        WatchedThread first(notify);
        WatchedThread second(notify);
        EXPECT_TRUE(changer.join() && first.join() && second.join());
    }
    EXPECT_EQ(steady.m_count.load(), 1000);
    EXPECT_LE(changing.m_count.load(), 1000);
}
