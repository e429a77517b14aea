// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeakCheckedTest.h"

#include <climits>

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
