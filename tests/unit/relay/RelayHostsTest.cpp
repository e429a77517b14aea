// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayHosts.h"

#include "Posix.h"
#include "Sandbox.h"
#include "ScriptedEngine.h"

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include <gmock/gmock.h>
#include <unistd.h>

using namespace VornRelay;
using namespace VornTest;
using testing::ElementsAre;

namespace {

/** Host "s" may notify "g" and "h"; the loop runs on the test's thread. */
class RelayHostsTest : public testing::Test {
protected:
    RelayHostsTest() : m_settings(settings()), m_hosts(m_loop, m_engine, m_settings, m_counters) {
        m_hosts.open();
        m_hosts.setConnected(true);
    }

    static RelaySettings settings() {
        RelaySettings settings;
        settings.access.sHost = "s";
        settings.sendTo = {"g", "h"};
        settings.nHoldBytes = 72;
        settings.sStateDirectory = "/opt/hosts-" + std::to_string(::getpid());
        std::filesystem::create_directories(settings.sStateDirectory);
        return settings;
    }

    /** Notifies lease 7 of that host, as a plain service does. */
    void notify(const std::string& sHost) {
        const std::size_t nBefore = m_counters.nAccepted;
        sendAll(unixConnect(pipePath("relay-" + sHost)).get(), bytes("00 00 00 07 00 00 00 00"));
        ASSERT_TRUE(runUntil(m_loop, [&] { return m_counters.nAccepted > nBefore; }));
    }

    bool accepts(const std::string& sHost) const {
        try {
            unixConnect(pipePath("relay-" + sHost));
            return true;
        } catch (const std::system_error&) {
            return false;
        }
    }

    std::vector<std::string> names() const {
        std::vector<std::string> names;
        for (const auto& host : m_hosts.status())
            names.push_back(host["host"]);
        return names;
    }

    void sendToAll() {
        m_settings.sendTo.clear();
        m_settings.bSendToAll = true;
        m_hosts.change(m_settings);
        m_hosts.ask();
    }

    RelayLoop m_loop;
    ScriptedEngine m_engine;
    RelayCounters m_counters;
    RelaySettings m_settings;
    RelayHosts m_hosts;
};

} // namespace

TEST_F(RelayHostsTest, HostThatIsNotListedAnyMore_GoesWhenWhatWasAcceptedIsStored) {
    notify("g");
    m_settings.sendTo = {"h", "i"};
    m_hosts.change(m_settings);
    EXPECT_TRUE(accepts("i")) << "at once";
    m_hosts.look();
    EXPECT_FALSE(accepts("g"));
    EXPECT_THAT(names(), ElementsAre("g", "h", "i"));
    EXPECT_FALSE(m_hosts.isIdle());
    m_engine.answer(Engine::Answer::stored);
    EXPECT_TRUE(m_hosts.isIdle());
    m_hosts.look();
    EXPECT_THAT(names(), ElementsAre("h", "i"));
}

TEST_F(RelayHostsTest, WhereAllMayBeNotified_TheyAreThoseTheEngineTellsOf) {
    sendToAll();
    m_hosts.look();
    EXPECT_THAT(names(), ElementsAre("g", "h")) << "until the engine has told";
    m_engine.onHostsListed(nullptr);
    m_hosts.look();
    EXPECT_THAT(names(), ElementsAre("g", "h")) << "it has not told";
    const std::vector<std::string> listed{"h", "i", "s"};
    m_engine.onHostsListed(&listed);
    m_hosts.look();
    EXPECT_THAT(names(), ElementsAre("h", "i")) << "not this host itself";
    EXPECT_TRUE(accepts("i"));
}

TEST_F(RelayHostsTest, LeaseThatHasEnded_IsRefusedAtItsHostAlone) {
    m_hosts.told("vorn.gone.g", "7");
    m_hosts.told("vorn.gone.unknown", "7");
    for (const char* szNoLease : {"", "0", "x"})
        m_hosts.told("vorn.gone.h", szNoLease);
    sendAll(unixConnect(pipePath("relay-g")).get(), bytes("00 00 00 07 00 00 00 00"));
    EXPECT_TRUE(runUntil(m_loop, [&] { return m_counters.nRefused == 1; }));
    notify("h");
    EXPECT_EQ(m_engine.published(0).sSubject, "vorn.to.h.sink.lease.7");
}

TEST_F(RelayHostsTest, WhileTooMuchWaits_ItsHostsPipeIsClosed) {
    const auto acceptsAfterALook = [this] {
        m_hosts.look();
        return accepts("h");
    };
    for (int i = 0; i < 4; ++i)
        notify("h");
    EXPECT_TRUE(acceptsAfterALook()) << "32 of 72 bytes wait, and no more than the 40 that are left";
    notify("h");
    EXPECT_FALSE(acceptsAfterALook());
    EXPECT_TRUE(accepts("g")) << "it has what is left to itself";
    m_engine.answer(Engine::Answer::stored);
    EXPECT_FALSE(acceptsAfterALook()) << "more than half of what is left";
    m_engine.answer(Engine::Answer::stored);
    EXPECT_TRUE(acceptsAfterALook());
}

TEST_F(RelayHostsTest, OnceStopped_NothingIsAcceptedAndWhatWasIsStillStored) {
    notify("h");
    m_hosts.stop();
    m_settings.sendTo.push_back("i");
    m_hosts.change(m_settings);
    for (const char* szHost : {"g", "h", "i"})
        EXPECT_FALSE(accepts(szHost)) << szHost;
    EXPECT_EQ(m_hosts.heldBytes(), 8U);
    m_engine.answer(Engine::Answer::stored);
    EXPECT_TRUE(m_hosts.isIdle());
}
