// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayStage.h"

#include <functional>
#include <iostream>
#include <string>

#include <gtest/gtest.h>

using namespace VornTest;

namespace {

/** A cluster of three, and each stream is on all of them. */
class ThreeServersTest : public testing::TestWithParam<const char*> {
protected:
    void killAndStart(int nServer) {
        m_stage.killEngine(nServer);
        m_stage.startEngine(nServer);
    }

    RelayStage m_stage{{.nServers = 3}};
};

} // namespace

TEST_P(ThreeServersTest, WhicheverIsKilledOrReplaced_NothingIsLostRepeatedOrOutOfOrder) {
    const struct {
        const char* szName;
        std::function<void()> disturb;
    } steps[] = {
        {"first killed", [this] { killAndStart(0); }},
        {"second killed", [this] { killAndStart(1); }},
        {"third killed", [this] { killAndStart(2); }},
        {"leader killed", [this] { killAndStart(m_stage.leader()); }},
        {"all killed",
         [this] {
             for (const int nServer : {0, 1, 2})
                 m_stage.killEngine(nServer);
             for (const int nServer : {0, 1, 2})
                 m_stage.startEngine(nServer);
         }},
        {"each replaced in turn",
         [this] {
             for (const int nServer : {0, 1, 2}) {
                 m_stage.retireEngine(nServer);
                 m_stage.startEngine(nServer);
                 m_stage.awaitEngines();
             }
         }},
    };

    const int nCount = 2000;
    m_stage.startRelay("a");
    m_stage.startRelay("b");
    for (const auto& [szName, disturb] : steps) {
        SCOPED_TRACE(szName);
        ChildProcess sink = m_stage.startSink("b", "", szName);
        ChildProcess service = m_stage.startService("a", GetParam(), sink.readLine(), nCount);
        ASSERT_TRUE(RelayStage::awaitNumbers(szName, 100));
        const auto began = std::chrono::steady_clock::now();
        disturb();
        EXPECT_TRUE(RelayStage::awaitNumbers(szName, nCount, std::chrono::seconds(90)))
            << m_stage.run("a", {"status"}).first << m_stage.run("b", {"status"}).first << m_stage.state();
        EXPECT_EQ(RelayStage::history(szName, nCount), (History{nCount, 0, 0, 0}));
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - began;
        std::cout << szName << ", " << GetParam() << ": "
                  << testing::PrintToString(RelayStage::history(szName, nCount)) << ", " << time.count()
                  << " s" << std::endl;
        m_stage.awaitEngines();
    }
}

INSTANTIATE_TEST_SUITE_P(Either, ThreeServersTest, testing::Values("plain", "paced"),
                         [](const auto& service) { return std::string(service.param); });
