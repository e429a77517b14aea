// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * A server that finds its port in use.
 */

#include <VornServerSocket.h>
#include <VornUDPServerSocket.h>

#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "ServerTestSupport.h"

#include <cerrno>
#include <chrono>
#include <memory>
#include <vector>

using namespace VornTest;
using VornNet::VornServerSocket;
using VornNet::VornUDPServerSocket;

namespace {

constexpr int port = 6501;
constexpr int retries = 50;

template <typename Server>
class Probe : public Server {
public:
    using Server::init;
    using Server::Server;
};

/** One of the two kinds. */
struct Kind {
    const char* name;
    std::unique_ptr<VornServerSocket> (*make)();
    void (*init)(VornServerSocket& server);
    const char* text;

    friend void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }
};

template <typename Server>
void initAs(VornServerSocket& server) {
    static_cast<Probe<Server>&>(server).init();
}

class PortBinding : public LeakCheckedTest, public testing::WithParamInterface<Kind> {
protected:
    void SetUp() override {
        useInterposition();
        LeakCheckedTest::SetUp();
    }

    std::optional<Failure> init() {
        return failureOf([this] { GetParam().init(*m_server); });
    }

    /** Has the server open on the port, and closed again. */
    void openAndClose() {
        EXPECT_EQ(init(), std::nullopt);
        m_server->close();
    }

    std::unique_ptr<VornServerSocket> m_server = GetParam().make();
    const Failure m_inUse{GetParam().text, EADDRINUSE};
};

} // namespace

INSTANTIATE_TEST_SUITE_P(
    Kind, PortBinding,
    testing::Values(Kind{"tcp",
                         [] {
                             return std::unique_ptr<VornServerSocket>(
                                 new Probe<VornServerSocket>(port, 5, "127.0.0.1"));
                         },
                         initAs<VornServerSocket>, "VornServerSocket::init: failed to bind socket."},
                    Kind{"udp",
                         [] {
                             return std::unique_ptr<VornServerSocket>(
                                 new Probe<VornUDPServerSocket>(port, "127.0.0.1", 100));
                         },
                         initAs<VornUDPServerSocket>, "VornUDPServerSocket::init: failed to bind socket."}),
    [](const auto& kind) { return kind.param.name; });

TEST_P(PortBinding, AtTheFirstOpening_FailsAtOnce) {
    const FaultRule inUse("bind", EADDRINUSE, 1, FaultRule::always);
    EXPECT_EQ(init(), m_inUse);
    EXPECT_EQ(inUse.calls(), 1);
}

TEST_P(PortBinding, WhereTheServerWasOpenBefore_IsTriedAgain) {
    openAndClose();
    const FaultRule inUse("bind", EADDRINUSE, 1, retries);
    EXPECT_EQ(init(), std::nullopt);
    EXPECT_EQ(inUse.calls(), retries + 1);
    m_server->close();
}

TEST_P(PortBinding, WhereTheServerWasOpenBefore_FailsInTheEnd) {
    openAndClose();
    const FaultRule inUse("bind", EADDRINUSE, 1, FaultRule::always);
    EXPECT_EQ(init(), m_inUse);
    EXPECT_EQ(inUse.calls(), 1 + retries);
}

TEST_P(PortBinding, EachFurtherTry_ComesAMillisecondLater) {
    const auto now = [] {
        return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
    };
    openAndClose();
    const FaultRule inUse("bind", EADDRINUSE, 1, FaultRule::always);
    FaultRule noPause("clock_nanosleep", 0, 1, FaultRule::always);
    noPause.returning(0);
    const CallTrace trace;
    const long begin = now();
    EXPECT_EQ(init(), m_inUse);
    const std::vector<CallRecord> pauses = trace.records("clock_nanosleep");
    ASSERT_EQ(pauses.size(), static_cast<std::size_t>(retries));
    EXPECT_GE(pauses.front().third, begin + 1'000'000);
    EXPECT_LE(pauses.back().third, now() + 1'000'000);
}

TEST_P(PortBinding, OnAnotherPortThanBefore_FailsAtOnce) {
    openAndClose();
    m_server->setPort(port + 1);
    const FaultRule inUse("bind", EADDRINUSE, 1, FaultRule::always);
    EXPECT_EQ(init(), m_inUse);
    EXPECT_EQ(inUse.calls(), 1);
}

TEST_P(PortBinding, WithAnotherError_FailsAtOnce) {
    openAndClose();
    const FaultRule refused("bind", EACCES, 1, FaultRule::always);
    EXPECT_EQ(init(), (Failure{GetParam().text, EACCES}));
    EXPECT_EQ(refused.calls(), 1);
}
