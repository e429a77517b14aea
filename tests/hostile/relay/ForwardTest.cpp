// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "Posix.h"
#include "RelayStage.h"

#include <VornNotification.h>
#include <VornPipeConnection.h>
#include <VornPipeServer.h>
#include <VornProxyDependent.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <string>
#include <system_error>

#include <gmock/gmock.h>
#include <sys/socket.h>

using namespace VornNet;
using namespace VornSupport;
using namespace VornTest;
using testing::HasSubstr;

namespace {

constexpr std::size_t cMany = 4'000'000;

/** A service of host `a` that clients of host `b` reach. */
class ForwardTest : public testing::Test {
protected:
    ForwardTest() {
        m_stage.startRelay("a", "offer = typed=pipe:typed, plain=pipe:plain\n");
        m_stage.startRelay("b", "reach = typed@a, plain@a\n");
    }

    static UniqueFd listenAt(const std::string& sHost, const std::string& sPipe) {
        return unixListen(pathOf(sHost, sPipe));
    }

    static UniqueFd connectTo(const std::string& sHost, const std::string& sPipe) {
        return unixConnect(pathOf(sHost, sPipe));
    }

    static std::string pathOf(const std::string& sHost, const std::string& sPipe) {
        return RelayStage::pathOf("pipes-" + sHost + "/" + sPipe);
    }

    RelayStage m_stage;
};

/** @return how reading to the end ends: 0, or the error. */
int endOf(const UniqueFd& peer) {
    try {
        receiveToEnd(peer.get());
        return 0;
    } catch (const std::system_error& error) {
        return error.code().value();
    }
}

} // namespace

/** Takes subscriptions: confirms each, and notifies the address that it was given. */
KIT_ROLE(relay_typed_service) {
    RelayStage::enterHost(args.at(0));
    VornPipeServer server("typed");
    std::cout << "listens" << std::endl;
    for (;;) {
        const VornSmartPointer<VornConnection> spClient = server.waitForClient(false);
        const VornString sAddress = spClient->receiveString();
        const long nHandle = spClient->receiveLong();
        spClient->transfer(VornString("subscribed"));
        spClient->transfer(nHandle);
        const VornSmartPointer<VornProxyDependent> spProxy = new VornProxyDependent(sAddress, nHandle);
        for (int n = 1; n <= 5; ++n)
            spProxy->remoteNotify(VornNotification(n));
    }
}

KIT_ROLE(relay_typed_client) {
    RelayStage::enterHost(args.at(0));
    VornPipeConnection service("typed@a");
    service.establish();
    service.transfer(VornString(args.at(1).c_str()));
    service.transfer(std::stol(args.at(2)));
    std::cout << service.receiveString() << " ";
    std::cout << service.receiveLong() << std::endl;
    return 0;
}

TEST_F(ForwardTest, ClientSubscribesAtAServiceOfTheOtherHost_AndIsNotifiedThroughALease) {
    ChildProcess service = ChildProcess::spawnRole("relay_typed_service", "a");
    ASSERT_EQ(service.readLine(), "listens");
    ChildProcess sink = m_stage.startSink("b", "", "log");
    const std::string sLease = sink.readLine();
    const std::size_t nBlank = sLease.find(' ');
    ChildProcess client = ChildProcess::spawnRole("relay_typed_client", "b", sLease.substr(0, nBlank),
                                                  sLease.substr(nBlank + 1));
    EXPECT_EQ(client.readLine(), "subscribed " + sLease.substr(nBlank + 1));
    m_stage.expectEachOnceInOrder("log", 5);
}

TEST_F(ForwardTest, BytesArriveWholeOrAreReset_WhateverHappensToTheEngine) {
    const std::string sQuestion = manyBytes(cMany, 1);
    const std::string sAnswer = manyBytes(cMany, 2);
    const UniqueFd listener = listenAt("a", "plain");
    {
        const UniqueFd client = connectTo("b", "plain@a");
        const UniqueFd service = acceptClient(listener.get());
        WatchedThread asks([&] {
            sendAll(client.get(), sQuestion);
            ::shutdown(client.get(), SHUT_WR);
        });
        WatchedThread answers([&] {
            sendAll(service.get(), sAnswer);
            ::shutdown(service.get(), SHUT_WR);
        });
        std::string sReceived;
        WatchedThread reads([&] { sReceived = receiveToEnd(service.get()); });
        EXPECT_EQ(receiveToEnd(client.get()), sAnswer);
        reads.join();
        EXPECT_EQ(sReceived, sQuestion);
        EXPECT_THAT(RelayStage::metricsOf("b"), HasSubstr("forwarded_bytes_total 4000000\n"));
    }
    const UniqueFd client = connectTo("b", "plain@a");
    const UniqueFd service = acceptClient(listener.get());
    sendAll(service.get(), "greeting");
    EXPECT_EQ(receiveExactly(client.get(), 8), "greeting");
    sendAll(client.get(), sQuestion.substr(0, 100'000)); // and nobody reads it yet
    m_stage.killEngine();
    EXPECT_EQ(endOf(client), ECONNRESET);
    EXPECT_EQ(endOf(service), ECONNRESET);
    EXPECT_TRUE(m_stage.awaitStatus("b", "service plain@a at pipe:plain@a: closed"));
    EXPECT_THROW(connectTo("b", "plain@a"), std::system_error);
    m_stage.startEngine();
    UniqueFd again;
    EXPECT_TRUE(awaitCondition([&] {
        try {
            again = connectTo("b", "plain@a");
            return true;
        } catch (const std::system_error&) {
            return false;
        }
    }));
    sendAll(again.get(), "again");
    EXPECT_EQ(receiveExactly(acceptClient(listener.get()).get(), 5), "again");
}

TEST_F(ForwardTest, RelayThatIsStoppedOrKilled_ResetsBothEnds) {
    const UniqueFd listener = listenAt("a", "plain");
    for (const int nSignal : {SIGKILL, SIGTERM}) {
        SCOPED_TRACE(nSignal);
        const UniqueFd client = connectTo("b", "plain@a");
        const UniqueFd service = acceptClient(listener.get());
        sendAll(client.get(), "question");
        EXPECT_EQ(receiveExactly(service.get(), 8), "question");
        sendAll(service.get(), "answer");
        EXPECT_EQ(receiveExactly(client.get(), 6), "answer");
        m_stage.endRelay("a", nSignal);
        EXPECT_EQ(endOf(service), ECONNRESET);
        if (nSignal == SIGKILL) {
            m_stage.startRelay("a", "offer = plain=pipe:plain\n");
            ::send(client.get(), "more", 4, MSG_NOSIGNAL); // else the next sign of life tells
        }
        EXPECT_EQ(endOf(client), ECONNRESET);
    }
}

TEST_F(ForwardTest, ServiceThatIsAddedByAReload_IsReachedWhileConnectionsGoOn) {
    const UniqueFd plain = listenAt("a", "plain");
    const UniqueFd typed = listenAt("a", "typed");
    m_stage.reloadRelay("a", "offer = plain=pipe:plain\n");
    m_stage.reloadRelay("b", "reach = plain@a\n");
    ASSERT_TRUE(awaitCondition([&] { return !std::filesystem::exists(pathOf("b", "typed@a")); }));
    const UniqueFd client = connectTo("b", "plain@a");
    const UniqueFd service = acceptClient(plain.get());

    m_stage.reloadRelay("b", "reach = typed@a, plain@a\n");
    m_stage.reloadRelay("a", "offer = typed=pipe:typed, plain=pipe:plain\n");
    ASSERT_TRUE(awaitCondition(
        [&] { return m_stage.run("a", {"status"}).first.find("service typed at ") != std::string::npos; }));
    ASSERT_TRUE(awaitCondition([&] { return std::filesystem::exists(pathOf("b", "typed@a")); }));
    const UniqueFd second = connectTo("b", "typed@a");
    sendAll(second.get(), "question");
    const UniqueFd secondService = acceptClient(typed.get());
    EXPECT_EQ(receiveExactly(secondService.get(), 8), "question");
    sendAll(secondService.get(), "answer");
    EXPECT_EQ(receiveExactly(second.get(), 6), "answer") << "the added subject is listened to";

    m_stage.reloadRelay("b", "reach = plain@a\n");
    EXPECT_EQ(endOf(second), ECONNRESET);
    EXPECT_EQ(endOf(secondService), ECONNRESET);
    sendAll(service.get(), "still");
    EXPECT_EQ(receiveExactly(client.get(), 5), "still");
    m_stage.reloadRelay("b", "offer = plain\n");
    EXPECT_TRUE(awaitCondition(
        [&] { return m_stage.logOf("b").find("the configuration stays as it was: ") != std::string::npos; }));
    sendAll(client.get(), "too");
    EXPECT_EQ(receiveExactly(service.get(), 3), "too");
}
