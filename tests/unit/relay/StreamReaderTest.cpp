// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "StreamReader.h"

#include "ScriptedEngine.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>

using namespace VornRelay;
using namespace VornTest;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

/** Reads through one consumer, which the test opens; its loop runs on the test's thread. */
class StreamReaderTest : public testing::Test {
protected:
    StreamReaderTest() {
        m_engine.bOpensAtOnce = false;
        m_reader.add("relay", "vorn.to.h.sink.>", 100);
        m_reader.setConnected(true);
    }

    void arrive(std::uint64_t nPosition) {
        m_reader.arrived({"relay", "r" + std::to_string(nPosition), nPosition, ++m_nDelivery, {}});
    }

    /** A consumer that the reader has created. */
    void openNew() {
        m_nDelivery = 0;
        m_engine.onConsumerOpened({});
    }

    /** A consumer of the administrator that has handed out something before, which comes again. */
    void openFixed(std::uint64_t nHandedOut, std::uint64_t nUnanswered, milliseconds comesAgain) {
        m_engine.onConsumerOpened({"", nHandedOut, nUnanswered, m_nDelivery, comesAgain});
    }

    /** The consumer hands out one that the reader never sees. */
    void miss() { ++m_nDelivery; }

    /** Has the reader look at its consumers, which it does each second. */
    void awaitLook() {
        bool bOver = false;
        m_loop.after(milliseconds(1'100), [&bOver] { bOver = true; });
        EXPECT_TRUE(runUntil(m_loop, [&bOver] { return bOver; }));
    }

    RelayLoop m_loop;
    ScriptedEngine m_engine;
    std::uint64_t m_nDelivery = 0;
    std::vector<std::uint64_t> m_handedOn;
    StreamReader m_reader{m_loop, m_engine, [this](std::uint64_t nPosition, Engine::Message&&) {
                              m_handedOn.push_back(nPosition);
                          }};
};

} // namespace

TEST_F(StreamReaderTest, WhatArrivesForAKilledRelay_DoesNotPassWhatComesAgain) {
    arrive(3); // asked for before the kill
    EXPECT_THAT(m_handedOn, IsEmpty());
    openNew();
    EXPECT_EQ(m_reader.held(), 0U);
    for (const std::uint64_t nPosition : {1, 2, 3})
        arrive(nPosition);
    EXPECT_THAT(m_handedOn, ElementsAre(1, 2, 3));
}

TEST_F(StreamReaderTest, ThroughAConsumerThatStays_ItIsHandedOnAfterWhatComesAgain) {
    arrive(3);
    openFixed(3, 3, milliseconds(30'000));
    arrive(4);
    arrive(2);
    EXPECT_THAT(m_handedOn, IsEmpty());
    arrive(1);
    EXPECT_THAT(m_handedOn, ElementsAre(1, 2, 3, 4));
}

TEST_F(StreamReaderTest, WhileTheConnectionIsLost_WhatIsKeptBackStaysSo) {
    constexpr milliseconds cNow{-4'999}; // with the time that is granted beyond it
    openFixed(2, 2, cNow);
    arrive(3);
    m_reader.setConnected(false);
    awaitLook();
    EXPECT_THAT(m_handedOn, IsEmpty());
    m_reader.setConnected(true);
    openFixed(3, 3, milliseconds(30'000));
    arrive(1);
    arrive(2);
    EXPECT_THAT(m_handedOn, ElementsAre(1, 2, 3));
}

TEST_F(StreamReaderTest, WhenANewConsumerHasHandedOneToAnother_ItIsOpenedAgainAndAllComesInOrder) {
    openNew();
    arrive(1);
    miss();
    arrive(3);
    EXPECT_FALSE(m_reader.isReading());
    arrive(4); // was under way
    awaitLook();
    EXPECT_THAT(m_engine.opened, SizeIs(2));
    openNew();
    for (const std::uint64_t nPosition : {1, 2, 3, 4})
        arrive(nPosition);
    EXPECT_THAT(m_handedOn, ElementsAre(1, 2, 3, 4)) << "the first is still held";
    EXPECT_TRUE(m_reader.isReading());
}

TEST_F(StreamReaderTest, WhenAConsumerThatStaysHasHandedOneToAnother_ThatOneIsAwaited) {
    m_nDelivery = 70; // of relays before
    openFixed(0, 0, milliseconds(30'000));
    arrive(1);
    miss();
    arrive(3);
    awaitLook();
    openFixed(3, 3, milliseconds(30'000));
    arrive(4);
    EXPECT_THAT(m_handedOn, ElementsAre(1));
    arrive(2);
    EXPECT_THAT(m_handedOn, ElementsAre(1, 2, 3, 4));
    EXPECT_TRUE(m_reader.isReading());
}

TEST_F(StreamReaderTest, PullThatMayEndSilently_IsReplacedBefore) {
    openNew();
    arrive(1);
    EXPECT_THAT(m_engine.pulled, ElementsAre(100)) << "it is fresh";
    m_engine.life = milliseconds(0);
    arrive(2);
    EXPECT_THAT(m_engine.pulled, ElementsAre(100, 98)) << "two are held";
    m_engine.life = milliseconds(5000);
    m_reader.pullEnded("relay");
    EXPECT_THAT(m_engine.pulled, ElementsAre(100, 98)) << "the fresh one has not ended";
}

TEST_F(StreamReaderTest, ConsumerThatTellsNothing_IsOpenedAgain) {
    m_engine.life = milliseconds(10);
    openNew();
    EXPECT_TRUE(m_reader.isReading());
    EXPECT_TRUE(runUntil(m_loop, [&] { return !m_reader.isReading(); }))
        << "not one of several pulls has ended";
}
