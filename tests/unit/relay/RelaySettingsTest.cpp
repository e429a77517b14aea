// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelaySettings.h"

#include <filesystem>
#include <fstream>
#include <string>

#include <gmock/gmock.h>
#include <unistd.h>

using namespace VornRelay;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::ThrowsMessage;

namespace {

class RelaySettingsTest : public testing::Test {
protected:
    RelaySettingsTest() { std::filesystem::create_directories(m_sDirectory); }

    ~RelaySettingsTest() override { std::filesystem::remove_all(m_sDirectory); }

    RelaySettings read(const std::string& sText) const {
        std::ofstream(m_sDirectory + "/relay.conf") << sText;
        return RelaySettings::read(m_sDirectory + "/relay.conf");
    }

    const std::string m_sDirectory = "/opt/settings-" + std::to_string(::getpid());
};

} // namespace

TEST_F(RelaySettingsTest, Keys_AreTaken) {
    const RelaySettings settings =
        read("# a comment\n\n host = north.example \nservers = tls://x:1, tls://y:2\n"
             "send-to = south.example east\nreceive = no\nwindow = 256\npatience = 5\n"
             "on-slow = block\nhold-bytes = 1000\n"
             "topic = builds=pipe:buildd, j.1=socket:127.0.0.1:7\ntopic = k=pipe:k\n"
             "follow = x@south.example y@east\nfollow = y@east\n"
             "offer = p=pipe:p q_1=socket:127.0.0.1:7\nreach = x@east, r@south.example\n");
    EXPECT_EQ(settings.access.sHost, "north_example");
    EXPECT_THAT(settings.access.servers, ElementsAre("tls://x:1", "tls://y:2"));
    EXPECT_THAT(settings.sendTo, ElementsAre("south_example", "east"));
    EXPECT_FALSE(settings.bReceive);
    EXPECT_EQ(settings.nWindow, 256U);
    EXPECT_EQ(settings.patience, std::chrono::seconds(5));
    EXPECT_EQ(settings.onSlow, RelaySettings::OnSlow::block);
    EXPECT_EQ(settings.nHoldBytes, 1000U);
    EXPECT_THAT(settings.topics, ElementsAre(Pair("builds", "pipe:buildd"), Pair("j.1", "socket:127.0.0.1:7"),
                                             Pair("k", "pipe:k")));
    EXPECT_THAT(settings.followed, ElementsAre(Pair("x", "south_example"), Pair("y", "east")));
    EXPECT_THAT(settings.offered, ElementsAre(Pair("p", "pipe:p"), Pair("q_1", "socket:127.0.0.1:7")));
    EXPECT_THAT(settings.reached, ElementsAre(Pair("x", "east"), Pair("r", "south_example")));
}

TEST_F(RelaySettingsTest, Additions_AreReadInTheOrderOfTheirNames) {
    std::filesystem::create_directories(m_sDirectory + "/relay.d");
    std::ofstream(m_sDirectory + "/relay.d/20.conf") << "window = 20\n";
    std::ofstream(m_sDirectory + "/relay.d/10.conf") << "window = 10\n";
    std::ofstream(m_sDirectory + "/relay.d/30.old") << "window = 30\n";
    EXPECT_EQ(read("host = a\nservers = x\nwindow = 1\n").nWindow, 20U);
}

TEST_F(RelaySettingsTest, WhatIsWrong_IsSaidWithFileAndLine) {
    const std::pair<const char*, const char*> cases[] = {
        {"colour = red", "relay.conf:1: colour = red: there is no such key"},
        {"host", "no '='"},
        {"window =", "no value"},
        {"window = many", "not a number"},
        {"window = -1", "not a number"},
        {"window = 0", "not a number"},
        {"window = 70000", "too large"},
        {"receive = maybe", "neither yes nor no"},
        {"on-slow = drop", "neither dead nor block"},
        {"host = a b", "not a host's name"},
        {"host = a/../b", "not a host's name"},
        {"host = a>", "not a host's name"},
        {"topic = builds", "not NAME=ADDRESS"},
        {"topic = builds=buildd", "not an address of a service"},
        {"topic = a*=pipe:x", "not a topic's name"},
        {"topic = a..b=pipe:x", "not a topic's name"},
        {"follow = builds", "not NAME@HOST"},
        {"follow = builds.@a", "not a topic's name"},
        {"follow = builds@a>", "not a host's name"},
        {"offer = a.b=pipe:x", "not a service's name"},
        {"offer = buildd", "not NAME=ADDRESS"},
        {"offer = buildd=pipe:", "not an address of a service"},
        {"reach = buildd", "not NAME@HOST"},
        {"reach = *@a", "not a service's name"},
        {"host = a\nservers = x\nreach = x@b\nfollow = x@b", "both for the pipe x@b"},
        {"servers = x", "host is missing"},
        {"host = a", "servers is missing"},
        {"host = a\nservers = x\ncertificate = c", "certificate and key belong together"},
        {"host = a\nservers = x\ncertificate = c\nkey = k", "certificate without ca"},
    };
    for (const auto& [szText, szError] : cases) {
        SCOPED_TRACE(szText);
        const std::string sText = szText;
        EXPECT_THAT(([this, &sText] { read(sText); }), ThrowsMessage<SettingsError>(HasSubstr(szError)));
    }
}

TEST_F(RelaySettingsTest, MissingFile_IsSaid) {
    EXPECT_THAT([] { RelaySettings::read("/opt/none.conf"); },
                ThrowsMessage<SettingsError>(HasSubstr("there is no such file")));
}
