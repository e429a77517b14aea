// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "DispatcherTestSupport.h"
#include "Interpose.h"

#include <set>

#include <gmock/gmock.h>

using namespace std::chrono_literals;
using namespace VornTest;
using testing::MatchesRegex;

namespace {

/** Datagrams: at most once, and nobody knows. */
class VornDispatcher_Udp : public DispatcherTest {
protected:
    UniqueFd open() {
        UniqueFd socket = udpSocket("127.0.0.1", m_nPort);
        m_sAddress = "udp:127.0.0.1:" + std::to_string(m_nPort);
        return socket;
    }

    int m_nPort = 0;
    std::string m_sAddress;
};

} // namespace

TEST_F(VornDispatcher_Udp, OneDatagramIsSent) {
    const UniqueFd socket = open();
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress, "content");
    EXPECT_EQ(receiveDatagram(socket.get()), cHandle + "content");
    EXPECT_EQ(summaryOf(m_results.awaitOne()), "sent 0, 1 tries, 0 doubtful");
    EXPECT_EQ(dispatcher.statistics().nSent, 1U);
}

TEST_F(VornDispatcher_Udp, WhereNobodyListensItIsSentAgainUntilTheLimit) {
    open();
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress);
    expireAfter(3, dispatcher);
    EXPECT_THAT(summaryOf(m_results.awaitOne()), MatchesRegex("expired 111, .* tries, 0 doubtful"));
}

TEST_F(VornDispatcher_Udp, ASinkThatOpensLaterGetsIt) {
    m_nPort = unusedUdpPort();
    m_sAddress = "udp:127.0.0.1:" + std::to_string(m_nPort);
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress, "content");
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nTries > 2; }));
    const UniqueFd socket = open();
    EXPECT_EQ(receiveDatagram(socket.get()), cHandle + "content");
    EXPECT_EQ(m_results.awaitOne().outcome, Outcome::sent);
}

TEST_F(VornDispatcher_Udp, DatagramsToOneAddressKeepTheirDistance) {
    const UniqueFd first = open();
    const std::string sFirst = m_sAddress;
    m_nPort = 0;
    const UniqueFd second = open();
    VornDispatcher dispatcher(optionsWithResults([](auto& o) { o.datagramPause = 20ms; }));
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 4; ++i) {
        post(dispatcher, sFirst, std::to_string(i));
        ASSERT_TRUE(dispatcher.flush(10s)); // also when the queue has been empty in between
        post(dispatcher, m_sAddress, std::to_string(i));
    }
    ASSERT_TRUE(dispatcher.flush(10s));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 60ms);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(receiveDatagram(first.get()), cHandle + std::to_string(i));
        EXPECT_EQ(receiveDatagram(second.get()), cHandle + std::to_string(i));
    }
}

TEST_F(VornDispatcher_Udp, TheSocketIsKeptWhileSomethingWaitsAndClosedAfterwards) {
    const UniqueFd socket = open();
    VornDispatcher dispatcher(optionsWithResults([](auto& o) { o.datagramPause = 2ms; }));
    {
        const FaultRule none("socket", EMFILE, 1, FaultRule::always, threadIds().back()); // so that all wait
        for (int i = 0; i < 10; ++i)
            post(dispatcher, m_sAddress);
    }
    std::set<int> sources;
    for (int i = 0; i < 10; ++i)
        sources.insert(receiveDatagramFrom(socket.get()).port);
    EXPECT_EQ(sources.size(), 1U);
    ASSERT_TRUE(dispatcher.flush(10s));
    EXPECT_EQ(dispatcher.statistics().nConnections, 0U);
}

TEST_F(VornDispatcher_Udp, TheLongestDatagramIsSentAndALongerOneRefused) {
    const UniqueFd socket = open();
    VornDispatcher dispatcher(optionsWithResults());
    const std::string sContent(65507 - 8, 'x');
    post(dispatcher, m_sAddress, sContent);
    EXPECT_TRUE(receiveDatagram(socket.get()) == cHandle + sContent);
    EXPECT_EQ(thrownBy([&] { post(dispatcher, m_sAddress, sContent + "x"); }),
              "VornDispatcher::post: notification too long. 90");
}

TEST_F(VornDispatcher_Udp, AnAddressThatCannotBeReachedIsTriedAgain) {
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, "udp:10.1.2.3:5023");
    expireAfter(2, dispatcher);
    EXPECT_THAT(summaryOf(m_results.awaitOne()), MatchesRegex("expired 101, .*"));
}
