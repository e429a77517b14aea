// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * Senders who may not send, failing system calls, closed standard streams, and the end at the wrong place.
 */

#include "Interpose.h"
#include "Process.h"
#include "Sandbox.h"
#include "SteadySinkPeer.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <map>
#include <optional>
#include <system_error>

#include <VornException.h>
#include <VornLogging.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <unistd.h>

using namespace VornTest;
using namespace std::chrono_literals;

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Values;
using VornNet::VornConnection;
using VornNet::VornSmartPointer;

using Connection = VornSmartPointer<VornConnection>;

class VornSteadySink_Senders : public NotificationTest {};

class VornSteadySink_Failures : public NotificationTestOfKind {};

class VornSteadySink_StreamFailures : public NotificationTestOfKind {};

class VornSteadySink_PipeFailures : public NotificationTest {};

class VornSteadySink_End : public NotificationTest {};

INSTANTIATE_TEST_SUITE_P(Kind, VornSteadySink_Failures, Values(Kind::pipe, Kind::socket, Kind::udp),
                         testing::PrintToStringParamName());

INSTANTIATE_TEST_SUITE_P(Kind, VornSteadySink_StreamFailures, Values(Kind::pipe, Kind::socket),
                         testing::PrintToStringParamName());

bool admits(const std::vector<VornSupport::VornString>& networks, const std::string& source) {
    const SteadyClient client(optionsFor(Kind::socket, [&](auto& o) { o.allowedNetworks = networks; }));
    const Target target(client.address());
    const UniqueFd fd = tcpConnect(target.place, target.port, source);
    bool isAdmitted = false;
    try {
        sendAll(fd.get(), onWire(0));
        endSending(fd.get());
        isAdmitted = endingOf(fd.get()) == "end";
    } catch (const std::system_error&) { // it has been reset already
    }
    EXPECT_EQ(client.statistics().nRefused, isAdmitted ? 0U : 1U);
    EXPECT_EQ(client.statistics().nConnections, 0U);
    return isAdmitted;
}

/** Sends one that may be reset, and waits for the end of it where there is one. */
void sendAndForget(const std::string& address) {
    try {
        if (Target(address).kind == "udp")
            sendByHand(address, onWire(0));
        else
            deliverTo(address, "content");
    } catch (const std::system_error&) { // it was reset while it was being sent
    }
}

} // namespace

TEST_F(VornSteadySink_Senders, Networks_AdmitTheirAddressesOnly) {
    EXPECT_TRUE(admits({}, "127.0.0.2"));
    EXPECT_TRUE(admits({"127.0.0.2"}, "127.0.0.2"));
    EXPECT_FALSE(admits({"127.0.0.2"}, "127.0.0.3"));
    EXPECT_TRUE(admits({"10.0.0.0/8", "127.0.0.0/30"}, "127.0.0.3"));
    EXPECT_FALSE(admits({"10.0.0.0/8", "127.0.0.0/30"}, "127.0.0.4"));
    EXPECT_TRUE(admits({"0.0.0.0/0"}, "127.0.0.4"));
    EXPECT_TRUE(admits({"127.9.9.9/8"}, "127.0.0.4"));
    EXPECT_FALSE(admits({"127.0.0.5/32"}, "127.0.0.4"));
}

TEST_F(VornSteadySink_Senders, OverTcp_ARefusedOneSeesAResetBeforeItHasSentAnything) {
    const SteadyClient client(optionsFor(Kind::socket, [](auto& o) { o.allowedNetworks = {"10.0.0.0/8"}; }));
    const UniqueFd fd = connectToSink(client.address());
    EXPECT_EQ(endingOf(fd.get()), "reset");
    EXPECT_EQ(client.statistics().nRefused, 1U);
    EXPECT_EQ(client.statistics().nIncomplete, 0U);
}

TEST_F(VornSteadySink_Senders, OverUdp_ARefusedDatagramIsCountedAndIgnored) {
    const SteadyClient client(optionsFor(Kind::udp, [](auto& o) { o.allowedNetworks = {"127.0.0.2"}; }));
    const Target target(client.address());
    for (const char* source : {"127.0.0.1", "127.0.0.2"}) {
        int port = 0;
        udpSendTo(udpSocket(source, port).get(), target.place, target.port, onWire(0));
    }
    ASSERT_TRUE(client.callback()->awaitCalls(1));
    EXPECT_EQ(client.statistics().nRefused, 1U);
}

TEST_F(VornSteadySink_Senders, OverAPipe_OnlyTheUsersInTheListMaySend) {
    const SteadyClient client(optionsFor(Kind::pipe, [](auto& o) { o.allowedUsers = {4711, ::getuid()}; }));
    EXPECT_EQ(deliverTo(client.address(), ""), "end");
    EXPECT_EQ(client.statistics().nRefused, 0U);
}

TEST_F(VornSteadySink_Senders, OverAPipe_ARefusedOneSeesAReset) {
    const SteadyClient client(optionsFor(Kind::pipe, [](auto& o) { o.allowedUsers = {4711}; }));
    const UniqueFd fd = connectToSink(client.address());
    ASSERT_TRUE(client.await(&SteadyStatistics::nRefused, std::uint64_t{1}));
    sendAll(fd.get(), std::string(1, '\0')); // only now there is something to be reset
    EXPECT_EQ(endingOf(fd.get()), "reset");
    EXPECT_EQ(deliverTo(client.address(), "content"), "reset");
    EXPECT_EQ(client.statistics().nRefused, 2U);
    EXPECT_EQ(client.statistics().nIncomplete, 0U);
    EXPECT_EQ(client.statistics().nConnections, 0U);
    EXPECT_EQ(client.callback()->calls(), 0);
}

TEST_F(VornSteadySink_Senders, OverAPipe_ARefusedOneThatIsSilentIsClosedAtTheReadLimit) {
    const SteadyClient client(optionsFor(Kind::pipe, [](auto& o) {
        o.allowedUsers = {4711};
        o.readLimit = 50ms;
    }));
    const UniqueFd fd = connectToSink(client.address());
    EXPECT_EQ(endingOf(fd.get()), "end");
    EXPECT_EQ(client.statistics().nRefused, 1U);
    EXPECT_EQ(client.statistics().nTimedOut, 0U);
}

TEST_F(VornSteadySink_Senders, OverAPipe_ARefusedOneThatClosesSilentlyIsForgotten) {
    const SteadyClient client(optionsFor(Kind::pipe, [](auto& o) { o.allowedUsers = {4711}; }));
    UniqueFd fd = connectToSink(client.address());
    ASSERT_TRUE(client.await(&SteadyStatistics::nRefused, std::uint64_t{1}));
    EXPECT_EQ(client.statistics().nConnections, 1U);
    fd.reset();
    EXPECT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{0}));
    EXPECT_EQ(client.statistics().nIncomplete, 0U);
}

TEST_F(VornSteadySink_Senders, OverAPipe_OneWhoseUserCannotBeToldIsRefused) {
    const SteadyClient client(optionsFor(Kind::pipe, [](auto& o) { o.allowedUsers = {::getuid()}; }));
    {
        const FaultRule fault("getsockopt", EIO);
        EXPECT_EQ(deliverTo(client.address(), "first"), "reset");
    }
    EXPECT_EQ(deliverTo(client.address(), "second"), "end");
    EXPECT_EQ(client.statistics().nRefused, 1U);
}

TEST_P(VornSteadySink_Failures, AnySystemCallThatFailsOnce_LosesNoLaterNotification) {
    const std::vector<std::string> calls = {"accept4", "close",    "epoll_ctl", "epoll_wait", "ppoll",
                                            "ioctl",   "lstat",    "poll",      "read",       "recv",
                                            "recvmsg", "shutdown", "setsockopt"};
    int nFailures = 0;
    int nLast = 0;
    for (const std::string& call : calls) {
        for (const int error : {EINTR, ENOMEM, EIO}) {
            const SteadyClient client(optionsFor(GetParam()));
            const std::vector<pid_t> threads = threadIds(); // the last ones call and read
            for (const pid_t tid : {threads.back(), *(threads.end() - 2)}) {
                for (int nth = 1; nth <= 3; ++nth) {
                    SCOPED_TRACE(call + " " + std::to_string(error) + " " + std::to_string(nth));
                    {
                        const std::uint64_t nBefore = client.statistics().nDelivered;
                        const FaultRule once(call, error, nth, 1, tid);
                        for (int i = 0; i < 3; ++i)
                            sendAndForget(client.address());
                        EXPECT_TRUE(awaitCondition([&] {
                            return client.statistics().nDelivered >= nBefore + 2;
                        })); // one may be lost
                        nFailures += once.failures();
                    }
                    const std::string sLast = "last " + std::to_string(++nLast);
                    sendByHand(client.address(), onWire(0) + sLast);
                    ASSERT_TRUE(awaitCondition([&] {
                        const std::vector<std::string> contents = client.callback()->contents();
                        return !contents.empty() && contents.back() == sLast;
                    }));
                }
            }
        }
    }
    EXPECT_GT(nFailures, 5);
}

TEST_P(VornSteadySink_Failures, AnySystemCallOfTheConstructorThatFails_IsToldOrDoneWithout) {
    const auto descriptors = openDescriptors();
    std::map<std::string, int> allCalls;
    SteadyOptions options = optionsFor(GetParam());
    options.sPipeGroup = "root";
    {
        const CallTrace trace;
        const SteadyClient client(options);
        for (const CallRecord& record : trace.records())
            ++allCalls[record.name];
    }
    for (const auto& [call, count] : allCalls) {
        for (int nth = 1; nth <= count; ++nth) {
            SCOPED_TRACE(call + " " + std::to_string(nth));
            const FaultRule once(call, EMFILE, nth);
            try {
                const SteadyClient client(options);
                sendByHand(client.address(), onWire(0));
                EXPECT_TRUE(client.callback()->awaitCalls(1));
            } catch (const VornSupport::VornException& exception) {
                EXPECT_THAT(exception.getText(), testing::AnyOf(cOpenFailed, cStartFailed, cInvalidOption));
                EXPECT_THAT(exception.getCode(), testing::AnyOf(EMFILE, EINVAL, EADDRNOTAVAIL));
            } catch (const std::system_error&) { // the sender's call
            }
        }
    }
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_P(VornSteadySink_Failures, WithClosedStandardStreams_NoDescriptorIsOneOfTheirs) {
    ChildProcess child = ChildProcess::spawnRole("steadyBareClient", nameOf(GetParam()));
    const std::string address = child.readLine();
    sendByHand(address, onWire(0));
    EXPECT_EQ(child.wait(), 0);
}

TEST_P(VornSteadySink_Failures, ACallbackThatEndsItsThread_LetsTheDestructorReturn) {
    SteadyClient client(optionsFor(GetParam()), [](Connection&) -> std::string { ::pthread_exit(nullptr); });
    sendByHand(client.address(), onWire(0));
    ASSERT_TRUE(awaitCondition([&] {
        return client.statistics().nWaiting == 0 && threadIds().size() > 0 &&
               client.statistics().nConnections == 0;
    }));
    client.destroy();
}

TEST_P(VornSteadySink_StreamFailures, AReadThatFindsNothing_IsDoneAgainWhenMoreComes) {
    const SteadyClient client(optionsFor(GetParam()));
    const pid_t reading = threadIds().back();
    const UniqueFd sender = connectToSink(client.address());
    ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{1}));
    ASSERT_TRUE(awaitBlockedInIo(reading));
    const FaultRule nothing("recv", EAGAIN, 1, 1, reading);
    sendAll(sender.get(), onWire(0));
    ASSERT_TRUE(awaitCondition([&] { return nothing.failures() == 1; }));
    sendAll(sender.get(), "content");
    endSending(sender.get());
    EXPECT_EQ(endingOf(sender.get()), "end");
    EXPECT_THAT(client.callback()->contents(), ElementsAre("content"));
}

TEST_F(VornSteadySink_Senders, OverTcp_BytesThatComeJustAfterTheyWereCounted_AreRead) {
    for (const bool isInterrupted : {false, true}) {
        const SteadyClient client(optionsFor(Kind::socket));
        const pid_t reading = threadIds().back();
        FaultRule none("ioctl", 0, 1, 1, reading);
        none.returning(0);
        std::optional<FaultRule> interruption;
        if (isInterrupted)
            interruption.emplace("recv", EINTR, 1, 1, reading);
        HeldCall accepting("accept4");
        const UniqueFd sender = sendNotification(client.address(), "content");
        accepting.open();
        EXPECT_EQ(endingOf(sender.get()), "end");
        EXPECT_THAT(client.callback()->contents(), ElementsAre("content"));
    }
}

TEST_P(VornSteadySink_StreamFailures, ASourceThatCannotBeWatched_IsTriedAgain) {
    const SteadyClient client(optionsFor(GetParam(), [](auto& o) { o.nConnectionLimit = 1; }));
    const pid_t reading = threadIds().back();
    UniqueFd first = connectToSink(client.address());
    ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{1}));
    ASSERT_TRUE(awaitBlockedInIo(reading));
    const FaultRule fault("epoll_ctl", ENOMEM, 1, 1, reading);
    first.reset();
    EXPECT_EQ(deliverTo(client.address(), "content"), "end");
    EXPECT_EQ(fault.failures(), 1);
}

TEST_F(VornSteadySink_PipeFailures, AnEndWithoutTheBytesThatWereCounted_IsIncomplete) {
    for (const bool isEndItself : {false, true}) {
        const SteadyClient client(optionsFor(Kind::pipe));
        FaultRule nothing("recv", EAGAIN, 1, 1, threadIds().back());
        if (isEndItself)
            nothing.returning(0);
        HeldCall accepting("accept4");
        const UniqueFd sender = sendNotification(client.address(), "content");
        accepting.open();
        EXPECT_TRUE(client.await(&SteadyStatistics::nIncomplete, std::uint64_t{1}));
        EXPECT_EQ(endingOf(sender.get()), "reset");
        EXPECT_EQ(deliverTo(client.address(), "content"), "end");
    }
}

KIT_ROLE(steadyBareClient) {
    useTypeText(args.at(0));
    const UniqueFd output(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 10));
    ::close(STDIN_FILENO);
    ::close(STDOUT_FILENO);
    ::close(STDERR_FILENO);
    VornNet::VornSteadySink sink("client");
    std::atomic<bool> isClean = true;
    const auto look = [&] {
        for (int fd = 0; fd < 3; ++fd)
            isClean = isClean && !isOpen(fd);
    };
    CallbackPointer callback = new RecordingCallback(0, [&](Connection&) -> std::string {
        look();
        return {};
    });
    sink.getCallbackContainer().add(static_cast<VornNet::VornNotificationCallback*>(callback));
    look();
    const std::string address = sink.getCallbackAddress() + "\n";
    isClean = isClean && ::write(output.get(), address.data(), address.size()) > 0;
    return callback->awaitCalls(1) && isClean ? 0 : 1;
}

KIT_ROLE(steadySelfDestroyer) {
    VornSupport::VornLogging::getInstance().setLogLevel(1);
    auto* sink = new VornNet::VornSteadySink("client");
    CallbackPointer callback = new RecordingCallback(0, [&](Connection&) -> std::string {
        delete sink;
        return {};
    });
    sink->getCallbackContainer().add(static_cast<VornNet::VornNotificationCallback*>(callback));
    sendByHand(sink->getCallbackAddress(), onWire(0));
    std::getchar();
    return 0;
}

KIT_ROLE(steadySelfDestroyerByAddress) {
    VornSupport::VornLogging::getInstance().setLogLevel(1);
    VornNet::VornSteadySink* sink = nullptr;
    SteadyOptions options = optionsFor(Kind::pipe);
    options.onAddressChange = [&](const VornSupport::VornString&) { delete sink; };
    sink = new VornNet::VornSteadySink("client", options);
    const UniqueFd server = unixListen(pipePath(Target(sink->getCallbackAddress()).place));
    std::getchar();
    return 0;
}

TEST_F(VornSteadySink_End, InACallback_EndsTheProcess) {
    ChildProcess child = ChildProcess::spawnRole("steadySelfDestroyer");
    EXPECT_EQ(child.wait(), 128 + SIGABRT);
    EXPECT_THAT(child.readAllErrors(),
                HasSubstr("VornSteadySink::~VornSteadySink: destroyed by one of its own callbacks"));
}

TEST_F(VornSteadySink_End, InTheAddressHandler_EndsTheProcess) {
    ChildProcess child = ChildProcess::spawnRole("steadySelfDestroyerByAddress");
    EXPECT_EQ(child.wait(), 128 + SIGABRT);
    EXPECT_THAT(child.readAllErrors(),
                HasSubstr("VornSteadySink::~VornSteadySink: destroyed by one of its own callbacks"));
}

TEST_F(VornSteadySink_End, TheCallbacks_AreLetGoOf) {
    SteadyClient client(optionsFor(Kind::pipe));
    const CallbackPointer callback = client.callback();
    EXPECT_EQ(callback->refCount(), 3U); // the client's, this one, the container's
    client.destroy();
    EXPECT_EQ(callback->refCount(), 2U);
}

TEST_F(VornSteadySink_End, WhileManySend_LeavesNothingBehind) {
    for (const Kind kind : {Kind::pipe, Kind::socket, Kind::udp}) {
        Traffic traffic(2);
        for (int i = 0; i < 100; ++i) {
            const SteadyClient client(optionsFor(kind));
            traffic.aim(client.address());
            ASSERT_TRUE(client.callback()->awaitCalls(1));
        }
    }
}
