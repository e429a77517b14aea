// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Everything with its bytes cut into small pieces, as a network may cut them, must end as if they were whole;
// but a line of which only a part is there is none.

#include "Exchange.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "Peers.h"
#include "Scenarios.h"

#include <VornSocketConnection.h>

#include <array>

using namespace VornTest;

namespace {

class Fragmentation : public LeakCheckedTest {
protected:
    void SetUp() override {
        LeakCheckedTest::SetUp();
        useInterposition();
    }
};

TEST_F(Fragmentation, OfTheWholeExchangeIntoPiecesOfEachLengthChangesNothing) {
    for (std::size_t length = 1; length <= 20; ++length) {
        const TransferLimit limit(length);
        for (const Exchange& exchange : allExchanges())
            EXPECT_EQ(exchange.undisturbed, exchange.run(outcomeOf))
                << exchange.name << " in pieces of " << length;
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
