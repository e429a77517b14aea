// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "Posix.h"
#include "Sandbox.h"
#include "ToolRun.h"

#include <csignal>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using testing::_;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

/** A topic with three events for a connection, and what comes over the wire before them. */
class VornnetPublish : public ToolNetworkTest {
protected:
    static ChildProcess publish(const std::vector<std::string>& more = {},
                                const std::string& address = "pipe:demo") {
        ChildProcess tool = startTool(with({"publish", address, "builds"}, more));
        EXPECT_THAT(nextLine(tool), HasSubstr(address.substr(0, 7)));
        return tool;
    }
};

class VornnetSubscribe : public VornnetPublish {};

} // namespace

TEST_F(VornnetPublish, EachLineIsAnEvent_ForAConnectionThatSubscribesByHand) {
    ChildProcess service = publish();
    service.writeLine("kernel");
    service.writeLine("");
    EXPECT_EQ(nextLine(service), "event 1");
    EXPECT_EQ(nextLine(service), "event 2");
    EXPECT_THAT(
        runTool({"connect", "pipe:demo", "--service", "builds", "int:1", "string:", "long:0", "int:2",
                 "int:0", "int:0", "int:0", "int:0", "string:me", "--expect",
                 "ack,int,int,int,int,int,int,int,int,int,int,int,string,int,int,int,int,string"}),
        ended(0, MatchesRegex("ack\nint -?[0-9]+\nint -?[0-9]+\nint 0\nint 1\nint 0\nint 2\nint 5000\n"
                              "int 1\nint 18\nint 0\nint 1\nstring \"kernel\"\n"
                              "int 1\nint 12\nint 0\nint 2\nstring \"\"\n")));
    EXPECT_THAT(nextLine(service), MatchesRegex("subscriber 1: pid [0-9]+ user [0-9]+"));
    EXPECT_THAT(nextLine(service), StartsWith("subscriber 1: closed"));
    service.closeInput();
    EXPECT_EQ(finish(service).status, 0);
}

TEST_F(VornnetPublish, WithValues_ALineHoldsSeveral) {
    ChildProcess service = publish({"--values"});
    service.writeLine("int:1 string:kernel");
    EXPECT_EQ(nextLine(service), "event 1");
    const ToolResult client = runTool(
        {"subscribe", "pipe:demo", "builds", "--start", "oldest", "--content", "int,string", "--count", "1"});
    EXPECT_THAT(client.output, HasSubstr("event 1: int 1, string \"kernel\"\n"));
    service.writeLine("nothing:1");
    EXPECT_EQ(finish(service).status, 2);
}

TEST_F(VornnetPublish, WhereSomebodyListensAlready_FailsWith98) {
    ChildProcess service = publish();
    EXPECT_THAT(runTool({"publish", "pipe:demo", "builds"}),
                ended(1, _, HasSubstr("VornPublisher::VornPublisher: failed to open server. (98, ")));
    service.kill(SIGTERM);
    EXPECT_EQ(finish(service).status, 143);
}

TEST_F(VornnetPublish, WithADirectory_TheEventsAreThereAfterAKill) {
    std::filesystem::create_directory("/opt/events");
    {
        ChildProcess service = publish({"--directory", "/opt/events"});
        service.writeLine("first");
        EXPECT_EQ(nextLine(service), "event 1");
        service.kill(SIGKILL);
        service.wait();
    }
    ChildProcess service = publish({"--directory", "/opt/events"});
    service.writeLine("second");
    EXPECT_EQ(nextLine(service), "event 2");
    const ToolResult client = runTool(
        {"subscribe", "pipe:demo", "builds", "--start", "oldest", "--content", "string", "--count", "2"});
    EXPECT_THAT(client.output, HasSubstr("event 1: string \"first\"\nevent 2: string \"second\"\n"));
    service.kill(SIGINT);
    EXPECT_EQ(finish(service).status, 130);
    std::filesystem::remove_all("/opt/events");
}

TEST_F(VornnetSubscribe, StaysSubscribed_AndTellsStatesEventsAndGaps) {
    ChildProcess client = startTool({"subscribe", "socket:127.0.0.1:5023", "builds", "--content", "string"});
    EXPECT_THAT(nextLine(client), StartsWith("connecting: cannot connect (111, "));
    ChildProcess service = publish({}, "socket:127.0.0.1:5023");
    EXPECT_EQ(nextLine(client), "connected");
    service.writeLine("a");
    EXPECT_EQ(nextLine(client), "event 1: string \"a\"");
    service.kill(SIGKILL);
    service.wait();
    EXPECT_THAT(nextLine(client), StartsWith("away: closed (1"));
    ChildProcess next = publish({}, "socket:127.0.0.1:5023");
    std::string line = nextLine(client);
    while (line.rfind("away: ", 0) == 0)
        line = nextLine(client);
    EXPECT_EQ(line, "connected");
    EXPECT_EQ(nextLine(client), "gap: another history has begun");
    next.writeLine("b");
    EXPECT_EQ(nextLine(client), "event 1: string \"b\"");
    client.kill(SIGINT);
    EXPECT_THAT(finish(client), ended(130, MatchesRegex("position [0-9a-f]{16}-00000000000000000001\n")));
}

TEST_F(VornnetSubscribe, Since_GoesOnAfterThePosition) {
    ChildProcess service = publish();
    for (const char* line : {"a", "b", "c"})
        service.writeLine(line);
    const std::vector<std::string> oldest = {"subscribe", "--json",    "pipe:demo", "builds",  "--start",
                                             "oldest",    "--content", "string",    "--count", "2"};
    for (int i = 1; i <= 3; ++i)
        EXPECT_EQ(nextLine(service), "event " + std::to_string(i));
    ChildProcess first = startTool(oldest);
    EXPECT_EQ(nextJson(first).at("state"), "connected");
    nextJson(first);
    const Json second = nextJson(first);
    EXPECT_EQ(second.at("number"), 2);
    EXPECT_EQ(second.at("old"), true);
    EXPECT_EQ(nextJson(first).at("position"), second.at("position"));
    const ToolResult rest =
        runTool({"subscribe", "pipe:demo", "builds", "--since", second.at("position").get<std::string>(),
                 "--content", "string", "--count", "1"});
    EXPECT_THAT(rest.output, StartsWith("connected\nevent 3: string \"c\"\nposition "));
    EXPECT_EQ(runTool({"subscribe", "pipe:demo", "builds", "--since", "nowhere"}).status, 1);
}

TEST_F(VornnetSubscribe, APositionFile_IsGoneOnFrom) {
    ChildProcess service = publish();
    const std::vector<std::string> one = {"subscribe",     "pipe:demo", "builds", "--start",
                                          "oldest",        "--count",   "1",      "--position-file",
                                          "/opt/position", "--content", "string"};
    service.writeLine("a");
    service.writeLine("b");
    EXPECT_THAT(runTool(one).output, HasSubstr("event 1: string \"a\"\n"));
    EXPECT_THAT(runTool(one).output, HasSubstr("event 2: string \"b\"\n"));
    std::filesystem::remove("/opt/position");
}
