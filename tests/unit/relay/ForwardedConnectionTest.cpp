// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ForwardedConnection.h"

#include "Posix.h"
#include "Sandbox.h"
#include "ScriptedEngine.h"

#include <ServiceAddress.h>

#include <cerrno>
#include <limits>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace VornRelay;
using namespace VornTest;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr std::size_t cWindow = ForwardedConnection::window;
constexpr auto cNoLimit = std::numeric_limits<std::uint64_t>::max();

/** A socket and the one that is connected with it. */
std::pair<UniqueFd, UniqueFd> connectedPair(bool bTcp) {
    int ends[2]{};
    if (!bTcp && ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0)
        return {UniqueFd(ends[0]), UniqueFd(ends[1])};
    int nPort = 0;
    const UniqueFd listener = tcpListen("127.0.0.1", nPort);
    UniqueFd client = tcpConnect("127.0.0.1", nPort);
    return {acceptClient(listener.get()), std::move(client)};
}

/** @return what can be read until the end, and then "" or the error. */
std::pair<std::string, std::string> readAll(const UniqueFd& peer) {
    std::string sAll;
    char part[65536];
    for (ssize_t count = 1; count != 0;) {
        count = ::recv(peer.get(), part, sizeof part, 0);
        if (count == -1)
            return {sAll, std::generic_category().message(errno)};
        sAll.append(part, static_cast<std::size_t>(count));
    }
    return {sAll, ""};
}

/** One end; the test is its peer, and the other end. */
class ForwardedConnectionTest : public testing::TestWithParam<bool>, private ForwardedConnection::Owner {
protected:
    /** What was told, with its own copy of the bytes. */
    struct Told {
        unsigned nFlags = 0;
        std::uint64_t nPosition = 0;
        std::uint64_t nLimit = 0;
        std::string sBytes;
    };

    void start(bool bTcp = false) {
        auto [own, peer] = connectedPair(bTcp);
        m_peer = std::move(peer);
        VornNet::OwnedDescriptor socket(own.release());
        ::fcntl(socket.number(), F_SETFL, O_NONBLOCK);
        Owner& owner = *this;
        m_spEnd = std::make_unique<ForwardedConnection>(m_loop, owner, m_subject, std::move(socket));
        m_spEnd->begin();
    }

    void connectTo(const std::string& sAddress) {
        Owner& owner = *this;
        m_spEnd = std::make_unique<ForwardedConnection>(m_loop, owner, m_subject.back(),
                                                        *VornNet::ServiceAddress::ofClient(sAddress.c_str()));
        m_spEnd->begin();
    }

    /** The other end tells a piece that follows upon its last one. */
    void give(const std::string& sBytes, unsigned nFlags = 0, std::uint64_t nLimit = cNoLimit) {
        m_spEnd->take({static_cast<std::uint8_t>(nFlags), m_nGiven, nLimit, sBytes});
        m_nGiven += sBytes.size();
    }

    bool awaitBytes(const std::string& sBytes) {
        return runUntil(m_loop, [&] { return m_sBytes == sBytes; });
    }

    bool awaitEnd() {
        return runUntil(m_loop, [&] { return m_bOver; });
    }

    /** Has the peer read while the loop runs. @return what it has got, and its error */
    std::pair<std::string, std::string> readUntilTheEnd() {
        std::pair<std::string, std::string> seen;
        WatchedThread reader([&] { seen = readAll(m_peer); });
        EXPECT_TRUE(awaitEnd());
        reader.join();
        return seen;
    }

    /** Lets the loop see all that is there now. */
    void runOnce() {
        m_loop.post([this] { m_loop.end(); });
        m_loop.run();
    }

    const ForwardSubject m_subject{true, "there", "here", "service", "1"};
    RelayLoop m_loop;
    UniqueFd m_peer;
    std::unique_ptr<ForwardedConnection> m_spEnd;
    std::uint64_t m_nGiven = 0;
    std::vector<Told> m_told;
    std::string m_sBytes; // of all that was told
    bool m_bOver = false;
    std::string m_sWhy;

private:
    void tell(const ForwardSubject&, const ForwardPiece& piece) override {
        if ((piece.nFlags & ForwardPiece::resets) == 0) {
            EXPECT_EQ(piece.nPosition, m_sBytes.size());
            m_sBytes += piece.sBytes;
        }
        m_told.push_back({piece.nFlags, piece.nPosition, piece.nLimit, std::string(piece.sBytes)});
    }

    void ended(ForwardedConnection&, const std::string& sWhy) override {
        EXPECT_FALSE(m_bOver) << "it is told once";
        m_bOver = true;
        m_sWhy = sWhy;
    }

    std::size_t mostBytes() const override { return 100'000; }
};

INSTANTIATE_TEST_SUITE_P(Kind, ForwardedConnectionTest, testing::Bool(),
                         [](const auto& kind) { return kind.param ? "tcp" : "pipe"; });

} // namespace

TEST_F(ForwardedConnectionTest, OpeningIsTold_AndBytesAsFarAsTheyAreGranted) {
    start();
    ASSERT_EQ(m_told.size(), 1U);
    EXPECT_EQ(m_told[0].nFlags, ForwardPiece::opens);
    EXPECT_EQ(m_told[0].nLimit, cWindow);
    sendAll(m_peer.get(), "abc");
    runOnce();
    EXPECT_EQ(m_sBytes, "");
    give("", 0, 2);
    EXPECT_EQ(m_sBytes, "ab");
    give("", 0, 3);
    EXPECT_EQ(m_sBytes, "abc");
    sendAll(m_peer.get(), "d");
    give("", 0, 1); // came late
    runOnce();
    EXPECT_EQ(m_sBytes, "abc");
    give("", 0, 4);
    EXPECT_EQ(m_sBytes, "abcd");
}

TEST_P(ForwardedConnectionTest, EndsOfBothDirections_AreTwo) {
    start(GetParam());
    give("question?");
    sendAll(m_peer.get(), "answer");
    ASSERT_TRUE(awaitBytes("answer"));
    ::shutdown(m_peer.get(), SHUT_WR);
    EXPECT_TRUE(runUntil(m_loop, [&] { return m_told.back().nFlags == ForwardPiece::ends; }));
    EXPECT_FALSE(m_bOver);
    give(" another?");
    give("", ForwardPiece::ends);
    EXPECT_EQ(readAll(m_peer), std::pair(std::string("question? another?"), std::string()));
    EXPECT_TRUE(m_bOver);
    EXPECT_EQ(m_sWhy, "");
}

TEST_P(ForwardedConnectionTest, OtherEndThatEndsFirst_IsToldTheRest) {
    start(GetParam());
    give("greeting", ForwardPiece::ends);
    EXPECT_EQ(readAll(m_peer), std::pair(std::string("greeting"), std::string()));
    sendAll(m_peer.get(), "late");
    EXPECT_TRUE(awaitBytes("late"));
    m_peer.reset();
    EXPECT_TRUE(awaitEnd());
    EXPECT_EQ(m_sWhy, "");
    EXPECT_EQ(m_told.back().nFlags, ForwardPiece::ends);
}

TEST_P(ForwardedConnectionTest, WhatDoesNotFollow_ResetsBothEnds) {
    struct Row {
        const char* szWhat;
        ForwardPiece piece;
        const char* szWhy;
    };

    const std::string sTooMuch(cWindow + 1, 'x');
    const Row rows[] = {{"a lost piece", {0, 6, cNoLimit, "def"}, "a piece is missing"},
                        {"a repeated piece", {0, 0, cNoLimit, "abc"}, "a piece is missing"},
                        {"a lost piece before the end", {ForwardPiece::ends, 6, cNoLimit, ""}, "is missing"},
                        {"a lost piece before a sign of life", {0, 6, cNoLimit, ""}, "is missing"},
                        {"too many bytes", {0, 3, cNoLimit, sTooMuch}, "more than was granted"},
                        {"a reset", {ForwardPiece::resets, 0, 0, "no service"}, "reset by there: no service"},
                        {"a reset that would forge a line",
                         {ForwardPiece::resets, 0, 0, "\n<0>\xff"},
                         "reset by there: ?<0>?"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.szWhat);
        m_bOver = false;
        m_nGiven = 0;
        m_sBytes.clear();
        start(GetParam());
        sendAll(m_peer.get(), "x");
        give("abc");
        ASSERT_TRUE(awaitBytes("x"));
        m_spEnd->take(row.piece);
        EXPECT_TRUE(m_bOver);
        EXPECT_THAT(m_sWhy, HasSubstr(row.szWhy));
        EXPECT_EQ(m_told.back().nFlags, (row.piece.nFlags & ForwardPiece::resets) != 0
                                            ? 0U
                                            : static_cast<unsigned>(ForwardPiece::resets));
        EXPECT_EQ(readAll(m_peer),
                  std::pair(std::string("abc"), std::generic_category().message(ECONNRESET)));
    }
}

TEST_F(ForwardedConnectionTest, PeerOverTcpThatHasSentNothing_SeesTheResetToo) {
    start(true);
    m_spEnd->engineLost();
    EXPECT_EQ(readAll(m_peer).second, std::generic_category().message(ECONNRESET));
    EXPECT_EQ(m_sWhy, "the engine is lost");
    EXPECT_EQ(m_told.size(), 1U) << "nothing can be told";
}

TEST_F(ForwardedConnectionTest, PeerThatResets_HasWhatItSentBeforeToldFirst) {
    for (const bool bTcp : {false, true}) {
        m_bOver = false;
        m_nGiven = 0;
        m_sBytes.clear();
        start(bTcp);
        give("unread");
        sendAll(m_peer.get(), "refused");
        m_peer.reset();
        EXPECT_TRUE(awaitEnd());
        EXPECT_EQ(m_sBytes, "refused");
        EXPECT_EQ(m_told.back().nFlags, ForwardPiece::resets);
        EXPECT_THAT(m_sWhy, HasSubstr("reset"));
    }
}

TEST_F(ForwardedConnectionTest, SlowReader_IsGrantedMoreWhenItReads) {
    const std::string sPart(cWindow / 4, 'x');
    start();
    const auto giveWhatIsGranted = [&] {
        while (m_told.back().nLimit >= m_nGiven + sPart.size())
            give(sPart);
    };
    giveWhatIsGranted();
    runOnce();
    giveWhatIsGranted();
    EXPECT_LT(m_nGiven, 2 * cWindow) << "the socket does not take a window";
    std::size_t nRead = 0;
    EXPECT_TRUE(runUntil(m_loop, [&] {
        char part[65536];
        const ssize_t count = ::recv(m_peer.get(), part, sizeof part, MSG_DONTWAIT);
        nRead += count > 0 ? static_cast<std::size_t>(count) : 0;
        giveWhatIsGranted();
        return nRead >= 4 * cWindow;
    }));
    EXPECT_EQ(m_sBytes, "");
}

TEST_F(ForwardedConnectionTest, MoreThanTheWindow_IsToldToNobodyAtOnce) {
    start();
    give("", 0, cNoLimit);
    const std::string sPart(65536, 'x');
    runUntil(m_loop, [&] {
        ::send(m_peer.get(), sPart.data(), sPart.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        return m_sBytes.size() >= cWindow;
    });
    ::send(m_peer.get(), sPart.data(), sPart.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    runOnce();
    EXPECT_EQ(m_sBytes.size(), cWindow);
}

TEST_F(ForwardedConnectionTest, WhatCameBeforeAReset_IsGivenToASlowReaderFirst) {
    start();
    sendAll(m_peer.get(), "x");
    give(std::string(cWindow, 'y'));
    ASSERT_TRUE(awaitBytes("x"));
    give("gone", ForwardPiece::resets);
    EXPECT_FALSE(m_bOver);
    const auto seen = readUntilTheEnd();
    EXPECT_EQ(seen.first.size(), cWindow);
    EXPECT_EQ(seen.second, std::generic_category().message(ECONNRESET));
}

TEST_F(ForwardedConnectionTest, WhenBothEndsAreTold_TheOtherHostIsNotNeededAnyMore) {
    start();
    give(std::string(cWindow, 'y'), ForwardPiece::ends);
    ::shutdown(m_peer.get(), SHUT_WR);
    ASSERT_TRUE(runUntil(m_loop, [&] { return (m_told.back().nFlags & ForwardPiece::ends) != 0; }));
    const std::size_t nTold = m_told.size();
    m_spEnd->engineLost();
    m_spEnd->take({0, 1, 1, "stray"});
    give("gone", ForwardPiece::resets);
    m_spEnd->look(RelayLoop::Clock::now() + std::chrono::hours(1));
    EXPECT_FALSE(m_bOver);
    const auto seen = readUntilTheEnd();
    EXPECT_EQ(seen.first.size(), cWindow);
    EXPECT_EQ(seen.second, "");
    EXPECT_EQ(m_sWhy, "");
    EXPECT_EQ(m_told.size(), nTold);
}

TEST_F(ForwardedConnectionTest, WhatASocketHasTaken_ArrivesAfterTheEnd) {
    start(true);
    ::shutdown(m_peer.get(), SHUT_WR);
    ASSERT_TRUE(runUntil(m_loop, [&] { return (m_told.back().nFlags & ForwardPiece::ends) != 0; }));
    give(std::string(cWindow, 'y'), ForwardPiece::ends);
    ASSERT_TRUE(awaitEnd());
    const auto [sBytes, sEnd] = readAll(m_peer);
    EXPECT_EQ(sBytes.size(), cWindow);
    EXPECT_EQ(sEnd, "");
}

TEST_F(ForwardedConnectionTest, SignsOfLife_AreToldAndMissed) {
    start();
    const auto now = RelayLoop::Clock::now();
    m_spEnd->look(now);
    ASSERT_EQ(m_told.size(), 2U);
    EXPECT_EQ(m_told[1].nFlags, ForwardPiece::opens) << "the first one may have been lost";
    sendAll(m_peer.get(), "x");
    give("");
    ASSERT_TRUE(awaitBytes("x"));
    const std::size_t nTold = m_told.size();
    m_spEnd->look(now + ForwardedConnection::keepAlive / 2);
    EXPECT_EQ(m_told.size(), nTold);
    m_spEnd->look(RelayLoop::Clock::now() + ForwardedConnection::keepAlive);
    ASSERT_EQ(m_told.size(), nTold + 1);
    EXPECT_EQ(m_told.back().nFlags, 0U);
    m_spEnd->look(now + ForwardedConnection::longestSilence - std::chrono::milliseconds(1));
    EXPECT_FALSE(m_bOver);
    m_spEnd->look(RelayLoop::Clock::now() + ForwardedConnection::longestSilence + std::chrono::seconds(1));
    EXPECT_TRUE(m_bOver);
    EXPECT_EQ(m_sWhy, "nothing is heard from there");
    EXPECT_EQ(readAll(m_peer).second, std::generic_category().message(ECONNRESET));
}

TEST_F(ForwardedConnectionTest, ServiceThatIsNotThere_IsToldAsTheReason) {
    connectTo("socket:127.0.0.1:" + std::to_string(unusedTcpPort()));
    EXPECT_TRUE(awaitEnd());
    EXPECT_EQ(m_sWhy, "Connection refused");
    EXPECT_EQ(m_told.back().sBytes, "Connection refused");
    m_bOver = false;
    connectTo("pipe:no-such-service");
    EXPECT_TRUE(awaitEnd());
    EXPECT_EQ(m_sWhy, "No such file or directory");
}

TEST_F(ForwardedConnectionTest, ServiceWhoseQueueIsFull_IsConnectedToLater) {
    const std::string sPath = pipePath("full-service");
    const UniqueFd listener = unixListen(sPath, 0);
    const UniqueFd other = unixConnect(sPath);
    connectTo("pipe:full-service");
    m_spEnd->look(RelayLoop::Clock::now());
    EXPECT_THAT(m_told, IsEmpty()) << "it cannot be connected yet";
    acceptClient(listener.get());
    m_spEnd->look(RelayLoop::Clock::now());
    ASSERT_EQ(m_told.size(), 1U);
    give("question");
    EXPECT_EQ(receiveExactly(acceptClient(listener.get()).get(), 8), "question");
    ::unlink(sPath.c_str());
}

TEST(ForwardPieceTest, WhatIsNoneOfThisVersion_IsNotRead) {
    const std::string sText = ForwardPiece{5, 1, 0x1'0000'0000, "abc"}.text();
    EXPECT_EQ(hex(sText), "01 05 00 00 00 00 00 00 00 01 00 00 00 01 00 00 00 00 61 62 63");
    const auto piece = ForwardPiece::of(sText);
    ASSERT_TRUE(piece);
    EXPECT_EQ(piece->nFlags, 5);
    EXPECT_EQ(piece->nPosition, 1U);
    EXPECT_EQ(piece->nLimit, 0x1'0000'0000U);
    EXPECT_EQ(piece->sBytes, "abc");
    EXPECT_FALSE(ForwardPiece::of(sText.substr(0, 17)));
    EXPECT_FALSE(ForwardPiece::of("\2" + sText.substr(1)));
}
