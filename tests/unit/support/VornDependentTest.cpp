// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeakCheckedTest.h"

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
