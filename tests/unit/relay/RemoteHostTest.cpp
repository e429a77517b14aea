// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RemoteHost.h"

#include "Posix.h"
#include "Sandbox.h"
#include "ScriptedEngine.h"

#include <string>

#include <gtest/gtest.h>

using namespace VornRelay;
using namespace VornTest;
using Answer = Engine::Answer;

namespace {

/** The service's side for host "h"; its loop runs on the test's thread. */
class RemoteHostTest : public testing::Test {
protected:
    RemoteHostTest() {
        m_host.pipe().open();
        m_host.queue().setConnected(true);
    }

    /** Notifies lease 7 as a plain service does. */
    void notify() {
        const std::size_t nBefore = m_counters.nAccepted;
        sendAll(unixConnect(pipePath("relay-h")).get(), cExchange);
        ASSERT_TRUE(runUntil(m_loop, [&] { return m_counters.nAccepted > nBefore; }));
    }

    const std::string cExchange = bytes("00 00 00 07 00 00 00 00") + "content";
    RelayLoop m_loop;
    ScriptedEngine m_engine;
    NotificationNumber m_number{1, 0};
    RelayCounters m_counters;
    RemoteHost m_host{m_loop, m_engine, "s", "h", 2048, m_number, m_counters};
};

} // namespace

TEST_F(RemoteHostTest, WhileTooMuchWaits_ThePipeIsClosed) {
    const std::size_t nSize = cExchange.size();
    for (int i = 0; i < 4; ++i)
        notify();
    m_host.admit(4 * nSize);
    EXPECT_TRUE(m_host.pipe().isOpen());
    m_host.admit(3 * nSize);
    EXPECT_FALSE(m_host.pipe().isOpen());
    EXPECT_THROW(unixConnect(pipePath("relay-h")), std::system_error);
    m_host.admit(7 * nSize);
    EXPECT_FALSE(m_host.pipe().isOpen());
    m_engine.answer(Answer::stored);
    m_host.admit(6 * nSize);
    EXPECT_TRUE(m_host.pipe().isOpen());
}
