// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "MetricsSocket.h"

#include "Posix.h"
#include "ScriptedEngine.h"

#include <string>

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

using namespace VornRelay;
using namespace VornTest;

namespace {

/** Its loop runs on the test's thread; who asks is plain POSIX. */
class MetricsSocketTest : public testing::Test {
protected:
    /** @return what is answered. */
    std::string ask(const UniqueFd& client) {
        sendAll(client.get(), "GET /metrics HTTP/1.0\r\n\r\n");
        EXPECT_TRUE(runUntil(m_loop, [&] {
            pollfd answer{client.get(), POLLIN, 0};
            return ::poll(&answer, 1, 0) == 1;
        }));
        return receiveToEnd(client.get());
    }

    const std::string m_sPath = "/opt/metrics-" + std::to_string(::getpid());
    RelayLoop m_loop;
    MetricsSocket m_metrics{m_loop, m_sPath, [] { return "x 1\n"; }};
};

} // namespace

TEST_F(MetricsSocketTest, EachRequest_IsAnsweredAndItsConnectionClosed) {
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(ask(unixConnect(m_sPath)), "HTTP/1.0 200 OK\r\nContent-Type: text/plain; version=0.0.4\r\n"
                                             "Content-Length: 4\r\n\r\nx 1\n");
}

TEST_F(MetricsSocketTest, FileOfAProcessThatHasEnded_IsReplaced) {
    const std::string sPath = m_sPath + "-before";
    unixListen(sPath);
    const MetricsSocket metrics(m_loop, sPath, [] { return ""; });
    EXPECT_TRUE(unixConnect(sPath));
}
