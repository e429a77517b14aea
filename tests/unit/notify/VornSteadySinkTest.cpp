// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * What a sink does with a notification, whatever its transport.
 */

#include "Process.h"
#include "SteadySinkPeer.h"

#include <algorithm>
#include <csignal>
#include <cstdio>

#include <VornBufferConnection.h>
#include <VornException.h>
#include <VornProxyDependent.h>
#include <fcntl.h>
#include <gmock/gmock.h>

using namespace VornTest;

namespace {

using testing::ElementsAre;
using testing::MatchesRegex;
using testing::Values;
using VornNet::VornBufferConnection;
using VornNet::VornConnection;
using VornNet::VornSmartPointer;

using Connection = VornSmartPointer<VornConnection>;
using Sink = VornNet::VornSteadySink;

class VornSteadySink : public NotificationTest {};

class VornSteadySink_OfAnyKind : public NotificationTestOfKind {};

INSTANTIATE_TEST_SUITE_P(Kind, VornSteadySink_OfAnyKind, Values(Kind::pipe, Kind::socket, Kind::udp),
                         testing::PrintToStringParamName());

/** What a callback is told of its sender: the name, whether it is local, and its access rights. */
std::string sender(const Connection& connection) {
    return connection->getRemoteName() + "|" + std::to_string(connection->getLocalAccess()) + "|" +
           std::to_string(connection->getAccessRights());
}

/** Notifications of a proxy, each with its id, from a process of its own; a line of input starts it. */
int notifyFrom(const std::vector<std::string>& args) {
    std::signal(SIGPIPE, SIG_IGN);
    VornNet::VornProxyDependent proxy(args.at(0), std::stol(args.at(1)));
    const int count = std::stoi(args.at(2));
    std::getchar();
    try {
        for (int i = 0; i < count; ++i)
            proxy.remoteNotify(VornSupport::VornNotification(i));
    } catch (const VornSupport::VornException&) {
        return 1;
    }
    return 0;
}

} // namespace

KIT_ROLE(steadyNotifier) {
    return notifyFrom(args);
}

TEST_P(VornSteadySink_OfAnyKind, ANotificationOfAProxy_CallsTheCallbackWithWhatTheProxyWrote) {
    const SteadyClient client(optionsFor(GetParam()));
    ChildProcess service = ChildProcess::spawnRole("steadyNotifier", client.address(), "0", "1");
    service.writeLine("go");
    ASSERT_EQ(service.wait(), 0);
    EXPECT_THAT(client.awaitContents(1), ElementsAre(onWire(0)));
}

TEST_P(VornSteadySink_OfAnyKind, TheCallback_GetsAConnectionInMemoryWithTheContentAndNoHandle) {
    std::string type;
    const SteadyClient client(optionsFor(GetParam()), [&](Connection& connection) {
        auto* inMemory = dynamic_cast<VornBufferConnection*>(static_cast<VornConnection*>(connection));
        type = inMemory == nullptr ? "another" : "in memory, " + std::to_string(inMemory->size());
        return readToEnd(*connection);
    });
    sendByHand(client.address(), onWire(0) + "content");
    ASSERT_TRUE(client.callback()->awaitCalls(1));
    EXPECT_EQ(type, "in memory, 7");
    EXPECT_THAT(client.callback()->contents(), ElementsAre("content"));
}

TEST_P(VornSteadySink_OfAnyKind, AHandleAndNothingElse_IsANotificationWithoutContent) {
    int size = -1;
    const SteadyClient client(optionsFor(GetParam()), [&](Connection& connection) {
        size = dynamic_cast<VornBufferConnection&>(*connection).size();
        return readToEnd(*connection);
    });
    sendByHand(client.address(), onWire(0));
    ASSERT_TRUE(client.callback()->awaitCalls(1));
    EXPECT_EQ(size, 0);
    EXPECT_THAT(client.callback()->contents(), ElementsAre(""));
}

TEST_P(VornSteadySink_OfAnyKind, ACallbackThatReadsNothing_DoesNoHarm) {
    const SteadyClient client(optionsFor(GetParam()), [](Connection&) { return "called"; });
    for (int i = 1; i <= 3; ++i) {
        sendByHand(client.address(), onWire(0) + std::string(1000, 'x'));
        ASSERT_TRUE(client.callback()->awaitCalls(i));
    }
    EXPECT_TRUE(client.await(&SteadyStatistics::nDelivered, std::uint64_t{3}));
}

TEST_P(VornSteadySink_OfAnyKind, AConnectionThatTheCallbackKeeps_CanBeReadLater) {
    Connection kept;
    SteadyClient client(optionsFor(GetParam()), [&](Connection& connection) {
        kept = connection;
        return "kept";
    });
    sendByHand(client.address(), onWire(0) + onWire(4711));
    ASSERT_TRUE(client.callback()->awaitCalls(1));
    client.destroy();
    EXPECT_EQ(kept->receiveLong(), 4711);
}

TEST_P(VornSteadySink_OfAnyKind, TheUpperHalfOfAHandle_IsNotLookedAt) {
    const SteadyClient client(optionsFor(GetParam()));
    sendByHand(client.address(), bytes("00 00 00 00 12 34 56 78") + "x");
    ASSERT_TRUE(client.callback()->awaitCalls(1));
}

TEST_P(VornSteadySink_OfAnyKind, ANegativeId_FindsItsCallback) {
    const SteadyClient client(optionsFor(GetParam()));
    CallbackPointer callback = new RecordingCallback(-2, {});
    client->getCallbackContainer().add(static_cast<VornNet::VornNotificationCallback*>(callback));
    sendByHand(client.address(), bytes("ff ff ff fe 00 00 00 00") + "x");
    ASSERT_TRUE(callback->awaitCalls(1));
}

TEST_P(VornSteadySink_OfAnyKind, AnUnknownId_IsCountedAndNothingIsCalled) {
    const SteadyClient client(optionsFor(GetParam()));
    sendByHand(client.address(), onWire(1) + "x");
    ASSERT_TRUE(client.await(&SteadyStatistics::nUnknown, std::uint64_t{1}));
    EXPECT_EQ(client.callback()->calls(), 0);
}

TEST_P(VornSteadySink_OfAnyKind, ARemovedCallback_IsNotCalledAnyMore) {
    HeldCallback held;
    const SteadyClient client(optionsFor(GetParam()), held.action());
    const CallbackPointer second = client.add();
    sendByHand(client.address(), onWire(0));
    ASSERT_TRUE(held.awaitEntered());
    sendByHand(client.address(), onWire(1));
    ASSERT_TRUE(client.await(&SteadyStatistics::nWaiting, std::size_t{2}));
    WatchedThread remover([&] { client->getCallbackContainer().remove(1); });
    ASSERT_TRUE(awaitBlockedOnLock(remover.tid())); // while a callback runs, the container is locked
    held.letGoOn();
    ASSERT_TRUE(remover.join());
    const int before = second->calls();
    ASSERT_TRUE(client.await(&SteadyStatistics::nWaiting, std::size_t{0}));
    EXPECT_EQ(second->calls(), before);
}

TEST_P(VornSteadySink_OfAnyKind, TheCallbacks_RunOnOneThreadOfTheSinksOneAtATime) {
    std::vector<pid_t> threads;
    const auto action = [&](Connection&) {
        threads.push_back(currentTid());
        return "";
    };
    const SteadyClient client(optionsFor(GetParam()), action);
    const CallbackPointer second = client.add(action);
    for (int i = 0; i < 10; ++i) {
        sendByHand(client.address(), onWire(i % 2));
        ASSERT_TRUE(client.await(&SteadyStatistics::nDelivered, std::uint64_t(i) + 1));
    }
    ASSERT_EQ(threads.size(), 10U);
    EXPECT_TRUE(std::all_of(threads.begin(), threads.end(), [&](pid_t tid) { return tid == threads[0]; }));
    EXPECT_NE(threads[0], currentTid());
    EXPECT_EQ(readTextFile("/proc/self/task/" + std::to_string(threads[0]) + "/comm"), "sink\n");
}

TEST_P(VornSteadySink_OfAnyKind, ACallback_MayAddRemoveAndAskForNumbers) {
    std::unique_ptr<SteadyClient> client;
    SteadyStatistics seen;
    client = std::make_unique<SteadyClient>(optionsFor(GetParam()), [&](Connection&) {
        seen = client->statistics();
        client->add();
        (*client)->getCallbackContainer().remove(0);
        return (*client)->getCallbackAddress();
    });
    const CallbackPointer callback = client->callback();
    sendByHand(client->address(), onWire(0));
    ASSERT_TRUE(callback->awaitCalls(1));
    EXPECT_EQ(seen.nWaiting, 1U);
    EXPECT_EQ(seen.nDelivered, 0U);
    EXPECT_EQ(callback->contents().front(), client->address());
}

TEST_P(VornSteadySink_OfAnyKind, Threads_HaveTheModulesNameCutTo15BytesAndAllSignalsBlocked) {
    const Sink sink("a module name that is long", optionsFor(GetParam()));
    int count = 0;
    for (const pid_t tid : threadIds()) {
        const std::string task = "/proc/self/task/" + std::to_string(tid) + "/";
        if (readTextFile(task + "comm") != "a module name t\n")
            continue;
        ++count;
        const std::string status = readTextFile(task + "status");
        const std::string blocked = status.substr(status.find("SigBlk:\t") + 8, 16);
        // SIGKILL, SIGSTOP and the two that the C library keeps for itself cannot be blocked.
        EXPECT_EQ(blocked, "fffffffe7ffbfeff");
    }
    EXPECT_EQ(count, 2);
}

TEST_P(VornSteadySink_OfAnyKind, Descriptors_AreCloseOnExec) {
    const auto before = descriptorTable();
    const SteadyClient client(optionsFor(GetParam()));
    for (const auto& [fd, what] : descriptorTable()) {
        if (before.count(fd) == 0) {
            EXPECT_EQ(::fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << fd << " " << what;
        }
    }
}

TEST_P(VornSteadySink_OfAnyKind, SeveralSinksInAProcess_DoNotMeet) {
    const SteadyClient first(optionsFor(GetParam()));
    const SteadyClient second(optionsFor(GetParam()));
    EXPECT_NE(first.address(), second.address());
    sendByHand(first.address(), onWire(0) + "first");
    sendByHand(second.address(), onWire(0) + "second");
    ASSERT_TRUE(first.callback()->awaitCalls(1));
    ASSERT_TRUE(second.callback()->awaitCalls(1));
    EXPECT_THAT(first.callback()->contents(), ElementsAre("first"));
    EXPECT_THAT(second.callback()->contents(), ElementsAre("second"));
}

TEST_P(VornSteadySink_OfAnyKind, TheConstructorWithoutOptions_TakesTheKindFromTheEnvironment) {
    useKind(GetParam());
    const Sink sink("sink");
    const std::string port = ":127\\.0\\.0\\.1:[1-9][0-9]+";
    EXPECT_THAT(sink.getCallbackAddress(),
                MatchesRegex(GetParam() == Kind::pipe ? "pipe:quorax[0-9a-f]+-[0-9a-f]{8}"
                                                      : nameOf(GetParam()) + port));
}

TEST_F(VornSteadySink, AnUnknownKindInTheEnvironment_IsAPipe) {
    for (const char* type : {"Socket", "UDP", "tcp", ""}) {
        useTypeText(type);
        EXPECT_THAT(Sink("sink").getCallbackAddress(), testing::StartsWith("pipe:")) << type;
    }
}

TEST_F(VornSteadySink, APipesConnection_IsLocalAndHasAccessRights7AndNoName) {
    const SteadyClient client(optionsFor(Kind::pipe), sender);
    sendByHand(client.address(), onWire(0));
    EXPECT_THAT(client.awaitContents(1), ElementsAre("|1|7"));
}

TEST_F(VornSteadySink, OverTcp_TheNameIsTheSendersAddressAndOnly127001IsLocal) {
    const SteadyClient client(optionsFor(Kind::socket), sender);
    const Target target(client.address());
    for (const char* source : {"127.0.0.1", "127.0.0.2"})
        sendAll(tcpConnect(target.place, target.port, source).get(), onWire(0));
    EXPECT_THAT(client.awaitContents(2), ElementsAre("127.0.0.1|1|1", "127.0.0.2|0|1"));
}

TEST_F(VornSteadySink, OverUdp_TheNameIsTheSendersAddressAnd127001IsNotLocal) {
    const SteadyClient client(optionsFor(Kind::udp), sender);
    const Target target(client.address());
    int port = 0;
    udpSendTo(udpSocket("127.0.0.3", port).get(), target.place, target.port, onWire(0));
    port = 0;
    udpSendTo(udpSocket("127.0.0.1", port).get(), target.place, target.port, onWire(0));
    EXPECT_THAT(client.awaitContents(2), ElementsAre("127.0.0.3|0|1", "127.0.0.1|0|1"));
}

TEST_F(VornSteadySink, WhatTheCallbackWrites_IsNotSent) {
    for (const Kind kind : {Kind::pipe, Kind::socket}) {
        const SteadyClient client(optionsFor(kind), [](Connection& connection) {
            connection->transfer("an answer");
            return "";
        });
        EXPECT_EQ(deliverTo(client.address(), "content"), "end");
    }
}

TEST_F(VornSteadySink, ANotificationOfManyMegabytes_ArrivesWhole) {
    std::string content(15 * 1024 * 1024, '\0');
    for (std::size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<char>(i * 7 + i / 1000);
    for (const Kind kind : {Kind::pipe, Kind::socket}) {
        bool isEqual = false;
        const SteadyClient client(optionsFor(kind), [&](Connection& connection) {
            const auto& block = dynamic_cast<VornBufferConnection&>(*connection);
            isEqual = std::string_view(static_cast<const char*>(block.buf()),
                                       static_cast<std::size_t>(block.size())) == content;
            return "";
        });
        EXPECT_EQ(deliverTo(client.address(), content), "end");
        ASSERT_TRUE(client.callback()->awaitCalls(1));
        EXPECT_TRUE(isEqual) << nameOf(kind);
    }
}

TEST_F(VornSteadySink, ADatagramOfTheLongestLength_ArrivesWhole) {
    const SteadyClient client(optionsFor(Kind::udp));
    const std::string content(65'507 - 8, 'u');
    sendByHand(client.address(), onWire(0) + content);
    ASSERT_TRUE(client.callback()->awaitCalls(1));
    EXPECT_EQ(client.callback()->contents().front(), content);
}

TEST_F(VornSteadySink, AStreamInSingleBytes_ArrivesWhole) {
    for (const Kind kind : {Kind::pipe, Kind::socket}) {
        const SteadyClient client(optionsFor(kind));
        const UniqueFd fd = connectToSink(client.address());
        for (const char byte : onWire(0) + "content")
            sendAll(fd.get(), std::string(1, byte));
        endSending(fd.get());
        EXPECT_EQ(endingOf(fd.get()), "end");
        EXPECT_THAT(client.callback()->contents(), ElementsAre("content"));
    }
}

TEST_F(VornSteadySink, ABurstWhileACallbackRuns_WaitsAndArrivesInOrder) {
    for (const Kind kind : {Kind::pipe, Kind::socket, Kind::udp}) {
        HeldCallback held;
        const SteadyClient client(optionsFor(kind), held.action());
        constexpr int count = 500;
        for (int i = 0; i < count; ++i)
            sendByHand(client.address(), onWire(0) + std::to_string(i));
        ASSERT_TRUE(held.awaitEntered());
        ASSERT_TRUE(client.await(&SteadyStatistics::nWaiting, std::size_t{count}));
        held.letGoOn();
        ASSERT_TRUE(client.callback()->awaitCalls(count));
        const std::vector<std::string> contents = client.callback()->contents();
        for (int i = 0; i < count; ++i)
            ASSERT_EQ(contents[static_cast<std::size_t>(i)], std::to_string(i)) << nameOf(kind);
    }
}

TEST_F(VornSteadySink, BurstsOfEightProcesses_ArriveWholeAndEachInOrder) {
    constexpr int senders = 8;
    constexpr int count = 1'000;
    for (const Kind kind : {Kind::pipe, Kind::socket}) {
        const SteadyClient client(optionsFor(kind));
        std::vector<CallbackPointer> callbacks = {client.callback()};
        while (callbacks.size() < senders)
            callbacks.push_back(client.add());
        std::vector<ChildProcess> services;
        for (int i = 0; i < senders; ++i)
            services.push_back(ChildProcess::spawnRole("steadyNotifier", client.address(), std::to_string(i),
                                                       std::to_string(count)));
        for (ChildProcess& service : services)
            service.writeLine("go");
        for (ChildProcess& service : services)
            ASSERT_EQ(service.wait(), 0);
        ASSERT_TRUE(client.await(&SteadyStatistics::nDelivered, std::uint64_t{senders * count}))
            << client.statistics().nDelivered;
        for (const CallbackPointer& callback : callbacks) {
            const std::vector<std::string> contents = callback->contents();
            ASSERT_EQ(contents.size(), std::size_t{count});
            for (int i = 0; i < count; ++i)
                ASSERT_EQ(contents[static_cast<std::size_t>(i)], onWire(i)) << nameOf(kind);
        }
    }
}
