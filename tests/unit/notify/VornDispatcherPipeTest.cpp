// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "DispatcherTestSupport.h"
#include "Interpose.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace std::chrono_literals;
using namespace VornTest;

namespace {

/** What the dispatcher sees over a pipe, and what it makes of it. */
class VornDispatcher_Pipe : public DispatcherTest {
protected:
    static UniqueFd listen(int backlog = 5) {
        ::unlink(pipePath("peer").c_str());
        return unixListen(pipePath("peer"), backlog);
    }

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

    const std::string m_sAddress = "pipe:peer";
};

} // namespace

TEST_F(VornDispatcher_Pipe, ASinkThatReadsAllAndClosesHasBeenDelivered) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    EXPECT_EQ(post(dispatcher, m_sAddress, "content"), 1U);
    UniqueFd client = acceptClient(listener.get());
    EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
    EXPECT_EQ(dispatcher.queued(m_sAddress), 1U) << "before the sink has closed";
    client.reset();
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.nTicket, 1U);
    EXPECT_EQ(result.sAddress, m_sAddress);
    EXPECT_EQ(result.nHandle, 7);
    EXPECT_EQ(result.outcome, Outcome::delivered);
    EXPECT_EQ(result.nCode, 0);
    EXPECT_EQ(result.nTries, 1U);
    EXPECT_EQ(result.nDoubtfulTries, 0U);
    EXPECT_GT(result.elapsed, 0us);
    EXPECT_LT(result.elapsed, 10s);
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

TEST_F(VornDispatcher_Pipe, ANotificationWithoutContentIsDelivered) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress);
    EXPECT_EQ(takeOne(listener.get()), cHandle);
    EXPECT_EQ(m_results.awaitOne().outcome, Outcome::delivered);
}

TEST_F(VornDispatcher_Pipe, OneOfManyMebibytesIsDelivered) {
    const std::string sContent(5UL * 1024 * 1024 + 3, 'x');
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    postWith(termsOf(5min), dispatcher, m_sAddress, sContent);
    EXPECT_TRUE(takeOne(listener.get()) == cHandle + sContent);
    EXPECT_EQ(m_results.awaitOne().outcome, Outcome::delivered);
}

TEST_F(VornDispatcher_Pipe, WhereThereIsNoFileItIsTriedAgain) {
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress);
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nTries > 2; }));
    const UniqueFd listener = listen();
    EXPECT_EQ(takeOne(listener.get()), cHandle);
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::delivered);
    EXPECT_TRUE(result.nCode == ENOENT || result.nCode == ECONNREFUSED)
        << result.nCode; // bound, and not listening yet
    EXPECT_GT(result.nTries, 2U);
    EXPECT_EQ(result.nDoubtfulTries, 0U);
}

TEST_F(VornDispatcher_Pipe, WhereNobodyListensItExpires) {
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

TEST_F(VornDispatcher_Pipe, OneThrownAwayWithTheListenersQueueIsTriedAgain) {
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
    EXPECT_EQ(result.nDoubtfulTries, 0U) << "no callback has seen it";
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
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::delivered);
    EXPECT_EQ(result.nCode, ECONNRESET);
    EXPECT_EQ(result.nTries, 3U);
    EXPECT_EQ(result.nDoubtfulTries, 0U);
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
        const Result result = m_results.now().back();
        EXPECT_EQ(result.outcome, Outcome::unread);
        EXPECT_EQ(result.nCode, ECONNRESET);
        EXPECT_EQ(result.nTries, 1U);
        EXPECT_EQ(result.nDoubtfulTries, 1U);
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
    EXPECT_EQ(result.outcome, Outcome::expired);
    EXPECT_EQ(result.nCode, ETIMEDOUT);
    EXPECT_EQ(result.nTries, 1U);
    EXPECT_EQ(result.nDoubtfulTries, 1U);
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

TEST_F(VornDispatcher_Pipe, WhatASinkWritesIsThrownAway) {
    const UniqueFd listener = listen();
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, m_sAddress, "content");
    UniqueFd client = acceptClient(listener.get());
    sendAll(client.get(), "a greeting");
    EXPECT_EQ(receiveToEnd(client.get()), cHandle + "content");
    sendAll(client.get(), std::string(1024UL * 1024, 'x')); // more than fits in between
    client.reset();
    EXPECT_EQ(m_results.awaitOne().outcome, Outcome::delivered);
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
    useInterposition();
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
