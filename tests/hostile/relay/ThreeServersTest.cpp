// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayStage.h"

#include <chrono>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace VornTest;

namespace {

using Clock = std::chrono::steady_clock;

/** What is done to a cluster of three. */
struct Step {
    const char* szName;
    std::function<void()> disturb;
};

std::vector<Step> stepsFor(RelayStage& stage) {
    const auto killAndStart = [&stage](const std::vector<int>& servers) {
        for (const int nServer : servers)
            stage.killEngine(nServer);
        for (const int nServer : servers)
            stage.startEngine(nServer);
    };
    const auto replaceInTurn = [&stage] {
        for (const int nServer : {0, 1, 2}) {
            stage.retireEngine(nServer);
            stage.startEngine(nServer);
            stage.awaitEngines();
        }
    };
    return {{"first killed", [=] { killAndStart({0}); }},
            {"second killed", [=] { killAndStart({1}); }},
            {"third killed", [=] { killAndStart({2}); }},
            {"leader killed", [=, &stage] { killAndStart({stage.leader()}); }},
            {"all killed",
             [=] {
                 killAndStart({0, 1, 2});
             }},
            {"each replaced in turn", replaceInTurn}};
}

class ThreeServersTest : public testing::TestWithParam<const char*> {};

} // namespace

TEST_P(ThreeServersTest, WhicheverIsKilledOrReplaced_NothingIsLostRepeatedOrOutOfOrder) {
    if (const std::string sFault = RelayStage::faultOfClusters(); !sFault.empty())
        GTEST_SKIP() << sFault;
    const int nCount = 1000;
    RelayStage stage({.nServers = 3});
    stage.startRelay("a");
    stage.startRelay("b");
    for (const auto& [szName, disturb] : stepsFor(stage)) {
        SCOPED_TRACE(szName);
        ChildProcess sink = stage.startSink("b", "", szName);
        ChildProcess service = stage.startService("a", GetParam(), sink.readLine(), nCount);
        ASSERT_TRUE(RelayStage::awaitNumbers(szName, 100));
        const Clock::time_point began = Clock::now();
        disturb();
        stage.expectEachOnceInOrder(szName, nCount, std::chrono::seconds(90));
        const std::chrono::duration<double> time = Clock::now() - began;
        std::cout << szName << ", " << GetParam() << ": " << nCount << " in " << time.count() << " s"
                  << std::endl;
        stage.awaitEngines();
    }
}

INSTANTIATE_TEST_SUITE_P(Either, ThreeServersTest, testing::Values("plain", "paced"),
                         [](const auto& service) { return std::string(service.param); });
