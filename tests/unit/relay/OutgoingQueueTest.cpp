// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "OutgoingQueue.h"

#include "ScriptedEngine.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>

using namespace VornRelay;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using VornTest::ScriptedEngine;
using Answer = Engine::Answer;

namespace {

class OutgoingQueueTest : public testing::Test {
protected:
    void add(const std::string& sContent) {
        m_queue.add({"subject", {{"Nats-Msg-Id", ""}}, sContent},
                    [this, sContent](bool bStored) { m_done.push_back(sContent + (bStored ? "+" : "-")); });
    }

    void begin(const std::vector<std::string>& contents) {
        m_queue.setConnected(true);
        for (const std::string& sContent : contents)
            add(sContent);
    }

    /** Lets the pause go by that follows a failure. */
    void awaitPause() {
        ASSERT_TRUE(VornTest::runUntil(m_loop, [this] { return m_engine.unanswered() > 0; }));
    }

    RelayLoop m_loop;
    ScriptedEngine m_engine;
    int m_nNumber = 0;
    std::vector<std::string> m_done;
    OutgoingQueue::Stamp m_stamp = [this](Engine::Message& message) {
        message.headers.front().second = std::to_string(++m_nNumber);
    };
    OutgoingQueue m_queue{m_loop, m_engine, {3, 50ms, 0ms}, m_stamp};
};

} // namespace

TEST_F(OutgoingQueueTest, WithoutConnection_NothingIsPublished) {
    add("a");
    EXPECT_EQ(m_engine.unanswered(), 0U);
    m_queue.setConnected(true);
    EXPECT_EQ(m_engine.unanswered(), 1U);
}

TEST_F(OutgoingQueueTest, NoMoreThanTheWindowIsUnanswered) {
    begin({"a", "b", "c", "d"});
    EXPECT_EQ(m_engine.unanswered(), 3U);
    EXPECT_EQ(m_engine.answer(Answer::stored), "a/1");
    EXPECT_EQ(m_engine.unanswered(), 3U);
    EXPECT_EQ(m_queue.size(), 3U);
    EXPECT_EQ(m_queue.bytes(), 3U);
    EXPECT_THAT(m_done, ElementsAre("a+"));
}

TEST_F(OutgoingQueueTest, WhatIsRefusedForGoodIsTold_AndNothingWaitsForIt) {
    begin({"a", "b"});
    m_engine.answer(Answer::refused);
    m_engine.answer(Answer::stored);
    EXPECT_THAT(m_done, ElementsAre("a-", "b+"));
    EXPECT_EQ(m_queue.size(), 0U);
}

TEST_F(OutgoingQueueTest, AfterAFailure_NothingNewIsPublishedUntilAllAreAnswered) {
    begin({"a", "b", "c", "d"});
    m_engine.answer(Answer::stored);
    m_engine.answer(Answer::unknown);
    EXPECT_EQ(m_engine.unanswered(), 2U);
    m_engine.answer(Answer::unknown);
    m_engine.answer(Answer::unknown);
    EXPECT_EQ(m_engine.unanswered(), 0U);
    awaitPause();
    EXPECT_EQ(m_engine.answer(Answer::stored), "b/2") << "in order, with the same numbers";
    EXPECT_EQ(m_engine.answer(Answer::stored), "c/3");
    EXPECT_EQ(m_engine.answer(Answer::stored), "d/4");
    EXPECT_EQ(m_queue.repeated(), 3U);
    EXPECT_THAT(m_done, ElementsAre("a+", "b+", "c+", "d+"));
}

TEST_F(OutgoingQueueTest, WhatFailedBeforeAStoredOneGetsANewNumberAfterTheOthers) {
    begin({"a", "b", "c", "d"});
    m_engine.answer(Answer::unknown);
    m_engine.answer(Answer::stored);
    m_engine.answer(Answer::unknown);
    awaitPause();
    EXPECT_EQ(m_engine.answer(Answer::stored), "c/3");
    EXPECT_EQ(m_engine.answer(Answer::stored), "a/4");
    EXPECT_EQ(m_engine.answer(Answer::stored), "d/5");
}

TEST_F(OutgoingQueueTest, NewNumbers_ComeAfterAllThatWereGivenBefore) {
    begin({"a", "b", "c"});
    m_engine.answer(Answer::full);
    m_engine.answer(Answer::full);
    m_engine.answer(Answer::full);
    awaitPause(); // a is published alone, and b and c have their numbers
    m_engine.answer(Answer::unknown);
    awaitPause();
    EXPECT_EQ(m_engine.answer(Answer::stored), "a/1");
    EXPECT_EQ(m_engine.answer(Answer::stored), "b/2");
    EXPECT_EQ(m_engine.answer(Answer::stored), "c/3");
    for (const char* szContent : {"d", "e"})
        add(szContent);
    EXPECT_EQ(m_engine.unanswered(), 2U) << "nothing has waited any more";
    m_engine.answer(Answer::unknown);
    m_engine.answer(Answer::stored);
    awaitPause();
    EXPECT_EQ(m_engine.answer(Answer::stored), "d/6");
}

TEST_F(OutgoingQueueTest, FullStream_IsTriedWithOneMessage) {
    begin({"a", "b", "c"});
    for (int i = 0; i < 3; ++i)
        m_engine.answer(Answer::full);
    EXPECT_TRUE(m_queue.isFull());
    awaitPause();
    EXPECT_EQ(m_engine.unanswered(), 1U);
    EXPECT_EQ(m_engine.answer(Answer::stored), "a/1");
    EXPECT_FALSE(m_queue.isFull());
    EXPECT_EQ(m_engine.unanswered(), 1U);
}

TEST_F(OutgoingQueueTest, AfterAFullStream_TheWindowGrowsAgainWhenItHasBeenCalm) {
    OutgoingQueue cautious(m_loop, m_engine, {3, std::nullopt, 60s}, m_stamp);
    for (OutgoingQueue* pQueue : {&m_queue, &cautious}) {
        pQueue->setConnected(true);
        pQueue->add({"subject", {{"Nats-Msg-Id", ""}}, "a"}, [](bool) {});
        m_engine.answer(Answer::full);
        awaitPause();
        for (int i = 0; i < 1000; ++i)
            pQueue->add({"subject", {{"Nats-Msg-Id", ""}}, "b"}, [](bool) {});
        std::size_t nMostAtOnce = 1;
        while (m_engine.unanswered() > 0) {
            nMostAtOnce = std::max(nMostAtOnce, m_engine.unanswered());
            m_engine.answer(Answer::stored);
        }
        EXPECT_EQ(nMostAtOnce, pQueue == &m_queue ? 3U : 1U);
    }
}

TEST_F(OutgoingQueueTest, StreamThatIsNotThere_IsTriedAgainForAWhileAndThenRefuses) {
    begin({"a", "b"});
    m_engine.answer(Answer::absent, "no stream");
    m_engine.answer(Answer::absent, "no stream");
    EXPECT_EQ(m_queue.failure(), "no stream");
    for (int i = 0; i < 100 && m_done.empty(); ++i) {
        awaitPause();
        m_engine.answer(Answer::absent, "no stream");
    }
    EXPECT_THAT(m_done, ElementsAre("a-"));
    m_engine.answer(Answer::absent, "no stream");
    EXPECT_THAT(m_done, ElementsAre("a-", "b-"));
    EXPECT_EQ(m_queue.failure(), "no stream");
}

TEST_F(OutgoingQueueTest, StreamThatWasThere_IsWaitedForHoweverLong) {
    begin({"a"});
    m_engine.answer(Answer::stored);
    add("b");
    const auto until = RelayLoop::Clock::now() + 60ms;
    do {
        m_engine.answer(Answer::absent, "no stream");
        awaitPause();
    } while (RelayLoop::Clock::now() < until);
    m_engine.answer(Answer::stored);
    EXPECT_THAT(m_done, ElementsAre("a+", "b+"));
    EXPECT_EQ(m_queue.failure(), "");
}

TEST_F(OutgoingQueueTest, WhatIsNotStored_SaysWhyUntilTheNextConnection) {
    begin({"a"});
    m_engine.answer(Answer::unknown, "insufficient resources");
    EXPECT_EQ(m_queue.failure(), "insufficient resources");
    m_queue.setConnected(false);
    EXPECT_EQ(m_queue.failure(), "");
}

TEST_F(OutgoingQueueTest, FailuresInARow_ChangeNothingOfWhatWaits) {
    begin({"a", "b", "c", "d", "e"});
    for (int i = 0; i < 3; ++i)
        m_engine.answer(Answer::full);
    for (int i = 0; i < 3; ++i) {
        awaitPause();
        m_engine.answer(Answer::full);
    }
    awaitPause();
    for (const char* szId : {"a/1", "b/2", "c/3", "d/4", "e/5"})
        EXPECT_EQ(m_engine.answer(Answer::stored), szId);
}

TEST_F(OutgoingQueueTest, WhenTheConnectionIsLost_EverythingWaitsForTheNextOne) {
    begin({"a"});
    m_engine.answer(Answer::unknown);
    m_queue.setConnected(false);
    EXPECT_EQ(m_engine.unanswered(), 0U);
    EXPECT_THAT(m_done, IsEmpty());
    m_queue.setConnected(true);
    EXPECT_EQ(m_engine.answer(Answer::stored), "a/1");
}
