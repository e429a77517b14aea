// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ServicePipe.h"

#include "Sandbox.h"
#include "ScriptedEngine.h"

#include <cerrno>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

using namespace VornRelay;
using namespace VornTest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/** A pipe on a thread of its own; the test is the service. */
class ServicePipeTest : public testing::Test, private ServicePipe::Owner {
protected:
    ServicePipeTest() : m_pipe(m_loop, "relay-x", *this) {}

    // The thread calls this object's virtual functions, so it runs only while the object is whole.
    void SetUp() override {
        m_pipe.open();
        m_thread = std::thread([this] { m_loop.run(); });
    }

    void TearDown() override {
        m_loop.end();
        m_thread.join();
    }

    bool awaitAccepted(std::size_t nCount) {
        return awaitCondition([&] { return onLoop(m_loop, [&] { return m_exchanges.size(); }) == nCount; });
    }

    void answer(std::size_t nExchange, bool bStored) {
        onLoop(m_loop, [&] { m_handlers[nExchange](bStored); });
    }

    static UniqueFd connect() { return unixConnect(pipePath("relay-x")); }

    RelayLoop m_loop;
    std::vector<std::string> m_exchanges;
    std::vector<ServicePipe::DoneHandler> m_handlers;
    int m_nBroken = 0;
    int m_nTooLong = 0;
    ServicePipe m_pipe;
    std::thread m_thread;

private:
    void accepted(std::string&& sExchange, std::uint16_t, ServicePipe::DoneHandler onDone) override {
        m_exchanges.push_back(std::move(sExchange));
        m_handlers.push_back(std::move(onDone));
    }

    void broken() override { ++m_nBroken; }

    void tooLong() override { ++m_nTooLong; }

    std::size_t mostContent() const override { return 100'000; }
};

const std::string cHandle = bytes("00 00 00 07 00 00 00 00");

} // namespace

TEST_F(ServicePipeTest, PlainService_IsReadToItsEndAndLetGo) {
    {
        const UniqueFd service = connect();
        sendAll(service.get(), cHandle + "content");
    }
    ASSERT_TRUE(awaitAccepted(1));
    EXPECT_THAT(m_exchanges, ElementsAre(cHandle + "content"));
}

TEST_F(ServicePipeTest, ServiceThatWaits_SeesTheEndWhenItIsStored) {
    const UniqueFd service = connect();
    sendAll(service.get(), cHandle + "content");
    ::shutdown(service.get(), SHUT_WR);
    ASSERT_TRUE(awaitAccepted(1));
    answer(0, true);
    EXPECT_EQ(endOf(service), 0);
}

TEST_F(ServicePipeTest, ServiceThatWaits_SeesAResetWhenItIsRefused) {
    std::size_t nExchange = 0;
    for (const char* szContent : {"", "content"}) {
        const UniqueFd service = connect();
        sendAll(service.get(), cHandle + szContent);
        ::shutdown(service.get(), SHUT_WR);
        ASSERT_TRUE(awaitAccepted(nExchange + 1));
        answer(nExchange++, false);
        EXPECT_EQ(endOf(service), ECONNRESET) << szContent;
    }
}

TEST_F(ServicePipeTest, ProbeOfADispatcher_IsTakenAtOnce) {
    const UniqueFd service = connect();
    sendAll(service.get(), cHandle.substr(0, 7));
    EXPECT_TRUE(awaitCondition([&] {
        int nUntaken = 0;
        ::ioctl(service.get(), SIOCOUTQ, &nUntaken);
        return nUntaken <= 1;
    }));
    sendAll(service.get(), cHandle.substr(7) + "x");
    ::shutdown(service.get(), SHUT_WR);
    ASSERT_TRUE(awaitAccepted(1));
    EXPECT_THAT(m_exchanges, ElementsAre(cHandle + "x"));
}

TEST_F(ServicePipeTest, ContentInManyPieces_IsOneNotification) {
    const std::string sContent(90'000, 'x');
    const UniqueFd service = connect();
    sendAll(service.get(), cHandle);
    for (std::size_t nDone = 0; nDone < sContent.size(); nDone += 10'000)
        sendAll(service.get(), sContent.substr(nDone, 10'000));
    ::shutdown(service.get(), SHUT_WR);
    ASSERT_TRUE(awaitAccepted(1));
    EXPECT_EQ(m_exchanges.front(), cHandle + sContent);
}

TEST_F(ServicePipeTest, LessThanAHandle_IsThrownAwayAndCounted) {
    for (const char* szBytes : {"", "x", "1234567"}) {
        const UniqueFd service = connect();
        sendAll(service.get(), szBytes);
        ::shutdown(service.get(), SHUT_WR);
        endOf(service);
    }
    EXPECT_TRUE(awaitCondition([&] { return onLoop(m_loop, [&] { return m_nBroken; }) == 3; }));
    EXPECT_THAT(m_exchanges, IsEmpty());
}

TEST_F(ServicePipeTest, MoreThanTheEngineTakes_IsRefusedWithAReset) {
    const UniqueFd service = connect();
    int nError = 0;
    try {
        sendAll(service.get(), cHandle + std::string(400'000, 'x'));
        nError = endOf(service);
    } catch (const std::system_error& error) { // it came before everything was written
        nError = error.code().value();
    }
    EXPECT_TRUE(nError == ECONNRESET || nError == EPIPE) << nError;
    EXPECT_TRUE(awaitCondition([&] { return onLoop(m_loop, [&] { return m_nTooLong; }) == 1; }));
}

TEST_F(ServicePipeTest, Closed_RefusesAndHasTakenWhoCameBefore) {
    constexpr std::size_t nCount = 20;
    onLoop(m_loop, [&] {
        for (std::size_t i = 0; i < nCount; ++i)
            sendAll(connect().get(), cHandle + "x"); // nobody accepts meanwhile
        m_pipe.close();
    });
    EXPECT_TRUE(awaitAccepted(nCount));
    EXPECT_THROW(connect(), std::system_error);
    onLoop(m_loop, [&] { m_pipe.open(); });
    connect();
}
