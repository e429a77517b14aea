// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * Each system call that a publisher and its subscriber make fails, once or for a while: either the one that
 * is being opened says so and leaves nothing behind, or all events arrive, each once and in order.
 */

#include "PublisherFixture.h"

#include <VornSubscriber.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <vector>

#include <gmock/gmock.h>
#include <unistd.h>

using namespace std::chrono_literals;
using namespace VornTest;
using VornNet::VornConnection;
using VornNet::VornPublisher;
using VornNet::VornSubscriber;

namespace {

struct Fault {
    const char* call;
    std::vector<int> errors;
};

const Fault cFaults[] = {
    {"socket", {EMFILE, ENOMEM}},
    {"bind", {EADDRINUSE, EACCES}},
    {"listen", {EADDRINUSE}},
    {"getsockname", {ENOBUFS}},
    {"getsockopt", {ENOBUFS}},
    {"accept4", {EMFILE, ECONNABORTED, EINTR, ENOMEM}},
    {"connect", {ECONNREFUSED, ENOENT, EINTR, EAGAIN}},
    {"send", {EPIPE, ECONNRESET, EAGAIN, EINTR, ENOBUFS}},
    {"recv", {ECONNRESET, EAGAIN, EINTR, ENOMEM}},
    {"eventfd", {EMFILE}},
    {"timerfd_create", {EMFILE}},
    {"epoll_create1", {EMFILE}},
    {"epoll_ctl", {ENOMEM, ENOSPC}},
    {"epoll_wait", {EINTR}},
    {"ppoll", {EINTR, ENOMEM}},
    {"getrandom", {EINTR, EAGAIN}},
    {"read", {EINTR, EAGAIN}},
    {"write", {EINTR, EAGAIN}},
    {"pread", {EIO}},
    {"pwrite", {ENOSPC, EIO}},
    {"flock", {EAGAIN, ENOLCK}},
    {"ftruncate", {EIO}},
    {"posix_fallocate", {ENOSPC}},
    {"msync", {EIO}},
    {"fstat", {EIO}},
    {"lstat", {EACCES}},
    {"fchmod", {EPERM}},
    {"chmod", {EACCES}},
    {"chown", {EPERM}},
    {"unlink", {EACCES}},
    {"renameat2", {EACCES}},
    {"fcntl", {EMFILE}},
    {"close", {EIO, EINTR}},
};

class VornPublisher_Fault : public LeakCheckedTest, public testing::WithParamInterface<std::string> {
protected:
    void TearDown() override { std::filesystem::remove_all(historyDirectory); }

    /** Opens both, and lets three events travel. @return what the subscriber was called for */
    std::vector<std::string> exchange(std::optional<FaultRule>& rule) {
        std::filesystem::remove_all(historyDirectory);
        std::filesystem::create_directory(historyDirectory);
        VornPublisher::Options service = keepingHistories();
        service.nHistoryBytes = 4096;
        service.beat = 30ms;
        VornPublisher publisher(GetParam(), {"builds"}, service);
        std::mutex mutex;
        std::vector<std::string> seen;
        const auto note = [&](const std::string& line) {
            const std::lock_guard lock(mutex);
            seen.push_back(line);
        };
        VornSubscriber::Options client;
        client.start = VornSubscriber::Start::oldest;
        client.sPositionFile = historyDirectory + "/position";
        client.answerLimit = 50ms;
        client.firstPause = 1ms;
        client.longestPause = 4ms;
        client.onGap = [&](const VornSubscriber::Gap&) { note("gap"); };
        const VornSubscriber subscriber(
            publisher.getAddress(), "builds",
            [&](VornConnection&, const VornSubscriber::Event& event) {
                note(std::to_string(event.position.nNumber));
            },
            client);
        for (int i = 0; i < 3; ++i)
            publisher.publish("builds", writing("content"));
        const auto hasAll = [&] {
            const std::lock_guard lock(mutex);
            return seen.size() >= 3;
        };
        awaitCondition([&] { return hasAll() || rule->failures() >= 3; });
        m_failures = rule->failures();
        rule.reset();
        awaitCondition(hasAll);
        const std::lock_guard lock(mutex);
        return seen;
    }

    /** @return whether the call was reached at all. */
    bool provoke(const char* call, int error, int nth, bool isLasting) {
        const std::string where = std::string(call) + " " + std::to_string(error) + " in call " +
                                  std::to_string(nth) + (isLasting ? " and later ones" : "");
        std::optional<FaultRule> rule;
        rule.emplace(call, error, nth, isLasting ? FaultRule::always : 1);
        m_failures = 0;
        try {
            EXPECT_THAT(exchange(rule), testing::ElementsAre("1", "2", "3")) << where;
        } catch (const VornSupport::VornException& e) {
            EXPECT_EQ(e.getCode(), error) << where;
            EXPECT_THAT(e.getText(),
                        testing::MatchesRegex("Vorn(Publisher::VornPublisher|Subscriber::VornSubscriber): "
                                              "failed to (open server|open history|open "
                                              "position|start)\\."))
                << where;
        }
        return m_failures > 0 || (rule && rule->failures() > 0);
    }

    int m_failures = 0;
};

class VornPublisher_FullKernel : public PublisherFixture {};

INSTANTIATE_TEST_SUITE_P(Kinds, VornPublisher_Fault, testing::Values("pipe:faulty", "socket:127.0.0.1:0"),
                         [](const auto& test) { return test.param.substr(0, test.param.find(':')); });

} // namespace

TEST_P(VornPublisher_Fault, ACallThatFailsLosesNoEvent) {
    int failures = 0;
    for (const Fault& fault : cFaults) {
        for (const int error : fault.errors) {
            // A call that is interrupted again and again is begun again and again.
            for (const bool isLasting : error == EINTR ? std::vector{false} : std::vector{false, true}) {
                for (int nth = 1; nth <= (isLasting ? 1 : 8) && provoke(fault.call, error, nth, isLasting);
                     ++nth)
                    ++failures;
            }
        }
    }
    EXPECT_GT(failures, 100);
}

TEST_F(VornPublisher_FullKernel, ThatTakesNoAnswer_IsGivenItLater) {
    open();
    const UniqueFd client = connectTo(address());
    const FaultRule rule("send", EAGAIN);
    const std::string line = "builds\r\n";
    ASSERT_EQ(::write(client.get(), line.data(), line.size()), 8); // not by the send() that fails
    EXPECT_EQ(receiveExactly(client.get(), 1), "+");
}
