// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "DispatcherTestSupport.h"
#include "Interpose.h"

#include <fstream>
#include <thread>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

using namespace std::chrono_literals;
using namespace VornTest;

namespace {

/** What the dispatcher sees over TCP, and what it makes of it. */
class VornDispatcher_Tcp : public DispatcherTest {
protected:
    UniqueFd listen(int backlog = 5) {
        UniqueFd listener = tcpListen("127.0.0.1", m_nPort, backlog);
        m_sAddress = "socket:127.0.0.1:" + std::to_string(m_nPort);
        return listener;
    }

    static void resetNext(int listener) {
        const UniqueFd client = acceptClient(listener);
        receiveExactly(client.get(), 8);
        resetOnClose(client.get());
    }

    int m_nPort = 0;
    std::string m_sAddress;
};

} // namespace

TEST_F(VornDispatcher_Tcp, ASinkThatReadsAllAndClosesHasBeenDelivered) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress, "content");
    UniqueFd client = acceptClient(listener.get());
    EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
    EXPECT_EQ(dispatcher.queued(m_sAddress), 1U) << "before the sink has closed";
    client.reset();
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::delivered);
    EXPECT_EQ(result.sAddress, m_sAddress);
    EXPECT_EQ(result.nCode, 0);
    EXPECT_EQ(result.nTries, 1U);
    EXPECT_EQ(result.nDoubtfulTries, 0U);
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

TEST_F(VornDispatcher_Tcp, OneOfManyMebibytesIsDelivered) {
    const std::string sContent(20UL * 1024 * 1024 + 3, 'x');
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    postWith(termsOf(5min), dispatcher, m_sAddress, sContent);
    EXPECT_TRUE(takeOne(listener.get()) == cHandle + sContent);
    EXPECT_EQ(m_results.awaitOne().outcome, Outcome::delivered);
}

TEST_F(VornDispatcher_Tcp, WhereNobodyListensItIsTriedAgainWithoutDoubt) {
    m_nPort = unusedTcpPort();
    m_sAddress = "socket:127.0.0.1:" + std::to_string(m_nPort);
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress);
    expireAfter(3, dispatcher);
    Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::expired);
    EXPECT_EQ(result.nCode, ECONNREFUSED);
    EXPECT_GT(result.nTries, 2U);
    EXPECT_EQ(result.nDoubtfulTries, 0U);

    post(dispatcher, m_sAddress);
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nTries > result.nTries; }));
    const UniqueFd listener = listen();
    EXPECT_EQ(takeOne(listener.get()), cHandle);
    EXPECT_EQ(m_results.await(2)[1].outcome, Outcome::delivered);
}

TEST_F(VornDispatcher_Tcp, AResetIsDoubtfulAndTriedAgain) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress, "content");
    for (int i = 0; i < 3; ++i)
        resetNext(listener.get());
    EXPECT_EQ(takeOne(listener.get()), cHandle + "content");
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::delivered);
    EXPECT_EQ(result.nCode, ECONNRESET);
    EXPECT_EQ(result.nTries, 4U);
    EXPECT_EQ(result.nDoubtfulTries, 3U);
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

TEST_F(VornDispatcher_Tcp, ASinkThatLeavesBytesIsDoubtful) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    postWith(termsOf(10s, 1), dispatcher, m_sAddress, "content");
    UniqueFd client = acceptClient(listener.get());
    receiveExactly(client.get(), 8);
    client.reset();
    EXPECT_EQ(m_results.awaitOne().outcome, Outcome::unread);
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

TEST_F(VornDispatcher_Tcp, AListenerThatIsClosedResetsItsQueueAndItIsTriedAgain) {
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
    EXPECT_LE(result.nDoubtfulTries, 1U);
}

TEST_F(VornDispatcher_Tcp, AHostThatSwallowsPacketsIsGivenTheConnectLimit) {
    const UniqueFd listener = listen(0);
    const UniqueFd inFront = tcpConnect("127.0.0.1", m_nPort); // from now on the kernel drops who comes
    VornDispatcher::Options options = optionsWithResults();
    options.connectLimit = 30ms;
    VornDispatcher dispatcher(options);
    postWith(termsOf(500ms), dispatcher, m_sAddress);
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::expired);
    EXPECT_EQ(result.nCode, ETIMEDOUT);
    EXPECT_GE(result.nTries, 2U);
    EXPECT_LE(result.nTries, 17U);
    EXPECT_EQ(result.nDoubtfulTries, 0U);
}

TEST_F(VornDispatcher_Tcp, ASocketThatHasNoRoomYetIsWaitedFor) {
    useInterposition();
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    const FaultRule noRoom("send", EAGAIN, 1, 2, threadIds().back());
    post(dispatcher, m_sAddress, "content");
    EXPECT_EQ(takeOne(listener.get()), cHandle + "content");
    EXPECT_EQ(noRoom.failures(), 2);
    EXPECT_EQ(m_results.awaitOne().nTries, 1U);
}

TEST_F(VornDispatcher_Tcp, ASocketThatCannotBeWatchedAnyLongerIsTriedAgain) {
    useInterposition();
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
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::expired);
    EXPECT_EQ(result.nCode, ETIMEDOUT);
    EXPECT_EQ(result.nTries, 1U);
    EXPECT_EQ(result.nDoubtfulTries, 1U);
    EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
}

TEST_F(VornDispatcher_Tcp, WhatASinkWritesIsThrownAway) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress, "content");
    UniqueFd client = acceptClient(listener.get());
    sendAll(client.get(), std::string(4UL * 1024 * 1024, 'x'));
    EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
    client.reset();
    EXPECT_EQ(m_results.awaitOne().outcome, Outcome::delivered);
}

TEST_F(VornDispatcher_Tcp, WhatASinkWritesAndCannotBeWatchedForIsTriedAgain) {
    useInterposition();
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
    useInterposition();
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
    VornDispatcher::Options options = optionsWithResults();
    options.firstPause = options.longestPause = 10s; // one try: the port is held for a minute after it
    VornDispatcher dispatcher(options);
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
