// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * What a sender sees: the end of its stream when the callback has returned, and a reset in every other case.
 */

#include "LogCapture.h"
#include "Process.h"
#include "SteadySinkPeer.h"

#include <csignal>
#include <cstdio>
#include <iostream>
#include <stdexcept>

#include <VornException.h>
#include <gmock/gmock.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>

using namespace VornTest;
using namespace std::chrono_literals;

namespace {

using testing::ElementsAre;
using testing::Values;
using VornNet::VornConnection;
using VornNet::VornSmartPointer;
using VornSupport::VornException;

using Connection = VornSmartPointer<VornConnection>;

class VornSteadySink_Confirmation : public NotificationTestOfKind {};

class VornSteadySink_PipeBytes : public NotificationTest {};

INSTANTIATE_TEST_SUITE_P(Kind, VornSteadySink_Confirmation, Values(Kind::pipe, Kind::socket),
                         testing::PrintToStringParamName());

bool isSilent(int fd) {
    pollfd entry{fd, POLLIN | POLLRDHUP, 0};
    return ::poll(&entry, 1, 0) == 0;
}

} // namespace

KIT_ROLE(steadyClient) {
    useTypeText(args.at(0));
    VornNet::VornSteadySink sink("client");
    CallbackPointer callback = new RecordingCallback(0, [](Connection&) -> std::string {
        std::puts("called");
        std::cin.get(); // for good
        return {};
    });
    sink.getCallbackContainer().add(static_cast<VornNet::VornNotificationCallback*>(callback));
    std::puts(sink.getCallbackAddress().c_str());
    std::cin.get();
    return 0;
}

TEST_P(VornSteadySink_Confirmation, WhileTheCallbackRuns_TheSenderSeesNothing_ThenTheEnd) {
    HeldCallback held;
    const SteadyClient client(optionsFor(GetParam()), held.action());
    const UniqueFd first = sendNotification(client.address(), "first");
    const UniqueFd second = sendNotification(client.address(), "second");
    ASSERT_TRUE(held.awaitEntered());
    ASSERT_TRUE(client.await(&SteadyStatistics::nWaiting, std::size_t{2}));
    EXPECT_TRUE(isSilent(first.get()));
    EXPECT_TRUE(isSilent(second.get()));
    held.letGoOn();
    EXPECT_EQ(endingOf(first.get()), "end");
    EXPECT_EQ(endingOf(second.get()), "end");
}

TEST_P(VornSteadySink_Confirmation, WhenTheSenderSeesTheEnd_EverythingIsCounted) {
    const SteadyClient client(optionsFor(GetParam()));
    for (std::uint64_t i = 1; i <= 200; ++i) {
        ASSERT_EQ(deliverTo(client.address(), "content"), "end");
        const SteadyStatistics numbers = client.statistics();
        ASSERT_EQ(numbers.nDelivered, i);
        ASSERT_EQ(numbers.nWaiting, 0U);
        ASSERT_EQ(numbers.nConnections, 0U);
    }
}

TEST_P(VornSteadySink_Confirmation, ACallbackThatThrowsAnything_IsLoggedAndCountedAndIsAnEnd) {
    const LogCapture log(1);
    int calls = 0;
    const SteadyClient client(optionsFor(GetParam()), [&](Connection&) -> std::string {
        switch (++calls) {
        case 1:
            throw VornException("of the library", 104);
        case 2:
            throw std::runtime_error("of the standard");
        case 3:
            throw 7;
        default:
            return {};
        }
    });
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(deliverTo(client.address(), ""), "end");
    EXPECT_THAT(recordsOf("VornSteadySink", log),
                ElementsAre("1 VornSteadySink::run: a callback threw: of the library (code=104)",
                            "1 VornSteadySink::run: a callback threw: of the standard",
                            "1 VornSteadySink::run: a callback threw: exception of unknown type"));
    EXPECT_EQ(client.statistics().nFailed, 3U);
    EXPECT_EQ(client.statistics().nDelivered, 1U);
}

TEST_P(VornSteadySink_Confirmation, AnUnknownId_IsAReset) {
    const SteadyClient client(optionsFor(GetParam()));
    EXPECT_EQ(deliverTo(client.address(), "content", 1), "reset");
    EXPECT_EQ(deliverTo(client.address(), "", 1), "reset");
    EXPECT_EQ(client.statistics().nUnknown, 2U);
    EXPECT_EQ(client.statistics().nConnections, 0U);
}

TEST_P(VornSteadySink_Confirmation, ANotificationThatIsTooLong_IsAResetAtOnce) {
    const SteadyClient client(optionsFor(GetParam(), [](auto& o) { o.nMessageLimit = 100; }));
    const UniqueFd fd = beginNotification(client.address(), std::string(93, 'x'));
    EXPECT_EQ(endingOf(fd.get()), "reset");
    EXPECT_EQ(client.statistics().nTooLong, 1U);
    EXPECT_EQ(deliverTo(client.address(), std::string(92, 'x')), "end");
}

TEST_P(VornSteadySink_Confirmation, ANotificationThatIsNotCompleteInTime_IsAReset) {
    const SteadyClient client(optionsFor(GetParam(), [](auto& o) { o.readLimit = 50ms; }));
    const auto start = std::chrono::steady_clock::now();
    const UniqueFd fd = beginNotification(client.address(), "but no end");
    EXPECT_EQ(endingOf(fd.get()), "reset");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
    EXPECT_EQ(client.statistics().nTimedOut, 1U);
    EXPECT_EQ(client.statistics().nConnections, 0U);
    EXPECT_EQ(client.callback()->calls(), 0);
}

TEST_P(VornSteadySink_Confirmation, ASilentSender_IsCutAtTheReadLimit) {
    const SteadyClient client(optionsFor(GetParam(), [](auto& o) { o.readLimit = 50ms; }));
    const UniqueFd fd = connectToSink(client.address());
    // A pipe's end can only be a reset when there is something that has not been read.
    EXPECT_EQ(endingOf(fd.get()), GetParam() == Kind::pipe ? "end" : "reset");
    EXPECT_EQ(client.statistics().nTimedOut, 1U);
}

TEST_P(VornSteadySink_Confirmation, LessThanAHandle_CallsNothingAndIsCounted) {
    const SteadyClient client(optionsFor(GetParam()));
    for (std::uint64_t size = 0; size < 8; ++size) {
        const UniqueFd fd = connectToSink(client.address());
        sendAll(fd.get(), std::string(size, '\0'));
        endSending(fd.get());
        endingOf(fd.get());
        EXPECT_EQ(client.statistics().nIncomplete, size + 1);
    }
    EXPECT_EQ(client.callback()->calls(), 0);
    EXPECT_EQ(client.statistics().nUnknown, 0U);
}

TEST_P(VornSteadySink_Confirmation, WhenTheSinkIsDestroyed_WhatWaitsIsResetAndWhatRunsIsConfirmed) {
    HeldCallback held;
    SteadyClient client(optionsFor(GetParam()), held.action());
    const CallbackPointer callback = client.callback();
    const UniqueFd running = sendNotification(client.address(), "running");
    ASSERT_TRUE(held.awaitEntered());
    const UniqueFd waiting = sendNotification(client.address(), "waiting");
    ASSERT_TRUE(client.await(&SteadyStatistics::nWaiting, std::size_t{2}));
    const UniqueFd half = beginNotification(client.address(), "half");
    ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{3}));
    WatchedThread destroyer([&] { client.destroy(); });
    EXPECT_EQ(endingOf(waiting.get()), "reset");
    EXPECT_EQ(endingOf(half.get()), "reset");
    EXPECT_FALSE(destroyer.finished());
    EXPECT_TRUE(isSilent(running.get()));
    held.letGoOn();
    ASSERT_TRUE(destroyer.join());
    EXPECT_EQ(endingOf(running.get()), "end");
    EXPECT_THAT(callback->contents(), ElementsAre("running"));
}

TEST_P(VornSteadySink_Confirmation, WhenTheProcessIsKilledInACallback_TheSenderSeesAReset) {
    ChildProcess child = ChildProcess::spawnRole("steadyClient", nameOf(GetParam()));
    const std::string address = child.readLine();
    const UniqueFd running = sendNotification(address, "running");
    ASSERT_EQ(child.readLine(), "called");
    const UniqueFd bare = sendNotification(address, "");
    child.kill(SIGKILL);
    child.wait();
    EXPECT_EQ(endingOf(running.get()), "reset");
    EXPECT_EQ(endingOf(bare.get()), "reset");
}

TEST_P(VornSteadySink_Confirmation, ASenderThatWaitsWithTheEnd_IsNotCalledBefore) {
    const SteadyClient client(optionsFor(GetParam()));
    const UniqueFd fd = beginNotification(client.address(), "content");
    ASSERT_EQ(deliverTo(client.address(), "other"), "end");
    EXPECT_THAT(client.callback()->contents(), ElementsAre("other"));
    endSending(fd.get());
    EXPECT_EQ(endingOf(fd.get()), "end");
    EXPECT_THAT(client.callback()->contents(), ElementsAre("other", "content"));
}

TEST_F(VornSteadySink_PipeBytes, TheFirstSeven_AreTakenAsTheyCome) {
    const SteadyClient client(optionsFor(Kind::pipe));
    const UniqueFd fd = connectToSink(client.address());
    for (int i = 0; i < 7; ++i) {
        sendAll(fd.get(), std::string(1, '\0'));
        EXPECT_TRUE(awaitTaken(fd.get())) << i;
    }
    sendAll(fd.get(), std::string(1, '\0') + "content");
    endSending(fd.get());
    EXPECT_EQ(endingOf(fd.get()), "end");
    EXPECT_THAT(client.callback()->contents(), ElementsAre("content"));
}

TEST_F(VornSteadySink_PipeBytes, TheFirstSevenAtOnce_AreTaken) {
    const SteadyClient client(optionsFor(Kind::pipe));
    const UniqueFd fd = connectToSink(client.address());
    sendAll(fd.get(), std::string(7, '\0'));
    EXPECT_TRUE(awaitTaken(fd.get()));
    sendAll(fd.get(), std::string(1, '\0')); // eight in all, and nothing more
    endSending(fd.get());
    EXPECT_EQ(endingOf(fd.get()), "end");
    EXPECT_THAT(client.callback()->contents(), ElementsAre(""));
}

TEST_F(VornSteadySink_PipeBytes, TheLastOne_IsLeftUntilTheCallbackHasReturned) {
    HeldCallback held;
    const SteadyClient client(optionsFor(Kind::pipe), held.action());
    const UniqueFd fd = beginNotification(client.address(), "conten");
    sendAll(fd.get(), "t");
    endSending(fd.get());
    ASSERT_TRUE(held.awaitEntered());
    int left = 0;
    ASSERT_EQ(::ioctl(fd.get(), SIOCOUTQ, &left), 0);
    EXPECT_GT(left, 1);
    held.letGoOn();
    EXPECT_EQ(endingOf(fd.get()), "end");
}

TEST_F(VornSteadySink_PipeBytes, ATooShortStreamThatHasEndedBeforeItIsRead_IsAReset) {
    HeldCallback held;
    const SteadyClient client(optionsFor(Kind::pipe, [](auto& o) { o.nConnectionLimit = 1; }), held.action());
    const UniqueFd first = sendNotification(client.address(), "");
    ASSERT_TRUE(held.awaitEntered());
    const UniqueFd fd = connectToSink(client.address()); // which is not accepted yet
    sendAll(fd.get(), "short");
    endSending(fd.get());
    held.letGoOn();
    EXPECT_EQ(endingOf(fd.get()), "reset");
}

TEST_F(VornSteadySink_PipeBytes, OverTcp_AResetOfTheSender_IsCountedAndCallsNothing) {
    const SteadyClient client(optionsFor(Kind::socket));
    UniqueFd fd = beginNotification(client.address(), "content");
    ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{1}));
    resetOnClose(fd.get());
    fd.reset();
    ASSERT_TRUE(client.await(&SteadyStatistics::nIncomplete, std::uint64_t{1}));
    EXPECT_EQ(client.callback()->calls(), 0);
    EXPECT_EQ(client.statistics().nConnections, 0U);
}
