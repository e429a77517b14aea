// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayStage.h"

#include <csignal>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

using namespace VornTest;
using std::chrono::milliseconds;

namespace {

/** What has happened to the sink's log by a number. */
using Counts = std::map<int, int>;

/**
 * One round: a service sends numbers and repeats what was not confirmed, while the engine's servers and the
 * relays are killed and the networks are cut at random. What may come twice follows from what was done:
 * - a number that the service has posted again, as often as that;
 * - for each kill of the receiving relay one number, which was being delivered at that moment: the last one
 *   in the sink's log then, or the next.
 * Nothing may be missing, and no number may come for the first time after a higher one.
 */
class Round {
public:
    Round(unsigned int nSeed, int nServers)
        : m_nServers(nServers), m_random(nSeed), m_stage({.nServers = nServers}) {
        for (const char* szHost : {"a", "b"}) {
            m_stage.separateNetwork(szHost);
            start(szHost);
        }
    }

    void run(int nCount) {
        ChildProcess sink = m_stage.startSink("b", isLikely(2) ? "billing" : "", "log");
        ChildProcess service = m_stage.startService("a", "confirmed", sink.readLine(), nCount);
        for (int nNext = 0; nNext < nCount; nNext += between(20, nCount / 3)) {
            if (!RelayStage::awaitNumbers("log", static_cast<std::size_t>(nNext), std::chrono::seconds(90)))
                break;
            disturb();
        }
        EXPECT_TRUE(
            RelayStage::awaitNumbers("log", static_cast<std::size_t>(nCount), std::chrono::seconds(120)))
            << m_sDone << m_stage.run("a", {"status"}).first << m_stage.run("b", {"status"}).first
            << m_stage.state();
        service.readLine(std::chrono::seconds(60));
        std::istringstream repeated(service.readLine());
        for (int n = 0; repeated >> n;)
            ++m_mayComeAgain[n];
        check(nCount);
    }

private:
    int between(int nLow, int nHigh) { return std::uniform_int_distribution<int>(nLow, nHigh)(m_random); }

    bool isLikely(int nOneIn) { return between(1, nOneIn) == 1; }

    void start(const std::string& sHost) {
        m_stage.startRelay(sHost, sHost == "a" ? "publish-timeout = 1\n" : "");
    }

    void disturb() {
        switch (between(0, 3)) {
        case 0:
            disturbEngine();
            break;
        case 1:
            m_sDone += "sending relay killed\n";
            m_stage.endRelay("a", SIGKILL);
            start("a");
            break;
        case 2:
            m_sDone += "receiving relay killed\n";
            m_stage.endRelay("b", SIGKILL);
            m_lastAtKills.push_back(lastInLog());
            start("b");
            break;
        default:
            const std::string sHost = isLikely(2) ? "a" : "b";
            m_sDone += "network of " + sHost + " cut\n";
            m_stage.cutNetwork(sHost, milliseconds(between(50, 4000)));
        }
    }

    void disturbEngine() {
        const int nServer = between(0, m_nServers - 1);
        if (m_nServers > 1 && isLikely(4)) {
            m_sDone += "server " + std::to_string(nServer) + " replaced\n";
            m_stage.retireEngine(nServer);
            m_stage.startEngine(nServer);
            return;
        }
        const bool bAll = isLikely(4);
        m_sDone += bAll ? "engine killed\n" : "server " + std::to_string(nServer) + " killed\n";
        for (int n = 0; n < m_nServers; ++n) {
            if (bAll || n == nServer)
                m_stage.killEngine(n);
        }
        for (int n = 0; n < m_nServers; ++n) {
            if (bAll || n == nServer)
                m_stage.startEngine(n);
        }
    }

    static int lastInLog() {
        int nLast = 0;
        std::ifstream lines(RelayStage::pathOf("log"));
        for (int n = 0; lines >> n;)
            nLast = n;
        return nLast;
    }

    void check(int nCount) {
        Counts seen;
        int nHighest = 0;
        std::ifstream lines(RelayStage::pathOf("log"));
        for (int n = 0; lines >> n; nHighest = std::max(nHighest, n)) {
            const bool bIsNew = ++seen[n] == 1;
            EXPECT_FALSE(bIsNew && n < nHighest) << n << " came after " << nHighest << "\n" << m_sDone;
        }
        int nLost = 0;
        for (int n = 1; n <= nCount; ++n) {
            EXPECT_GE(seen[n], 1) << n << " is missing\n" << m_sDone;
            nLost += seen[n] == 0 ? 1 : 0;
        }
        int nRepeated = 0;
        for (const auto& [n, nTimes] : seen) {
            nRepeated += std::max(nTimes - 1, 0);
            EXPECT_LE(nTimes - 1, m_mayComeAgain[n] + killsAt(n)) << n << " came too often\n" << m_sDone;
        }
        std::cout << "nats-server " << RelayStage::engineVersion() << ", servers: " << m_nServers << ": "
                  << nCount << " numbers, " << nRepeated << " repeated, " << nLost << " lost, "
                  << std::count(m_sDone.begin(), m_sDone.end(), '\n') << " disturbances" << std::endl;
    }

    int killsAt(int n) const {
        return static_cast<int>(std::count_if(m_lastAtKills.begin(), m_lastAtKills.end(),
                                              [n](int nLast) { return n == nLast || n == nLast + 1; }));
    }

    const int m_nServers;
    std::mt19937 m_random;
    RelayStage m_stage;
    std::string m_sDone;
    std::vector<int> m_lastAtKills;
    Counts m_mayComeAgain;
};

} // namespace

class RelayRounds : public testing::TestWithParam<int> {};

TEST_P(RelayRounds, WhateverIsKilledOrCut_OnlyWhatFollowsFromItComesTwiceAndNothingIsLost) {
    if (const std::string sFault = RelayStage::faultOfClusters(); GetParam() > 1 && !sFault.empty())
        GTEST_SKIP() << sFault;
    const auto nSeed = static_cast<unsigned int>(testing::UnitTest::GetInstance()->random_seed());
    std::cout << "seed " << nSeed << std::endl;
    Round(nSeed, GetParam()).run(1500);
}

INSTANTIATE_TEST_SUITE_P(Servers, RelayRounds, testing::Values(1, 3), testing::PrintToStringParamName());
