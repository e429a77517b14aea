// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "DispatcherTestSupport.h"
#include "Interpose.h"

#include <fstream>
#include <thread>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace std::chrono_literals;
using namespace VornTest;

namespace {

/** What the dispatcher sees over a stream, and what it makes of it. */
class StreamFixture : public DispatcherTest {
protected:
    explicit StreamFixture(bool bIsPipe) : m_bIsPipe(bIsPipe) {}

    UniqueFd listen(int backlog = 5) {
        if (m_bIsPipe)
            return unixListen(pipePath("peer"), backlog);
        UniqueFd listener = tcpListen("127.0.0.1", m_nPort, backlog);
        m_sAddress = "socket:127.0.0.1:" + std::to_string(m_nPort);
        return listener;
    }

    const bool m_bIsPipe;
    int m_nPort = 0;
    std::string m_sAddress = "pipe:peer";
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
    static UniqueFd acceptProbed(int listener) {
        UniqueFd client = acceptClient(listener);
        EXPECT_TRUE(awaitCondition([&] { return unread(client.get()) == 7; }));
        return client;
    }

    /** Plays a sink that has read the handle and ends its side before it reads the content. */
    static UniqueFd acceptAndFallSilent(int listener) {
        UniqueFd client = acceptClient(listener);
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

    static void resetNext(int listener) {
        const UniqueFd client = acceptClient(listener);
        receiveExactly(client.get(), 8);
        resetOnClose(client.get());
    }
};

} // namespace

TEST_P(VornDispatcher_Stream, ASinkThatReadsAllAndClosesHasBeenDelivered) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    EXPECT_EQ(post(dispatcher, m_sAddress, "content"), 1U);
    UniqueFd client = acceptClient(listener.get());
    EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
    EXPECT_EQ(dispatcher.queued(m_sAddress), 1U) << "before the sink has closed";
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
    const UniqueFd listener = listen();
    for (const std::size_t nSize : {0UL, 20UL * 1024 * 1024 + 3}) {
        const std::string sContent(nSize, 'x');
        VornDispatcher dispatcher(optionsWithResults());
        postWith(termsOf(5min), dispatcher, m_sAddress, sContent);
        EXPECT_TRUE(takeOne(listener.get()) == cHandle + sContent);
        EXPECT_TRUE(dispatcher.flush(10s));
        EXPECT_EQ(m_results.now().back().outcome, Outcome::delivered);
    }
}

TEST_P(VornDispatcher_Stream, WhereNobodyListensItIsTriedAgainUntilItExpires) {
    listen();
    VornDispatcher dispatcher(optionsWithResults());
    for (int i = 0; i < 3; ++i)
        post(dispatcher, m_sAddress);
    expireAfter(4, dispatcher);
    for (const Result& result : m_results.await(3)) {
        EXPECT_EQ(result.outcome, Outcome::expired);
        EXPECT_EQ(result.nCode, ECONNREFUSED) << "also of one that had to wait for the first";
        EXPECT_EQ(result.nDoubtfulTries, 0U);
        EXPECT_GE(result.elapsed, 10s);
    }
    EXPECT_GT(m_results.now()[0].nTries, 3U);
}

TEST_P(VornDispatcher_Stream, ASinkThatOpensLaterGetsIt) {
    listen();
    ::unlink(pipePath("peer").c_str());
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress);
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nTries > 2; }));
    const UniqueFd listener = listen();
    EXPECT_EQ(takeOne(listener.get()), cHandle);
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::delivered);
    EXPECT_TRUE(result.nCode == ECONNREFUSED || (m_bIsPipe && result.nCode == ENOENT))
        << result.nCode; // bound, and not listening yet
    EXPECT_GT(result.nTries, 2U);
    EXPECT_EQ(result.nDoubtfulTries, 0U);
}

TEST_P(VornDispatcher_Stream, OneThrownAwayWithTheListenersQueueIsTriedAgain) {
    UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress, "content");
    pollfd inQueue{listener.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&inQueue, 1, 10'000), 1);
    listener.reset();
    listener = listen();
    EXPECT_EQ(takeOne(listener.get()), cHandle + "content");
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::delivered);
    EXPECT_GE(result.nTries, 2U);
    EXPECT_LE(result.nDoubtfulTries, m_bIsPipe ? 0U : 1U) << "no callback has seen it, and a pipe shows that";
}

TEST_P(VornDispatcher_Stream, WhatASinkWritesIsThrownAway) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress, "content");
    UniqueFd client = acceptClient(listener.get());
    const std::string sMuch(4UL * 1024 * 1024, 'x'); // more than fits in between
    sendAll(client.get(), sMuch);
    EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
    sendAll(client.get(), sMuch);
    client.reset();
    EXPECT_EQ(m_results.awaitOne().outcome, Outcome::delivered);
}

TEST_F(VornDispatcher_Pipe, TheContentWaitsUntilTheSinkReadsTheHandle) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher;
    post(dispatcher, m_sAddress, "content");
    const UniqueFd client = acceptProbed(listener.get());
    EXPECT_EQ(receiveExactly(client.get(), 6), cHandle.substr(0, 6));
    EXPECT_FALSE(awaitCondition([&] { return unread(client.get()) != 1; }, 30ms));
    EXPECT_EQ(receiveToEnd(client.get()), cHandle.substr(6) + "content");
}

TEST_F(VornDispatcher_Pipe, TakenIsWhenTheKernelCountsNotMoreThanOne) {
    // It wakes the sender while one unit of a message that has been taken is still counted, and no event
    // follows.
    const UniqueFd listener = listen();
    for (const auto& [nCounted, outcome] : {std::pair(1, Outcome::delivered), {2, Outcome::cancelled}}) {
        Results results;
        VornDispatcher::Options options;
        options.onResult = results.handler();
        VornDispatcher dispatcher(options);
        FaultRule counts("ioctl", 0, 1, FaultRule::always, threadIds().back());
        counts.returning(nCounted);
        post(dispatcher, m_sAddress, "content");
        UniqueFd client = acceptClient(listener.get());
        if (outcome == Outcome::cancelled) {
            EXPECT_EQ(receiveExactly(client.get(), 7), cHandle.substr(0, 7));
            EXPECT_FALSE(dispatcher.flush(30ms));
            dispatcher.cancel(m_sAddress);
        }
        EXPECT_EQ(receiveToEnd(client.get()), outcome == Outcome::cancelled ? "" : cHandle + "content");
        client.reset();
        const Result result = results.awaitOne();
        EXPECT_EQ(result.outcome, outcome) << nCounted;
        EXPECT_EQ(result.nDoubtfulTries, 0U) << nCounted;
    }
}

TEST_F(VornDispatcher_Pipe, AFullQueueOfTheListenerIsTriedAgain) {
    const UniqueFd listener = listen(0);
    const UniqueFd inFront = unixConnect(pipePath("peer"));
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress);
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nTries > 1; }));
    acceptClient(listener.get());
    EXPECT_EQ(takeOne(listener.get()), cHandle);
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::delivered);
    EXPECT_EQ(result.nCode, EAGAIN);
    EXPECT_EQ(result.nDoubtfulTries, 0U);
}

TEST_F(VornDispatcher_Pipe, OneThrownAwayAsItIsAskedForIsNotTakenForTaken) {
    UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    {
        const CallHook atQuestion("ioctl",
                                  [&] { listener.reset(); }); // the bytes are gone, and nobody has them
        post(dispatcher, m_sAddress, "content");
        ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nTries > 1; }));
    }
    listener = listen();
    EXPECT_EQ(takeOne(listener.get()), cHandle + "content");
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::delivered);
    EXPECT_EQ(result.nDoubtfulTries, 0U);
}

TEST_F(VornDispatcher_Pipe, ASinkThatClosesBeforeTheHandleIsCompleteIsTriedAgain) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress, "content");
    for (const std::size_t taken : {0U, 3U}) {
        const UniqueFd client = acceptProbed(listener.get());
        receiveExactly(client.get(), taken);
    }
    EXPECT_EQ(takeOne(listener.get()), cHandle + "content");
    EXPECT_EQ(summaryOf(m_results.awaitOne()), "delivered 104, 3 tries, 0 doubtful");
}

TEST_F(VornDispatcher_Pipe, ASinkThatLeavesBytesIsNeverOfferedItAgain) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    for (const std::size_t taken : {8U, 14U}) {
        post(dispatcher, m_sAddress, "content");
        UniqueFd client = acceptClient(listener.get());
        EXPECT_EQ(receiveExactly(client.get(), taken), (cHandle + "content").substr(0, taken));
        client.reset();
        ASSERT_TRUE(dispatcher.flush(10s));
        EXPECT_EQ(summaryOf(m_results.now().back()), "unread 104, 1 tries, 1 doubtful");
    }
    post(dispatcher, m_sAddress, "next");
    EXPECT_EQ(takeOne(listener.get()), cHandle + "next");
}

TEST_F(VornDispatcher_Pipe, ASinkThatClosesInTheMiddleOfALongOneHasNotReadIt) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress, std::string(4UL * 1024 * 1024, 'x'));
    UniqueFd client = acceptClient(listener.get());
    receiveExactly(client.get(), 1000000);
    client.reset();
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::unread);
    EXPECT_EQ(result.nDoubtfulTries, 1U);
}

TEST_F(VornDispatcher_Pipe, ASinkThatDoesNotCloseLetsItExpireInDoubt) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    postWith(termsOf(500ms), dispatcher, m_sAddress, "content");
    const UniqueFd client = acceptClient(listener.get());
    EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
    const Result result = m_results.awaitOne();
    EXPECT_EQ(summaryOf(result), "expired 110, 1 tries, 1 doubtful");
    EXPECT_GE(result.elapsed, 500ms);
    EXPECT_LT(result.elapsed, 5s);
}

TEST_F(VornDispatcher_Pipe, ASinkThatDoesNotReadLetsItExpireWithoutDoubtAndFindsNoHandle) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    postWith(termsOf(500ms), dispatcher, m_sAddress, "content");
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::expired);
    EXPECT_EQ(result.nTries, 1U);
    EXPECT_EQ(result.nDoubtfulTries, 0U);
    EXPECT_EQ(takeOne(listener.get()), cHandle.substr(0, 7));
}

TEST_F(VornDispatcher_Pipe, ASinkThatFallsSilentEarlyHasItsTimeToRead) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress, "content");
    UniqueFd client = acceptAndFallSilent(listener.get());
    EXPECT_FALSE(dispatcher.flush(30ms)) << "there are bytes that it has not read";
    EXPECT_EQ(receiveToEnd(client.get()), "content");
    client.reset();
    EXPECT_EQ(m_results.awaitOne().outcome, Outcome::delivered);
}

TEST_F(VornDispatcher_Pipe, ASinkThatEndsItsSideBeforeItReadsIsTriedAgain) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress, "content");
    const UniqueFd client = acceptProbed(listener.get());
    ASSERT_EQ(::shutdown(client.get(), SHUT_WR), 0);
    EXPECT_EQ(takeOne(listener.get()), cHandle + "content");
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.nCode, ECONNRESET);
    EXPECT_EQ(result.nTries, 2U);
    EXPECT_EQ(result.nDoubtfulTries, 0U);
}

TEST_F(VornDispatcher_Pipe, ASinkThatFallsSilentEarlyAndCannotBeWatchedHasNotReadIt) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    const FaultRule fault("epoll_ctl", ENOMEM, 3, 1, threadIds().back()); // to be told when it has read
    post(dispatcher, m_sAddress, "content");
    const UniqueFd client = acceptAndFallSilent(listener.get());
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::unread);
    EXPECT_EQ(result.nCode, ENOMEM);
}

TEST_F(VornDispatcher_Pipe, EveryKindOfAbandonedTryLeavesTheSinkAnEndAndNoReset) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher;
    post(dispatcher, m_sAddress, "content");
    const UniqueFd client = acceptClient(listener.get());
    sendAll(client.get(), "a greeting"); // left unread it would make the end a reset
    EXPECT_EQ(dispatcher.cancel(m_sAddress), 1U);
    EXPECT_EQ(receiveToEnd(client.get()).substr(0, 7), cHandle.substr(0, 7));
}

TEST_F(VornDispatcher_Tcp, TheEndTravelsWithTheContent) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher;
    for (int i = 0; i < 200; ++i) {
        post(dispatcher, m_sAddress, "content");
        const UniqueFd client = acceptClient(listener.get());
        pollfd entry{client.get(), POLLIN | POLLRDHUP, 0};
        ASSERT_EQ(::poll(&entry, 1, 10'000), 1);
        ASSERT_EQ(entry.revents, POLLIN | POLLRDHUP) << "round " << i;
        EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
    }
}

TEST_F(VornDispatcher_Tcp, AResetIsDoubtfulAndTriedAgain) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress, "content");
    for (int i = 0; i < 3; ++i)
        resetNext(listener.get());
    EXPECT_EQ(takeOne(listener.get()), cHandle + "content");
    EXPECT_EQ(summaryOf(m_results.awaitOne()), "delivered 104, 4 tries, 3 doubtful");
    EXPECT_EQ(dispatcher.statistics().nDoubtfulTries, 3U);
}

TEST_F(VornDispatcher_Tcp, AfterSoManyDoubtfulTriesAsTheTermsSayItIsUnread) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    for (const unsigned int nTries : {1U, 3U}) {
        postWith(termsOf(10s, nTries), dispatcher, m_sAddress, "content");
        for (unsigned int i = 0; i < nTries; ++i)
            resetNext(listener.get());
        ASSERT_TRUE(dispatcher.flush(10s));
        const Result result = m_results.now().back();
        EXPECT_EQ(result.outcome, Outcome::unread);
        EXPECT_EQ(result.nCode, ECONNRESET);
        EXPECT_EQ(result.nTries, nTries);
        EXPECT_EQ(result.nDoubtfulTries, nTries);
    }
}

TEST_F(VornDispatcher_Tcp, AResetHiddenByAnEndIsNoDelivery) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    for (int i = 0; i < 100; ++i) {
        postWith(termsOf(10s, 1), dispatcher, m_sAddress, "content");
        UniqueFd client = acceptClient(listener.get());
        ::shutdown(client.get(), SHUT_WR); // the end first
        receiveExactly(client.get(), 8);
        client.reset(); // and then a reset, since bytes are left
        ASSERT_TRUE(dispatcher.flush(10s));
    }
    // When the end was seen alone, with every byte acknowledged by the kernel, nobody could know better.
    for (const Result& result : m_results.now())
        EXPECT_TRUE(result.outcome == Outcome::unread || result.nDoubtfulTries == 0);
}

TEST_F(VornDispatcher_Tcp, AHostThatSwallowsPacketsIsGivenTheConnectLimit) {
    const UniqueFd listener = listen(0);
    const UniqueFd inFront = tcpConnect("127.0.0.1", m_nPort); // from now on the kernel drops who comes
    VornDispatcher dispatcher(optionsWithResults([](auto& o) { o.connectLimit = 30ms; }));
    postWith(termsOf(500ms), dispatcher, m_sAddress);
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::expired);
    EXPECT_EQ(result.nCode, ETIMEDOUT);
    EXPECT_GE(result.nTries, 2U);
    EXPECT_LE(result.nTries, 17U);
    EXPECT_EQ(result.nDoubtfulTries, 0U);
}

TEST_F(VornDispatcher_Tcp, ASocketThatHasNoRoomYetIsWaitedFor) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    const FaultRule noRoom("send", EAGAIN, 1, 2, threadIds().back());
    post(dispatcher, m_sAddress, "content");
    EXPECT_EQ(takeOne(listener.get()), cHandle + "content");
    EXPECT_EQ(noRoom.failures(), 2);
    EXPECT_EQ(m_results.awaitOne().nTries, 1U);
}

TEST_F(VornDispatcher_Tcp, ASocketThatCannotBeWatchedAnyLongerIsTriedAgain) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    const FaultRule noRoom("send", EAGAIN, 1, 1, threadIds().back());
    const FaultRule fault("epoll_ctl", ENOMEM, 3, 1, threadIds().back()); // after all has been sent
    post(dispatcher, m_sAddress, "content");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(takeOne(listener.get()), cHandle + "content");
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::delivered);
    EXPECT_EQ(result.nCode, ENOMEM);
    EXPECT_EQ(result.nTries, 2U);
}

TEST_F(VornDispatcher_Tcp, AnEndBeforeEverythingHasArrivedIsNotTheLast) {
    const UniqueFd listener = listen();
    const int nSmall = 2304;
    ASSERT_EQ(::setsockopt(listener.get(), SOL_SOCKET, SO_RCVBUF, &nSmall, sizeof nSmall), 0);
    VornDispatcher dispatcher(optionsWithResults());
    const std::string sContent(60'000, 'x'); // the rest waits in the sender's kernel
    post(dispatcher, m_sAddress, sContent);
    UniqueFd client = acceptClient(listener.get());
    ASSERT_TRUE(awaitBlockedInIo(threadIds().back()));
    ASSERT_EQ(::shutdown(client.get(), SHUT_WR), 0);
    EXPECT_FALSE(dispatcher.flush(30ms));
    EXPECT_EQ(receiveToEnd(client.get()), cHandle + sContent);
    client.reset();
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::delivered);
    EXPECT_EQ(result.nTries, 1U);
}

TEST_F(VornDispatcher_Tcp, ASinkThatDoesNotCloseLetsItExpireInDoubtAndIsNotReset) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    postWith(termsOf(500ms), dispatcher, m_sAddress, "content");
    const UniqueFd client = acceptClient(listener.get());
    sendAll(client.get(), "a greeting"); // left unread it would make the end a reset
    EXPECT_EQ(summaryOf(m_results.awaitOne()), "expired 110, 1 tries, 1 doubtful");
    EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
}

TEST_F(VornDispatcher_Tcp, WhatASinkWritesAndCannotBeWatchedForIsTriedAgain) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    const FaultRule fault("epoll_ctl", ENOMEM, 2, 1, threadIds().back()); // to be told of the rest
    HeldCall waiting("epoll_wait");
    post(dispatcher, m_sAddress, "content");
    UniqueFd client = acceptClient(listener.get());
    ASSERT_TRUE(waiting.awaitReached());
    const std::string sMuch(256UL * 1024, 'x');
    EXPECT_GT(::send(client.get(), sMuch.data(), sMuch.size(), MSG_DONTWAIT), 16 * 4096);
    waiting.open();
    EXPECT_EQ(takeOne(listener.get()), cHandle + "content");
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::delivered);
    EXPECT_EQ(result.nCode, ENOMEM);
}

TEST_F(VornDispatcher_Tcp, ASinkThatWritesIsNotTakenForItsOwnEcho) {
    VornDispatcher dispatcher(optionsWithResults());
    const auto tell = [&](const std::string& sHost) {
        int nPort = 0;
        const UniqueFd listener = tcpListen(sHost, nPort);
        post(dispatcher, "socket:" + sHost + ":" + std::to_string(nPort), "content");
        UniqueFd client = acceptClient(listener.get());
        sendAll(client.get(), "a greeting");
        EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
        client.reset();
        EXPECT_TRUE(dispatcher.flush(10s));
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
    VornDispatcher dispatcher(optionsWithResults([](auto& o) { o.firstPause = o.longestPause = 10s; }));
    post(dispatcher, m_sAddress, "content");
    ASSERT_TRUE(awaitCondition([&] {
        const VornDispatcher::Statistics found = dispatcher.statistics();
        return found.nTries == 1 && found.nConnections == 0;
    }));
    EXPECT_EQ(dispatcher.cancel(m_sAddress), 1U);
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.nCode, ECONNREFUSED);
    EXPECT_EQ(result.nDoubtfulTries, 0U);
}

TEST_F(VornDispatcher_Tcp, ThePortIsTakenAsProxiesTakeIt) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    const std::string sAddress =
        "socket:127.0.0.1:" + std::to_string(static_cast<std::int16_t>(m_nPort)) + ";more";
    post(dispatcher, sAddress);
    EXPECT_EQ(takeOne(listener.get()), cHandle);
    EXPECT_EQ(m_results.awaitOne().sAddress, sAddress);
}
