// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "Posix.h"
#include "Sandbox.h"
#include "ToolRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

using namespace VornTest;
using testing::_;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

class VornnetPing : public ToolNetworkTest, public testing::WithParamInterface<std::string> {
protected:
    /** A plain server at the parameter's kind of address. */
    UniqueFd listen(int backlog) {
        int port = 4711;
        m_address = GetParam() == "pipe" ? "pipe:plain" : "socket:127.0.0.1:4711";
        return GetParam() == "pipe" ? unixListen(pipePath("plain"), backlog)
                                    : tcpListen("127.0.0.1", port, backlog);
    }

    /** How many clients the server has not accepted yet. */
    static std::size_t waitingAt(const std::string& address) {
        const Json servers = runTool({"top", "--json"}).json().at("servers");
        for (const Json& server : servers) {
            if (server.at("address") == address)
                return server.at("waiting").size();
        }
        return 0;
    }

    std::string m_address;
};

class VornnetPingUdp : public ToolNetworkTest {};

} // namespace

TEST_P(VornnetPing, OfASinkOfEitherKind_TellsThatItAcceptsAndDisturbsNoNotification) {
    for (const std::vector<std::string>& kind : {std::vector<std::string>{}, {"--steady"}}) {
        ChildProcess sink = startTool(with({"sink", "--type", GetParam()}, kind));
        const std::string address = addressOf(sink);
        for (int i = 0; i < 3; ++i) {
            const ToolResult result = runTool({"ping", address, "--timeout", "60"});
            EXPECT_EQ(result.status, 0) << result.errors;
            EXPECT_THAT(result.output, MatchesRegex(address + ": accepts, [0-9]+\\.[0-9][0-9] ms\n"));
        }
        EXPECT_EQ(runTool({"notify", address, "0", "12"}).status, 0);
        EXPECT_EQ(nextLine(sink), "notification 1: handle 0, id 12"); // it is the first
    }
}

TEST_P(VornnetPing, OfASink_DoesNotHoldIt) {
    ChildProcess sink = startTool({"sink", "--type", GetParam()});
    const std::string address = addressOf(sink);
    const UniqueFd held = connectTo(address);
    // The ping waits behind a silent peer, and is still there when that has gone.
    ChildProcess ping = startTool({"ping", address, "--timeout", "60"});
    EXPECT_TRUE(awaitCondition([&] { return waitingAt(address) == 1; }));
    ChildProcess sender = startTool({"notify", address, "0", "12"});
    EXPECT_TRUE(awaitCondition([&] { return waitingAt(address) == 2; }));
    ::shutdown(held.get(), SHUT_RDWR);
    EXPECT_EQ(nextLine(sink), "notification 1: handle 0, id 12");
    EXPECT_EQ(finish(ping).status, 0);
    EXPECT_EQ(finish(sender).status, 0);
}

TEST_P(VornnetPing, OfAServerThatAcceptsAndSaysNothing_TellsThatItAccepts) {
    const UniqueFd server = listen(5);
    ChildProcess tool = startTool({"ping", m_address, "--timeout", "30"});
    const UniqueFd client = acceptClient(server.get());
    EXPECT_EQ(finish(tool).status, 0);
}

TEST_P(VornnetPing, OfAServerThatDoesNotAccept_TellsSo) {
    const UniqueFd server = listen(5);
    EXPECT_THAT(runTool({"ping", m_address, "--timeout", "0.3"}),
                ended(4, StartsWith(m_address + ": nobody has accepted, ")));
}

TEST_P(VornnetPing, OfAServerWithAFullQueue_TellsSo) {
    const UniqueFd server = listen(0);
    const UniqueFd waiting = connectTo(m_address);
    EXPECT_THAT(runTool({"ping", m_address, "--timeout", "0.3"}),
                ended(4, _, HasSubstr("its queue is full")));
}

TEST_P(VornnetPing, WhereNobodyListens_IsUnreachable) {
    const std::string address = GetParam() == "pipe" ? "pipe:nobody" : "socket:127.0.0.1:4712";
    EXPECT_THAT(runTool({"ping", address}), ended(4, _, StartsWith("vornnet ping: " + address + ": ")));
}

INSTANTIATE_TEST_SUITE_P(Kinds, VornnetPing, testing::Values("pipe", "socket"),
                         [](const auto& instance) { return instance.param; });

TEST_F(VornnetPingUdp, OfASink_SendsItNothing) {
    ChildProcess sink = startTool({"sink", "--type", "udp"});
    const std::string address = addressOf(sink);
    const ToolResult result = runTool({"ping", address, "--json"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.json(), (Json{{"address", address}, {"state", "reads"}}));
    EXPECT_EQ(runTool({"notify", address, "0", "12"}).status, 0);
    EXPECT_EQ(nextLine(sink), "notification 1: handle 0, id 12");
    EXPECT_EQ(runTool({"ping", "udp:127.0.0.1:4713"}).status, 4);
}
