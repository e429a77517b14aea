// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeakCheckedTest.h"

#include <memory>

#include <VornCollaborator.h>
#include <VornDependent.h>
#include <VornNotification.h>
#include <gtest/gtest.h>

using namespace VornTest;
using namespace VornSupport;

namespace {

class VornDependentTest : public LeakCheckedTest {};

} // namespace

TEST_F(VornDependentTest, IsConcreteAndIgnoresNotifications) {
    VornDependent dependent;
    VornCollaborator collaborator;
    EXPECT_NO_THROW(dependent.handleNotification(collaborator, VornNotification(7)));
}

TEST_F(VornDependentTest, ADerivedOne_IsToldTheCollaboratorAndTheNotificationThemselves) {
    class Remembering : public VornDependent {
    public:
        void handleNotification(VornCollaborator& collaborator,
                                const VornNotification& notification) override {
            m_collaborator = &collaborator;
            m_notification = &notification;
        }

        VornCollaborator* m_collaborator = nullptr;
        const VornNotification* m_notification = nullptr;
    };

    Remembering dependent;
    VornDependent& base = dependent;
    VornCollaborator collaborator;
    const VornNotification notification(7);
    base.handleNotification(collaborator, notification);
    EXPECT_EQ(dependent.m_collaborator, &collaborator);
    EXPECT_EQ(dependent.m_notification, &notification);
}

TEST_F(VornDependentTest, ADerivedOne_IsDestroyedThroughItsBase) {
    class Derived : public VornDependent {
    public:
        explicit Derived(bool& destroyed) : m_destroyed(destroyed) {}

        ~Derived() override { m_destroyed = true; }

    private:
        bool& m_destroyed;
    };

    bool destroyed = false;
    std::unique_ptr<VornDependent>(std::make_unique<Derived>(destroyed)).reset();
    EXPECT_EQ(destroyed, true);
}
