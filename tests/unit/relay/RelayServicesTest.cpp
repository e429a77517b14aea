// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayServices.h"

#include "Await.h"
#include "Posix.h"
#include "Sandbox.h"
#include "ScriptedEngine.h"

#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>

using namespace VornRelay;
using namespace VornTest;

namespace {

/** What one relay tells is told to the other, unless the test hears it in its place. */
class Wire : public ScriptedEngine {
public:
    explicit Wire(RelayLoop& loop) : m_loop(loop) { nMostContent = 1'000'000; }

    void tell(const std::string& sSubject, const std::string& sText) override {
        if (onTell) {
            onTell(sText);
            return;
        }
        m_loop.post([this, sSubject, sText] {
            if (*pspOther)
                (*pspOther)->told(sSubject, sText);
        });
    }

    std::unique_ptr<RelayServices>* pspOther = nullptr;
    std::function<void(const std::string& sText)> onTell;

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
    std::pair<UniqueFd, UniqueFd> connectedPair() const { return connectedPair("svc@a", m_service); }

    static std::pair<UniqueFd, UniqueFd> connectedPair(const std::string& sName, const UniqueFd& listener) {
        UniqueFd client = connect(sName);
        UniqueFd service = acceptClient(listener.get());
        sendAll(client.get(), "x");
        EXPECT_EQ(receiveExactly(service.get(), 1), "x");
        sendAll(service.get(), "y");
        EXPECT_EQ(receiveExactly(client.get(), 1), "y");
        return {std::move(client), std::move(service)};
    }

    void change(const std::unique_ptr<RelayServices>& spServices, const RelaySettings& settings) {
        onLoop(m_loop, [&] { spServices->change(settings); });
    }

    void setConnected(bool bConnected) {
        onLoop(m_loop, [&] {
            m_spA->setConnected(bConnected);
            m_spB->setConnected(bConnected);
        });
    }

    static UniqueFd connect(const std::string& sName = "svc@a") { return unixConnect(pipePath(sName)); }

    UniqueFd accept() const { return acceptClient(m_service.get()); }

    nlohmann::json status(const std::unique_ptr<RelayServices>& spServices, const std::string& sService) {
        return onLoop(m_loop, [&] {
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

TEST_F(RelayServicesTest, ServiceThatSpeaksFirst_IsHeardAtOnce) {
    const UniqueFd client = connect();
    const auto start = RelayLoop::Clock::now();
    sendAll(accept().get(), "greeting");
    EXPECT_EQ(receiveToEnd(client.get()), "greeting");
    EXPECT_LT(RelayLoop::Clock::now() - start, ForwardedConnection::keepAlive);
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
    const auto [client, service] = connectedPair();
    EXPECT_EQ(status(m_spB, "svc@a")["state"], "open");
    setConnected(false);
    EXPECT_EQ(endOf(client), ECONNRESET);
    EXPECT_EQ(endOf(service), ECONNRESET);
    EXPECT_EQ(status(m_spB, "svc@a")["state"], "closed");
    EXPECT_THROW(connect(), std::system_error);
    setConnected(true);
    connectedPair();
}

TEST_F(RelayServicesTest, RelayThatIsStopped_TellsTheOther) {
    const auto [client, service] = connectedPair();
    onLoop(m_loop, [&] { m_spA->stop(); });
    EXPECT_EQ(endOf(client), ECONNRESET);
    EXPECT_EQ(status(m_spB, "svc@a")["failure"], "reset by a: the relay was stopped");
    const UniqueFd late = connect();
    EXPECT_TRUE(awaitCondition(
        [&] { return status(m_spB, "svc@a")["failure"] == "reset by a: there is no such service"; }));
}

TEST_F(RelayServicesTest, RelayThatHasStartedAgain_KnowsNoConnectionOfBefore) {
    const auto [client, service] = connectedPair();
    onLoop(m_loop, [&] {
        m_fromA.onTell = [](const std::string&) {}; // as one that is killed
        m_spA.reset();
        m_spA = create("a", m_fromA);
        m_spA->setConnected(true);
        m_fromA.onTell = nullptr;
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
    onLoop(m_loop, [&] {
        m_fromA.onTell = [&](const std::string& sText) {
            answers.emplace_back(ForwardPiece::of(sText)->sBytes);
        };
        for (std::size_t i = 0; i <= RelayServices::mostConnections; ++i)
            m_spA->told(ForwardSubject{true, "a", "b", "svc", std::to_string(i)}.text(),
                        ForwardPiece{ForwardPiece::opens, 0, 0, ""}.text());
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
    onLoop(m_loop, [&] {
        m_fromA.onTell = [&](const std::string& sText) { answers.push_back(sText); };
        const std::string sSubject = ForwardSubject{true, "a", "b", "svc", "7"}.text();
        EXPECT_TRUE(m_spA->told(sSubject, ForwardPiece{ForwardPiece::resets, 0, 0, "?"}.text()));
        EXPECT_TRUE(m_spA->told(sSubject, "\2 of another version"));
        EXPECT_TRUE(m_spA->told(sSubject, ""));
        EXPECT_TRUE(answers.empty()) << "two relays would answer each other without end";
        EXPECT_TRUE(m_spA->told(sSubject, ForwardPiece{0, 5, 5, "late"}.text()));
        EXPECT_FALSE(m_spA->told("vorn.gone.b", "7"));
    });
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(ForwardPiece::of(answers[0])->sBytes, "there is no such connection");
}

TEST_F(RelayServicesTest, ChangedConfiguration_OpensWhatIsNewEndsWhatIsGoneAndTouchesNothingElse) {
    const UniqueFd other = unixListen(pipePath("other"));
    RelaySettings a = settingsOf("a");
    RelaySettings b = settingsOf("b");
    const auto [client, service] = connectedPair();
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
