// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeakCheckedTest.h"

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <ModuleData.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using VornSupport::ModuleData;

namespace {

using testing::ElementsAre;

class Probe : public ModuleData {
public:
    using ModuleData::m_bAutoInit;
    using ModuleData::m_nAttachCount;
    using ModuleData::ModuleData;
};

class Journalling : public ModuleData {
public:
    explicit Journalling(std::vector<std::string>& journal) : ModuleData(true), m_journal(journal) {}

    ~Journalling() override { m_journal.push_back("destroyed"); }

    void attach() override { m_journal.push_back("attach"); }

    void detach() override { m_journal.push_back("detach"); }

private:
    std::vector<std::string>& m_journal;
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

TEST_F(ModuleDataTest, AttachCount_IsASigned32BitInteger) {
    EXPECT_TRUE((std::is_same_v<decltype(Probe::m_nAttachCount), int>));
}

TEST_F(ModuleDataTest, ItsOwnHooks_DoNothing) {
    Probe module(true);
    module.attach();
    module.detach();
    EXPECT_EQ(module.m_nAttachCount, 0);
}

TEST_F(ModuleDataTest, ADerivedModule_IsReachedThroughItsBase) {
    std::vector<std::string> journal;
    std::unique_ptr<ModuleData> module = std::make_unique<Journalling>(journal);
    module->attach();
    module->detach();
    module.reset();
    // Calling the hooks at the start and the end is the derived module's own.
    EXPECT_THAT(journal, ElementsAre("attach", "detach", "destroyed"));
}

TEST_F(ModuleDataTest, CanNeitherBeCopiedNorAssigned) {
    EXPECT_FALSE(std::is_copy_constructible_v<ModuleData>);
    EXPECT_FALSE(std::is_copy_assignable_v<ModuleData>);
}
