// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SinkDelivery.h"

#include "Await.h"
#include "Posix.h"
#include "Sandbox.h"
#include "ScriptedEngine.h"

#include <VornNotificationCallback.h>
#include <VornSteadySink.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornRelay;
using namespace VornSupport;
using namespace VornTest;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using Answer = Engine::Answer;

namespace {

/** Counts its calls, and returns from each when it may. */
class GatedCallback : public VornNotificationCallback {
public:
    using VornNotificationCallback::VornNotificationCallback;

    void doCallback(VornSmartPointer<VornConnection>&) override {
        ++nCalls;
        awaitCondition([this] { return bMayReturn.load(); });
    }

    std::atomic<int> nCalls{0};
    std::atomic<bool> bMayReturn{true};
};

/** A sink of this process with one callback. */
struct Client {
    Client() : spCallback(new GatedCallback(sink.getCallbackContainer().getNewId())) {
        sink.getCallbackContainer().add(&*spCallback);
    }

    VornSteadySink sink{"client"};
    VornSmartPointer<GatedCallback> spCallback;
};

/** The client's side of host "h"; its loop runs on the test's thread, in runUntil(). */
class SinkDeliveryTest : public testing::Test {
protected:
    SinkDeliveryTest() {
        m_settings.access.sHost = "h";
        m_settings.sStateDirectory = "/opt/delivery-" + std::to_string(::getpid());
        std::filesystem::remove_all(m_settings.sStateDirectory);
        std::filesystem::create_directories(m_settings.sStateDirectory);
        start();
    }

    void start() {
        m_spLoop = std::make_unique<RelayLoop>();
        m_spDelivery = std::make_unique<SinkDelivery>(*m_spLoop, m_engine, m_settings, m_counters);
        m_spDelivery->setConnected(true);
    }

    /** As after a kill: what was not stored has gone, files are as they were. */
    void restart() {
        m_spDelivery.reset();
        m_engine.reset();
        m_counters = RelayCounters();
        start();
    }

    std::uint32_t grant(const std::string& sName, const std::string& sAddress, int nHandle) {
        Lease lease;
        lease.sName = sName;
        lease.sAddress = sAddress;
        lease.nHandle = nHandle;
        return m_spDelivery->grant(lease).nNumber;
    }

    std::uint32_t grant(const std::string& sName, const Client& client) {
        return grant(sName, client.sink.getCallbackAddress().c_str(), client.spCallback->getId());
    }

    /** Has the n-th notification of host "s" arrive, with the receipt "r<n>". */
    void arrive(std::uint32_t nLease, std::uint64_t n, const std::string& sVersion = "1") {
        const bool bIsNamed = LeaseTable::isNamedNumber(nLease);
        const std::string sNumber = std::to_string(nLease);
        Engine::Message message{
            "vorn.to.h" + (bIsNamed ? ".keep." + sNumber : ".sink.lease." + sNumber),
            {{"Nats-Msg-Id", idOf("s", {1, n})}, {"Vorn-From", "s"}, {"Vorn-Version", sVersion}},
            bytes("00 00 00 07 00 00 00 00")};
        m_spDelivery->reader().arrived(
            {bIsNamed ? "keep-" + sNumber : "relay", "r" + std::to_string(n), n, std::move(message)});
    }

    bool runUntil(const std::function<bool()>& condition) { return VornTest::runUntil(*m_spLoop, condition); }

    /** @return the reason of the oldest dead letter that is not stored. */
    std::string reason() const { return std::string(m_engine.published(0).header("Vorn-Reason")); }

    RelaySettings m_settings;
    RelayCounters m_counters;
    ScriptedEngine m_engine;
    std::unique_ptr<RelayLoop> m_spLoop;
    std::unique_ptr<SinkDelivery> m_spDelivery;
};

constexpr int cNoCallback = 99;

} // namespace

TEST_F(SinkDeliveryTest, WhatACallbackHasTaken_IsAcknowledgedAndNotDeliveredAgain) {
    Client client;
    const std::uint32_t nLease = grant("", client);
    arrive(nLease, 1);
    EXPECT_TRUE(runUntil([&] { return !m_engine.acknowledged.empty(); }));
    restart();
    arrive(nLease, 1);
    EXPECT_TRUE(runUntil([&] { return !m_engine.acknowledged.empty(); }));
    EXPECT_EQ(client.spCallback->nCalls, 1);
    EXPECT_EQ(m_counters.nSkipped, 1U);
}

TEST_F(SinkDeliveryTest, WhatIsRefused_ComesAgainUntilItsDeadLetterIsStored) {
    Client client;
    const std::uint32_t nLease = grant("", client.sink.getCallbackAddress().c_str(), cNoCallback);
    arrive(nLease, 1);
    ASSERT_TRUE(runUntil([&] { return m_engine.unanswered() == 1; }));
    EXPECT_EQ(reason(), "refused");
    restart();
    arrive(nLease, 1);
    ASSERT_TRUE(runUntil([&] { return m_engine.unanswered() == 1 || m_counters.nSkipped == 1; }));
    ASSERT_EQ(m_counters.nSkipped, 0U) << "it is neither delivered nor a dead letter";
    m_engine.answer(Answer::stored);
    EXPECT_THAT(m_engine.acknowledged, ElementsAre("r1"));
    restart();
    arrive(nLease, 1);
    EXPECT_TRUE(runUntil([&] { return m_counters.nSkipped == 1; }));
}

TEST_F(SinkDeliveryTest, AfterARefusedOne_TheNextIsDeliveredWhenItsDeadLetterIsStored) {
    Client client;
    const std::uint32_t nLease = grant("n", client.sink.getCallbackAddress().c_str(), cNoCallback);
    arrive(nLease, 1);
    arrive(nLease, 2);
    ASSERT_TRUE(runUntil([&] { return m_engine.unanswered() == 1; }));
    grant("n", client);
    EXPECT_EQ(m_spDelivery->queueOf(nLease).nWaiting, 2U);
    m_engine.answer(Answer::stored);
    EXPECT_TRUE(runUntil([&] { return m_engine.acknowledged.size() == 2; }));
    EXPECT_THAT(m_engine.acknowledged, ElementsAre("r1", "r2"));
    EXPECT_EQ(client.spCallback->nCalls, 1);
}

TEST_F(SinkDeliveryTest, LeaseThatEndsWhileADeadLetterIsUnderWay_BuriesTheRestAfterIt) {
    Client client;
    const std::uint32_t nLease = grant("", client.sink.getCallbackAddress().c_str(), cNoCallback);
    arrive(nLease, 1);
    arrive(nLease, 2);
    ASSERT_TRUE(runUntil([&] { return m_engine.unanswered() == 1; }));
    m_spDelivery->end(nLease);
    m_engine.answer(Answer::stored);
    ASSERT_EQ(m_engine.unanswered(), 1U);
    EXPECT_EQ(reason(), "gone");
    m_engine.answer(Answer::stored);
    EXPECT_THAT(m_engine.acknowledged, ElementsAre("r1", "r2"));
    EXPECT_TRUE(m_spDelivery->isIdle());
}

TEST_F(SinkDeliveryTest, WhatIsSentToAReleasedName_IsADeadLetterAndTold) {
    Client client;
    const std::uint32_t nLease = grant("n", client);
    const std::string sReader =
        "keep-" + std::to_string(nLease) + " vorn.to.h.keep." + std::to_string(nLease);
    m_spDelivery->end(nLease);
    m_spDelivery->reader().pullEnded("keep-" + std::to_string(nLease), 512);
    EXPECT_THAT(m_engine.closed, IsEmpty()) << "somebody may not have heard of it";
    for (const bool bRestart : {false, true}) {
        SCOPED_TRACE(bRestart);
        if (bRestart)
            restart();
        EXPECT_THAT(m_engine.opened, Contains(sReader));
        m_engine.told.clear();
        arrive(nLease, 1);
        ASSERT_EQ(m_engine.unanswered(), 1U);
        EXPECT_EQ(reason(), "gone");
        EXPECT_THAT(m_engine.told, ElementsAre("vorn.gone.h " + std::to_string(nLease)));
        m_engine.answer(Answer::stored);
        EXPECT_THAT(m_engine.acknowledged, ElementsAre("r1"));
    }
}

TEST_F(SinkDeliveryTest, OfVeryManyReleasedNames_TheOldestIsReadToItsEnd) {
    Client client;
    const std::uint32_t nOldest = grant("n", client);
    m_spDelivery->end(nOldest);
    for (std::size_t n = 0; n < LeaseTable::cMostEndedNames; ++n)
        m_spDelivery->end(grant("n", client));
    const std::string sOldest = "keep-" + std::to_string(nOldest);
    m_spDelivery->reader().pullEnded(sOldest, 512);
    EXPECT_THAT(m_engine.closed, ElementsAre(sOldest));
}

TEST_F(SinkDeliveryTest, WhatComesAfterASlowOne_IsSlowTooUntilItsDeadLetterIsStored) {
    m_settings.nHeld = 8; // so a queue takes 2
    Client client;
    client.spCallback->bMayReturn = false;
    const std::uint32_t nLease = grant("", client);
    for (std::uint64_t n = 1; n <= 3; ++n)
        arrive(nLease, n);
    ASSERT_EQ(m_engine.unanswered(), 1U);
    EXPECT_EQ(reason(), "slow");
    client.spCallback->bMayReturn = true;
    EXPECT_TRUE(runUntil([&] { return m_engine.acknowledged.size() == 2; }));
    arrive(nLease, 4);
    ASSERT_EQ(m_engine.unanswered(), 2U) << "delivered, it would have the third one taken for a repetition";
    m_engine.answer(Answer::stored);
    m_engine.answer(Answer::stored);
    arrive(nLease, 5);
    EXPECT_TRUE(runUntil([&] { return m_engine.acknowledged.size() == 5; }));
    EXPECT_THAT(m_engine.acknowledged, ElementsAre("r1", "r2", "r3", "r4", "r5"));
    EXPECT_EQ(client.spCallback->nCalls, 3);
}

TEST_F(SinkDeliveryTest, WhereSlowOnesBlock_NothingBecomesADeadLetter) {
    m_settings.nHeld = 8;
    m_settings.onSlow = RelaySettings::OnSlow::block;
    Client client;
    client.spCallback->bMayReturn = false;
    const std::uint32_t nLease = grant("", client);
    for (std::uint64_t n = 1; n <= 5; ++n)
        arrive(nLease, n);
    EXPECT_EQ(m_spDelivery->queueOf(nLease).nWaiting, 5U);
    client.spCallback->bMayReturn = true;
    EXPECT_TRUE(runUntil([&] { return m_engine.acknowledged.size() == 5; }));
    EXPECT_EQ(m_engine.unanswered(), 0U);
}

TEST_F(SinkDeliveryTest, ForeignVersion_IsADeadLetterAndNotDelivered) {
    Client client;
    arrive(grant("", client), 1, "2");
    ASSERT_EQ(m_engine.unanswered(), 1U);
    EXPECT_EQ(reason(), "version");
    EXPECT_EQ(m_engine.published(0).header("Vorn-Version"), "2");
    EXPECT_THAT(m_engine.acknowledged, IsEmpty());
    m_engine.answer(Answer::stored);
    EXPECT_THAT(m_engine.acknowledged, ElementsAre("r1"));
    EXPECT_EQ(client.spCallback->nCalls, 0);
}
