// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AcceptingSocket.h"

#include "Interpose.h"
#include "Posix.h"
#include "ScriptedEngine.h"

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace VornRelay;
using namespace VornTest;

namespace {

/** Its loop runs on the test's thread. */
class AcceptingSocketTest : public testing::Test {
protected:
    AcceptingSocketTest() {
        m_listener = unixListen(m_sPath, 8);
        ::fcntl(m_listener.get(), F_SETFL, O_NONBLOCK);
        m_socket.begin(m_listener.get());
    }

    ~AcceptingSocketTest() override { m_socket.end(); }

    const std::string m_sPath = "/opt/accepting-" + std::to_string(::getpid());
    RelayLoop m_loop;
    UniqueFd m_listener;
    int m_nAccepted = 0;
    AcceptingSocket m_socket{m_loop, [this](VornNet::OwnedDescriptor&&) { ++m_nAccepted; }};
};

} // namespace

TEST_F(AcceptingSocketTest, WithoutDescriptors_ItRestsAndAcceptsLater) {
    const UniqueFd client = unixConnect(m_sPath);
    const auto start = RelayLoop::Clock::now();
    {
        const FaultRule fault("accept4", EMFILE, 1, FaultRule::always);
        EXPECT_TRUE(runUntil(m_loop, [&] { return fault.failures() == 2; }));
    }
    EXPECT_GE(RelayLoop::Clock::now() - start, std::chrono::milliseconds(100));
    EXPECT_TRUE(runUntil(m_loop, [&] { return m_nAccepted == 1; }));
}

TEST_F(AcceptingSocketTest, ConnectionThatWasGivenUp_HoldsUpNoOther) {
    const UniqueFd client = unixConnect(m_sPath);
    const FaultRule fault("accept4", ECONNABORTED);
    EXPECT_TRUE(runUntil(m_loop, [&] { return m_nAccepted == 1; }));
}

TEST_F(AcceptingSocketTest, ThoseWhoHaveConnected_AreAcceptedBeforeTheEnd) {
    const UniqueFd first = unixConnect(m_sPath);
    const UniqueFd second = unixConnect(m_sPath);
    m_socket.acceptAll();
    m_socket.end();
    EXPECT_EQ(m_nAccepted, 2);
}
