// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "DispatcherTestSupport.h"
#include "Interpose.h"

#include <fstream>
#include <optional>

#include <gmock/gmock.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace std::chrono_literals;
using namespace VornTest;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

/** What the dispatcher sees over a stream, and what it makes of it. The sink is there from the beginning. */
class StreamFixture : public DispatcherTest {
protected:
    explicit StreamFixture(bool bIsPipe) : m_bIsPipe(bIsPipe) {}

    void SetUp() override {
        DispatcherTest::SetUp();
        m_listener = listen();
        open();
    }

    void TearDown() override {
        m_dispatcher.reset();
        m_listener.reset();
        DispatcherTest::TearDown();
    }

    UniqueFd listen(int backlog = 5) {
        if (m_bIsPipe)
            return unixListen(pipePath("peer"), backlog);
        UniqueFd listener = tcpListen("127.0.0.1", m_nPort, backlog);
        m_sAddress = "socket:127.0.0.1:" + std::to_string(m_nPort);
        return listener;
    }

    /** Opens a dispatcher, in place of one that was open. */
    void open(const std::function<void(VornDispatcher::Options&)>& change = {}) {
        m_dispatcher.emplace(optionsWithResults(change));
    }

    std::uint64_t post(const std::string& sContent = {}) {
        return DispatcherTest::post(*m_dispatcher, m_sAddress, sContent);
    }

    void postWith(const VornDispatcher::Terms& terms, const std::string& sContent = {}) {
        DispatcherTest::postWith(terms, *m_dispatcher, m_sAddress, sContent);
    }

    UniqueFd accept() const { return acceptClient(m_listener.get()); }

    std::string takeOne() const { return DispatcherTest::takeOne(m_listener.get()); }

    const bool m_bIsPipe;
    int m_nPort = 0;
    std::string m_sAddress = "pipe:peer";
    UniqueFd m_listener;
    std::optional<VornDispatcher> m_dispatcher;
};

class VornDispatcher_Stream : public StreamFixture, public testing::WithParamInterface<bool> {
protected:
    VornDispatcher_Stream() : StreamFixture(GetParam()) {}
};

INSTANTIATE_TEST_SUITE_P(Kinds, VornDispatcher_Stream, testing::Bool(),
                         [](const auto& test) { return test.param ? "Pipe" : "Tcp"; });

/** What only a pipe shows. */
class VornDispatcher_Pipe : public StreamFixture {
protected:
    VornDispatcher_Pipe() : StreamFixture(true) {}

    static int unread(int fd) {
        int count = 0;
        ::ioctl(fd, FIONREAD, &count);
        return count;
    }

    /** Waits until the dispatcher has connected and sent what it sends unasked. */
    UniqueFd acceptProbed() const {
        UniqueFd client = accept();
        EXPECT_TRUE(awaitCondition([&] { return unread(client.get()) == 7; }));
        return client;
    }

    /** Plays a sink that has read the handle and ends its side before it reads the content. */
    UniqueFd acceptAndFallSilent() const {
        UniqueFd client = accept();
        EXPECT_EQ(receiveExactly(client.get(), 8), cHandle);
        EXPECT_TRUE(awaitCondition([&] { return unread(client.get()) == 7; }));
        EXPECT_EQ(::shutdown(client.get(), SHUT_WR), 0);
        return client;
    }
};

/** What only TCP shows. */
class VornDispatcher_Tcp : public StreamFixture {
protected:
    VornDispatcher_Tcp() : StreamFixture(false) {}

    void resetNext() const {
        const UniqueFd client = accept();
        receiveExactly(client.get(), 8);
        resetOnClose(client.get());
    }
};

} // namespace

TEST_P(VornDispatcher_Stream, ASinkThatReadsAllAndClosesHasBeenDelivered) {
    EXPECT_EQ(post("content"), 1U);
    UniqueFd client = accept();
    EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
    EXPECT_EQ(m_dispatcher->queued(m_sAddress), 1U) << "before the sink has closed";
    client.reset();
    const Result result = m_results.awaitOne();
    EXPECT_EQ(summaryOf(result), "delivered 0, 1 tries, 0 doubtful");
    EXPECT_EQ(result.nTicket, 1U);
    EXPECT_EQ(result.sAddress, m_sAddress);
    EXPECT_EQ(result.nHandle, 7);
    EXPECT_GT(result.elapsed, 0us);
    EXPECT_LT(result.elapsed, 10s);
}

TEST_P(VornDispatcher_Stream, NoContentAndManyMebibytesAreDelivered) {
    for (const std::size_t nSize : {0UL, 20UL * 1024 * 1024 + 3}) {
        const std::string sContent(nSize, 'x');
        postWith(termsOf(5min), sContent);
        EXPECT_TRUE(takeOne() == cHandle + sContent);
        EXPECT_TRUE(m_dispatcher->flush(10s));
        EXPECT_EQ(m_results.now().back().outcome, Outcome::delivered);
    }
}

TEST_P(VornDispatcher_Stream, WhereNobodyListensItIsTriedAgainUntilItExpires) {
    m_listener.reset();
    for (int i = 0; i < 3; ++i)
        post();
    expireAfter(4, *m_dispatcher);
    for (const Result& result : m_results.await(3)) {
        EXPECT_EQ(result.outcome, Outcome::expired);
        EXPECT_EQ(result.nCode, ECONNREFUSED) << "also of one that had to wait for the first";
        EXPECT_EQ(result.nDoubtfulTries, 0U);
        EXPECT_GE(result.elapsed, 10s);
    }
    EXPECT_GT(m_results.now()[0].nTries, 3U);
}

TEST_P(VornDispatcher_Stream, ASinkThatOpensLaterGetsIt) {
    m_listener.reset();
    ::unlink(pipePath("peer").c_str());
    post();
    ASSERT_TRUE(awaitCondition([&] { return m_dispatcher->statistics().nTries > 2; }));
    m_listener = listen();
    EXPECT_EQ(takeOne(), cHandle);
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::delivered);
    EXPECT_TRUE(result.nCode == ECONNREFUSED || (m_bIsPipe && result.nCode == ENOENT))
        << result.nCode; // bound, and not listening yet
    EXPECT_GT(result.nTries, 2U);
    EXPECT_EQ(result.nDoubtfulTries, 0U);
}

TEST_P(VornDispatcher_Stream, OneThrownAwayWithTheListenersQueueIsTriedAgain) {
    post("content");
    pollfd inQueue{m_listener.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&inQueue, 1, 10'000), 1);
    m_listener.reset();
    m_listener = listen();
    EXPECT_EQ(takeOne(), cHandle + "content");
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::delivered);
    EXPECT_GE(result.nTries, 2U);
    EXPECT_LE(result.nDoubtfulTries, m_bIsPipe ? 0U : 1U) << "no callback has seen it, and a pipe shows that";
}

TEST_P(VornDispatcher_Stream, WhatASinkWritesIsThrownAway) {
    post("content");
    UniqueFd client = accept();
    const std::string sMuch(4UL * 1024 * 1024, 'x'); // more than fits in between
    sendAll(client.get(), sMuch);
    EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
    sendAll(client.get(), sMuch);
    client.reset();
    EXPECT_EQ(m_results.awaitOne().outcome, Outcome::delivered);
}

TEST_F(VornDispatcher_Pipe, TheContentWaitsUntilTheSinkReadsTheHandle) {
    post("content");
    const UniqueFd client = acceptProbed();
    EXPECT_EQ(receiveExactly(client.get(), 6), cHandle.substr(0, 6));
    EXPECT_FALSE(awaitCondition([&] { return unread(client.get()) != 1; }, 30ms));
    EXPECT_EQ(receiveToEnd(client.get()), cHandle.substr(6) + "content");
}

TEST_F(VornDispatcher_Pipe, TakenIsWhenTheKernelCountsNotMoreThanOne) {
    // It wakes the sender while one unit of a message that has been taken is still counted, and no event
    // follows.
    for (const auto& [nCounted, outcome] : {std::pair(1, Outcome::delivered), {2, Outcome::cancelled}}) {
        FaultRule counts("ioctl", 0, 1, FaultRule::always, threadIds().back());
        counts.returning(nCounted);
        post("content");
        UniqueFd client = accept();
        if (outcome == Outcome::cancelled) {
            EXPECT_EQ(receiveExactly(client.get(), 7), cHandle.substr(0, 7));
            EXPECT_FALSE(m_dispatcher->flush(30ms));
            m_dispatcher->cancel(m_sAddress);
        }
        EXPECT_EQ(receiveToEnd(client.get()), outcome == Outcome::cancelled ? "" : cHandle + "content");
        client.reset();
        ASSERT_TRUE(m_dispatcher->flush(10s));
        const Result result = m_results.now().back();
        EXPECT_EQ(result.outcome, outcome) << nCounted;
        EXPECT_EQ(result.nDoubtfulTries, 0U) << nCounted;
    }
}

TEST_F(VornDispatcher_Pipe, AFullQueueOfTheListenerIsTriedAgain) {
    ::unlink(pipePath("peer").c_str());
    m_listener = listen(0);
    const UniqueFd inFront = unixConnect(pipePath("peer"));
    post();
    ASSERT_TRUE(awaitCondition([&] { return m_dispatcher->statistics().nTries > 1; }));
    accept();
    EXPECT_EQ(takeOne(), cHandle);
    EXPECT_THAT(summaryOf(m_results.awaitOne()), MatchesRegex("delivered 11, .* tries, 0 doubtful"));
}

TEST_F(VornDispatcher_Pipe, OneThrownAwayAsItIsAskedForIsNotTakenForTaken) {
    {
        const CallHook atQuestion("ioctl",
                                  [&] { m_listener.reset(); }); // the bytes are gone, and nobody has them
        post("content");
        ASSERT_TRUE(awaitCondition([&] { return m_dispatcher->statistics().nTries > 1; }));
    }
    m_listener = listen();
    EXPECT_EQ(takeOne(), cHandle + "content");
    EXPECT_THAT(summaryOf(m_results.awaitOne()), MatchesRegex("delivered .* tries, 0 doubtful"));
}

TEST_F(VornDispatcher_Pipe, ASinkThatClosesBeforeTheHandleIsCompleteIsTriedAgain) {
    post("content");
    for (const std::size_t taken : {0U, 3U}) {
        const UniqueFd client = acceptProbed();
        receiveExactly(client.get(), taken);
    }
    EXPECT_EQ(takeOne(), cHandle + "content");
    EXPECT_EQ(summaryOf(m_results.awaitOne()), "delivered 104, 3 tries, 0 doubtful");
}

TEST_F(VornDispatcher_Pipe, ASinkThatLeavesBytesIsNeverOfferedItAgain) {
    for (const std::size_t taken : {8U, 14U}) {
        post("content");
        UniqueFd client = accept();
        EXPECT_EQ(receiveExactly(client.get(), taken), (cHandle + "content").substr(0, taken));
        client.reset();
        ASSERT_TRUE(m_dispatcher->flush(10s));
        EXPECT_EQ(summaryOf(m_results.now().back()), "unread 104, 1 tries, 1 doubtful");
    }
    post("next");
    EXPECT_EQ(takeOne(), cHandle + "next");
}

TEST_F(VornDispatcher_Pipe, ASinkThatClosesInTheMiddleOfALongOneHasNotReadIt) {
    post(std::string(4UL * 1024 * 1024, 'x'));
    UniqueFd client = accept();
    receiveExactly(client.get(), 1000000);
    client.reset();
    EXPECT_THAT(summaryOf(m_results.awaitOne()), MatchesRegex("unread .* 1 doubtful"));
}

TEST_F(VornDispatcher_Pipe, ASinkThatDoesNotCloseLetsItExpireInDoubt) {
    postWith(termsOf(500ms), "content");
    const UniqueFd client = accept();
    EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
    const Result result = m_results.awaitOne();
    EXPECT_EQ(summaryOf(result), "expired 110, 1 tries, 1 doubtful");
    EXPECT_GE(result.elapsed, 500ms);
    EXPECT_LT(result.elapsed, 5s);
}

TEST_F(VornDispatcher_Pipe, ASinkThatDoesNotReadLetsItExpireWithoutDoubtAndFindsNoHandle) {
    postWith(termsOf(500ms), "content");
    EXPECT_THAT(summaryOf(m_results.awaitOne()), MatchesRegex("expired .* 1 tries, 0 doubtful"));
    EXPECT_EQ(takeOne(), cHandle.substr(0, 7));
}

TEST_F(VornDispatcher_Pipe, ASinkThatFallsSilentEarlyHasItsTimeToRead) {
    post("content");
    UniqueFd client = acceptAndFallSilent();
    EXPECT_FALSE(m_dispatcher->flush(30ms)) << "there are bytes that it has not read";
    EXPECT_EQ(receiveToEnd(client.get()), "content");
    client.reset();
    EXPECT_EQ(m_results.awaitOne().outcome, Outcome::delivered);
}

TEST_F(VornDispatcher_Pipe, ASinkThatEndsItsSideBeforeItReadsIsTriedAgain) {
    post("content");
    const UniqueFd client = acceptProbed();
    ASSERT_EQ(::shutdown(client.get(), SHUT_WR), 0);
    EXPECT_EQ(takeOne(), cHandle + "content");
    EXPECT_EQ(summaryOf(m_results.awaitOne()), "delivered 104, 2 tries, 0 doubtful");
}

TEST_F(VornDispatcher_Pipe, ASinkThatFallsSilentEarlyAndCannotBeWatchedHasNotReadIt) {
    const FaultRule fault("epoll_ctl", ENOMEM, 3, 1, threadIds().back()); // to be told when it has read
    post("content");
    const UniqueFd client = acceptAndFallSilent();
    EXPECT_THAT(summaryOf(m_results.awaitOne()), StartsWith("unread 12, "));
}

TEST_F(VornDispatcher_Pipe, EveryKindOfAbandonedTryLeavesTheSinkAnEndAndNoReset) {
    post("content");
    const UniqueFd client = accept();
    sendAll(client.get(), "a greeting"); // left unread it would make the end a reset
    EXPECT_EQ(m_dispatcher->cancel(m_sAddress), 1U);
    EXPECT_EQ(receiveToEnd(client.get()).substr(0, 7), cHandle.substr(0, 7));
}

TEST_F(VornDispatcher_Tcp, TheEndTravelsWithTheContent) {
    for (int i = 0; i < 200; ++i) {
        post("content");
        const UniqueFd client = accept();
        pollfd entry{client.get(), POLLIN | POLLRDHUP, 0};
        ASSERT_EQ(::poll(&entry, 1, 10'000), 1);
        ASSERT_EQ(entry.revents, POLLIN | POLLRDHUP) << "round " << i;
        EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
    }
}

TEST_F(VornDispatcher_Tcp, AResetIsDoubtfulAndTriedAgain) {
    post("content");
    for (int i = 0; i < 3; ++i)
        resetNext();
    EXPECT_EQ(takeOne(), cHandle + "content");
    EXPECT_EQ(summaryOf(m_results.awaitOne()), "delivered 104, 4 tries, 3 doubtful");
    EXPECT_EQ(m_dispatcher->statistics().nDoubtfulTries, 3U);
}

TEST_F(VornDispatcher_Tcp, AfterSoManyDoubtfulTriesAsTheTermsSayItIsUnread) {
    for (const unsigned int nTries : {1U, 3U}) {
        postWith(termsOf(10s, nTries), "content");
        for (unsigned int i = 0; i < nTries; ++i)
            resetNext();
        ASSERT_TRUE(m_dispatcher->flush(10s));
        const std::string sTries = std::to_string(nTries);
        EXPECT_EQ(summaryOf(m_results.now().back()),
                  "unread 104, " + sTries + " tries, " + sTries + " doubtful");
    }
}

TEST_F(VornDispatcher_Tcp, AResetHiddenByAnEndIsNoDelivery) {
    for (int i = 0; i < 100; ++i) {
        postWith(termsOf(10s, 1), "content");
        UniqueFd client = accept();
        ::shutdown(client.get(), SHUT_WR); // the end first
        receiveExactly(client.get(), 8);
        client.reset(); // and then a reset, since bytes are left
        ASSERT_TRUE(m_dispatcher->flush(10s));
    }
    // When the end was seen alone, with every byte acknowledged by the kernel, nobody could know better.
    for (const Result& result : m_results.now())
        EXPECT_TRUE(result.outcome == Outcome::unread || result.nDoubtfulTries == 0);
}

TEST_F(VornDispatcher_Tcp, AHostThatSwallowsPacketsIsGivenTheConnectLimit) {
    m_listener.reset();
    m_listener = listen(0);
    const UniqueFd inFront = tcpConnect("127.0.0.1", m_nPort); // from now on the kernel drops who comes
    open([](auto& o) { o.connectLimit = 30ms; });
    postWith(termsOf(500ms));
    const Result result = m_results.awaitOne();
    EXPECT_THAT(summaryOf(result), MatchesRegex("expired 110, .* tries, 0 doubtful"));
    EXPECT_GE(result.nTries, 2U);
    EXPECT_LE(result.nTries, 17U);
}

TEST_F(VornDispatcher_Tcp, ASocketThatHasNoRoomYetIsWaitedFor) {
    const FaultRule noRoom("send", EAGAIN, 1, 2, threadIds().back());
    post("content");
    EXPECT_EQ(takeOne(), cHandle + "content");
    EXPECT_EQ(noRoom.failures(), 2);
    EXPECT_EQ(m_results.awaitOne().nTries, 1U);
}

TEST_F(VornDispatcher_Tcp, ASocketThatCannotBeWatchedAnyLongerIsTriedAgain) {
    const FaultRule noRoom("send", EAGAIN, 1, 1, threadIds().back());
    const FaultRule fault("epoll_ctl", ENOMEM, 3, 1, threadIds().back()); // after all has been sent
    post("content");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(takeOne(), cHandle + "content");
    EXPECT_THAT(summaryOf(m_results.awaitOne()), StartsWith("delivered 12, 2 tries"));
}

TEST_F(VornDispatcher_Tcp, AnEndBeforeEverythingHasArrivedIsNotTheLast) {
    const int nSmall = 2304;
    ASSERT_EQ(::setsockopt(m_listener.get(), SOL_SOCKET, SO_RCVBUF, &nSmall, sizeof nSmall), 0);
    const std::string sContent(60'000, 'x'); // the rest waits in the sender's kernel
    post(sContent);
    UniqueFd client = accept();
    ASSERT_TRUE(awaitBlockedInIo(threadIds().back()));
    ASSERT_EQ(::shutdown(client.get(), SHUT_WR), 0);
    EXPECT_FALSE(m_dispatcher->flush(30ms));
    EXPECT_EQ(receiveToEnd(client.get()), cHandle + sContent);
    client.reset();
    EXPECT_THAT(summaryOf(m_results.awaitOne()), MatchesRegex("delivered .* 1 tries, .*"));
}

TEST_F(VornDispatcher_Tcp, ASinkThatDoesNotCloseLetsItExpireInDoubtAndIsNotReset) {
    postWith(termsOf(500ms), "content");
    const UniqueFd client = accept();
    sendAll(client.get(), "a greeting"); // left unread it would make the end a reset
    EXPECT_EQ(summaryOf(m_results.awaitOne()), "expired 110, 1 tries, 1 doubtful");
    EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
}

TEST_F(VornDispatcher_Tcp, WhatASinkWritesAndCannotBeWatchedForIsTriedAgain) {
    const FaultRule fault("epoll_ctl", ENOMEM, 2, 1, threadIds().back()); // to be told of the rest
    HeldCall waiting("epoll_wait");
    post("content");
    UniqueFd client = accept();
    ASSERT_TRUE(waiting.awaitReached());
    const std::string sMuch(256UL * 1024, 'x');
    EXPECT_GT(::send(client.get(), sMuch.data(), sMuch.size(), MSG_DONTWAIT), 16 * 4096);
    waiting.open();
    EXPECT_EQ(takeOne(), cHandle + "content");
    EXPECT_THAT(summaryOf(m_results.awaitOne()), StartsWith("delivered 12, "));
}

TEST_F(VornDispatcher_Tcp, ASinkThatWritesIsNotTakenForItsOwnEcho) {
    const auto tell = [&](const std::string& sHost) {
        int nPort = 0;
        m_listener = tcpListen(sHost, nPort);
        m_sAddress = "socket:" + sHost + ":" + std::to_string(nPort);
        post("content");
        UniqueFd client = accept();
        sendAll(client.get(), "a greeting");
        EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
        client.reset();
        EXPECT_TRUE(m_dispatcher->flush(10s));
        EXPECT_EQ(m_results.now().back().outcome, Outcome::delivered);
    };
    tell("127.0.0.1");
    tell("127.0.0.2");
    const FaultRule cannotBeTold("getsockname", ENOBUFS, 1, FaultRule::always, threadIds().back());
    tell("127.0.0.1");
}

TEST_F(VornDispatcher_Tcp, ItsOwnEchoIsNoDelivery) {
    needSandbox("a network of its own, whose ports it chooses from");
    // Where nobody listens, the kernel may give the dispatcher the very port that it connects to.
    std::ofstream("/proc/sys/net/ipv4/ip_local_port_range") << "40000 40000";
    m_sAddress = "socket:127.0.0.1:40000";
    // One try: the port is held for a minute after it.
    open([](auto& o) { o.firstPause = o.longestPause = 10s; });
    post("content");
    ASSERT_TRUE(awaitCondition([&] {
        const VornDispatcher::Statistics found = m_dispatcher->statistics();
        return found.nTries == 1 && found.nConnections == 0;
    }));
    EXPECT_EQ(m_dispatcher->cancel(m_sAddress), 1U);
    EXPECT_EQ(summaryOf(m_results.awaitOne()), "cancelled 111, 1 tries, 0 doubtful");
}

TEST_F(VornDispatcher_Tcp, ThePortIsTakenAsProxiesTakeIt) {
    m_sAddress = "socket:127.0.0.1:" + std::to_string(static_cast<std::int16_t>(m_nPort)) + ";more";
    post();
    EXPECT_EQ(takeOne(), cHandle);
    EXPECT_EQ(m_results.awaitOne().sAddress, m_sAddress);
}
