// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeakCheckedTest.h"

#include <climits>
#include <memory>

#include <VornNotification.h>
#include <gtest/gtest.h>

using namespace VornTest;
using VornSupport::VornNotification;

namespace {

class VornNotificationTest : public LeakCheckedTest {};

} // namespace

TEST_F(VornNotificationTest, HasTheIdGivenAtConstruction) {
    for (const int id : {0, 1, -5, INT_MAX, INT_MIN}) {
        const VornNotification notification(id);
        EXPECT_EQ(notification.getId(), id);
    }
}

TEST_F(VornNotificationTest, ADerivedNotification_IsDestroyedThroughItsBase) {
    class Derived : public VornNotification {
    public:
        explicit Derived(bool& destroyed) : VornNotification(3), m_destroyed(destroyed) {}

        ~Derived() override { m_destroyed = true; }

    private:
        bool& m_destroyed;
    };

    bool destroyed = false;
    std::unique_ptr<VornNotification>(std::make_unique<Derived>(destroyed)).reset();
    EXPECT_EQ(destroyed, true);
}
