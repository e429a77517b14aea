// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayServices.h"

#include "Await.h"
#include "Posix.h"
#include "Sandbox.h"
#include "ScriptedEngine.h"

#include <cerrno>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

using namespace VornRelay;
using namespace VornTest;
using testing::HasSubstr;

namespace {

/** What one relay tells is told to the other, as often as the test says. */
class Wire : public ScriptedEngine {
public:
    explicit Wire(RelayLoop& loop) : m_loop(loop) { nMostContent = 1'000'000; }

    void tell(const std::string& sSubject, const std::string& sText) override {
        for (int nTimes = onTell ? onTell(sText) : 1; nTimes > 0; --nTimes)
            m_loop.post([this, sSubject, sText] {
                if (*pspOther)
                    (*pspOther)->told(sSubject, sText);
            });
    }

    std::unique_ptr<RelayServices>* pspOther = nullptr;
    std::function<int(const std::string& sText)> onTell;

private:
    RelayLoop& m_loop;
};

/** Host `a` offers a service, which is reached from host `b`; both have this process's pipe directory. */
class RelayServicesTest : public testing::Test {
protected:
    RelayServicesTest() : m_fromA(m_loop), m_fromB(m_loop) {
        m_fromA.pspOther = &m_spB;
        m_fromB.pspOther = &m_spA;
        m_service = unixListen(pipePath("svc"));
        m_spA = create("a", m_fromA);
        m_spB = create("b", m_fromB);
        m_thread = std::thread([this] { m_loop.run(); });
        setConnected(true);
    }

    ~RelayServicesTest() override {
        m_loop.end();
        m_thread.join();
        ::unlink(pipePath("svc").c_str());
    }

    static RelaySettings settingsOf(const std::string& sHost) {
        RelaySettings settings;
        settings.access.sHost = sHost;
        if (sHost == "a")
            settings.offered = {{"svc", "pipe:svc"}, {"absent", "pipe:absent"}};
        else
            settings.reached = {{"svc", "a"}, {"absent", "a"}, {"unknown", "a"}};
        return settings;
    }

    std::unique_ptr<RelayServices> create(const std::string& sHost, Engine& engine) {
        return std::make_unique<RelayServices>(m_loop, engine, settingsOf(sHost));
    }

    /** Connects, and exchanges a byte each way, so that a reset shows. */
    static std::pair<UniqueFd, UniqueFd> connectedPair(const std::string& sName, const UniqueFd& listener) {
        UniqueFd client = connect(sName);
        UniqueFd service = acceptClient(listener.get());
        sendAll(client.get(), "x");
        EXPECT_EQ(receiveExactly(service.get(), 1), "x");
        sendAll(service.get(), "y");
        EXPECT_EQ(receiveExactly(client.get(), 1), "y");
        return {std::move(client), std::move(service)};
    }

    template <typename Function>
    auto onLoop(Function function) {
        std::promise<decltype(function())> result;
        m_loop.post([&] { result.set_value(function()); });
        return result.get_future().get();
    }

    void change(const std::unique_ptr<RelayServices>& spServices, const RelaySettings& settings) {
        onLoop([&] {
            spServices->change(settings);
            return 0;
        });
    }

    void setConnected(bool bConnected) {
        onLoop([&] {
            m_spA->setConnected(bConnected);
            m_spB->setConnected(bConnected);
            return 0;
        });
    }

    static UniqueFd connect(const std::string& sName = "svc@a") { return unixConnect(pipePath(sName)); }

    UniqueFd accept() const { return acceptClient(m_service.get()); }

    /** @return how reading to the end ends: 0, or the error. */
    static int endOf(const UniqueFd& peer) {
        try {
            receiveToEnd(peer.get());
            return 0;
        } catch (const std::system_error& error) {
            return error.code().value();
        }
    }

    nlohmann::json status(const std::unique_ptr<RelayServices>& spServices, const std::string& sService) {
        return onLoop([&] {
            for (const nlohmann::json& service : spServices->status()) {
                if (service["service"] == sService)
                    return service;
            }
            return nlohmann::json();
        });
    }

    bool awaitNoConnections() {
        return awaitCondition([&] {
            return status(m_spA, "svc")["connections"] == 0 && status(m_spB, "svc@a")["connections"] == 0;
        });
    }

    RelayLoop m_loop;
    Wire m_fromA;
    Wire m_fromB;
    UniqueFd m_service;
    std::unique_ptr<RelayServices> m_spA;
    std::unique_ptr<RelayServices> m_spB;
    std::thread m_thread;
};

} // namespace

TEST_F(RelayServicesTest, ManyBytesOfBothDirections_ArriveAndEnd) {
    const std::string sQuestion = manyBytes(3'000'000, 1);
    const std::string sAnswer = manyBytes(2'000'000, 2);
    const UniqueFd client = connect();
    const UniqueFd service = accept();
    const auto send = [](const UniqueFd& peer, const std::string& sBytes) {
        sendAll(peer.get(), sBytes);
        ::shutdown(peer.get(), SHUT_WR);
    };
    WatchedThread asks([&] { send(client, sQuestion); });
    WatchedThread answers([&] { send(service, sAnswer); });
    std::string sReceived;
    WatchedThread reads([&] { sReceived = receiveToEnd(service.get()); });
    EXPECT_EQ(receiveToEnd(client.get()), sAnswer);
    reads.join();
    EXPECT_EQ(sReceived, sQuestion);
    EXPECT_TRUE(awaitNoConnections());
    EXPECT_EQ(status(m_spB, "svc@a")["failure"], "");
    EXPECT_THAT(onLoop([&] {
                    std::string sText;
                    m_spB->printMetrics(sText);
                    return sText;
                }),
                HasSubstr("vornnet_relay_forwarded_bytes_total 3000000\n"));
}

TEST_F(RelayServicesTest, ServiceThatSpeaksFirst_IsHeardAtOnce) {
    const UniqueFd client = connect();
    const auto start = RelayLoop::Clock::now();
    sendAll(accept().get(), "greeting");
    EXPECT_EQ(receiveToEnd(client.get()), "greeting");
    EXPECT_LT(RelayLoop::Clock::now() - start, ForwardedConnection::keepAlive);
}

TEST_F(RelayServicesTest, ClientThatHasEnded_GetsTheAnswer) {
    const UniqueFd client = connect();
    sendAll(client.get(), "question");
    ::shutdown(client.get(), SHUT_WR);
    UniqueFd service = accept();
    EXPECT_EQ(receiveToEnd(service.get()), "question");
    sendAll(service.get(), "answer");
    service.reset();
    EXPECT_EQ(receiveToEnd(client.get()), "answer");
}

TEST_F(RelayServicesTest, WhatGetsLostOnTheWay_ResetsClientAndService) {
    struct Row {
        const char* szWhat;
        int nTimes; // that the next piece of the client is told
        const char* szWhy;
    };

    for (const Row& row : {Row{"lost", 0, "a piece is missing"}, Row{"repeated", 2, "a piece is missing"}}) {
        SCOPED_TRACE(row.szWhat);
        const UniqueFd client = connect();
        const UniqueFd service = accept();
        sendAll(client.get(), "one");
        EXPECT_EQ(receiveExactly(service.get(), 3), "one");
        sendAll(service.get(), "two");
        EXPECT_EQ(receiveExactly(client.get(), 3), "two");
        onLoop([&] {
            m_fromB.onTell = [this, nTimes = row.nTimes](const std::string&) {
                m_fromB.onTell = nullptr;
                return nTimes;
            };
            return 0;
        });
        sendAll(client.get(), "three");
        ASSERT_TRUE(awaitCondition([&] { return onLoop([&] { return !m_fromB.onTell; }); }));
        ::send(client.get(), "four", 4, MSG_NOSIGNAL); // a second piece of the same shows it already
        EXPECT_EQ(endOf(service), ECONNRESET);
        EXPECT_EQ(endOf(client), ECONNRESET);
        EXPECT_TRUE(awaitNoConnections());
        EXPECT_EQ(status(m_spA, "svc")["failure"], row.szWhy);
        EXPECT_EQ(status(m_spB, "svc@a")["failure"], std::string("reset by a: ") + row.szWhy);
    }
}

TEST_F(RelayServicesTest, ServiceThatCannotBeReached_ResetsTheClientAndIsSaid) {
    struct Row {
        const char* szPipe;
        const char* szWhy;
    };

    for (const Row& row : {Row{"absent@a", "reset by a: No such file or directory"},
                           Row{"unknown@a", "reset by a: there is no such service"}}) {
        SCOPED_TRACE(row.szPipe);
        const UniqueFd client = connect(row.szPipe);
        EXPECT_TRUE(awaitCondition([&] { return status(m_spB, row.szPipe)["failure"] == row.szWhy; }));
        EXPECT_EQ(endOf(client), 0) << "it has sent nothing";
    }
    EXPECT_EQ(status(m_spA, "absent")["failure"], "No such file or directory");
}

TEST_F(RelayServicesTest, WithoutTheEngine_ClientsAreRefusedAndConnectionsReset) {
    const UniqueFd client = connect();
    const UniqueFd service = accept();
    sendAll(client.get(), "x");
    EXPECT_EQ(receiveExactly(service.get(), 1), "x");
    sendAll(service.get(), "y");
    EXPECT_EQ(receiveExactly(client.get(), 1), "y");
    EXPECT_EQ(status(m_spB, "svc@a")["state"], "open");
    setConnected(false);
    EXPECT_EQ(endOf(client), ECONNRESET);
    EXPECT_EQ(endOf(service), ECONNRESET);
    EXPECT_EQ(status(m_spB, "svc@a")["state"], "closed");
    EXPECT_THROW(connect(), std::system_error);
    setConnected(true);
    sendAll(connect().get(), "z");
    EXPECT_EQ(receiveToEnd(accept().get()), "z");
}

TEST_F(RelayServicesTest, RelayThatIsStopped_TellsTheOther) {
    const UniqueFd client = connect();
    const UniqueFd service = accept();
    sendAll(client.get(), "x");
    EXPECT_EQ(receiveExactly(service.get(), 1), "x");
    onLoop([&] {
        m_spA->stop();
        return 0;
    });
    EXPECT_EQ(endOf(client), ECONNRESET);
    EXPECT_EQ(status(m_spB, "svc@a")["failure"], "reset by a: the relay was stopped");
    const UniqueFd late = connect();
    EXPECT_TRUE(awaitCondition(
        [&] { return status(m_spB, "svc@a")["failure"] == "reset by a: there is no such service"; }));
}

TEST_F(RelayServicesTest, RelayThatHasStartedAgain_KnowsNoConnectionOfBefore) {
    const UniqueFd client = connect();
    const UniqueFd service = accept();
    sendAll(client.get(), "x");
    EXPECT_EQ(receiveExactly(service.get(), 1), "x");
    onLoop([&] {
        m_fromA.onTell = [](const std::string&) { return 0; }; // as one that is killed
        m_spA.reset();
        m_spA = create("a", m_fromA);
        m_spA->setConnected(true);
        m_fromA.onTell = nullptr;
        return 0;
    });
    sendAll(client.get(), "y");
    EXPECT_EQ(endOf(client), ECONNRESET);
    EXPECT_EQ(status(m_spB, "svc@a")["failure"], "reset by a: there is no such connection");
}

TEST_F(RelayServicesTest, ConnectionThatNobodyReads_HoldsUpNoOther) {
    const UniqueFd hung = connect();
    UniqueFd hungService = accept();
    WatchedThread hangs([&] { sendAll(hung.get(), std::string(8'000'000, 'x')); });
    ASSERT_TRUE(awaitBlockedInIo(hangs.tid()));
    const UniqueFd client = connect();
    const UniqueFd service = accept();
    const std::string sBytes = manyBytes(1'000'000, 3);
    WatchedThread sends([&] {
        sendAll(client.get(), sBytes);
        ::shutdown(client.get(), SHUT_WR);
    });
    EXPECT_EQ(receiveToEnd(service.get()), sBytes);
    EXPECT_FALSE(hangs.finished());
    hungService.reset();
    EXPECT_TRUE(hangs.join());
    EXPECT_TRUE(hangs.exceptionText()) << "it was reset";
}

TEST_F(RelayServicesTest, MoreConnectionsThanAllowed_AreRefused) {
    std::vector<UniqueFd> clients;
    for (std::size_t i = 0; i < RelayServices::mostConnections; ++i)
        clients.push_back(connect());
    const UniqueFd tooMany = connect();
    EXPECT_EQ(endOf(tooMany), 0) << "it has sent nothing";
    EXPECT_EQ(status(m_spB, "svc@a")["failure"], "too many connections");
    clients.clear();
    m_service.reset();
    EXPECT_TRUE(awaitNoConnections());
}

TEST_F(RelayServicesTest, MoreOpeningsThanAllowed_AreRefused) {
    std::vector<std::string> answers;
    onLoop([&] {
        m_fromA.onTell = [&](const std::string& sText) {
            answers.emplace_back(ForwardPiece::of(sText)->sBytes);
            return 0;
        };
        for (std::size_t i = 0; i <= RelayServices::mostConnections; ++i)
            m_spA->told(ForwardSubject{true, "a", "b", "svc", std::to_string(i)}.text(),
                        ForwardPiece{ForwardPiece::opens, 0, 0, ""}.text());
        return 0;
    });
    EXPECT_EQ(answers.back(), "too many connections");
    EXPECT_EQ(status(m_spA, "svc")["connections"], RelayServices::mostConnections);
}

TEST_F(RelayServicesTest, NameInUse_IsSaidAndTriedAgain) {
    setConnected(false);
    UniqueFd other = unixListen(pipePath("svc@a"));
    setConnected(true);
    EXPECT_TRUE(awaitCondition([&] {
        return status(m_spB, "svc@a")["failure"].get<std::string>().starts_with("its pipe cannot be opened");
    }));
    other.reset();
    EXPECT_TRUE(awaitCondition([&] { return status(m_spB, "svc@a")["state"] == "open"; }));
}

TEST_F(RelayServicesTest, PieceOfNoConnection_IsAnsweredUnlessItIsAnAnswer) {
    std::vector<std::string> answers;
    onLoop([&] {
        m_fromA.onTell = [&](const std::string& sText) {
            answers.push_back(sText);
            return 0;
        };
        const std::string sSubject = ForwardSubject{true, "a", "b", "svc", "7"}.text();
        EXPECT_TRUE(m_spA->told(sSubject, ForwardPiece{ForwardPiece::resets, 0, 0, "?"}.text()));
        EXPECT_TRUE(m_spA->told(sSubject, "\2 of another version"));
        EXPECT_TRUE(m_spA->told(sSubject, ""));
        EXPECT_TRUE(answers.empty()) << "two relays would answer each other without end";
        EXPECT_TRUE(m_spA->told(sSubject, ForwardPiece{0, 5, 5, "late"}.text()));
        EXPECT_FALSE(m_spA->told("vorn.gone.b", "7"));
        return 0;
    });
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(ForwardPiece::of(answers[0])->sBytes, "there is no such connection");
}

TEST_F(RelayServicesTest, ChangedConfiguration_OpensWhatIsNewEndsWhatIsGoneAndTouchesNothingElse) {
    const UniqueFd other = unixListen(pipePath("other"));
    RelaySettings a = settingsOf("a");
    RelaySettings b = settingsOf("b");
    const auto [client, service] = connectedPair("svc@a", m_service);
    a.offered["more"] = "pipe:other";
    b.reached.emplace_back("more", "a");
    change(m_spA, a);
    change(m_spB, b);
    EXPECT_EQ(m_fromB.listenedTo.count("vorn.offer.b.a.more.*"), 1U);
    const auto [second, secondService] = connectedPair("more@a", other);

    a.offered["more"] = "pipe:svc"; // has moved
    change(m_spA, a);
    EXPECT_EQ(endOf(second), ECONNRESET);
    EXPECT_EQ(endOf(secondService), ECONNRESET);
    EXPECT_EQ(status(m_spB, "more@a")["failure"],
              "reset by a: the service was taken out of the configuration");
    const auto [third, thirdService] = connectedPair("more@a", m_service);

    change(m_spB, settingsOf("b"));
    EXPECT_EQ(endOf(third), ECONNRESET);
    EXPECT_EQ(endOf(thirdService), ECONNRESET);
    EXPECT_THROW(connect("more@a"), std::system_error);
    EXPECT_EQ(m_fromB.listenedTo.count("vorn.offer.b.a.more.*"), 0U);
    EXPECT_TRUE(status(m_spB, "more@a").is_null());

    sendAll(client.get(), "still");
    EXPECT_EQ(receiveExactly(service.get(), 5), "still");
    EXPECT_EQ(status(m_spB, "svc@a")["failure"], "");
    ::unlink(pipePath("other").c_str());
}

TEST_F(RelayServicesTest, AddedName_ThatIsInUse_StopsNoOther) {
    const UniqueFd other = unixListen(pipePath("first@a"));
    RelaySettings b = settingsOf("b");
    b.reached = {{"first", "a"}, {"second", "a"}};
    change(m_spB, b);
    EXPECT_EQ(status(m_spB, "first@a")["state"], "closed");
    EXPECT_EQ(status(m_spB, "second@a")["state"], "open");
    ::unlink(pipePath("first@a").c_str());
}
