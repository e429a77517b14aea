// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AllocationFaults.h"
#include "DispatcherTestSupport.h"
#include "Interpose.h"
#include "LogCapture.h"

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <thread>

#include <gmock/gmock.h>
#include <poll.h>
#include <pthread.h>

using namespace std::chrono_literals;
using namespace VornTest;
using Overflow = VornDispatcher::Overflow;

namespace {

const std::string cQueueFull = "VornDispatcher::post: queue full. 105";
const std::string cStopped = "VornDispatcher::post: stopped. 108";

/** What its operations promise, whatever the transport. */
class VornDispatcher_Operations : public DispatcherTest {
protected:
    void SetUp() override {
        DispatcherTest::SetUp();
        m_listener = listen("peer");
    }

    void TearDown() override {
        m_listener.reset();
        DispatcherTest::TearDown();
    }

    using DispatcherTest::takeOne;

    UniqueFd accept() const { return acceptClient(m_listener.get()); }

    std::string takeOne() const { return DispatcherTest::takeOne(m_listener.get()); }

    /** Waits until the first notification is being tried: a connection is in the listener's queue. */
    void awaitTry() const { awaitTry(m_listener.get()); }

    static void awaitTry(int listener) {
        pollfd entry{listener, POLLIN, 0};
        ASSERT_EQ(::poll(&entry, 1, 10'000), 1);
    }

    static std::vector<Outcome> outcomesOf(const std::vector<Result>& results) {
        std::vector<Outcome> outcomes;
        for (const Result& result : results)
            outcomes.push_back(result.outcome);
        return outcomes;
    }

    static std::vector<std::uint64_t> ticketsOf(const std::vector<Result>& results) {
        std::vector<std::uint64_t> tickets;
        for (const Result& result : results)
            tickets.push_back(result.nTicket);
        return tickets;
    }

    using Tickets = std::vector<std::uint64_t>;
    using Outcomes = std::vector<Outcome>;

    UniqueFd m_listener; // of "pipe:peer", unless the test says otherwise
};

} // namespace

TEST(VornDispatcher, HasTheDefaultsOfItsHeader) {
    const VornDispatcher::Options options;
    EXPECT_EQ(options.sName, "dispatcher");
    EXPECT_EQ(options.terms.timeLimit, 10s);
    EXPECT_EQ(options.terms.nDoubtfulTries, 64U);
    EXPECT_EQ(options.overflow, Overflow::refuse);
    EXPECT_EQ(options.nQueueLimit, 10'000U);
    EXPECT_EQ(options.nByteLimit, 64UL * 1024 * 1024);
    EXPECT_EQ(options.nConnectionLimit, 0U);
    EXPECT_EQ(options.connectLimit, 1s);
    EXPECT_EQ(options.firstPause, 20us);
    EXPECT_EQ(options.longestPause, 250ms);
    EXPECT_EQ(options.datagramPause, 1ms);
    EXPECT_EQ(options.stopLimit, 1s);
    EXPECT_FALSE(options.onResult);
}

TEST(VornDispatcher, NamesEveryOutcome) {
    const std::pair<Outcome, std::string> names[] = {
        {Outcome::delivered, "delivered"},    {Outcome::sent, "sent"},
        {Outcome::unread, "unread"},          {Outcome::expired, "expired"},
        {Outcome::dropped, "dropped"},        {Outcome::cancelled, "cancelled"},
        {Outcome::stopped, "stopped"},        {static_cast<Outcome>(7), "unknown"},
        {static_cast<Outcome>(-1), "unknown"}};
    for (const auto& [outcome, name] : names)
        EXPECT_EQ(VornDispatcher::nameOf(outcome), name);
}

TEST_F(VornDispatcher_Operations, RefusesInvalidOptions) {
    using Options = VornDispatcher::Options;
    const std::function<void(Options&)> faults[] = {
        [](Options& options) { options.terms.timeLimit = 0ms; },
        [](Options& options) { options.terms.timeLimit = -1ms; },
        [](Options& options) { options.terms.nDoubtfulTries = 0; },
        [](Options& options) { options.nQueueLimit = 0; },
        [](Options& options) { options.nByteLimit = 0; },
        [](Options& options) { options.connectLimit = 0ms; },
        [](Options& options) { options.connectLimit = -1ms; },
        [](Options& options) { options.firstPause = 0us; },
        [](Options& options) { options.firstPause = -1us; },
        [](Options& options) { options.longestPause = 0ms; },
        [](Options& options) { options.longestPause = -1ms; },
        [](Options& options) { options.datagramPause = -1us; },
        [](Options& options) { options.stopLimit = -1ms; },
    };
    for (const auto& makeFaulty : faults) {
        Options options;
        makeFaulty(options);
        EXPECT_EQ(thrownBy([&] { VornDispatcher dispatcher(options); }),
                  "VornDispatcher::VornDispatcher: invalid option. 22")
            << &makeFaulty - faults;
    }
    Options least;
    least.datagramPause = 0us;
    least.stopLimit = 0ms;
    least.nConnectionLimit = 0;
    EXPECT_EQ(thrownBy([&] { VornDispatcher dispatcher(least); }), "nothing");
}

TEST_F(VornDispatcher_Operations, RefusesWhatIsNoAddressAndNoTerms) {
    VornDispatcher dispatcher(optionsWithResults());
    for (const char* text :
         {"", "pipe:", "pipe:a/b", "socket:localhost:5023", "ssl:127.0.0.1:5023", "udp:0.0.0.0:5023"})
        EXPECT_EQ(thrownBy([&] { post(dispatcher, text); }),
                  "VornDispatcher::post: invalid callback address. 22")
            << text;
    for (const VornDispatcher::Terms& terms : {termsOf(0ms), termsOf(-1ms), termsOf(1s, 0)})
        EXPECT_EQ(thrownBy([&] { postWith(terms, dispatcher, "pipe:nobody"); }),
                  "VornDispatcher::post: invalid terms. 22");
    EXPECT_EQ(dispatcher.statistics().nPosted, 0U);
    EXPECT_EQ(dispatcher.statistics().nRefused, 0U);
}

TEST_F(VornDispatcher_Operations, ComposesAtOnceOnceAndOnTheCallersThread) {
    VornDispatcher dispatcher(optionsWithResults());
    int nCalls = 0;
    {
        WritingProxy proxy("pipe:peer", [&, me = std::this_thread::get_id()](VornConnection& connection) {
            ++nCalls;
            EXPECT_EQ(std::this_thread::get_id(), me);
            EXPECT_EQ(connection.getRemoteName(), "peer");
            connection.transfer("text");
            connection.transfer(5L);
            connection.transfer(static_cast<short>(3));
            long nError = -1;
            EXPECT_EQ(connection.transfer("", 0, &nError), 0);
            EXPECT_EQ(nError, 0);
        });
        dispatcher.post(proxy, VornNotification(1));
    }
    EXPECT_EQ(nCalls, 1);
    EXPECT_EQ(takeOne(), cHandle + bytes("00 00 00 04") + "text" + bytes("00 00 00 05 00 00 00 00 00 03"));
    EXPECT_EQ(m_results.awaitOne().outcome, Outcome::delivered);
}

TEST_F(VornDispatcher_Operations, RefusesAProxyThatReads) {
    VornDispatcher dispatcher;
    char byte = 0;
    int nSize = 1;
    int nError = 0;
    long nLongError = 0;
    const std::function<void(VornConnection&)> reads[] = {
        [](VornConnection& connection) { connection.receiveInt(); },
        [](VornConnection& connection) { connection.receiveLong(); },
        [](VornConnection& connection) { connection.receiveShort(); },
        [](VornConnection& connection) { connection.receiveString(); },
        [&](VornConnection& connection) { connection.get(&byte, 1); },
        [&](VornConnection& connection) { connection.receive(&byte, 1, &nLongError, false); },
        [&](VornConnection& connection) { connection.peekBytes(&byte, nSize, nError); },
        [](VornConnection& connection) {
            for (int i = 0; i < 2; ++i) {
                try {
                    connection.receiveInt();
                } catch (const VornException&) { // nor when it does not mind
                }
            }
            connection.transfer(5);
        },
    };
    for (const auto& read : reads) {
        WritingProxy proxy("pipe:peer", read);
        EXPECT_EQ(thrownBy([&] { dispatcher.post(proxy, VornNotification(1)); }),
                  "VornDispatcher::post: addContent() must not read. 95")
            << &read - reads;
    }
    EXPECT_EQ(dispatcher.statistics().nPosted, 0U);
}

TEST_F(VornDispatcher_Operations, PassesOnWhatAProxyThrows) {
    VornDispatcher dispatcher;
    WritingProxy first("pipe:peer", [](VornConnection&) { throw VornException("mine", 5); });
    EXPECT_EQ(thrownBy([&] { dispatcher.post(first, VornNotification(1)); }), "mine 5");
    WritingProxy second("pipe:peer", [](VornConnection&) { throw 5; });
    EXPECT_THROW(dispatcher.post(second, VornNotification(1)), int);
    EXPECT_EQ(dispatcher.statistics().nPosted, 0U);
}

TEST_F(VornDispatcher_Operations, RefusesWhatIsLongerThanAllMemoryForAll) {
    VornDispatcher dispatcher(optionsWithResults([](auto& o) { o.nByteLimit = 100; }));
    post(dispatcher, "pipe:peer", std::string(92, 'x'));
    EXPECT_EQ(dispatcher.statistics().nQueuedBytes, 100U);
    EXPECT_EQ(thrownBy([&] { post(dispatcher, "pipe:peer", std::string(93, 'x')); }),
              "VornDispatcher::post: notification too long. 90");
    EXPECT_EQ(thrownBy([&] { post(dispatcher, "pipe:other"); }), cQueueFull);
    EXPECT_EQ(dispatcher.statistics().nRefused, 1U) << "one that can never fit is no full queue";
    takeOne();
}

TEST_F(VornDispatcher_Operations, DeliversToOneAddressInOrderAndOneAtATime) {
    VornDispatcher dispatcher(optionsWithResults());
    for (int i = 1; i <= 50; ++i)
        EXPECT_EQ(post(dispatcher, "pipe:peer", std::to_string(i), i % 3), static_cast<std::uint64_t>(i));
    for (int i = 1; i <= 50; ++i) {
        const UniqueFd client = accept();
        EXPECT_EQ(receiveToEnd(client.get()).substr(8), std::to_string(i));
        pollfd next{m_listener.get(), POLLIN, 0};
        EXPECT_EQ(::poll(&next, 1, 0), 0) << "the next one while this one has no outcome";
    }
    Tickets expected;
    for (std::uint64_t n = 1; n <= 50; ++n)
        expected.push_back(n);
    EXPECT_EQ(ticketsOf(m_results.await(50)), expected);
}

TEST_F(VornDispatcher_Operations, AddressesDoNotWaitForEachOther) {
    const UniqueFd silent = listen("silent");
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, "pipe:nobody");
    post(dispatcher, "pipe:silent");
    post(dispatcher, "socket:127.0.0.1:" + std::to_string(unusedTcpPort()));
    post(dispatcher, "pipe:peer");
    takeOne();
    EXPECT_EQ(ticketsOf(m_results.await(1)), Tickets{4});
}

TEST_F(VornDispatcher_Operations, EachTimeLimitCountsFromItsOwnPost) {
    VornDispatcher dispatcher(optionsWithResults());
    postWith(termsOf(10s), dispatcher, "pipe:peer");
    awaitTry();
    postWith(termsOf(500ms), dispatcher, "pipe:peer");
    postWith(termsOf(40ms), dispatcher, "pipe:peer");
    const std::vector<Result> results = m_results.await(2);
    EXPECT_EQ(ticketsOf(results), (Tickets{3, 2}));
    for (const Result& result : results) {
        EXPECT_EQ(result.outcome, Outcome::expired);
        EXPECT_EQ(result.nTries, 0U);
        EXPECT_EQ(result.nCode, 0);
    }
    takeOne();
    EXPECT_EQ(m_results.await(3)[2].outcome, Outcome::delivered);
}

TEST_F(VornDispatcher_Operations, RefusesByDefaultWhenTheQueueIsFull) {
    VornDispatcher dispatcher(optionsWithResults([](auto& o) { o.nQueueLimit = 2; }));
    post(dispatcher, "pipe:peer");
    post(dispatcher, "pipe:peer");
    EXPECT_EQ(thrownBy([&] { post(dispatcher, "pipe:peer"); }), cQueueFull);
    EXPECT_EQ(post(dispatcher, "pipe:other"), 3U) << "the limit is each address's own";
    EXPECT_EQ(dispatcher.statistics().nRefused, 1U);
    EXPECT_EQ(dispatcher.queued("pipe:peer"), 2U);
    takeOne();
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.queued("pipe:peer") == 1; }));
    EXPECT_EQ(post(dispatcher, "pipe:peer"), 4U);
}

TEST_F(VornDispatcher_Operations, DropsTheOldestThatIsNotBeingTried) {
    VornDispatcher dispatcher(optionsWithRoomFor(3, Overflow::dropOldest));
    post(dispatcher, "pipe:peer");
    awaitTry();
    for (int i = 0; i < 4; ++i)
        post(dispatcher, "pipe:peer");
    std::vector<Result> results = m_results.await(2);
    EXPECT_EQ(ticketsOf(results), (Tickets{2, 3}));
    EXPECT_EQ(outcomesOf(results), (Outcomes{Outcome::dropped, Outcome::dropped}));
    for (int i = 0; i < 3; ++i)
        takeOne();
    EXPECT_EQ(ticketsOf(m_results.await(5)), (Tickets{2, 3, 1, 4, 5}));
    EXPECT_EQ(dispatcher.statistics().nDropped, 2U);
    EXPECT_EQ(dispatcher.statistics().nRefused, 0U);
}

TEST_F(VornDispatcher_Operations, RefusesWhereThereIsNoneToDrop) {
    VornDispatcher::Options options = optionsWithRoomFor(1, Overflow::dropOldest);
    options.nByteLimit = 100;
    VornDispatcher dispatcher(options);
    post(dispatcher, "pipe:peer");
    awaitTry();
    EXPECT_EQ(thrownBy([&] { post(dispatcher, "pipe:peer"); }), cQueueFull);
    post(dispatcher, "pipe:other", std::string(72, 'x')); // leaves 12 bytes
    EXPECT_EQ(thrownBy([&] { post(dispatcher, "pipe:third", "12345"); }), cQueueFull)
        << "only the same address gives way";
    EXPECT_TRUE(m_results.now().empty());
    takeOne();
}

TEST_F(VornDispatcher_Operations, DropsAsManyAsMemoryAsksFor) {
    VornDispatcher::Options options = optionsWithResults();
    options.nByteLimit = 100;
    options.overflow = Overflow::dropOldest;
    VornDispatcher dispatcher(options);
    post(dispatcher, "pipe:peer");
    awaitTry();
    for (int i = 0; i < 4; ++i)
        post(dispatcher, "pipe:peer", std::string(12, 'x'));
    EXPECT_EQ(thrownBy([&] { post(dispatcher, "pipe:peer", std::string(90, 'x')); }), cQueueFull);
    EXPECT_TRUE(m_results.now().empty()) << "nothing is dropped in vain";
    post(dispatcher, "pipe:peer", std::string(50, 'x'));
    EXPECT_EQ(ticketsOf(m_results.await(3)), (Tickets{2, 3, 4}));
    takeOne();
}

TEST_F(VornDispatcher_Operations, DropsAsManyAsAreAboveTheLimitAfterARedirect) {
    VornDispatcher::Options options = optionsWithRoomFor(2, Overflow::dropOldest);
    options.firstPause = options.longestPause = 10s; // none is being tried
    VornDispatcher dispatcher(options);
    for (int i = 0; i < 2; ++i) {
        post(dispatcher, "pipe:old");
        post(dispatcher, "pipe:new");
    }
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nTries == 2; }));
    EXPECT_EQ(dispatcher.redirect("pipe:old", "pipe:new"), 2U);
    EXPECT_EQ(post(dispatcher, "pipe:new"), 5U);
    EXPECT_EQ(dispatcher.queued("pipe:new"), 2U);
    EXPECT_EQ(ticketsOf(m_results.await(3)), (Tickets{1, 3, 2}));
}

TEST_F(VornDispatcher_Operations, WaitsForRoom) {
    VornDispatcher dispatcher(optionsWithRoomFor(1, Overflow::wait));
    post(dispatcher, "pipe:peer");
    WatchedThread waiting([&] { EXPECT_EQ(post(dispatcher, "pipe:peer"), 2U); });
    EXPECT_TRUE(awaitBlockedOnLock(waiting.tid()));
    takeOne();
    EXPECT_TRUE(waiting.join());
    takeOne();
    EXPECT_EQ(m_results.await(2)[1].outcome, Outcome::delivered);
    EXPECT_EQ(dispatcher.statistics().nRefused, 0U);
}

TEST_F(VornDispatcher_Operations, WaitsForRoomNoLongerThanTheTimeLimit) {
    VornDispatcher dispatcher(optionsWithRoomFor(1, Overflow::wait));
    post(dispatcher, "pipe:peer");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(thrownBy([&] { postWith(termsOf(50ms), dispatcher, "pipe:peer"); }),
              "VornDispatcher::post: queue full. 110");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
    EXPECT_EQ(dispatcher.statistics().nRefused, 1U);
    takeOne();
}

TEST_F(VornDispatcher_Operations, TheResultHandlerNeverWaitsForRoom) {
    VornDispatcher* pDispatcher = nullptr;
    std::promise<std::string> thrown;
    VornDispatcher::Options options = optionsWithRoomFor(1, Overflow::wait);
    options.onResult = [&](const Result& result) {
        if (result.nTicket == 1)
            thrown.set_value(thrownBy([&] { post(*pDispatcher, "pipe:peer"); }));
    };
    VornDispatcher dispatcher(options);
    pDispatcher = &dispatcher;
    post(dispatcher, "pipe:peer");
    WatchedThread other([&] { post(dispatcher, "pipe:peer"); });
    ASSERT_TRUE(awaitBlockedOnLock(other.tid()));
    takeOne(); // the thread that waits fills the queue, or the handler finds room
    EXPECT_THAT(thrown.get_future().get(), testing::AnyOf(cQueueFull, "nothing"));
    dispatcher.stop(0ms);
    other.join();
}

TEST_F(VornDispatcher_Operations, FlushWaitsForTheHandlersOfWhatWasPostedBefore) {
    std::promise<void> mayReturn;
    std::shared_future<void> returns = mayReturn.get_future().share();
    std::atomic<int> nReturned = 0;
    VornDispatcher::Options options;
    options.onResult = [&](const Result&) {
        returns.wait();
        ++nReturned;
    };
    VornDispatcher dispatcher(options);
    EXPECT_TRUE(dispatcher.flush(0ms)) << "nothing was posted";
    post(dispatcher, "pipe:peer");
    EXPECT_FALSE(dispatcher.flush(0ms));
    takeOne();
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nDelivered == 1; }));
    EXPECT_FALSE(dispatcher.flush(20ms)) << "the handler has not returned";
    WatchedThread flushing([&] {
        EXPECT_TRUE(dispatcher.flush(-1ms));
        EXPECT_EQ(nReturned, 1);
    });
    ASSERT_TRUE(awaitBlockedOnLock(flushing.tid()));
    post(dispatcher, "pipe:nobody"); // by others, meanwhile
    mayReturn.set_value();
    EXPECT_TRUE(flushing.join());
    EXPECT_FALSE(dispatcher.flush(0ms));
}

TEST_F(VornDispatcher_Operations, EachFlushWaitsForWhatWasPostedBeforeItself) {
    VornDispatcher dispatcher;
    post(dispatcher, "pipe:peer");
    WatchedThread earlier([&] { EXPECT_TRUE(dispatcher.flush(-1ms)); });
    ASSERT_TRUE(awaitBlockedOnLock(earlier.tid()));
    post(dispatcher, "pipe:peer");
    WatchedThread later([&] { EXPECT_TRUE(dispatcher.flush(-1ms)); });
    ASSERT_TRUE(awaitBlockedOnLock(later.tid()));
    takeOne();
    EXPECT_TRUE(earlier.join());
    EXPECT_FALSE(later.finished());
    takeOne();
    EXPECT_TRUE(later.join());
}

TEST_F(VornDispatcher_Operations, AFlushDoesNotCountWhatIsPostedLaterAndDeliveredEarlier) {
    const UniqueFd other = listen("other");
    VornDispatcher dispatcher;
    post(dispatcher, "pipe:peer");
    WatchedThread flushing([&] { EXPECT_TRUE(dispatcher.flush(-1ms)); });
    ASSERT_TRUE(awaitBlockedOnLock(flushing.tid()));
    post(dispatcher, "pipe:other");
    takeOne(other.get());
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nDelivered == 1; }));
    EXPECT_FALSE(flushing.finished());
    takeOne();
    EXPECT_TRUE(flushing.join());
}

TEST_F(VornDispatcher_Operations, AHandlerThatEndsItsThreadHoldsUpNothingButResults) {
    VornDispatcher::Options options;
    options.onResult = [](const Result&) { ::pthread_exit(nullptr); };
    VornDispatcher dispatcher(options);
    for (int i = 0; i < 2; ++i)
        postWith(termsOf(1ms), dispatcher, "pipe:nobody");
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nExpired == 2; }));
    EXPECT_FALSE(dispatcher.flush(20ms));
    dispatcher.stop(0ms);
    WatchedThread other(
        [&] { EXPECT_FALSE(dispatcher.flush(0ms)); }); // perhaps with the number of the ended one
    EXPECT_TRUE(other.join());
    EXPECT_FALSE(other.exceptionText().has_value());
}

TEST_F(VornDispatcher_Operations, TheResultHandlerMayNeitherFlushNorStop) {
    VornDispatcher* pDispatcher = nullptr;
    std::promise<std::pair<std::string, std::string>> thrown;
    VornDispatcher::Options options;
    options.onResult = [&](const Result&) {
        thrown.set_value(
            {thrownBy([&] { pDispatcher->flush(0ms); }), thrownBy([&] { pDispatcher->stop(0ms); })});
    };
    VornDispatcher dispatcher(options);
    pDispatcher = &dispatcher;
    postWith(termsOf(1ms), dispatcher, "pipe:nobody");
    const auto [flushed, stopped] = thrown.get_future().get();
    EXPECT_EQ(flushed, "VornDispatcher::flush: called by the result handler. 35");
    EXPECT_EQ(stopped, "VornDispatcher::stop: called by the result handler. 35");
}

TEST_F(VornDispatcher_Operations, TheResultHandlerMayPostCancelRedirectAndAsk) {
    VornDispatcher* pDispatcher = nullptr;
    std::promise<std::size_t> cancelled;
    VornDispatcher::Options options;
    options.onResult = [&](const Result& result) {
        if (result.nTicket != 1)
            return;
        post(*pDispatcher, "pipe:nobody");
        EXPECT_EQ(pDispatcher->redirect("pipe:nobody", "pipe:neither"), 1U);
        EXPECT_EQ(pDispatcher->queued("pipe:neither"), 1U);
        EXPECT_EQ(pDispatcher->statistics().nPosted, 2U);
        cancelled.set_value(pDispatcher->cancel("pipe:neither"));
    };
    VornDispatcher dispatcher(options);
    pDispatcher = &dispatcher;
    postWith(termsOf(1ms), dispatcher, "pipe:absent");
    EXPECT_EQ(cancelled.get_future().get(), 1U);
}

TEST_F(VornDispatcher_Operations, CancelGivesUpEverythingForOneAddress) {
    VornDispatcher dispatcher(optionsWithResults());
    EXPECT_EQ(dispatcher.cancel("pipe:peer"), 0U);
    EXPECT_EQ(dispatcher.cancel("no address"), 0U);
    EXPECT_EQ(dispatcher.queued("no address"), 0U);
    for (int i = 0; i < 3; ++i)
        post(dispatcher, "pipe:peer", "content");
    post(dispatcher, "pipe:nobody");
    const UniqueFd client = accept();
    EXPECT_EQ(receiveExactly(client.get(), 8), cHandle);
    EXPECT_EQ(dispatcher.cancel("pipe:peer"), 3U);
    EXPECT_EQ(dispatcher.queued("pipe:peer"), 0U);
    EXPECT_EQ(dispatcher.statistics().nCancelled, 3U);
    const std::vector<Result> results = m_results.await(3);
    EXPECT_EQ(ticketsOf(results), (Tickets{1, 2, 3}));
    EXPECT_EQ(outcomesOf(results), Outcomes(3, Outcome::cancelled));
    EXPECT_EQ(results[0].nDoubtfulTries, 1U) << "it may have reached the callback";
    EXPECT_EQ(results[1].nDoubtfulTries, 0U);
    pollfd next{m_listener.get(), POLLIN, 0};
    EXPECT_EQ(::poll(&next, 1, 0), 0) << "nothing more is sent";
    EXPECT_EQ(dispatcher.queued("pipe:nobody"), 1U);
    post(dispatcher, "pipe:peer", "new");
    EXPECT_EQ(takeOne(), cHandle + "new");
}

TEST_F(VornDispatcher_Operations, RedirectTakesEverythingBeforeWhatWaitsThere) {
    m_listener = listen("new");
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, "pipe:new", "first");
    awaitTry();
    post(dispatcher, "pipe:new", "last");
    post(dispatcher, "pipe:old", "second");
    post(dispatcher, "pipe:old", "third");
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nTries > 1; }));
    EXPECT_EQ(dispatcher.redirect("pipe:old", "pipe:new"), 2U);
    EXPECT_EQ(dispatcher.queued("pipe:old"), 0U);
    EXPECT_EQ(dispatcher.queued("pipe:new"), 4U);
    for (const char* sContent : {"first", "second", "third", "last"})
        EXPECT_EQ(takeOne(), cHandle + sContent);
    const std::vector<Result> results = m_results.await(4);
    EXPECT_EQ(ticketsOf(results), (Tickets{1, 3, 4, 2}));
    EXPECT_EQ(results[1].sAddress, "pipe:new");
    EXPECT_EQ(results[1].nCode, ENOENT);

    const UniqueFd old = listen("old");
    post(dispatcher, "pipe:old", "posted afterwards");
    EXPECT_EQ(takeOne(old.get()), cHandle + "posted afterwards");
}

TEST_F(VornDispatcher_Operations, RedirectEndsATryAsAResetWould) {
    const UniqueFd pipe = listen("old");
    int nPort = 0;
    const UniqueFd tcp = tcpListen("127.0.0.1", nPort);
    const std::string sTcp = "socket:127.0.0.1:" + std::to_string(nPort);
    m_listener = listen("new");
    VornDispatcher dispatcher(optionsWithResults());

    post(dispatcher, "pipe:old", "untaken");
    awaitTry(pipe.get());
    EXPECT_EQ(dispatcher.redirect("pipe:old", "pipe:new"), 1U);
    EXPECT_EQ(takeOne(), cHandle + "untaken");
    EXPECT_EQ(m_results.await(1)[0].nDoubtfulTries, 0U);
    acceptClient(pipe.get());

    post(dispatcher, "pipe:old", "taken");
    const UniqueFd client = acceptClient(pipe.get());
    EXPECT_EQ(receiveExactly(client.get(), 8), cHandle);
    EXPECT_EQ(dispatcher.redirect("pipe:old", "pipe:new"), 0U) << "a sink has taken it, and that is final";
    const Result unread = m_results.await(2)[1];
    EXPECT_EQ(unread.outcome, Outcome::unread);
    EXPECT_EQ(unread.nCode, ECONNRESET);
    EXPECT_EQ(unread.nDoubtfulTries, 1U);

    post(dispatcher, sTcp, "doubtful");
    const UniqueFd other = acceptClient(tcp.get());
    EXPECT_EQ(receiveExactly(other.get(), 8), cHandle);
    EXPECT_EQ(dispatcher.redirect(sTcp, "pipe:new"), 1U);
    EXPECT_EQ(takeOne(), cHandle + "doubtful");
    const Result doubtful = m_results.await(3)[2];
    EXPECT_EQ(doubtful.outcome, Outcome::delivered);
    EXPECT_EQ(doubtful.nCode, ECONNRESET);
    EXPECT_EQ(doubtful.nDoubtfulTries, 1U);
    EXPECT_EQ(receiveToEnd(other.get()), "doubtful") << "and no reset";

    postWith(termsOf(10s, 1), dispatcher, sTcp, "doubtful once");
    const UniqueFd last = acceptClient(tcp.get());
    EXPECT_EQ(receiveExactly(last.get(), 8), cHandle);
    EXPECT_EQ(dispatcher.redirect(sTcp, "pipe:new"), 0U);
    EXPECT_EQ(m_results.await(4)[3].outcome, Outcome::unread);
}

TEST_F(VornDispatcher_Operations, RedirectMayExceedTheLimitAndKeepsTimeLimits) {
    VornDispatcher dispatcher(optionsWithResults([](auto& o) { o.nQueueLimit = 2; }));
    for (int i = 0; i < 2; ++i) {
        postWith(termsOf(500ms), dispatcher, "pipe:old");
        post(dispatcher, "pipe:new");
    }
    EXPECT_EQ(dispatcher.redirect("pipe:old", "pipe:new"), 2U);
    EXPECT_EQ(dispatcher.queued("pipe:new"), 4U);
    EXPECT_EQ(thrownBy([&] { post(dispatcher, "pipe:new"); }), cQueueFull);
    for (const Result& result : m_results.await(2)) {
        EXPECT_EQ(result.outcome, Outcome::expired);
        EXPECT_EQ(result.sAddress, "pipe:new");
        EXPECT_GE(result.elapsed, 500ms);
        EXPECT_LT(result.elapsed, 5s);
    }
    EXPECT_EQ(dispatcher.redirect("pipe:nobody", "pipe:new"), 0U);
    EXPECT_EQ(dispatcher.redirect("no address", "pipe:new"), 0U);
    EXPECT_EQ(thrownBy([&] { dispatcher.redirect("pipe:new", "no address"); }),
              "VornDispatcher::redirect: invalid callback address. 22");
    EXPECT_EQ(dispatcher.redirect("pipe:new", "pipe:new"), 2U);
    EXPECT_EQ(dispatcher.statistics().nAddresses, 1U);
}

TEST_F(VornDispatcher_Operations, StatisticsAreTheSumOfAll) {
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, "pipe:peer", "content");
    post(dispatcher, "pipe:peer", "more");
    postWith(termsOf(200ms), dispatcher, "pipe:nobody");
    m_results.await(1);
    awaitTry();
    VornDispatcher::Statistics found = dispatcher.statistics();
    EXPECT_EQ(found.nPosted, 3U);
    EXPECT_EQ(found.nExpired, 1U);
    EXPECT_EQ(found.nQueued, 2U);
    EXPECT_EQ(found.nQueuedBytes, 27U);
    EXPECT_EQ(found.nAddresses, 1U);
    EXPECT_EQ(found.nConnections, 1U);
    EXPECT_GT(found.nTries, 1U);
    takeOne();
    takeOne();
    m_results.await(3);
    found = dispatcher.statistics();
    EXPECT_EQ(found.nPosted, found.nDelivered + found.nExpired);
    EXPECT_EQ(found.nDelivered, 2U);
    EXPECT_EQ(found.nQueued + found.nQueuedBytes + found.nAddresses + found.nConnections, 0U);
}

TEST_F(VornDispatcher_Operations, StopDeliversWhatItCanAndTellsEveryResult) {
    VornDispatcher dispatcher(optionsWithResults());
    for (int i = 0; i < 3; ++i)
        post(dispatcher, "pipe:peer");
    post(dispatcher, "pipe:nobody");
    WatchedThread stopping([&] { dispatcher.stop(1s); });
    for (int i = 0; i < 3; ++i)
        takeOne();
    EXPECT_TRUE(stopping.join());
    const std::vector<Result> results = m_results.now();
    EXPECT_EQ(outcomesOf(results),
              (Outcomes{Outcome::delivered, Outcome::delivered, Outcome::delivered, Outcome::stopped}));
    EXPECT_EQ(thrownBy([&] { post(dispatcher, "pipe:peer"); }), cStopped);
    EXPECT_TRUE(dispatcher.flush(0ms));
    EXPECT_EQ(dispatcher.cancel("pipe:nobody"), 0U);
    EXPECT_EQ(dispatcher.redirect("pipe:nobody", "pipe:peer"), 0U);
    EXPECT_EQ(dispatcher.statistics().nStopped, 1U);
    dispatcher.stop(-1ms);
}

TEST_F(VornDispatcher_Operations, StopEndsAtOnceWhenEverythingHasItsOutcome) {
    VornDispatcher dispatcher;
    dispatcher.stop(-1ms);
    VornDispatcher other;
    postWith(termsOf(20ms), other, "pipe:nobody");
    other.stop(-1ms);
    EXPECT_EQ(other.statistics().nExpired, 1U);
}

TEST_F(VornDispatcher_Operations, StopWithoutTimeLeavesATryInDoubt) {
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, "pipe:peer", "content");
    const UniqueFd client = accept();
    EXPECT_EQ(receiveExactly(client.get(), 8), cHandle);
    dispatcher.stop(0ms);
    const Result result = m_results.awaitOne();
    EXPECT_EQ(result.outcome, Outcome::stopped);
    EXPECT_EQ(result.nDoubtfulTries, 1U);
    EXPECT_EQ(receiveToEnd(client.get()), "content");
}

TEST_F(VornDispatcher_Operations, ASecondStopWaitsForTheFirst) {
    VornDispatcher dispatcher(optionsWithResults());
    post(dispatcher, "pipe:peer");
    WatchedThread first([&] { dispatcher.stop(-1ms); });
    ASSERT_TRUE(awaitBlockedOnLock(first.tid()));
    WatchedThread second([&] {
        dispatcher.stop(0ms);
        EXPECT_EQ(m_results.now().size(), 1U);
    });
    ASSERT_TRUE(awaitBlockedOnLock(second.tid()));
    takeOne();
    EXPECT_TRUE(first.join());
    EXPECT_TRUE(second.join());
    EXPECT_EQ(m_results.now()[0].outcome, Outcome::delivered);
}

TEST_F(VornDispatcher_Operations, StopWaitsForAThreadThatIsAboutToWakeIt) {
    VornDispatcher::Options options;
    options.firstPause = options.longestPause = 10s;
    VornDispatcher dispatcher(options);
    const pid_t delivering = threadIds().back();
    postWith(termsOf(300ms), dispatcher, "pipe:nobody"); // which ends its sleep
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nTries == 1; }));
    ASSERT_TRUE(awaitBlockedInIo(delivering));
    HeldCall wakeUp("write");
    WatchedThread posting([&] { post(dispatcher, "pipe:other"); });
    ASSERT_TRUE(wakeUp.awaitReached());
    WatchedThread stopping([&] { dispatcher.stop(0ms); });
    ASSERT_TRUE(awaitCondition([&] { return !testing::Value(threadIds(), testing::Contains(delivering)); }));
    EXPECT_FALSE(stopping.finished());
    wakeUp.open();
    EXPECT_TRUE(posting.join());
    EXPECT_TRUE(stopping.join());
}

TEST_F(VornDispatcher_Operations, StopEndsThoseWhoWaitForRoom) {
    VornDispatcher dispatcher(optionsWithRoomFor(1, Overflow::wait));
    post(dispatcher, "pipe:peer");
    WatchedThread waiting([&] { EXPECT_EQ(thrownBy([&] { post(dispatcher, "pipe:peer"); }), cStopped); });
    ASSERT_TRUE(awaitBlockedOnLock(waiting.tid()));
    dispatcher.stop(0ms);
    EXPECT_TRUE(waiting.join());
}

TEST_F(VornDispatcher_Operations, TheDestructorGivesWhatIsQueuedItsTime) {
    VornDispatcher::Options options = optionsWithResults();
    options.stopLimit = 10s;
    WatchedThread owner([&] {
        VornDispatcher dispatcher(options);
        post(dispatcher, "pipe:peer");
    });
    takeOne();
    EXPECT_TRUE(owner.join());
    EXPECT_EQ(m_results.now()[0].outcome, Outcome::delivered);
}

TEST_F(VornDispatcher_Operations, AHandlerThatThrowsIsLoggedAndCalledAgain) {
    LogCapture log(1);
    VornDispatcher::Options options;
    options.onResult = [&](const Result& result) {
        if (result.nTicket == 1)
            throw VornException("a text", 5);
        if (result.nTicket == 2)
            throw std::runtime_error("another");
        if (result.nTicket == 3)
            throw 5;
        m_results.handler()(result);
    };
    VornDispatcher dispatcher(options);
    for (int i = 0; i < 4; ++i)
        postWith(termsOf(1ms), dispatcher, "pipe:nobody");
    EXPECT_EQ(m_results.awaitOne().nTicket, 4U);
    EXPECT_TRUE(dispatcher.flush(10s));
    EXPECT_EQ(log.texts(),
              (std::vector<std::string>{"VornDispatcher::onResult: the result handler threw: a text (code=5)",
                                        "VornDispatcher::onResult: the result handler threw: another",
                                        "VornDispatcher::onResult: the result handler threw: exception of "
                                        "unknown type"}));
    EXPECT_EQ(log.records().front().level, 1);
}

#ifdef VORNTEST_OWN_MALLOC
TEST_F(VornDispatcher_Operations, WithoutMemoryForWhatAHandlerThrewItIsCalledAgain) {
    const LogCapture log(1);
    const auto failure = std::make_exception_ptr(VornException("a text that is longer than a short one", 5));
    std::optional<AllocationFault> none;
    std::atomic<int> nCalls = 0;
    VornDispatcher::Options options;
    options.onResult = [&](const Result&) {
        none.reset();
        if (++nCalls > 1)
            return;
        none.emplace(1, AllocationFault::Mode::fromThenOn, AllocationFault::Scope::thisThread);
        std::rethrow_exception(failure);
    };
    VornDispatcher dispatcher(options);
    post(dispatcher, "pipe:nobody");
    dispatcher.cancel("pipe:nobody");
    ASSERT_TRUE(awaitCondition([&] { return nCalls == 1; }));
    post(dispatcher, "pipe:nobody");
    dispatcher.cancel("pipe:nobody");
    EXPECT_TRUE(awaitCondition([&] { return nCalls == 2; }));
}
#endif

TEST_F(VornDispatcher_Operations, ASlowHandlerDelaysNoDelivery) {
    std::promise<void> mayReturn;
    std::shared_future<void> returns = mayReturn.get_future().share();
    std::atomic<int> nCalls = 0;
    VornDispatcher::Options options;
    options.onResult = [&](const Result&) {
        ++nCalls;
        returns.wait();
    };
    VornDispatcher dispatcher(options);
    for (int i = 0; i < 20; ++i)
        post(dispatcher, "pipe:peer");
    for (int i = 0; i < 20; ++i)
        takeOne();
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nDelivered == 20; }));
    EXPECT_LE(nCalls, 1) << "one call at a time";
    mayReturn.set_value();
    EXPECT_TRUE(dispatcher.flush(10s));
    EXPECT_EQ(nCalls, 20);
}

TEST_F(VornDispatcher_Operations, TimeLimitsWithoutEndAreNone) {
    VornDispatcher::Options options = optionsWithResults();
    options.terms.timeLimit = options.connectLimit = options.stopLimit = std::chrono::milliseconds::max();
    VornDispatcher dispatcher(options);
    post(dispatcher, "pipe:peer");
    takeOne();
    EXPECT_TRUE(dispatcher.flush(std::chrono::milliseconds::max()));
    EXPECT_EQ(m_results.awaitOne().outcome, Outcome::delivered);
    dispatcher.stop(std::chrono::milliseconds::max());
}

TEST_F(VornDispatcher_Operations, FewConnectionsServeManyAddresses) {
    VornDispatcher::Options options = optionsWithResults();
    options.nConnectionLimit = 2;
    std::vector<UniqueFd> listeners;
    for (int i = 0; i < 20; ++i)
        listeners.push_back(listen("peer" + std::to_string(i)));
    VornDispatcher dispatcher(options);
    int nUdpPort = 0;
    const UniqueFd datagrams = udpSocket("127.0.0.1", nUdpPort);
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 20; ++i)
            post(dispatcher, "pipe:peer" + std::to_string(i));
        post(dispatcher, "udp:127.0.0.1:" + std::to_string(nUdpPort));
    }
    std::vector<pollfd> entries;
    for (const UniqueFd& listener : listeners)
        entries.push_back({listener.get(), POLLIN, 0});
    for (int nTaken = 0; nTaken < 40;) {
        ASSERT_GT(::poll(entries.data(), entries.size(), 10'000), 0);
        EXPECT_LE(dispatcher.statistics().nConnections, 2U);
        for (const pollfd& entry : entries) {
            if (entry.revents != 0) {
                takeOne(entry.fd);
                ++nTaken;
            }
        }
    }
    EXPECT_TRUE(dispatcher.flush(10s));
    EXPECT_EQ(dispatcher.statistics().nDelivered, 40U);
    EXPECT_EQ(dispatcher.statistics().nSent, 2U);
}

TEST_F(VornDispatcher_Operations, PostsOfManyThreadsAreNumberedInTheOrderOfTheirQueue) {
    constexpr int cThreads = 4;
    constexpr int cPosts = 200;
    VornDispatcher dispatcher(optionsWithResults());
    std::vector<std::unique_ptr<WatchedThread>> threads;
    for (int i = 0; i < cThreads; ++i)
        threads.push_back(std::make_unique<WatchedThread>([&] {
            std::uint64_t nLast = 0;
            for (int nPost = 0; nPost < cPosts; ++nPost) {
                const std::uint64_t nTicket = post(dispatcher, "pipe:peer");
                EXPECT_GT(nTicket, nLast);
                nLast = nTicket;
            }
        }));
    for (int i = 0; i < cThreads * cPosts; ++i)
        takeOne();
    for (const auto& thread : threads)
        EXPECT_TRUE(thread->join());
    const Tickets tickets = ticketsOf(m_results.await(cThreads * cPosts));
    for (std::size_t i = 0; i < tickets.size(); ++i)
        ASSERT_EQ(tickets[i], i + 1);
}
