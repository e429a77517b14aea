// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Posix.h"
#include "Sandbox.h"
#include "ToolRun.h"

#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace VornTest;
using testing::_;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class VornnetConnect : public ToolNetworkTest {};

class VornnetServe : public ToolNetworkTest {};

class VornnetConversation : public ToolNetworkTest, public testing::WithParamInterface<std::string> {
protected:
    static ToolResult connect(const std::vector<std::string>& arguments) {
        return runTool(with({"connect", GetParam()}, arguments));
    }
};

} // namespace

TEST_P(VornnetConversation, WithValuesAndReply_PrintsThemOnBothSides) {
    ChildProcess server = startService(
        GetParam(), {"--expect", "int,string", "--count", "1", "--reply", "long:7", "bool:true"});
    const ToolResult client = connect({"int:5", "string:x", "--expect", "long,bool"});
    EXPECT_EQ(client.status, 0);
    EXPECT_EQ(client.output, "long 7\nbool true\n");
    EXPECT_THAT(finish(server), ended(0, "client 1: int 5, string \"x\"; answered long 7, bool true\n"));
}

TEST_P(VornnetConversation, WithService_ShakesHandsFirst) {
    ChildProcess server =
        startService(GetParam(), {"--service", "svc", "--expect", "int", "--ack", "--count", "1"});
    const ToolResult client = connect({"--service", "svc", "int:5", "--expect", "ack"});
    EXPECT_EQ(client.status, 0);
    EXPECT_EQ(client.output, "ack\n");
    EXPECT_EQ(finish(server).output, "client 1: int 5; answered ack\n");
}

TEST_P(VornnetConversation, WithAnotherService_IsRefused) {
    ChildProcess server = startService(GetParam(), {"--service", "svc", "--count", "1"});
    const ToolResult client = connect({"--service", "other", "int:5"});
    EXPECT_EQ(client.status, 3);
    EXPECT_THAT(client.errors, StartsWith("vornnet connect: the peer refused the service \"other\", or is no "
                                          "such service: VornConnection::connectToService"));
    EXPECT_THAT(finish(server),
                ended(6, "client 1: no answer; failed: the client asked for the service \"other\"\n"));
}

TEST_P(VornnetConversation, WithErrorToken_IsRefused) {
    ChildProcess server = startService(GetParam(), {"--error", "--count", "1"});
    const ToolResult client = connect({"--expect", "ack"});
    EXPECT_EQ(client.status, 3);
    EXPECT_EQ(client.output, "error\n");
    EXPECT_THAT(client.errors, HasSubstr("the server answered with an error"));
    EXPECT_EQ(finish(server).output, "client 1: answered error\n");
}

TEST_P(VornnetConversation, WithShortAnswer_IsIncomplete) {
    ChildProcess server = startService(GetParam(), {"--count", "1", "--reply", "short:1"});
    EXPECT_THAT(connect({"--expect", "short,int"}), ended(6, "short 1\n"));
    EXPECT_EQ(finish(server).status, 0);
}

TEST_P(VornnetConversation, WithShortRequest_TheServerGoesOnAndIsIncompleteAtTheEnd) {
    ChildProcess server = startService(GetParam(), {"--expect", "int", "--count", "2"});
    EXPECT_EQ(connect({"short:1"}).status, 0);
    EXPECT_THAT(nextLine(server),
                StartsWith("client 1: no answer; failed: VornConnection::get: failed read"));
    EXPECT_EQ(connect({"int:1"}).status, 0);
    EXPECT_EQ(nextLine(server), "client 2: int 1; no answer");
    EXPECT_EQ(finish(server).status, 6);
}

TEST_P(VornnetConversation, WithJson_PrintsObjects) {
    ChildProcess server =
        startTool({"serve", GetParam(), "--json", "--expect", "int", "--count", "1", "--reply", "string:y"});
    EXPECT_EQ(nextJson(server), (Json{{"event", "listening"}, {"address", GetParam()}}));
    const Json client = runTool({"connect", "--json", GetParam(), "int:5", "--expect", "string"}).json();
    EXPECT_EQ(client.at("address"), GetParam());
    EXPECT_EQ(client.at("sent"), Json::parse(R"([{"type":"int","value":5}])"));
    EXPECT_EQ(client.at("received"), Json::parse(R"([{"type":"string","value":"y"}])"));
    EXPECT_FALSE(client.contains("error"));
    const Json served = nextJson(server);
    EXPECT_EQ(served.at("event"), "client");
    EXPECT_EQ(served.at("number"), 1);
    EXPECT_EQ(served.at("local"), true);
    EXPECT_EQ(served.at("values"), client.at("sent"));
    EXPECT_EQ(served.at("answer"), "string \"y\"");
    EXPECT_EQ(finish(server).status, 0);
}

TEST_P(VornnetConversation, WithLines_PrintsAndAnswersEach) {
    ChildProcess server = startService(GetParam(), {"--lines", "--count", "1", "--ack"});
    EXPECT_THAT(connect({"line:first", "line:", "line:third \x1b", "--expect", "ack,ack,ack"}),
                ended(0, "ack\nack\nack\n"));
    EXPECT_THAT(finish(server),
                ended(0, "line \"first\"\nline \"\"\nline \"third \\x1b\"\nclient 1: answered ack\n"));
}

TEST_P(VornnetConversation, ServerThatHasEnded_CanBeStartedAgainAtOnce) {
    for (int i = 0; i < 2; ++i) {
        ChildProcess server = startService(GetParam(), {"--expect", "int", "--ack", "--count", "1"});
        EXPECT_EQ(connect({"int:5", "--expect", "ack"}).status, 0);
        EXPECT_EQ(finish(server).status, 0);
    }
}

TEST_P(VornnetConversation, WhenNobodyListens_IsUnreachable) {
    EXPECT_THAT(connect({"int:1"}), ended(4, _, HasSubstr("establish: connection request failed.")));
}

INSTANTIATE_TEST_SUITE_P(Kinds, VornnetConversation, testing::Values("pipe:talk", "socket:127.0.0.1:4711"),
                         [](const auto& instance) {
                             return instance.param.substr(0, instance.param.find(':'));
                         });

TEST_F(VornnetConnect, WithForeignServer_SendsTheNameOfTheServiceAsALineAndThenTheValues) {
    const UniqueFd server = unixListen(pipePath("foreign"));
    ChildProcess tool = startTool({"connect", "pipe:foreign", "--service", "svc", "long:1", "short:2", "ack",
                                   "line:l", "--expect", "string"});
    const UniqueFd client = acceptClient(server.get());
    EXPECT_EQ(receiveExactly(client.get(), 5), "svc\r\n");
    sendAll(client.get(), "+" + bytes("00 00 00 01 79"));
    EXPECT_EQ(hex(receiveToEnd(client.get())), "00 00 00 01 00 00 00 00 00 02 00 01 00 00 6c 0d 0a");
    EXPECT_THAT(finish(tool), ended(0, "string \"y\"\n"));
}

TEST_F(VornnetConnect, WithTimeoutAndASilentServer_GivesUp) {
    const UniqueFd server = unixListen(pipePath("silent"));
    EXPECT_THAT(runTool({"connect", "pipe:silent", "--expect", "int", "--timeout", "0.3"}),
                ended(4, _, HasSubstr("no answer within 300 ms")));
}

TEST_F(VornnetConnect, InterruptedWhileTheServerIsSilent_Ends) {
    const UniqueFd server = unixListen(pipePath("silent"));
    ChildProcess tool = startTool({"connect", "pipe:silent", "--expect", "int"});
    const UniqueFd client = acceptClient(server.get());
    tool.kill(SIGINT);
    EXPECT_EQ(finish(tool).status, 130);
}

TEST_F(VornnetConnect, WithUdp_SendsOneDatagram) {
    ChildProcess server = startService("udp:127.0.0.1:4712", {"--expect", "int,string", "--count", "1"});
    EXPECT_EQ(runTool({"connect", "udp:127.0.0.1:4712", "int:1", "string:x"}).status, 0);
    EXPECT_EQ(finish(server).output, "client 1: int 1, string \"x\"; no answer\n");
}

TEST_F(VornnetConnect, WithUdpAndNothingToSend_Fails) {
    EXPECT_EQ(runTool({"connect", "udp:127.0.0.1:9"}).status, 1);
}

TEST_F(VornnetConnect, WithLengthThatCannotBeMeant_FailsWithoutReadingOn) {
    const UniqueFd server = unixListen(pipePath("liar"));
    ChildProcess tool = startTool({"connect", "pipe:liar", "--expect", "string"});
    const UniqueFd client = acceptClient(server.get());
    sendAll(client.get(), bytes("7f ff ff ff"));
    EXPECT_THAT(finish(tool), ended(1, _, HasSubstr("a string of length 2147483647 was announced")));
}

TEST_F(VornnetServe, WithLineInTwoPieces_PrintsItOnce) {
    ChildProcess server = startService("pipe:pieces", {"--lines", "--count", "1", "--reply", "line:ok"});
    {
        const UniqueFd client = unixConnect(pipePath("pieces"));
        sendAll(client.get(), "one\r\ntw");
        EXPECT_EQ(receiveExactly(client.get(), 4), "ok\r\n");
        EXPECT_EQ(nextLine(server), "line \"one\"");
        sendAll(client.get(), "o\r\n");
        EXPECT_EQ(receiveExactly(client.get(), 4), "ok\r\n");
    }
    EXPECT_EQ(nextLine(server), "line \"two\"");
    EXPECT_EQ(finish(server).status, 0);
}

TEST_F(VornnetServe, WithLineThatDoesNotEnd_IsIncomplete) {
    ChildProcess server = startService("pipe:pieces", {"--lines", "--count", "1"});
    sendAll(unixConnect(pipePath("pieces")).get(), "one\r\ntw");
    EXPECT_THAT(
        finish(server),
        ended(6, "line \"one\"\nclient 1: no answer; failed: 2 bytes without a line end were left\n"));
}

TEST_F(VornnetServe, AtItsEnd_LeavesAFileThatAnotherServerHasTaken) {
    ChildProcess first = startService("pipe:taken");
    ChildProcess second = startService("pipe:taken", {"--count", "1"});
    first.kill(SIGINT);
    EXPECT_EQ(finish(first).status, 130);
    EXPECT_EQ(runTool({"connect", "pipe:taken"}).status, 0);
    EXPECT_EQ(finish(second).status, 0);
}

TEST_F(VornnetServe, InterruptedSeveralTimesAtOnce_RemovesThePipesFile) {
    for (int round = 0; round < 5; ++round) {
        ChildProcess server = startService("pipe:hasty");
        interruptSeveralTimes(server);
        EXPECT_EQ(finish(server).status, 130);
        EXPECT_FALSE(exists(pipePath("hasty")));
    }
}

TEST_F(VornnetServe, InterruptedWhileWaiting_EndsCleanly) {
    for (const char* address : {"pipe:talk", "socket:127.0.0.1:4711", "udp:127.0.0.1:4715"}) {
        ChildProcess server = startService(address);
        server.kill(SIGINT);
        EXPECT_THAT(finish(server), ended(130, "", "")) << address;
    }
}

TEST_F(VornnetServe, WithTheNameOfThisHost_ListensAtItsAddress) {
    ChildProcess server = startService("socket:localhost:7001", {"--count", "1"});
    EXPECT_EQ(runTool({"connect", "socket:localhost:7001"}).status, 0);
    EXPECT_EQ(finish(server).status, 0);
    EXPECT_EQ(runTool({"serve", "socket:nowhere:7001"}).status, 4);
}

TEST_F(VornnetServe, InterruptedWhileAClientIsSilent_EndsAndRemovesThePipesFile) {
    ChildProcess server = startService("pipe:silent", {"--expect", "int"});
    const UniqueFd client = unixConnect(pipePath("silent"));
    sendAll(client.get(), "x");
    server.kill(SIGTERM);
    EXPECT_EQ(finish(server).status, 143);
    EXPECT_FALSE(exists(pipePath("silent")));
}

TEST_F(VornnetServe, WithGroup_GivesItThePipesFile) {
    useGroupFile("root:x:0:\nvorn:x:0:\n");
    ChildProcess server = startService("pipe:grouped", {"--group", "vorn", "--log-level", "9"});
    server.kill(SIGINT);
    EXPECT_THAT(finish(server).errors,
                HasSubstr("successfully granted rw access to the NamedPipe for OS Group : vorn"));
}

TEST_F(VornnetServe, WithPortTaken_Fails) {
    int port = 4713;
    const UniqueFd taken = tcpListen("127.0.0.1", port);
    EXPECT_THAT(runTool({"serve", "socket:127.0.0.1:4713"}),
                ended(1, _,
                      "vornnet serve: VornServerSocket::init: failed to bind socket. (98, Address already "
                      "in use)\n"));
}

TEST_F(VornnetServe, WithEmptyDatagram_GoesOn) {
    ChildProcess server = startService("udp:127.0.0.1:4714", {"--expect", "short", "--count", "1"});
    int port = 0;
    const UniqueFd sender = udpSocket("127.0.0.1", port);
    udpSendTo(sender.get(), "127.0.0.1", 4714, "");
    udpSendTo(sender.get(), "127.0.0.1", 4714, bytes("00 07"));
    EXPECT_EQ(finish(server).output, "client 1: short 7; no answer\n");
}

TEST_F(VornnetServe, AtEveryAddress_IsReachedAtEach) {
    ChildProcess server = startService("socket:*:4716", {"--count", "2"});
    EXPECT_EQ(runTool({"connect", "socket:127.0.0.1:4716"}).status, 0);
    EXPECT_EQ(runTool({"connect", "socket:127.0.0.2:4716"}).status, 0);
    EXPECT_EQ(finish(server).status, 0);
}
