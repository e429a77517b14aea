// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Every scenario with its bytes cut into small pieces, as a network may cut them, must end as if they were
// whole.

#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "Scenarios.h"

#include <random>

using namespace VornTest;

namespace {

class Fragmentation : public LeakCheckedTest {
protected:
    void SetUp() override {
        LeakCheckedTest::SetUp();
        useInterposition();
    }
};

TEST_F(Fragmentation, IntoSingleBytesChangesNothing) {
    for (const Scenario& scenario : allScenarios()) {
        const TransferLimit limit(1);
        EXPECT_EQ(scenario.undisturbed, scenario.run(outcomeOf)) << scenario.name;
    }
}

TEST_F(Fragmentation, IntoRandomPiecesChangesNothing) {
    constexpr unsigned int seed = 20'260'101;
    std::mt19937 random(seed);
    for (int round = 0; round < 50; ++round) {
        for (const Scenario& scenario : allScenarios()) {
            const std::size_t most = 1 + random() % 9;
            const TransferLimit limit(most);
            EXPECT_EQ(scenario.undisturbed, scenario.run(outcomeOf))
                << scenario.name << " in pieces of " << most << ", seed " << seed << ", round " << round;
        }
    }
}

} // namespace
