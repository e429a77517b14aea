// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include <VornBufferConnection.h>
#include <VornIPCServer.h>

#include "LeakCheckedTest.h"
#include "ServerTestSupport.h"

#include <atomic>
#include <functional>
#include <stdexcept>

#include <pthread.h>
#include <unistd.h>

using namespace VornTest;

namespace {

class VornIPCServerTest : public LeakCheckedTest {};

/** A server whose wait does what the test wants. */
class ScriptedServer : public VornIPCServer {
public:
    using Wait = std::function<VornConnection*(bool bIdentify, VornString& sText, int& nCode)>;

    explicit ScriptedServer(Wait wait) : m_wait(std::move(wait)) {}

    void waitForInit() override {}

    void close() override {}

protected:
    VornSmartPointer<VornConnection> waitForClientImpl(bool bIdentify, VornString& sText,
                                                       int& nCode) override {
        return m_wait(bIdentify, sText, nCode);
    }

private:
    Wait m_wait;
};

/**
 * A server whose wait never ends.
 *
 * It is as plain as can be: the address sanitizer does not learn that the variables of frames unwound by a
 * cancellation are gone, nor the thread sanitizer that a blocking call has been left.
 */
class EndlessServer : public VornIPCServer {
public:
    void waitForInit() override {}

    void close() override {}

    bool isWaitedOn() const { return m_waitedOn; }

protected:
    VornSmartPointer<VornConnection> waitForClientImpl(bool, VornString&, int&) override {
        m_waitedOn = true;
        for (;;)
            ::pthread_testcancel();
    }

private:
    std::atomic<bool> m_waitedOn{false};
};

} // namespace

TEST_F(VornIPCServerTest, WhenWaiting_AsksTheServerWithTheFlagAndEmptyTextAndCodeZero) {
    for (const bool identify : {true, false}) {
        int calls = 0;
        ScriptedServer server([&](bool bIdentify, VornString& sText, int& nCode) {
            ++calls;
            EXPECT_EQ(bIdentify, identify);
            EXPECT_EQ(sText, "");
            EXPECT_EQ(nCode, 0);
            return nullptr;
        });
        server.waitForClient(identify);
        EXPECT_EQ(calls, 1);
    }
}

TEST_F(VornIPCServerTest, WhenAClientComes_ReturnsItWithTheOnlyReferenceWhateverTheText) {
    for (const char* text : {"", "not looked at"}) {
        VornConnection* pClient = new VornNet::VornBufferConnection;
        ScriptedServer server([&](bool, VornString& sText, int& nCode) {
            sText = text;
            nCode = 5;
            return pClient;
        });
        const WaitOutcome outcome = waitFor(server);
        EXPECT_EQ(outcome.client(), pClient);
        EXPECT_EQ(pClient->refCount(), 1);
        EXPECT_EQ(outcome.failure, std::nullopt);
    }
}

TEST_F(VornIPCServerTest, WhenThereIsNoClient_ThrowsTextAndCodeUnlessTheTextIsEmpty) {
    for (const Failure& told : {Failure{"no luck. ", 98}, Failure{"no luck. ", 0}, Failure{"", 104}}) {
        ScriptedServer server([&](bool, VornString& sText, int& nCode) {
            sText = told.text;
            nCode = told.code;
            return nullptr;
        });
        const WaitOutcome outcome = waitFor(server);
        EXPECT_EQ(outcome.client(), nullptr);
        EXPECT_EQ(outcome.failure, told.text.empty() ? std::nullopt : std::optional<Failure>(told));
    }
}

TEST_F(VornIPCServerTest, WhenTheWaitThrows_TheExceptionPassesUnchanged) {
    ScriptedServer server([](bool, VornString& sText, int& nCode) -> VornConnection* {
        sText = "not looked at";
        nCode = 1;
        VornException exception("from within", 42);
        exception.pushMessage(L"and more");
        throw exception;
    });
    try {
        server.waitForClient(false);
        FAIL() << "no exception";
    } catch (VornException& exception) {
        EXPECT_EQ(exception.getText(), "from within");
        EXPECT_EQ(exception.getCode(), 42);
        EXPECT_EQ(exception.popMessage(), "and more");
    }
}

TEST_F(VornIPCServerTest, WhenTheWaitThrowsAnythingElse_TheProcessEnds) {
    ScriptedServer server(
        [](bool, VornString&, int&) -> VornConnection* { throw std::runtime_error("foreign"); });
    EXPECT_DEATH(
        {
            try {
                server.waitForClient(false);
            } catch (...) {
                ::_exit(0);
            }
        },
        "");
}

TEST_F(VornIPCServerTest, WhenTheWaitingThreadIsCancelled_TheProcessGoesOn) {
    EndlessServer server;
    WatchedThread thread([&] { server.waitForClient(false); });
    ASSERT_TRUE(awaitCondition([&] { return server.isWaitedOn(); }));
    ::pthread_cancel(thread.handle());
    EXPECT_TRUE(thread.join());
    EXPECT_EQ(thread.exceptionText(), "cancelled");
}
