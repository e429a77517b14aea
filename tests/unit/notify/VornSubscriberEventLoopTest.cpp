// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * A subscriber in the event loops of others: they need nothing but its descriptor.
 */

#include "Await.h"
#include "EventLoops.h"
#include "LeakCheckedTest.h"
#include "Posix.h"
#include "Sandbox.h"
#include "SubscriptionPeers.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace VornTest;

namespace {

struct Loop {
    const char* name;
    void (*run)(VornSubscriber& builds);

    friend void PrintTo(const Loop& loop, std::ostream* out) { *out << loop.name; }
};

class VornSubscriber_EventLoop : public LeakCheckedTest, public testing::WithParamInterface<Loop> {
protected:
    static void SetUpTestSuite() {
        g_main_context_default(); // GLib keeps it to the end
    }
};

INSTANTIATE_TEST_SUITE_P(Loops, VornSubscriber_EventLoop,
                         testing::Values(Loop{"Poll", runWithPoll}, Loop{"Epoll", runWithEpoll},
                                         Loop{"Systemd", runWithSystemd}, Loop{"Glib", runWithGlib},
                                         Loop{"Asio", runWithAsio}),
                         [](const auto& test) { return std::string(test.param.name); });

/** Accepts a client, and sends it one event. */
UniqueFd serve(int listener, std::uint64_t number) {
    UniqueFd client = admitClient(listener, {1234, 1, number, 5000});
    sendAll(client.get(), WireFrame::event(number, "x").bytes());
    return client;
}

} // namespace

TEST_P(VornSubscriber_EventLoop, BringsEventsAndAServiceThatComesBack) {
    const UniqueFd listener = unixListen(pipePath("alpha"), 1);
    std::vector<std::string> told;
    VornSubscriber* builds = nullptr;
    VornSubscriber::Options options;
    options.bOwnThread = false;
    options.firstPause = options.longestPause =
        std::chrono::milliseconds(20); // which only the descriptor ends
    options.onState = [&](const VornSubscriber::Status& status) {
        told.emplace_back(VornSubscriber::nameOf(status.state));
    };
    VornSubscriber subscriber(
        "pipe:alpha", "builds",
        [&](VornNet::VornConnection&, const VornSubscriber::Event& event) {
            told.push_back(std::to_string(event.position.nNumber));
            if (event.position.nNumber == 2)
                builds->stop();
        },
        options);
    builds = &subscriber;
    UniqueFd client;
    WatchedThread service([&] {
        client = serve(listener.get(), 1);
        ::shutdown(client.get(), SHUT_RDWR);
        client = serve(listener.get(), 2);
    });
    GetParam().run(subscriber);
    EXPECT_TRUE(service.join());
    EXPECT_THAT(told, testing::ElementsAre("connected", "1", "away", "connected", "2"));
    ::unlink(pipePath("alpha").c_str());
}
