// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeakCheckedTest.h"

#include <type_traits>

#include <ModuleData.h>
#include <gtest/gtest.h>

using namespace VornTest;
using VornSupport::ModuleData;

namespace {

class Probe : public ModuleData {
public:
    using ModuleData::m_bAutoInit;
    using ModuleData::m_nAttachCount;
    using ModuleData::ModuleData;
};

class ModuleDataTest : public LeakCheckedTest {};

} // namespace

TEST_F(ModuleDataTest, KeepsTheFlagAndStartsWithoutAttachments) {
    const Probe automatic(true);
    EXPECT_EQ(automatic.m_bAutoInit, true);
    EXPECT_EQ(automatic.m_nAttachCount, 0);
    const Probe manual(false);
    EXPECT_EQ(manual.m_bAutoInit, false);
    EXPECT_EQ(manual.m_nAttachCount, 0);
}

TEST_F(ModuleDataTest, ItsOwnHooks_DoNothing) {
    Probe module(true);
    module.attach();
    module.detach();
    EXPECT_EQ(module.m_nAttachCount, 0);
}

TEST_F(ModuleDataTest, CanNeitherBeCopiedNorAssigned) {
    EXPECT_FALSE(std::is_copy_constructible_v<ModuleData>);
    EXPECT_FALSE(std::is_copy_assignable_v<ModuleData>);
}
