// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeakCheckedTest.h"

#include <VornSmartPointer.h>
#include <VornWorkInformation.h>
#include <gtest/gtest.h>

using namespace VornTest;
using VornSupport::VornSmartPointer;
using VornSupport::VornWorkInformation;

namespace {

class Work : public VornWorkInformation {
public:
    explicit Work(int& destroyed) : m_destroyed(destroyed) {}

    ~Work() override { ++m_destroyed; }

private:
    int& m_destroyed;
};

class VornWorkInformationTest : public LeakCheckedTest {};

} // namespace

TEST_F(VornWorkInformationTest, WhenConstructed_HasCountZero) {
    const VornWorkInformation work;
    EXPECT_EQ(work.refCount(), 0);
}

TEST_F(VornWorkInformationTest, IsDestroyedWithItsLastSmartPointer) {
    int destroyed = 0;
    {
        const VornSmartPointer<VornWorkInformation> first(new Work(destroyed));
        const VornSmartPointer<VornWorkInformation> second(first);
        EXPECT_EQ(first->refCount(), 2);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST_F(VornWorkInformationTest, KnowsItsClassName) {
    const VornWorkInformation work;
    EXPECT_EQ(work.getClassName(), "VornSupport::VornWorkInformation");
    EXPECT_TRUE(work.isA(work.getClassName()));
}
