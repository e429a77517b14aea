// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Everything with its bytes cut into small pieces, as a network may cut them, must end as if they were whole;
// but a line of which only a part is there is none.

#include "Cuts.h"
#include "Exchange.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "Peers.h"
#include "Scenarios.h"

#include <VornSocketConnection.h>

#include <array>
#include <cstdio>

using namespace VornTest;

namespace {

constexpr unsigned int cSeed = 20'260'101;

/** A line that is read by way of a look at what is waiting. */
bool isLineReader(const Scenario& scenario) {
    return scenario.name.size() > 5 && scenario.name.compare(scenario.name.size() - 5, 5, " line") == 0;
}

class Fragmentation : public LeakCheckedTest {
protected:
    void SetUp() override {
        LeakCheckedTest::SetUp();
        useInterposition();
    }

    static void expectExchangesUndisturbed(const std::string& circumstance) {
        for (const Exchange& exchange : allExchanges())
            EXPECT_EQ(exchange.undisturbed, exchange.run(outcomeOf)) << exchange.name << circumstance;
    }

    static void expectScenariosUndisturbed(const std::string& circumstance) {
        for (const Scenario& scenario : allScenarios()) {
            if (!isLineReader(scenario) && !scenario.isOfAllThreads) {
                EXPECT_EQ(scenario.undisturbed, scenario.run(outcomeOf)) << scenario.name << circumstance;
            }
        }
    }
};

TEST_F(Fragmentation, IsNotThereAtFirst) {
    expectExchangesUndisturbed("");
}

TEST_F(Fragmentation, OfTheWholeExchangeIntoSingleBytesChangesNothing) {
    const TransferLimit limit(1);
    expectExchangesUndisturbed(" in single bytes");
}

TEST_F(Fragmentation, OfTheWholeExchangeIntoPiecesOfEachLengthChangesNothing) {
    for (std::size_t length = 2; length <= 20; ++length) {
        const TransferLimit limit(length);
        expectExchangesUndisturbed(" in pieces of " + std::to_string(length));
    }
}

TEST_F(Fragmentation, OfTheWholeExchangeIntoRandomPiecesChangesNothing) {
    constexpr unsigned int cRounds = 30;
    for (unsigned int round = 0; round < cRounds && !HasFailure(); ++round) {
        const RandomCuts cuts(cSeed + round, 1 + round % 20);
        expectExchangesUndisturbed(" in random pieces, seed " + std::to_string(cSeed + round));
    }
    std::printf("fragmentation: %zu exchanges whole, in pieces of 1 to 20 bytes and in random pieces, seeds "
                "%u to %u\n",
                allExchanges().size(), cSeed, cSeed + cRounds - 1);
}

TEST_F(Fragmentation, OfScenariosIntoSingleBytesChangesNothing) {
    const TransferLimit limit(1);
    expectScenariosUndisturbed(" in single bytes");
}

TEST_F(Fragmentation, OfScenariosIntoRandomPiecesChangesNothing) {
    for (unsigned int round = 0; round < 10 && !HasFailure(); ++round) {
        const RandomCuts cuts(cSeed + round, 9);
        expectScenariosUndisturbed(" in random pieces, seed " + std::to_string(cSeed + round));
    }
}

TEST_F(Fragmentation, OfSinksDeliveriesChangesNothing) {
    for (const Scenario& scenario : sinkScenarios()) {
        const TransferLimit limit(1);
        EXPECT_EQ(scenario.undisturbed, scenario.run(outcomeOf)) << scenario.name << " in single bytes";
        const RandomCuts cuts(cSeed, 9);
        EXPECT_EQ(scenario.undisturbed, scenario.run(outcomeOf)) << scenario.name << " in random pieces";
    }
}

TEST_F(Fragmentation, OfALineMakesItALineOnlyWhenThePieceHoldsAllOfIt) {
    const std::string line = "GET x\r\n";
    int port = 0;
    const Service service(tcpListen("127.0.0.1", port, 20), [&](int client) {
        sendAll(client, line);
        receiveToEnd(client);
    });
    for (std::size_t length = 1; length <= 2 * line.size(); ++length) {
        const TransferLimit limit(length);
        VornNet::VornSocketConnection connection("127.0.0.1", port, false, false);
        std::array<char, 64> buffer;
        int error = 0;
        const char* read = connection.getLine(buffer.data(), buffer.size(), error);
        EXPECT_EQ(length >= line.size(), read != nullptr) << "in pieces of " << length;
        EXPECT_EQ(0, error) << "in pieces of " << length;
        EXPECT_STREQ(length >= line.size() ? "GET x" : line.substr(0, length).c_str(), buffer.data());
    }
}

} // namespace
