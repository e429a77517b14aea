// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "TopicSource.h"

#include "ScriptedEngine.h"

#include <VornException.h>
#include <VornPublisher.h>

#include <memory>
#include <string>

#include <gmock/gmock.h>

using namespace VornRelay;
using namespace VornTest;
using Answer = Engine::Answer;
using VornNet::VornPosition;
using VornNet::VornPublisher;

namespace {

/** A service of this host, and an engine that answers as the test says. */
class TopicSourceTest : public testing::Test {
protected:
    TopicSourceTest() { m_engine.nMostContent = 5000; }

    static std::unique_ptr<VornPublisher> openService() {
        VornPublisher::Options options;
        options.stopLimit = std::chrono::milliseconds(0); // nobody reads while it stops
        return std::make_unique<VornPublisher>("pipe:topic-service", std::vector<std::string>{"t"}, options);
    }

    std::uint64_t publish(const std::string& sContent) {
        return m_spService->publish("t", [&](VornNet::VornConnection& content) {
            long nError = 0;
            content.transfer(sContent.data(), static_cast<long>(sContent.size()), &nError);
        });
    }

    /** Connects to an engine that knows the service's history, and no event. */
    void begin() {
        m_source.setConnected(true);
        EXPECT_EQ(m_engine.answerRead(stored(3, EventBatch({position().nHistory, 0}))),
                  "VORN_TOPIC_h vorn.topic.h.t 0");
    }

    VornPosition position() const { return m_spService->position("t"); }

    /** @return what is being published, when it is. */
    EventBatch published() {
        EXPECT_TRUE(runUntil(m_loop, [this] { return m_engine.unanswered() == 1; }));
        return EventBatch::from(m_engine.published(0));
    }

    std::string expected() const {
        return std::string(m_engine.published(0).header("Nats-Expected-Last-Subject-Sequence"));
    }

    static Engine::Stored stored(std::uint64_t nPosition, const EventBatch& batch) {
        return {"", nPosition, batch.message("s", 0)};
    }

    RelayLoop m_loop;
    ScriptedEngine m_engine;
    std::unique_ptr<VornPublisher> m_spService = openService();
    TopicSource m_source{m_loop, m_engine, "h", "t", "pipe:topic-service"};
};

} // namespace

TEST_F(TopicSourceTest, EventsAreStored_WithWhatHasComeMeanwhileAsOneMessage) {
    publish("one");
    begin();
    const EventBatch first = published();
    EXPECT_EQ(first.before(), (VornPosition{position().nHistory, 0}));
    EXPECT_THAT(first.events(), testing::ElementsAre("one"));
    EXPECT_EQ(expected(), "3");
    publish("two");
    publish("");
    ASSERT_TRUE(runUntil(m_loop, [this] { return m_source.status()["waiting"] == 3; }));
    m_engine.told.clear();
    m_engine.answer(Answer::stored, "7");
    EXPECT_THAT(m_engine.told, testing::ElementsAre("vorn.news.h.t "));
    const EventBatch second = published();
    EXPECT_THAT(second.events(), testing::ElementsAre("two", ""));
    EXPECT_EQ(second.after(), position());
    EXPECT_EQ(expected(), "7");
}

TEST_F(TopicSourceTest, GoesOnAfterTheNewestThatIsStored_AtEachConnectionAndAfterEachFailure) {
    for (const char* szContent : {"one", "two", "three"})
        publish(szContent);
    EventBatch newest({position().nHistory, 0});
    newest.add("one");
    m_source.setConnected(true);
    m_engine.answerRead(stored(12, newest));
    EXPECT_THAT(published().events(), testing::ElementsAre("two", "three"));
    EXPECT_EQ(expected(), "12");
    m_engine.answer(Answer::unknown, "no answer");
    ASSERT_TRUE(runUntil(m_loop, [this] { return m_engine.unread() == 1; }));
    EXPECT_EQ(m_source.status()["failure"], "no answer");
    newest.add("two"); // it had been stored all the same
    m_engine.answerRead(stored(13, newest));
    EXPECT_THAT(published().events(), testing::ElementsAre("three"));
    m_source.setConnected(false);
    m_engine.answer(Answer::stored, "14"); // belongs to what is over
    m_source.setConnected(true);
    m_engine.answerRead(stored(13, newest));
    EXPECT_THAT(published().events(), testing::ElementsAre("three"));
    EXPECT_EQ(expected(), "13");
}

TEST_F(TopicSourceTest, WhenTheStreamHasLostTheNewest_WhatIsKnownHolds) {
    publish("one");
    begin();
    published();
    m_engine.answer(Answer::stored, "5");
    publish("two");
    published();
    m_source.setConnected(false);
    m_engine.answer(Answer::unknown);
    m_source.setConnected(true);
    m_engine.answerRead({});
    EXPECT_THAT(published().events(), testing::ElementsAre("two"));
    EXPECT_EQ(expected(), "0");
}

TEST_F(TopicSourceTest, HistoryThatHasBegun_IsStoredBeforeItsFirstEvent) {
    m_source.setConnected(true);
    m_engine.answerRead({});
    EXPECT_EQ(published().after(), position());
    m_engine.answer(Answer::stored, "1");
    m_spService.reset();
    m_spService = openService();
    const EventBatch begun = published();
    EXPECT_EQ(begun.after(), position());
    EXPECT_TRUE(begun.events().empty());
}

TEST_F(TopicSourceTest, EventThatTheEngineDoesNotTake_IsLeftOutAndSeenByTheNextPosition) {
    publish("one");
    publish(std::string(5000, 'x'));
    publish("three");
    begin();
    EXPECT_THAT(published().events(), testing::ElementsAre("one"));
    m_engine.answer(Answer::stored, "1");
    EXPECT_EQ(published().before().nNumber, 2U);
}

TEST_F(TopicSourceTest, WhileTheEngineDoesNotAnswer_TheServiceKeepsTheEvents) {
    begin();
    const std::string sContent(3900, 'x');
    for (int i = 0; i < 500; ++i)
        publish(sContent);
    published();
    EXPECT_FALSE(runUntil(
        m_loop, [this] { return m_spService->flush(std::chrono::milliseconds(0)); },
        std::chrono::milliseconds(100)));
    EXPECT_LT(m_source.status()["waiting"], 500U);
    for (std::uint64_t nPosition = 1; EventBatch::from(m_engine.published(0)).after() != position();
         ++nPosition) {
        m_engine.answer(Answer::stored, std::to_string(nPosition));
        published();
    }
}

TEST_F(TopicSourceTest, AddressThatIsNone_IsRefusedAtTheStart) {
    EXPECT_THROW(TopicSource(m_loop, m_engine, "h", "t", "nowhere"), VornSupport::VornException);
}
