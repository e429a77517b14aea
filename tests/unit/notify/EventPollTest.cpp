// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "EventPoll.h"
#include "Await.h"
#include "LeakCheckedTest.h"
#include "Posix.h"

#include <chrono>
#include <exception>
#include <utility>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>

using namespace std::chrono_literals;
using VornNet::EventPoll;
using Clock = EventPoll::Clock;

namespace {

class EventPollTest : public VornTest::LeakCheckedTest {
protected:
    static std::pair<VornTest::UniqueFd, VornTest::UniqueFd> socketPair() {
        int ends[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        return {VornTest::UniqueFd(ends[0]), VornTest::UniqueFd(ends[1])};
    }
};

} // namespace

TEST_F(EventPollTest, EndsAtTheTime) {
    EventPoll poll;
    for (const auto span : {0us, 300us, 3'000us}) {
        const Clock::time_point until = Clock::now() + span;
        EXPECT_TRUE(poll.wait(until).empty());
        EXPECT_GE(Clock::now(), until);
    }
}

TEST_F(EventPollTest, EndsByTheWordOfAnotherThread) {
    EventPoll poll;
    VornTest::WatchedThread thread([&poll] { EXPECT_TRUE(poll.wait(Clock::time_point::max()).empty()); });
    ASSERT_TRUE(VornTest::awaitBlockedInIo(thread.tid()));
    poll.wakeUp();
    EXPECT_TRUE(thread.join());
}

TEST_F(EventPollTest, RemembersAWordGivenBeforeTheWait) {
    EventPoll poll;
    poll.wakeUp();
    EXPECT_TRUE(poll.wait(Clock::time_point::max()).empty());
}

TEST_F(EventPollTest, TellsEventsWithTheirData) {
    EventPoll poll;
    auto [left, right] = socketPair();
    int mine = 0;
    ASSERT_EQ(poll.add(left.get(), EPOLLIN | EPOLLET, &mine), 0);
    VornTest::sendAll(right.get(), "x");
    poll.wakeUp();
    std::span<const epoll_event> events = poll.wait(Clock::time_point::max());
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].data.ptr, &mine);
    EXPECT_EQ(events[0].events, EPOLLIN);

    EXPECT_TRUE(poll.wait(Clock::now()).empty()) << "an edge is told once";
    ASSERT_EQ(poll.change(left.get(), EPOLLIN | EPOLLET, &mine), 0);
    EXPECT_EQ(poll.wait(Clock::now()).size(), 1U) << "a change tells anew what is there";

    poll.remove(left.get());
    VornTest::sendAll(right.get(), "x");
    EXPECT_TRUE(poll.wait(Clock::now()).empty());
    EXPECT_EQ(poll.add(-1, EPOLLIN, &mine), EBADF);
}

TEST_F(EventPollTest, ThrowsWithoutDescriptors) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const VornTest::UniqueFd lowest(::dup(0));
    const rlimit none{static_cast<rlim_t>(lowest.get()) + 1, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    std::exception_ptr thrown; // looked at later: the sanitizers need descriptors for that
    try {
        EventPoll poll;
    } catch (...) {
        thrown = std::current_exception();
    }
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    ASSERT_NE(thrown, nullptr);
    try {
        std::rethrow_exception(thrown);
    } catch (const std::system_error& e) {
        EXPECT_EQ(e.code().value(), EMFILE);
    }
}
