// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "Posix.h"
#include "Sandbox.h"
#include "ToolRun.h"

#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>

using namespace VornTest;
using testing::_;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

class VornnetSink : public ToolNetworkTest {};

class VornnetNotify : public ToolNetworkTest {};

class VornnetRoad : public ToolNetworkTest, public testing::WithParamInterface<std::string> {};

/** The transports that hold a sender back: datagrams of a burst may be lost. */
class VornnetStream : public VornnetRoad {};

/** Handle 0 and an id of 12, as a sender writes them. */
const char cNotification[] = "00 00 00 00 00 00 00 00  00 00 00 0c 00 00 00 00";
/** A handle for which no sink here has a callback. */
const char cUnknownHandle[] = "00 00 00 63 00 00 00 00";

/** Whether the only thread that does anything is in connect(), where a full queue holds it. */
bool isInConnect(pid_t pid) {
    const std::string text = readTextFile("/proc/" + std::to_string(pid) + "/syscall");
    return text.rfind(std::to_string(SYS_connect) + " ", 0) == 0;
}

std::string pipeOf(const std::string& address) {
    return pipePath(address.substr(address.find(':') + 1));
}

} // namespace

TEST_P(VornnetRoad, NotificationWithValues_IsPrintedByTheSink) {
    ChildProcess sink =
        startTool({"sink", "--type", GetParam(), "--content", "int,short,long,bool,string", "--count", "1"});
    const std::string address = addressOf(sink);
    EXPECT_THAT(address, StartsWith(GetParam() + ":"));
    EXPECT_THAT(runTool({"notify", address, "0", "12", "int:-5", "short:-2", "long:7", "bool:true",
                         "string:some text"}),
                ended(0, "sent 1, refused 0\n"));
    EXPECT_EQ(nextLine(sink), "notification 1: handle 0, id 12, int -5, short -2, long 7, bool true, string "
                              "\"some text\"");
    EXPECT_EQ(finish(sink).status, 0);
}

TEST_P(VornnetRoad, NotificationWithJson_IsPrintedAsOneObject) {
    ChildProcess sink =
        startTool({"sink", "--json", "--type", GetParam(), "--content", "string", "--count", "1"});
    const Json first = nextJson(sink);
    EXPECT_EQ(first.at("event"), "address");
    const Json sent =
        runTool({"notify", "--json", first.at("address").get<std::string>(), "0", "-3", "string:x"}).json();
    EXPECT_EQ(sent.at("address"), first.at("address"));
    EXPECT_EQ(sent.at("sent"), 1);
    EXPECT_EQ(sent.at("refused"), 0);
    EXPECT_EQ(sent.at("errors"), Json::array());
    const Json second = nextJson(sink);
    EXPECT_EQ(second.at("event"), "notification");
    EXPECT_EQ(second.at("number"), 1);
    EXPECT_EQ(second.at("handle"), 0);
    EXPECT_EQ(second.at("id"), -3);
    EXPECT_EQ(second.at("values"), Json::parse(R"([{"type":"string","value":"x"}])"));
    EXPECT_EQ(second.at("unread_bytes"), 0);
    EXPECT_THAT(second.at("time").get<std::string>(), MatchesRegex("....-..-..T..:..:......Z"));
    EXPECT_EQ(finish(sink).status, 0);
}

TEST_P(VornnetRoad, NotificationWithTooLittleContent_IsPrintedAsIncomplete) {
    ChildProcess sink = startTool({"sink", "--type", GetParam(), "--content", "int", "--count", "1"});
    EXPECT_EQ(runTool({"notify", addressOf(sink), "0", "12"}).status, 0);
    EXPECT_THAT(nextLine(sink),
                StartsWith("notification 1: handle 0, id 12, incomplete: VornConnection::get: "
                           "failed read"));
    EXPECT_EQ(finish(sink).status, 0);
}

TEST_P(VornnetRoad, NotificationWithMoreContent_IsPrintedWithTheNumberOfBytesLeft) {
    ChildProcess sink = startTool({"sink", "--type", GetParam(), "--count", "1"});
    EXPECT_EQ(runTool({"notify", addressOf(sink), "0", "12", "int:1", "short:2"}).status, 0);
    EXPECT_EQ(nextLine(sink), "notification 1: handle 0, id 12, 6 more bytes");
    EXPECT_EQ(finish(sink).status, 0);
}

TEST_P(VornnetRoad, Interrupted_TheSinkEndsCleanly) {
    ChildProcess sink = startTool({"sink", "--type", GetParam()});
    addressOf(sink);
    sink.kill(SIGINT);
    EXPECT_THAT(finish(sink), ended(130, _, ""));
}

TEST_P(VornnetRoad, NotificationToASteadySink_IsPrintedAsFromAnyOther) {
    ChildProcess sink =
        startTool({"sink", "--steady", "--type", GetParam(), "--content", "string", "--count", "1"});
    const std::string address = addressOf(sink);
    EXPECT_THAT(address, MatchesRegex(GetParam() == "pipe" ? "pipe:quorax[0-9a-f]+-[0-9a-f]+"
                                                           : GetParam() + ":127\\.0\\.0\\.1:[0-9]+"));
    EXPECT_EQ(runTool({"notify", address, "0", "12", "string:some text"}).status, 0);
    EXPECT_EQ(nextLine(sink), "notification 1: handle 0, id 12, string \"some text\"");
    EXPECT_THAT(finish(sink), ended(0, _, ""));
    EXPECT_TRUE(GetParam() != "pipe" || !exists(pipeOf(address)));
}

TEST_P(VornnetStream, BurstToASteadySink_ArrivesWhole) {
    ChildProcess sink = startTool({"sink", "--steady", "--type", GetParam(), "--count", "1000"});
    EXPECT_EQ(runTool({"notify", addressOf(sink), "0", "7", "--repeat", "1000"}).output,
              "sent 1000, refused 0\n");
    for (int i = 1; i <= 1000; ++i)
        ASSERT_EQ(nextLine(sink), "notification " + std::to_string(i) + ": handle 0, id 7");
    EXPECT_EQ(finish(sink).status, 0);
}

TEST_P(VornnetRoad, SeveralNotifications_LeaveTheAddressAsItIs) {
    ChildProcess sink = startTool({"sink", "--type", GetParam(), "--count", "3"});
    const std::string address = addressOf(sink);
    // Some may be lost, for the sink closes its server after each.
    ChildProcess sender = startTool({"notify", address, "0", "7", "--repeat", "3000", "--every", "20"});
    for (int i = 1; i <= 3; ++i)
        EXPECT_EQ(nextLine(sink), "notification " + std::to_string(i) + ": handle 0, id 7");
    EXPECT_THAT(finish(sink), ended(0, ""));
}

INSTANTIATE_TEST_SUITE_P(Kinds, VornnetRoad, testing::Values("pipe", "socket", "udp"),
                         [](const auto& instance) { return instance.param; });
INSTANTIATE_TEST_SUITE_P(Kinds, VornnetStream, testing::Values("pipe", "socket"),
                         [](const auto& instance) { return instance.param; });

TEST_F(VornnetSink, Steady_IsListedAsListening) {
    ChildProcess sink = startTool({"sink", "--steady", "--type", "pipe"});
    const std::string address = addressOf(sink);
    const Json pipes = runTool({"pipes", "--json"}).json().at("pipes");
    ASSERT_EQ(pipes.size(), 1U) << pipes;
    EXPECT_EQ(pipes[0].at("name"), address.substr(5));
    EXPECT_EQ(pipes[0].at("state"), "listening");
    EXPECT_EQ(pipes[0].at("processes")[0].at("pid"), sink.pid());
    EXPECT_EQ(runTool({"pipes", "--clean"}).status, 0);
    EXPECT_TRUE(exists(pipeOf(address)));
}

TEST_F(VornnetSink, WithoutType_MakesAPipeNamedAfterItsProcess) {
    ChildProcess sink = startTool({"sink"}, {"QUORAX_CALLB_CONN_TYPE"});
    char expected[64];
    std::snprintf(expected, sizeof expected, "pipe:quorax%x", static_cast<unsigned int>(sink.pid()));
    EXPECT_EQ(addressOf(sink), expected);
}

TEST_F(VornnetSink, WithoutType_MakesWhatTheEnvironmentSays) {
    ChildProcess sink = startTool({"sink"}, {"QUORAX_CALLB_CONN_TYPE=udp"});
    EXPECT_EQ(addressOf(sink), "udp:127.0.0.1:5023");
}

TEST_F(VornnetSink, WithPortTaken_PrintsTheAddressToWhichItMoved) {
    int port = 5023;
    const UniqueFd taken = tcpListen("127.0.0.1", port);
    ChildProcess sink = startTool({"sink", "--type", "socket"});
    EXPECT_EQ(addressOf(sink), "socket:127.0.0.1:5024");
}

TEST_F(VornnetSink, WhenItsAddressMoves_PrintsTheNewOne) {
    ChildProcess sink = startTool({"sink", "--type", "socket", "--count", "1"});
    EXPECT_EQ(addressOf(sink), "socket:127.0.0.1:5023");
    {
        // The sink closes a connection for an unknown handle first, which leaves its port in TIME_WAIT.
        const UniqueFd sender = tcpConnect("127.0.0.1", 5023);
        sendAll(sender.get(), bytes(cUnknownHandle));
        EXPECT_EQ(receiveToEnd(sender.get()), "");
    }
    EXPECT_EQ(nextLine(sink), "address socket:127.0.0.1:5024");
    // The address is known a moment before the port is bound.
    ChildProcess sender =
        startTool({"notify", "socket:127.0.0.1:5024", "0", "1", "--repeat", "3000", "--every", "20"});
    EXPECT_EQ(nextLine(sink), "notification 1: handle 0, id 1");
    EXPECT_EQ(finish(sink).status, 0);
}

TEST_F(VornnetSink, WithSeveralCallbacks_PrintsTheHandleOfEach) {
    ChildProcess sink = startTool({"sink", "--type", "pipe", "--callbacks", "3", "--count", "2"});
    const std::string address = addressOf(sink);
    EXPECT_EQ(runTool({"notify", address, "2", "7"}).status, 0);
    EXPECT_EQ(nextLine(sink), "notification 1: handle 2, id 7");
    // One that follows at once may meet the sink while it closes and opens its server, so several are sent.
    // Nobody has the handle 3, so nothing is printed for it.
    runTool({"notify", address, "3", "8", "--repeat", "3", "--every", "10"});
    ChildProcess sender = startTool({"notify", address, "1", "9", "--repeat", "3000", "--every", "20"});
    EXPECT_EQ(nextLine(sink), "notification 2: handle 1, id 9");
}

TEST_F(VornnetSink, WithForeignSender_PrintsItsNotification) {
    ChildProcess sink = startTool({"sink", "--type", "pipe", "--count", "1"});
    {
        const UniqueFd sender = unixConnect(pipeOf(addressOf(sink)));
        sendAll(sender.get(), bytes(cNotification));
    }
    EXPECT_EQ(nextLine(sink), "notification 1: handle 0, id 12");
    EXPECT_EQ(finish(sink).status, 0);
}

TEST_F(VornnetSink, InterruptedSeveralTimesAtOnce_RemovesThePipesFile) {
    for (int round = 0; round < 5; ++round) {
        ChildProcess sink = startTool({"sink", "--type", "pipe"});
        const std::string path = pipeOf(addressOf(sink));
        interruptSeveralTimes(sink);
        EXPECT_EQ(finish(sink).status, 130);
        EXPECT_FALSE(exists(path));
    }
}

TEST_F(VornnetSink, InterruptedWhileASenderSaysNothing_Ends) {
    ChildProcess sink = startTool({"sink", "--type", "pipe", "--log-level", "9"});
    const UniqueFd sender = unixConnect(pipeOf(addressOf(sink)));
    sink.kill(SIGINT);
    EXPECT_EQ(finish(sink).status, 130);
}

TEST_F(VornnetSink, WhenItsThreadHasEnded_SaysSoAndFails) {
    ChildProcess sink = startTool({"sink", "--type", "udp"});
    addressOf(sink);
    int port = 0;
    const UniqueFd sender = udpSocket("127.0.0.1", port);
    udpSendTo(sender.get(), "127.0.0.1", 5023, "");
    EXPECT_THAT(finish(sink), ended(1, _, HasSubstr("the sink has ended")));
}

TEST_F(VornnetSink, WithoutPipeDirectory_TellsTheRemedyInsteadOfWaiting) {
    EXPECT_THAT(runToolWithoutPipeDirectory({"sink", "--type", "pipe"}),
                ended(1, _, HasSubstr("is missing; groupadd --system --force vorn; ")));
}

TEST_F(VornnetSink, WithoutLocalhost_TellsTheRemedyInsteadOfWaiting) {
    useHostsFile("");
    for (const char* type : {"socket", "udp"}) {
        EXPECT_THAT(runTool({"sink", "--type", type}),
                    ended(1, _, HasSubstr("\"localhost\" does not resolve")));
    }
}

TEST_F(VornnetSink, WhenStandardOutputGoesAway_Ends) {
    // The shell takes the first line and closes its end; the notifications then find nobody to print for.
    const ToolResult result = runShell("\"$TOOL\" sink --type pipe | { read -r word address; exec <&-; "
                                       "while \"$TOOL\" notify \"$address\" 0 1 >/dev/null; do :; done; }");
    EXPECT_THAT(result.errors, HasSubstr("standard output has gone away"));
}

TEST_F(VornnetNotify, WhenNobodyListens_IsUnreachable) {
    EXPECT_THAT(runTool({"notify", "pipe:nobody", "0", "1"}),
                ended(4, "sent 0, refused 1 (2 No such file or directory: 1)\n"));
}

TEST_F(VornnetNotify, WhenRefused_CountsByErrorNumber) {
    const int port = unusedTcpPort();
    const Json object =
        runTool({"notify", "--json", "socket:127.0.0.1:" + std::to_string(port), "0", "1", "--repeat", "3"})
            .json();
    EXPECT_EQ(object.at("sent"), 0);
    EXPECT_EQ(object.at("refused"), 3);
    ASSERT_EQ(object.at("errors").size(), 1U);
    EXPECT_EQ(object.at("errors").at(0).at("code"), 111);
    EXPECT_EQ(object.at("errors").at(0).at("count"), 3);
}

TEST_F(VornnetNotify, WhenOnlySomeAreSent_IsIncomplete) {
    UniqueFd server = unixListen(pipePath("once"));
    ChildProcess tool = startTool({"notify", "pipe:once", "0", "1", "--repeat", "2", "--every", "4000"});
    {
        const UniqueFd client = acceptClient(server.get());
        server.reset();
        EXPECT_EQ(hex(receiveToEnd(client.get())), "00 00 00 00 00 00 00 00 00 00 00 01 00 00 00 00");
    }
    EXPECT_THAT(finish(tool), ended(6, "sent 1, refused 1 (111 Connection refused: 1)\n"));
}

TEST_F(VornnetNotify, WithHandleIdAndValues_WritesThemInThisOrder) {
    const UniqueFd server = unixListen(pipePath("foreign"));
    ChildProcess tool = startTool({"notify", "pipe:foreign", "--", "-1", "5", "int:258", "string:ab"});
    const UniqueFd client = acceptClient(server.get());
    EXPECT_EQ(hex(receiveToEnd(client.get())), "ff ff ff ff 00 00 00 00 00 00 00 05 00 00 00 00 00 00 01 02 "
                                               "00 00 00 02 61 62");
    EXPECT_EQ(finish(tool).status, 0);
}

TEST_F(VornnetNotify, WithUdp_SendsOneDatagram) {
    int port = 0;
    const UniqueFd receiver = udpSocket("127.0.0.1", port);
    EXPECT_EQ(runTool({"notify", "udp:127.0.0.1:" + std::to_string(port), "1", "2", "short:3"}).status, 0);
    EXPECT_EQ(hex(receiveDatagram(receiver.get())), "00 00 00 01 00 00 00 00 00 00 00 02 00 00 00 00 00 03");
}

TEST_F(VornnetNotify, WhenADatagramCannotBeSent_IsUnreachable) {
    // The sandbox has the loopback interface only.
    EXPECT_THAT(runTool({"notify", "udp:10.0.0.1:5023", "1", "2"}),
                ended(4, "sent 0, refused 1 (101 Network is unreachable: 1)\n"));
}

TEST_F(VornnetNotify, WithUnknownHost_IsUnreachableAndSendsNothingToThisHost) {
    ChildProcess sink = startTool({"sink", "--type", "socket"});
    addressOf(sink);
    EXPECT_THAT(runTool({"notify", "socket:no-such-host:5023", "0", "1"}),
                ended(4, _, HasSubstr("there is no host called \"no-such-host\"")));
    sink.kill(SIGINT);
    EXPECT_EQ(finish(sink).output, "");
}

TEST_F(VornnetNotify, WithTimeoutAndAFullServer_GivesUpAndPrintsTheResult) {
    const UniqueFd server = unixListen(pipePath("full"), 0);
    EXPECT_THAT(runTool({"notify", "pipe:full", "0", "1", "--repeat", "5", "--timeout", "3"}),
                ended(4, "sent 1, refused 0\n", HasSubstr("no answer within 3000 ms")));
}

TEST_F(VornnetNotify, InterruptedBetweenTwo_PrintsTheResultSoFar) {
    const UniqueFd server = unixListen(pipePath("slow"));
    ChildProcess tool = startTool({"notify", "pipe:slow", "0", "1", "--repeat", "1000", "--every", "600000"});
    const UniqueFd client = acceptClient(server.get());
    receiveToEnd(client.get());
    tool.kill(SIGINT);
    EXPECT_THAT(finish(tool), ended(130, "sent 1, refused 0\n"));
}

TEST_F(VornnetNotify, InterruptedWhileBlocked_PrintsTheResultSoFar) {
    const UniqueFd server = unixListen(pipePath("stuck"), 0);
    ChildProcess tool = startTool({"notify", "pipe:stuck", "0", "1", "--repeat", "1000"});
    ASSERT_TRUE(awaitCondition([&] { return isInConnect(tool.pid()); }));
    tool.kill(SIGTERM);
    EXPECT_THAT(finish(tool), ended(143, "sent 1, refused 0\n"));
}

TEST_F(VornnetNotify, Confirmed_TellsWhatBecameOfEach) {
    ChildProcess sink = startTool({"sink", "--type", "pipe", "--count", "3"});
    const std::string address = addressOf(sink);
    EXPECT_THAT(
        runTool({"notify", "--confirm", "--repeat", "3", address, "0", "12"}),
        ended(0, MatchesRegex("(notification [123]: delivered, [0-9]+ (try|tries), [0-9.]+ ms\n){3}")));
    EXPECT_EQ(finish(sink).status, 0);
}

TEST_F(VornnetNotify, Confirmed_WhereNobodyListens_ExpiresAtTheTimeout) {
    const ToolResult sent =
        runTool({"notify", "--confirm", "--timeout", "0.5", "--json", "pipe:nobody", "0", "12"});
    EXPECT_EQ(sent.status, 4);
    const Json result = sent.json();
    EXPECT_EQ(result["notification"], 1);
    EXPECT_EQ(result["address"], "pipe:nobody");
    EXPECT_EQ(result["outcome"], "expired");
    EXPECT_EQ(result["code"], ENOENT);
    EXPECT_GT(result["tries"], 1);
    EXPECT_EQ(result["doubtful"], 0);
    EXPECT_GE(result["microseconds"], 500'000);
}

TEST_F(VornnetNotify, Confirmed_WhenInterrupted_TellsWhatIsLeft) {
    ChildProcess tool = startTool({"notify", "--confirm", "pipe:nobody", "0", "12"});
    ASSERT_TRUE(awaitCondition([&] {
        return readTextFile("/proc/" + std::to_string(tool.pid()) + "/status").find("Threads:\t4") !=
               std::string::npos;
    }));
    tool.kill(SIGINT);
    EXPECT_THAT(finish(tool), ended(130, StartsWith("notification 1: stopped")));
}
