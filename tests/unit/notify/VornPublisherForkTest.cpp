// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * A publisher in a process that forks, and in one whose handler calls exit() or destroys it.
 */

#include "ForkedChild.h"
#include "Process.h"
#include "PublisherFixture.h"
#include "Sanitizer.h"

#include <VornLogging.h>

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>

#include <unistd.h>

using namespace VornNet;
using namespace VornTest;

namespace {

class VornPublisher_Fork : public HistoryFixture, public testing::WithParamInterface<const char*> {
protected:
    void TearDown() override {
        HistoryFixture::TearDown();
        ::unlink(pipePath("alpha").c_str());
    }

    static bool hasFile() { return std::filesystem::exists(pipePath("alpha")); }

    static std::string openHistory() {
        return thrownBy([] {
            VornPublisher::Options options;
            options.sDirectory = historyDirectory;
            const VornPublisher other("pipe:beta", {"builds"}, options);
        });
    }
};

INSTANTIATE_TEST_SUITE_P(Ways, VornPublisher_Fork, testing::Values("pipe:alpha", "socket:127.0.0.1:0"),
                         [](const auto& test) { return test.param[0] == 'p' ? "Pipe" : "Tcp"; });

/** Static, so that exit() destroys it. */
std::unique_ptr<VornPublisher> g_publisher;

void openPublisher(const std::string& address, const VornPublisher::SubscribeHandler& onSubscribe) {
    VornPublisher::Options options;
    options.sDirectory = historyDirectory;
    options.onSubscribe = onSubscribe;
    g_publisher = std::make_unique<VornPublisher>(address, std::vector<std::string>{"builds"}, options);
    printLine(g_publisher->getAddress());
}

KIT_ROLE(publisherWhoseChildrenExit) {
    openPublisher(args.at(0), [](const VornPublisher::Subscriber&) {
        printLine("the handler's child: " + childThatExits());
        return "";
    });
    printLine("main's child: " + childThatExits());
    char byte = '\0';
    while (::read(STDIN_FILENO, &byte, 1) == 1)
        g_publisher->publish("builds", writing("an event"));
    return 0;
}

KIT_ROLE(publisherWhoseHandlerExits) {
    openPublisher(args.at(0), [](const VornPublisher::Subscriber& asking) -> VornString {
        if (asking.nId == 2)
            std::exit(exitStatus);
        return "";
    });
    ::pause();
    return 0;
}

TEST_P(VornPublisher_Fork, WhenChildrenExit_TheParentServesOn) {
    ChildProcess child =
        ChildProcess::spawnRoleWith(exitOnAnyThread, "publisherWhoseChildrenExit", {GetParam()});
    const std::string at = child.readLine();
    EXPECT_EQ(child.readLine(), "main's child: 7");
    const bool isPipe = at == GetParam();
    EXPECT_EQ(hasFile(), isPipe);
    RawSubscriber subscriber(at, "builds");
    EXPECT_EQ(child.readLine(), "the handler's child: 7");
    EXPECT_EQ(hasFile(), isPipe);
    EXPECT_EQ(openHistory(), "VornPublisher::VornPublisher: failed to open history. 11");
    child.writeLine("");
    EXPECT_EQ(subscriber.next(), WireFrame::event(1, "an event"));
    child.closeInput();
    EXPECT_EQ(subscriber.next(), WireFrame::last(1, "the service stops"));
    subscriber.socket().reset();
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(child.readAllErrors(), "");
}

TEST_P(VornPublisher_Fork, WhenAHandlerExits_ThePublisherEndsInOrderWithItsProcess) {
    ChildProcess child =
        ChildProcess::spawnRoleWith(exitOnAnyThread, "publisherWhoseHandlerExits", {GetParam()});
    const std::string at = child.readLine();
    RawSubscriber subscriber(at, "builds");
    const UniqueFd asking = ask(at);
    EXPECT_EQ(subscriber.next(), WireFrame::last(1, "the service stops"));
    subscriber.socket().reset();
    EXPECT_EQ(receiveToEnd(asking.get()), "+");
    EXPECT_EQ(child.wait(), exitStatus);
    EXPECT_EQ(child.readAllErrors(), "");
    EXPECT_FALSE(hasFile());
    EXPECT_EQ(openHistory(), "nothing");
}

KIT_ROLE(publisherWhoseHandlerExitsWhileItStops) {
    static Checkpoint asked;
    openPublisher(args.at(0), [](const VornPublisher::Subscriber&) -> VornString {
        asked.open();
        awaitCondition([] {
            return thrownBy([] { g_publisher->publish("builds", writing("x")); }) ==
                   "VornPublisher::publish: stopped. 108";
        });
        std::exit(exitStatus);
    });
    asked.pass();
    g_publisher->stop(std::chrono::milliseconds(0));
    return 0;
}

TEST_P(VornPublisher_Fork, WhenAHandlerExitsWhileItIsStopped_TheProcessEnds) {
    ChildProcess child =
        ChildProcess::spawnRoleWith(exitOnAnyThread, "publisherWhoseHandlerExitsWhileItStops", {GetParam()});
    const UniqueFd asking = ask(child.readLine());
    EXPECT_EQ(child.wait(), exitStatus);
    EXPECT_EQ(child.readAllErrors(), "");
}

KIT_ROLE(publisherDestroyedByItsHandler) {
    std::set_terminate([] {
        printLine("terminated");
        ::_exit(exitStatus);
    });
    VornSupport::VornLogging::setAccessAllowed(true);
    VornSupport::VornLogging::getInstance().setLogLevel(1);
    VornSupport::VornLogging::setRecordHandler(
        [](int level, const std::string& text) { printLine(std::to_string(level) + " " + text); });
    openPublisher(args.at(0), [](const VornPublisher::Subscriber&) -> VornString {
        g_publisher.reset();
        return "";
    });
    ::pause();
    return 0;
}

TEST_P(VornPublisher_Fork, WhenAHandlerDestroysThePublisher_TheProcessEnds) {
    ChildProcess child = ChildProcess::spawnRole("publisherDestroyedByItsHandler", GetParam());
    const UniqueFd asking = ask(child.readLine());
    EXPECT_EQ(child.readLine(), "1 VornPublisher::~VornPublisher: destroyed by one of its own handlers");
    EXPECT_EQ(child.readLine(), "terminated");
    EXPECT_EQ(child.wait(), exitStatus);
}

} // namespace
