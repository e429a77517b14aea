// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "Commands.h"
#include "Posix.h"
#include "Sandbox.h"

#include <fstream>
#include <string>

#include <gmock/gmock.h>
#include <unistd.h>

using namespace VornTest;
using testing::HasSubstr;

namespace {

/** A server that says who it is to all who come, and no more. */
class Greeter {
public:
    explicit Greeter(const std::string& sAddress)
        : m_listener(tcpListen(sAddress, m_nPort)), m_thread([this] { greet(); }) {}

    ~Greeter() {
        m_bEnding = true;
        tcpConnect(localAddress(m_listener.get()), m_nPort);
    }

    std::string port() const { return std::to_string(m_nPort); }

private:
    void greet() {
        while (!m_bEnding)
            sendAll(acceptClient(m_listener.get()).get(),
                    "INFO {\"version\":\"2.12.7\",\"jetstream\":true,\"max_payload\":1048576}\r\n");
    }

    int m_nPort = 0;
    UniqueFd m_listener;
    std::atomic<bool> m_bEnding{false};
    WatchedThread m_thread;
};

std::string whatIsFoundFor(const std::string& sServer) {
    const std::string sPath = "/opt/check-" + std::to_string(::getpid()) + ".conf";
    std::ofstream(sPath) << "host = h\nservers = " << sServer << "\nstate-directory = /opt\n";
    testing::internal::CaptureStdout();
    VornRelay::checkHost(sPath);
    return testing::internal::GetCapturedStdout();
}

} // namespace

TEST(HostCheckTest, ServerOfWhichOnlyALaterAddressAnswers_IsFound) {
    needSandbox("names of its own");
    useHostsFile("::1 twofold\n127.0.0.1 twofold\n");
    const Greeter server("127.0.0.1");
    EXPECT_THAT(whatIsFoundFor("nats://twofold:" + server.port()), HasSubstr("is nats-server 2.12.7"));
    restoreSystemFiles();
}

TEST(HostCheckTest, AddressInBrackets_IsTakenOutOfThem) {
    const Greeter server("::1");
    EXPECT_THAT(whatIsFoundFor("nats://[::1]:" + server.port()), HasSubstr("is nats-server 2.12.7"));
}
