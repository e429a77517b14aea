// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "OutgoingQueue.h"

#include <deque>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornRelay;
using testing::ElementsAre;
using testing::IsEmpty;
using Answer = Engine::Answer;

namespace {

/** Keeps what is published, and answers as the test says. */
class ScriptedEngine : public Engine {
public:
    void publish(const Message& message, AnswerHandler onAnswer) override {
        m_published.emplace_back(message, std::move(onAnswer));
    }

    void open(const std::string&, const std::string&, OpenHandler) override {}

    void close(const std::string&) override {}

    void pull(const std::string&, std::size_t) override {}

    void acknowledge(const std::string&) override {}

    void tell(const std::string&, const std::string&) override {}

    void listenTo(const std::string&) override {}

    std::size_t mostContent() const override { return 1000; }

    /** Answers the oldest message without an answer. @return "content/number" */
    std::string answer(Answer answer) {
        const auto [message, onAnswer] = std::move(m_published.front());
        m_published.pop_front();
        onAnswer(answer, "");
        return message.sContent + "/" + std::string(message.header("Nats-Msg-Id"));
    }

    std::size_t unanswered() const { return m_published.size(); }

private:
    std::deque<std::pair<Message, AnswerHandler>> m_published;
};

class OutgoingQueueTest : public testing::Test {
protected:
    void add(const std::string& sContent) {
        m_queue.add({"subject", {{"Nats-Msg-Id", ""}}, sContent},
                    [this, sContent](bool bStored) { m_done.push_back(sContent + (bStored ? "+" : "-")); });
    }

    /** Lets the pause go by that follows a failure. */
    void awaitPause() {
        m_loop.after(std::chrono::milliseconds(1), [this] { endWhenPublished(); });
        m_loop.run();
    }

    void endWhenPublished() {
        if (m_engine.unanswered() > 0)
            m_loop.end();
        else
            m_loop.after(std::chrono::milliseconds(1), [this] { endWhenPublished(); });
    }

    RelayLoop m_loop;
    ScriptedEngine m_engine;
    int m_nNumber = 0;
    std::vector<std::string> m_done;
    OutgoingQueue m_queue{m_loop, m_engine, 3, [this](Engine::Message& message) {
                              message.headers.front().second = std::to_string(++m_nNumber);
                          }};
};

} // namespace

TEST_F(OutgoingQueueTest, WithoutConnection_NothingIsPublished) {
    add("a");
    EXPECT_EQ(m_engine.unanswered(), 0U);
    m_queue.setConnected(true);
    EXPECT_EQ(m_engine.unanswered(), 1U);
}

TEST_F(OutgoingQueueTest, NoMoreThanTheWindowIsUnanswered) {
    m_queue.setConnected(true);
    for (const char* szContent : {"a", "b", "c", "d"})
        add(szContent);
    EXPECT_EQ(m_engine.unanswered(), 3U);
    EXPECT_EQ(m_engine.answer(Answer::stored), "a/1");
    EXPECT_EQ(m_engine.unanswered(), 3U);
    EXPECT_EQ(m_queue.size(), 3U);
    EXPECT_EQ(m_queue.bytes(), 3U);
    EXPECT_THAT(m_done, ElementsAre("a+"));
}

TEST_F(OutgoingQueueTest, WhatIsRefusedForGoodIsTold_AndNothingWaitsForIt) {
    m_queue.setConnected(true);
    add("a");
    add("b");
    m_engine.answer(Answer::refused);
    m_engine.answer(Answer::stored);
    EXPECT_THAT(m_done, ElementsAre("a-", "b+"));
    EXPECT_EQ(m_queue.size(), 0U);
}

TEST_F(OutgoingQueueTest, AfterAFailure_NothingNewIsPublishedUntilAllAreAnswered) {
    m_queue.setConnected(true);
    for (const char* szContent : {"a", "b", "c", "d"})
        add(szContent);
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
    m_queue.setConnected(true);
    for (const char* szContent : {"a", "b", "c", "d"})
        add(szContent);
    m_engine.answer(Answer::unknown);
    m_engine.answer(Answer::stored);
    m_engine.answer(Answer::unknown);
    awaitPause();
    EXPECT_EQ(m_engine.answer(Answer::stored), "c/3");
    EXPECT_EQ(m_engine.answer(Answer::stored), "a/4");
    EXPECT_EQ(m_engine.answer(Answer::stored), "d/5");
}

TEST_F(OutgoingQueueTest, NewNumbers_ComeAfterAllThatWereGivenBefore) {
    m_queue.setConnected(true);
    for (const char* szContent : {"a", "b", "c"})
        add(szContent);
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
    m_queue.setConnected(true);
    for (const char* szContent : {"a", "b", "c"})
        add(szContent);
    for (int i = 0; i < 3; ++i)
        m_engine.answer(Answer::full);
    EXPECT_TRUE(m_queue.isFull());
    awaitPause();
    EXPECT_EQ(m_engine.unanswered(), 1U);
    EXPECT_EQ(m_engine.answer(Answer::stored), "a/1");
    EXPECT_FALSE(m_queue.isFull());
    EXPECT_EQ(m_engine.unanswered(), 1U);
}

TEST_F(OutgoingQueueTest, FailuresInARow_ChangeNothingOfWhatWaits) {
    m_queue.setConnected(true);
    for (const char* szContent : {"a", "b", "c", "d", "e"})
        add(szContent);
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
    m_queue.setConnected(true);
    add("a");
    m_engine.answer(Answer::unknown);
    m_queue.setConnected(false);
    EXPECT_EQ(m_engine.unanswered(), 0U);
    EXPECT_THAT(m_done, IsEmpty());
    m_queue.setConnected(true);
    EXPECT_EQ(m_engine.answer(Answer::stored), "a/1");
}
