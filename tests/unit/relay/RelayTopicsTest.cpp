// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayTopics.h"

#include "ScriptedEngine.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <unistd.h>

using namespace VornRelay;
using namespace VornTest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

/** Host `b` follows topics of host `a`, and has one of its own. */
class RelayTopicsTest : public testing::Test {
protected:
    RelayTopicsTest() { std::filesystem::create_directories(m_settings.sStateDirectory + "/topics"); }

    ~RelayTopicsTest() override { std::filesystem::remove_all(m_settings.sStateDirectory); }

    static RelaySettings settings() {
        RelaySettings settings;
        settings.access.sHost = "b";
        settings.sStateDirectory = "/opt/topics-" + std::to_string(::getpid());
        settings.topics = {{"own", "pipe:service"}};
        settings.followed = {{"first", "a"}};
        return settings;
    }

    /** @return what is asked for, which nobody answers. */
    std::vector<std::string> asked() {
        std::vector<std::string> all;
        while (m_engine.unread() > 0)
            all.push_back(m_engine.answerRead({"no answer", 0, {}}));
        return all;
    }

    /** @return the addresses of all topics. */
    std::vector<std::string> addresses() const {
        std::vector<std::string> all;
        for (const nlohmann::json& topic : m_topics.status())
            all.push_back(topic["address"]);
        return all;
    }

    RelayLoop m_loop;
    ScriptedEngine m_engine;
    RelaySettings m_settings = settings();
    RelayTopics m_topics{m_loop, m_engine, m_settings};
};

} // namespace

TEST_F(RelayTopicsTest, AddedTopics_AreOpenedAndTheOthersNotTouched) {
    m_topics.setConnected(true);
    EXPECT_THAT(asked(),
                UnorderedElementsAre("VORN_TOPIC_b vorn.topic.b.own 0", "VORN_TOPIC_a vorn.topic.a.first 0"));
    m_settings.topics["more"] = "pipe:service";
    m_settings.followed.emplace_back("second", "a");
    EXPECT_THAT(m_topics.change(m_settings), IsEmpty());
    EXPECT_THAT(asked(), UnorderedElementsAre("VORN_TOPIC_b vorn.topic.b.more 0",
                                              "VORN_TOPIC_a vorn.topic.a.second 0"));
    EXPECT_THAT(m_engine.listenedTo, ElementsAre("vorn.news.a.first", "vorn.news.a.second"));
}

TEST_F(RelayTopicsTest, RemovedTopics_AreClosedAndAnswersForThemAreNobodys) {
    m_topics.setConnected(true);
    m_settings.topics = {{"own", "pipe:elsewhere"}};
    m_settings.followed.clear();
    EXPECT_THAT(m_topics.change(m_settings), IsEmpty());
    m_loop.end();
    m_loop.run(); // a turn, in which they are destroyed
    EXPECT_EQ(asked().size(), 3U) << "of both, and of the topic that has moved";
    EXPECT_THAT(addresses(), ElementsAre("pipe:elsewhere"));
    EXPECT_THAT(m_engine.listenedTo, IsEmpty());
}

TEST_F(RelayTopicsTest, TopicThatCannotBeOpened_IsToldAndStopsNoOther) {
    std::ofstream(m_settings.sStateDirectory + "/topics/c") << "in place of a directory";
    m_settings.followed = {{"first", "c"}, {"second", "a"}};
    EXPECT_THAT(m_topics.change(m_settings), ElementsAre(HasSubstr("topic first@c cannot be opened: ")));
    EXPECT_THAT(addresses(), ElementsAre("pipe:service", "pipe:second@a"));
    EXPECT_THROW(RelayTopics(m_loop, m_engine, m_settings), std::runtime_error);
}
