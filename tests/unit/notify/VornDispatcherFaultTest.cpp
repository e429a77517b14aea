// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AllocationFaults.h"
#include "DispatcherTestSupport.h"
#include "Interpose.h"

#include <atomic>
#include <map>
#include <mutex>
#include <new>
#include <optional>

#include <poll.h>
#include <unistd.h>

using namespace std::chrono_literals;
using namespace VornTest;

namespace {

/** A sink of plain calls that takes what comes, and counts it. */
class TakingPeer {
public:
    explicit TakingPeer(const std::string& sKind) {
        int nPort = 0;
        if (sKind == "pipe") {
            m_socket = unixListen(pipePath("peer"), 64);
            m_sAddress = "pipe:peer";
        } else if (sKind == "socket") {
            m_socket = tcpListen("127.0.0.1", nPort, 64);
            m_sAddress = "socket:127.0.0.1:" + std::to_string(nPort);
        } else {
            m_socket = udpSocket("127.0.0.1", nPort);
            m_sAddress = "udp:127.0.0.1:" + std::to_string(nPort);
        }
        m_bDatagrams = sKind == "udp";
        m_thread.emplace([this] { run(); });
    }

    ~TakingPeer() {
        m_bEnd = true;
        m_thread->join();
    }

    const std::string& address() const { return m_sAddress; }

    /** @return how often exactly that came. */
    unsigned int count(const std::string& sBytes) {
        const std::lock_guard lock(m_mutex);
        return m_counts[sBytes];
    }

private:
    void run() {
        while (!m_bEnd) {
            pollfd entry{m_socket.get(), POLLIN, 0};
            if (::poll(&entry, 1, 5) != 1)
                continue;
            const std::string sBytes = take();
            const std::lock_guard lock(m_mutex);
            ++m_counts[sBytes];
        }
    }

    std::string take() {
        if (m_bDatagrams)
            return receiveDatagram(m_socket.get());
        const UniqueFd client = acceptClient(m_socket.get());
        try {
            return receiveToEnd(client.get());
        } catch (const std::system_error& e) {
            ADD_FAILURE() << "the sink was reset: " << e.what();
            return {};
        }
    }

    UniqueFd m_socket;
    std::string m_sAddress;
    bool m_bDatagrams = false;
    std::atomic<bool> m_bEnd = false;
    std::mutex m_mutex;
    std::map<std::string, unsigned int> m_counts;
    std::optional<WatchedThread> m_thread;
};

struct Fault {
    const char* call;
    std::vector<int> errors;
};

const Fault cFaults[] = {
    {"socket", {EMFILE, ENFILE, ENOMEM, EACCES}},
    {"connect", {ENOENT, ECONNREFUSED, EAGAIN, EINTR, ENETUNREACH, ETIMEDOUT, EACCES}},
    {"send", {EPIPE, ECONNRESET, EAGAIN, EINTR, ENOBUFS, ECONNREFUSED}},
    {"recv", {ECONNRESET, EINTR, EIO}},
    {"shutdown", {ENOTCONN, EIO}},
    {"ioctl", {EIO}},
    {"getsockopt", {EIO}},
    {"epoll_ctl", {ENOMEM, ENOSPC}},
    {"ppoll", {EINTR, ENOMEM}},
    {"epoll_wait", {EINTR}},
    {"close", {EIO, EINTR}},
};

class VornDispatcher_Fault : public DispatcherTest, public testing::WithParamInterface<std::string> {
protected:
    /** The delivering thread, which is made last. */
    static pid_t newestThread() { return threadIds().back(); }
};

class VornDispatcher_Memory : public DispatcherTest {
protected:
    /** Everything once, so that the kit has looked up the functions that it stands before. */
    void SetUp() override {
        DispatcherTest::SetUp();
        for (const char* sKind : {"pipe", "socket", "udp"}) {
            const TakingPeer peer(sKind);
            VornDispatcher dispatcher(optionsWithResults());
            post(dispatcher, peer.address());
            EXPECT_TRUE(dispatcher.flush(10s));
            dispatcher.cancel(peer.address());
        }
        VornDispatcher dispatcher;
        post(dispatcher, "pipe:nobody");
        EXPECT_TRUE(awaitCondition([&] { return dispatcher.statistics().nTries > 1; }));
    }
};

} // namespace

TEST_P(VornDispatcher_Fault, ACallThatFailsIsTriedAgainOrToldOfAndNothingIsToldWrongly) {
    TakingPeer peer(GetParam());
    unsigned int nFailures = 0;
    int nPosted = 0;
    for (const Fault& fault : cFaults) {
        for (const int nError : fault.errors) {
            for (int nth = 1; nth <= 4; ++nth) {
                const std::string sContent = std::to_string(++nPosted) + std::string(3000, 'x');
                Results results;
                VornDispatcher::Options options;
                options.onResult = results.handler();
                VornDispatcher dispatcher(options);
                FaultRule rule(fault.call, nError, nth, 1, newestThread());
                postWith(termsOf(5s), dispatcher, peer.address(), sContent);
                ASSERT_TRUE(dispatcher.flush(10s)) << fault.call << " " << nError << " " << nth;
                nFailures += static_cast<unsigned int>(rule.failures());
                const Result result = results.awaitOne();
                const auto where = [&] {
                    return std::string(fault.call) + " " + std::to_string(nError) + " in call " +
                           std::to_string(nth) + ": " + VornDispatcher::nameOf(result.outcome);
                };
                const bool bIsSent = result.outcome == Outcome::delivered || result.outcome == Outcome::sent;
                EXPECT_TRUE(bIsSent || result.outcome == Outcome::unread) << where();
                EXPECT_TRUE(bIsSent || result.nDoubtfulTries > 0) << where();
                EXPECT_LE(result.nTries, 3U) << where();
                EXPECT_TRUE(!bIsSent || awaitCondition([&] { return peer.count(cHandle + sContent) > 0; }))
                    << where();
                EXPECT_LE(peer.count(cHandle + sContent), 1 + result.nDoubtfulTries) << where();
            }
        }
    }
    EXPECT_GT(nFailures, 15U);
}

TEST_P(VornDispatcher_Fault, ACallThatAlwaysFailsLetsItExpire) {
    TakingPeer peer(GetParam());
    for (const char* call : {"socket", "connect", "send"}) {
        Results results;
        VornDispatcher::Options options;
        options.onResult = results.handler();
        VornDispatcher dispatcher(options);
        FaultRule rule(call, ENOBUFS, 1, FaultRule::always, newestThread());
        post(dispatcher, peer.address());
        expireAfter(3, dispatcher);
        const Result result = results.awaitOne();
        EXPECT_EQ(result.outcome, Outcome::expired) << call;
        EXPECT_EQ(result.nCode, ENOBUFS) << call;
        EXPECT_EQ(result.nDoubtfulTries, 0U) << call;
    }
    EXPECT_EQ(peer.count(cHandle), 0U);
}

TEST_F(VornDispatcher_Memory, ItStartsWithAllItNeedsOrNotAtAll) {
    for (const char* call : {"epoll_create1", "eventfd", "epoll_ctl"}) {
        const FaultRule rule(call, EMFILE);
        EXPECT_EQ(thrownBy([&] { VornDispatcher dispatcher(optionsWithResults()); }),
                  "VornDispatcher::VornDispatcher: failed to start. 24")
            << call;
    }
}

#ifdef VORNTEST_OWN_MALLOC

TEST_F(VornDispatcher_Memory, WithoutMemoryItDoesNotStart) {
    int nFailed = 0;
    for (int nth = 1; nth < 20; ++nth) {
        const AllocationFault fault(nth, AllocationFault::Mode::once, AllocationFault::Scope::thisThread);
        try {
            VornDispatcher dispatcher(optionsWithResults());
        } catch (const VornException& e) {
            EXPECT_EQ(e.getText(), "VornDispatcher::VornDispatcher: failed to start.");
            EXPECT_TRUE(e.getCode() == ENOMEM || e.getCode() == EAGAIN) << e.getCode();
            ++nFailed;
        } catch (const std::bad_alloc&) { // of the caller's own copy of the options
            ++nFailed;
        }
    }
    EXPECT_GT(nFailed, 2);
}

TEST_P(VornDispatcher_Fault, WithoutMemoryAPostThrowsAndQueuesNothing) {
    TakingPeer peer(GetParam());
    VornDispatcher dispatcher(optionsWithResults());
    unsigned int nDelivered = 0;
    for (const bool bIsKnown : {false, true}) {
        int nFailed = 0;
        for (int nth = 1; nth == nFailed + 1; ++nth) {
            BytesProxy proxy(peer.address(), "content");
            const VornNotification notification(1);
            if (bIsKnown)
                post(dispatcher, "pipe:nobody");
            const AllocationFault fault(nth, AllocationFault::Mode::once, AllocationFault::Scope::thisThread);
            try {
                dispatcher.post(proxy, notification);
            } catch (const VornException& e) {
                EXPECT_EQ(e.getCode(), ENOMEM) << e.getText();
                ++nFailed;
            } catch (const std::bad_alloc&) {
                ++nFailed;
            }
        }
        ++nDelivered;
        EXPECT_GT(nFailed, 3);
        dispatcher.cancel("pipe:nobody");
        ASSERT_TRUE(dispatcher.flush(10s));
        const VornDispatcher::Statistics statistics = dispatcher.statistics();
        EXPECT_EQ(statistics.nDelivered + statistics.nSent, nDelivered);
        EXPECT_EQ(statistics.nPosted, nDelivered + statistics.nCancelled);
        EXPECT_EQ(statistics.nQueuedBytes + statistics.nAddresses, 0U);
    }
    EXPECT_TRUE(awaitCondition([&] { return peer.count(cHandle + "content") == nDelivered; }));
}

TEST_F(VornDispatcher_Memory, WithoutMemoryForItsThreadItTriesAndDeliversAllTheSame) {
    ::unlink(pipePath("peer").c_str());
    VornDispatcher dispatcher; // without a handler, whose copy of a result would need memory
    const AllocationFault fault(1, AllocationFault::Mode::fromThenOn, AllocationFault::Scope::otherThreads);
    for (int i = 0; i < 3; ++i)
        post(dispatcher, "pipe:peer", "content");
    post(dispatcher, "udp:127.0.0.1:" + std::to_string(unusedUdpPort()));
    postWith(termsOf(20ms), dispatcher, "socket:127.0.0.1:" + std::to_string(unusedTcpPort()));
    ASSERT_TRUE(awaitCondition([&] { return dispatcher.statistics().nTries > 9; }));
    const UniqueFd listener = unixListen(pipePath("peer"));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(takeOne(listener.get()), cHandle + "content");
    // Of the datagram a kernel that is short of time may not say in time that nobody is there.
    EXPECT_TRUE(awaitCondition([&] { return dispatcher.statistics().nDelivered == 3; }));
    EXPECT_TRUE(awaitCondition([&] { return dispatcher.statistics().nExpired == 1; }));
}

TEST_F(VornDispatcher_Memory, ARedirectWithoutMemoryChangesNothing) {
    VornDispatcher dispatcher(optionsWithResults());
    for (int i = 0; i < 3; ++i)
        post(dispatcher, "pipe:nobody");
    const std::string sFrom = "pipe:nobody";
    const std::string sTo = "pipe:a name that is too long to be kept within the text object";
    int nFailed = 0;
    for (int nth = 1; nth == nFailed + 1; ++nth) {
        const AllocationFault fault(nth, AllocationFault::Mode::once, AllocationFault::Scope::allThreads);
        try {
            EXPECT_EQ(dispatcher.redirect(sFrom, sTo), 3U);
        } catch (const std::bad_alloc&) {
            ++nFailed;
        }
        EXPECT_TRUE(nth != nFailed || dispatcher.statistics().nAddresses == 1);
    }
    EXPECT_GT(nFailed, 2);
    EXPECT_EQ(dispatcher.queued(sTo), 3U);
    dispatcher.cancel(sTo);
}

#endif

INSTANTIATE_TEST_SUITE_P(Kinds, VornDispatcher_Fault, testing::Values("pipe", "socket", "udp"),
                         [](const auto& parameter) { return parameter.param; });
