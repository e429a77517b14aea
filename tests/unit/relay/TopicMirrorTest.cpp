// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "TopicMirror.h"

#include "ScriptedEngine.h"

#include <VornSubscriber.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <unistd.h>

using namespace VornRelay;
using namespace VornTest;
using VornNet::VornPosition;
using VornNet::VornSubscriber;

namespace {

/** An engine with a stream, whose order of things is the loop's. */
class TopicMirrorTest : public testing::Test {
protected:
    TopicMirrorTest() {
        std::filesystem::remove_all(m_sDirectory);
        start();
    }

    ~TopicMirrorTest() override { std::filesystem::remove_all(m_sDirectory); }

    void start() {
        m_spMirror.reset();
        m_engine.reset();
        m_spMirror = std::make_unique<TopicMirror>(m_loop, m_engine, m_sDirectory, "h", "t");
        m_spMirror->setConnected(true);
    }

    /** Stores events, and tells the mirror. */
    void store(const VornPosition& before, const std::vector<std::string>& events) {
        EventBatch batch(before);
        for (const std::string& sEvent : events)
            batch.add(std::string(sEvent));
        m_stream[m_stream.empty() ? 10 : m_stream.rbegin()->first + 2] = batch.message("s", 0);
        m_spMirror->poll();
    }

    /** Begins a subscription that goes on after a position; nowhere: with the oldest. */
    void subscribe(const VornPosition& position = {}) {
        m_spSubscriber.reset();
        m_seen.clear();
        VornSubscriber::Options options;
        options.bOwnThread = false;
        options.start = VornSubscriber::Start::oldest;
        options.position = position;
        options.onGap = [this](const VornSubscriber::Gap& gap) {
            m_seen.push_back("gap " + std::to_string(gap.next.nHistory) + "-" +
                             std::to_string(gap.next.nNumber) + " " + std::to_string(gap.nMissed));
        };
        m_spSubscriber = std::make_unique<VornSubscriber>(
            "pipe:t@h", "t",
            [this](VornNet::VornConnection& content, const VornSubscriber::Event& event) {
                char text[16]{};
                long nError = 0;
                content.receive(text, sizeof text - 1, &nError, false);
                m_seen.push_back(std::to_string(event.position.nHistory) + "-" +
                                 std::to_string(event.position.nNumber) + " " + text);
            },
            options);
    }

    /** Awaits what a subscriber is called for, while the engine answers. */
    void expectSeen(const std::vector<std::string>& seen) {
        runUntil(m_loop, [&] {
            answerReads();
            m_spSubscriber->dispatch();
            return m_seen.size() >= seen.size();
        });
        EXPECT_EQ(m_seen, seen);
        m_seen.clear();
    }

    void answerRead() {
        const std::string sWhich = m_engine.nextRead();
        const std::uint64_t nFrom = std::stoull(sWhich.substr(sWhich.rfind(' ') + 1));
        const auto found =
            nFrom == 0 && !m_stream.empty() ? std::prev(m_stream.end()) : m_stream.lower_bound(nFrom);
        m_reads.push_back(nFrom);
        m_engine.answerRead(found == m_stream.end() ? Engine::Stored{}
                                                    : Engine::Stored{"", found->first, found->second});
    }

    void answerReads() {
        while (m_engine.unread() > 0)
            answerRead();
    }

    std::string state() const { return m_spMirror->status()["state"]; }

    std::string failure() const { return m_spMirror->status()["failure"]; }

    const std::string m_sDirectory = "/opt/topics-" + std::to_string(::getpid());
    RelayLoop m_loop;
    ScriptedEngine m_engine;
    std::map<std::uint64_t, Engine::Message> m_stream; // by position; others' messages lie in between
    std::vector<std::uint64_t> m_reads;
    std::unique_ptr<TopicMirror> m_spMirror;
    std::unique_ptr<VornSubscriber> m_spSubscriber;
    std::vector<std::string> m_seen;
};

} // namespace

TEST_F(TopicMirrorTest, EventsHaveTheHistoryAndTheNumbersOfTheService) {
    store({7, 400}, {"a", "", "c"});
    store({7, 403}, {"d"});
    subscribe();
    expectSeen({"7-401 a", "7-402 ", "7-403 c", "7-404 d"});
    store({7, 404}, {"e"});
    expectSeen({"7-405 e"});
    EXPECT_EQ(m_spMirror->status()["position"], (VornPosition{7, 405}.text()));
}

TEST_F(TopicMirrorTest, AfterARestart_BothGoOnWhereTheyWere) {
    store({7, 0}, {"a", "b"});
    subscribe();
    expectSeen({"7-1 a", "7-2 b"});
    store({7, 2}, {"c"});
    start();
    m_reads.clear();
    expectSeen({"7-3 c"});
    EXPECT_THAT(m_reads, testing::ElementsAre(0, 11)) << "the first message is not read again";
    subscribe({7, 1});
    expectSeen({"7-2 b", "7-3 c"});
}

TEST_F(TopicMirrorTest, EventThatIsStoredTwice_IsPublishedOnce) {
    store({7, 0}, {"a", "b"});
    store({7, 1}, {"b", "c"});
    store({7, 0}, {"a"});
    store({7, 3}, {"d"});
    subscribe();
    expectSeen({"7-1 a", "7-2 b", "7-3 c", "7-4 d"});
}

TEST_F(TopicMirrorTest, EventsThatAreMissing_AreAGapWithTheirNumber) {
    store({7, 0}, {"a", "b"});
    subscribe();
    expectSeen({"7-1 a", "7-2 b"});
    store({7, 2}, {"c"}); // is not lost, though its history is given up at once
    store({7, 99}, {"x"});
    expectSeen({"7-3 c", "gap 7-99 96", "7-100 x"});
    subscribe({7, 1});
    expectSeen({"gap 7-99 98", "7-100 x"});
}

TEST_F(TopicMirrorTest, EventThatIsTooLong_IsLeftOut) {
    store({7, 0}, {"a"});
    subscribe();
    expectSeen({"7-1 a"});
    store({7, 1}, {std::string(5UL << 20, 'x'), "c"});
    expectSeen({"gap 7-2 1", "7-3 c"});
}

TEST_F(TopicMirrorTest, HistoryThatHasBegun_IsToldBeforeItsFirstEvent) {
    store({7, 0}, {"a"});
    subscribe();
    expectSeen({"7-1 a"});
    store({8, 0}, {});
    expectSeen({"gap 8-0 0"});
    store({8, 0}, {"b"});
    expectSeen({"8-1 b"});
    start();
    store({8, 1}, {"c"});
    expectSeen({"8-2 c"});
}

TEST_F(TopicMirrorTest, WithoutItsHistory_ItIsOpenedWhenAllIsReadThatIsStored) {
    store({7, 0}, {"a"});
    store({7, 1}, {"b"});
    store({7, 2}, {"c"});
    subscribe();
    expectSeen({"7-1 a", "7-2 b", "7-3 c"});
    for (const char* szFile : {"t.history", "t.place"}) {
        SCOPED_TRACE(szFile);
        const std::uint64_t nLast = m_stream.size();
        m_spMirror.reset();
        std::filesystem::resize_file(m_sDirectory + "/" + szFile, 3);
        start();
        for (; m_engine.unread() > 0; answerRead())
            EXPECT_EQ(state(), "closed");
        EXPECT_EQ(state(), "open");
        subscribe({7, nLast});
        store({7, nLast}, {"new"});
        expectSeen({"7-" + std::to_string(nLast + 1) + " new"});
    }
}

TEST_F(TopicMirrorTest, StreamThatWasCreatedAnew_IsReadFromItsBeginning) {
    store({7, 0}, {"a"});
    subscribe();
    expectSeen({"7-1 a"});
    m_stream.clear();
    EventBatch again({7, 0});
    again.add("a");
    again.add("b");
    m_stream[1] = again.message("s", 0);
    m_spMirror->poll();
    expectSeen({"7-2 b"});
}

TEST_F(TopicMirrorTest, WhatCannotBeRead_IsSaidAndTriedAgain) {
    store({7, 0}, {"a"});
    subscribe();
    expectSeen({"7-1 a"});
    const std::pair<Engine::Message, const char*> cases[] = {
        {{"s", {}, ""}, "a relay of another version has written it"},
        {{"s", {{"Vorn-Version", "1"}, {"Vorn-Position", "nowhere"}}, ""},
         "VornPosition::fromText: no position."},
        {EventBatch({0, 5}).message("s", 0), "events of no history"},
        {{"s", EventBatch({7, 1}).message("s", 0).headers, std::string("\0\0\0\5abc", 7)},
         "events that are not whole"},
        {{"s", EventBatch({7, 1}).message("s", 0).headers, "abc"}, "events that are not whole"},
    };
    for (const auto& [message, szFailure] : cases) {
        m_stream[12] = message;
        m_spMirror->poll();
        answerReads();
        EXPECT_EQ(failure(), szFailure);
    }
    m_spMirror->poll();
    m_engine.answerRead({"no answer", 0, {}});
    EXPECT_EQ(failure(), "no answer");
    m_stream.erase(12);
    store({7, 1}, {"b"});
    expectSeen({"7-2 b"});
    EXPECT_EQ(failure(), "");
}
