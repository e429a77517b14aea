// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "Posix.h"
#include "RelayStage.h"

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <sys/mount.h>

using namespace VornTest;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

/** What a network and an engine may do, and what takes seconds. */
class RelayFaultsTest : public testing::Test {
protected:
    /** What happens when so many have come. */
    struct Step {
        std::size_t nSeen;
        std::function<void()> happen;
    };

    void expectEachOnceInOrder(const std::string& sKind, int nCount, const std::vector<Step>& steps) {
        ChildProcess sink = m_stage.startSink("b", "", "log");
        ChildProcess service = m_stage.startService("a", sKind, sink.readLine(), nCount);
        for (const Step& step : steps) {
            ASSERT_TRUE(RelayStage::awaitNumbers("log", step.nSeen));
            step.happen();
        }
        m_stage.expectEachOnceInOrder("log", static_cast<std::size_t>(nCount), seconds(90));
    }

    Step cutAt(std::size_t nSeen, const std::string& sHost, milliseconds time) {
        return {nSeen, [this, sHost, time] { m_stage.cutNetwork(sHost, time); }};
    }

    RelayStage m_stage;
};

} // namespace

TEST_F(RelayFaultsTest, NetworkThatIsCutOnEitherSide_DelaysAndLosesNothing) {
    for (const char* szHost : {"a", "b"}) {
        m_stage.separateNetwork(szHost);
        m_stage.startRelay(szHost);
    }
    expectEachOnceInOrder("confirmed", 3000,
                          {cutAt(300, "a", seconds(4)), cutAt(900, "b", seconds(4)),
                           cutAt(1500, "b", seconds(2)), cutAt(2100, "a", seconds(2))});
}

TEST_F(RelayFaultsTest, NetworkThatTakesItsTime_IsNoReasonToRepeat) {
    for (const char* szHost : {"a", "b"}) {
        m_stage.separateNetwork(szHost, milliseconds(50));
        m_stage.startRelay(szHost);
    }
    expectEachOnceInOrder("plain", 3000, {});
    EXPECT_THAT(m_stage.run("a", {"status"}).first, testing::HasSubstr("repeated   0\n"));
    std::filesystem::remove(RelayStage::pathOf("log"));
    expectEachOnceInOrder("confirmed", 30, {});
}

TEST_F(RelayFaultsTest, EngineThatStandsStill_GetsItAgainAndStoresItOnce) {
    m_stage.startRelay("a", "publish-timeout = 1\n");
    m_stage.startRelay("b");
    const auto standStill = [this] {
        m_stage.pauseEngine();
        std::this_thread::sleep_for(seconds(5)); // it answers when that counts as lost
        m_stage.resumeEngine();
    };
    expectEachOnceInOrder("confirmed", 3000, {{300, standStill}});
    EXPECT_THAT(m_stage.run("a", {"status"}).first, testing::Not(testing::HasSubstr("repeated   0\n")));
}

TEST_F(RelayFaultsTest, EngineThatStandsStillForALittleTooLong_StoresItOnce) {
    m_stage.startRelay("a", "publish-timeout = 1\n");
    m_stage.startRelay("b");
    const auto standStill = [this] {
        m_stage.pauseEngine();
        std::this_thread::sleep_for(milliseconds(1400)); // too long for what was sent first, not for the rest
        m_stage.resumeEngine();
    };
    expectEachOnceInOrder("paced", 2000, {{300, standStill}});
}

TEST_F(RelayFaultsTest, EngineWithAFullDisk_GoesOnWhenThereIsRoomAgain) {
    m_stage.killEngine();
    const std::string sStore = RelayStage::pathOf("engine0");
    ASSERT_EQ(::mount("store", sStore.c_str(), "tmpfs", 0, "size=64m"), 0);
    m_stage.startEngine();
    VornRelay::NatsAdministration::Limits limits;
    limits.nBytes = 8 << 20;
    for (const char* szHost : {"a", "b"})
        m_stage.administration().addHost(szHost, limits);
    m_stage.startRelay("a", "publish-timeout = 1\n");
    m_stage.startRelay("b");
    const std::string sFiller = sStore + "/filler";
    const auto fill = [&] {
        std::ofstream filler(sFiller);
        const std::string sMuch(1 << 16, 'x');
        while (filler.write(sMuch.data(), static_cast<std::streamsize>(sMuch.size())).flush()) {
        }
        EXPECT_TRUE(m_stage.awaitStatus("a", "to b: 1 waiting, 16 bytes, "))
            << m_stage.run("a", {"status"}).first;
    };
    const auto makeRoom = [&] {
        std::filesystem::remove(sFiller);
        m_stage.killEngine(); // JetStream is off until the server starts again
        m_stage.startEngine();
    };
    expectEachOnceInOrder("confirmed", 3000, {{500, fill}, {500, makeRoom}});
    m_stage.killEngine();
    ::umount(sStore.c_str());
}

TEST_F(RelayFaultsTest, ConsumerWithNothingToBring_IsNotTakenForLost) {
    m_stage.startRelay("b");
    const auto created = [this] {
        return m_stage.administration().request("$JS.API.CONSUMER.INFO.VORN_TO_b.relay")["created"];
    };
    const auto before = created();
    std::this_thread::sleep_for(seconds(25)); // one that tells nothing is opened again after 15
    EXPECT_EQ(created(), before);
}

TEST(RelayReceiptsTest, ThoseThatNameDomainAndAccount_AreReadAndGranted) {
    const std::string sVersion = RelayStage::engineVersion();
    if (::strverscmp(sVersion.c_str(), "2.14") < 0)
        GTEST_SKIP() << "nats-server " << sVersion << " has no such receipts";
    const int nCount = 500;
    RelayStage stage({.sMore = "feature_flags { js_ack_fc_v2: true }\n"});
    stage.startRelay("a");
    stage.startRelay("b");
    ChildProcess sink = stage.startSink("b", "", "log");
    ChildProcess service = stage.startService("a", "plain", sink.readLine(), nCount);
    EXPECT_TRUE(RelayStage::awaitNumbers("log", nCount));
    VornRelay::NatsAdministration engine = stage.administration();
    EXPECT_TRUE(awaitCondition([&] {
        return engine.request("$JS.API.STREAM.INFO.VORN_TO_b")["state"]["messages"] == 0;
    })) << stage.state();
    EXPECT_EQ(RelayStage::history("log", nCount), (History{nCount, 0, 0, 0}));
}

TEST_F(RelayFaultsTest, ConfigurationOfThreeServersInTheManual_IsTakenFrom2_10On) {
    std::string sText = readTextFile(VORNTEST_RELAY_SOURCES "/nats-server.conf");
    for (const auto& [szFrom, szTo] :
         {std::pair("/etc/nats/engine1", "localhost"), std::pair("/etc/nats/ca", "ca")}) {
        for (std::size_t nAt = 0; (nAt = sText.find(szFrom)) != std::string::npos;)
            sText.replace(nAt, std::string(szFrom).size(), RelayStage::pathOf(szTo));
    }
    std::ofstream(RelayStage::pathOf("three.conf")) << sText;
    std::ofstream(RelayStage::pathOf("hosts.conf")) << "authorization { users: [\n{ user: \"admin\" }\n"
                                                    << VornRelay::permissionsOf("a", {"b"}) << "] }\n";
    ChildProcess check = RelayStage::runEngine({"-t", "-c", RelayStage::pathOf("three.conf")});
    const std::string sErrors = check.readAllErrors();
    if (::strverscmp(RelayStage::engineVersion().c_str(), "2.10") < 0)
        EXPECT_THAT(sErrors, testing::HasSubstr("sync_interval"));
    else
        EXPECT_EQ(check.wait(), 0) << sErrors;
}
