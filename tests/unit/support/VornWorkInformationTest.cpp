// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeakCheckedTest.h"

#include <VornWorkInformation.h>
#include <gtest/gtest.h>

using namespace VornTest;
using VornSupport::VornWorkInformation;

namespace {

class VornWorkInformationTest : public LeakCheckedTest {};

} // namespace

TEST_F(VornWorkInformationTest, WhenConstructed_HasNoReferencesAndKnowsItsClassName) {
    const VornWorkInformation work;
    EXPECT_EQ(work.refCount(), 0);
    EXPECT_EQ(work.getClassName(), "VornSupport::VornWorkInformation");
    EXPECT_TRUE(work.isA(work.getClassName()));
}
