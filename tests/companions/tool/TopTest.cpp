// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "ForkedChild.h"
#include "Posix.h"
#include "Sandbox.h"
#include "Sanitizer.h"
#include "ToolRun.h"

#include <csignal>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

using namespace VornTest;
using testing::AllOf;
using testing::HasSubstr;

namespace {

class VornnetTop : public ToolNetworkTest {
protected:
    /** The server at an address, as `top --json` shows it. */
    static Json serverAt(const std::string& address) {
        const Json servers = runTool({"top", "--json"}).json().at("servers");
        for (const Json& server : servers) {
            if (server.at("address") == address)
                return server;
        }
        return {};
    }

    /** Starts `top` on a terminal of its own, after @p before. Its first line is the tool's process id. */
    static ChildProcess startOnTerminal(const std::string& before, const std::string& every) {
        return ChildProcess::spawn(
            {"script", "-qefc", before + "; echo $$; TERM=xterm exec " + toolPath() + " top --every " + every,
             cTypescript});
    }

    /** Waits until the tool has written it to its terminal. */
    static bool awaitShown(const std::string& text) {
        return awaitCondition([&] { return readTextFile(cTypescript).find(text) != std::string::npos; },
                              std::chrono::seconds(60));
    }

    static constexpr const char* cTypescript = "/opt/typescript";
};

class VornnetMetrics : public ToolNetworkTest {
protected:
    /** The value of the sample that begins like this; empty without one. */
    static std::string sample(const std::string& output, const std::string& beginning) {
        std::istringstream lines(output);
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind(beginning, 0) == 0)
                return line.substr(line.rfind(' ') + 1);
        }
        return {};
    }
};

} // namespace

TEST_F(VornnetTop, WhereThereIsNoTerminal_PrintsTheTableOnce) {
    ChildProcess sink = startTool({"sink", "--type", "socket"});
    addressOf(sink);
    ToolResult result;
    EXPECT_TRUE(awaitCondition([&] { // its thread may begin later
        result = runTool({"top"});
        return result.output.find("socket:127.0.0.1:5023  accepts  0/5") != std::string::npos;
    }));
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, AllOf(HasSubstr("ADDRESS"), HasSubstr("process " + std::to_string(sink.pid()) +
                                                                     " (vornnet, user root)")));
    EXPECT_THAT(result.output, testing::Not(HasSubstr("\033")));
}

TEST_F(VornnetTop, ServersOfEveryTransport_AreShownWithWhoWaitsAndWhoIsServed) {
    ChildProcess pipe = startService("pipe:one", {"--expect", "int"});
    ChildProcess tcp = startService("socket:127.0.0.1:4711", {"--expect", "int"});
    ChildProcess udp = startService("udp:127.0.0.1:4711");
    const UniqueFd pipeClient = unixConnect(pipePath("one"));
    const UniqueFd tcpClient = tcpConnect("127.0.0.1", 4711);
    for (const char* address : {"pipe:one", "socket:127.0.0.1:4711"}) {
        EXPECT_TRUE(awaitCondition([&] { return serverAt(address).value("state", "") == "reads"; }));
        const Json server = serverAt(address);
        EXPECT_EQ(server.at("type"), "service");
        EXPECT_EQ(server.at("backlog"), 5);
        ASSERT_EQ(server.at("served").size(), 1U);
        EXPECT_EQ(server.at("served").at(0).at("processes").at(0).at("pid"), ::getpid());
        EXPECT_EQ(server.at("waiting").size(), 0U);
    }
    const UniqueFd second = unixConnect(pipePath("one"));
    EXPECT_EQ(serverAt("pipe:one").at("waiting").at(0).at("processes").at(0).at("pid"), ::getpid());
    EXPECT_EQ(serverAt("udp:127.0.0.1:4711").at("state"), "accepts");
    EXPECT_EQ(serverAt("udp:127.0.0.1:4711").at("unread_bytes"), 0);
}

TEST_F(VornnetTop, OnATerminal_IsShownAnewUntilQIsPressed) {
    const UniqueFd server = unixListen(pipePath("shown"));
    ChildProcess terminal = startOnTerminal("stty rows 24 cols 120", "0.1");
    nextLine(terminal);
    EXPECT_TRUE(awaitShown("pipe:shown"));
    const UniqueFd later = unixListen(pipePath("later"));
    EXPECT_TRUE(awaitShown("later"));
    terminal.writeLine("q");
    EXPECT_THAT(finish(terminal), ended(0, AllOf(HasSubstr("\033[?1049h"), HasSubstr("\033[?1049l"))));
}

TEST_F(VornnetTop, FromTheSecondLookOn_TellsHowOftenTheThreadsWake) {
    ChildProcess busy = startTool({"sink", "--steady"});
    ChildProcess idle = startService("pipe:idle");
    const std::string address = addressOf(busy);
    ChildProcess sender = startTool({"notify", address, "0", "12", "--repeat", "1000000", "--every", "1"});
    EXPECT_EQ(nextLine(busy), "notification 1: handle 0, id 12");
    EXPECT_TRUE(awaitCondition([] { return serverAt("pipe:idle").value("state", "") == "accepts"; }));
    ChildProcess top = startTool({"top", "--json", "--count", "2", "--every", "0.3"});
    EXPECT_THAT(nextLine(top), testing::Not(HasSubstr("wakes_per_second")));
    const Json second = nextJson(top);
    for (const Json& server : second.at("servers")) {
        if (server.at("address") == address) {
            EXPECT_GT(server.at("wakes_per_second"), 0);
        } else if (!underThreadSanitizer) { // whose own thread wakes
            EXPECT_EQ(server.at("wakes_per_second"), 0);
        }
    }
    EXPECT_EQ(finish(top).status, 0);
}

TEST_F(VornnetTop, WhenItIsTerminated_GivesTheTerminalBackAtOnce) {
    ChildProcess terminal = startOnTerminal(":", "3600");
    const pid_t top = std::stoi(nextLine(terminal));
    EXPECT_TRUE(awaitShown("ADDRESS"));
    EXPECT_EQ(::kill(top, SIGTERM), 0);
    EXPECT_THAT(finish(terminal), ended(143, HasSubstr("\033[?1049l")));
}

TEST_F(VornnetTop, WhenTheTerminalIsGone_Ends) {
    ::prctl(PR_SET_CHILD_SUBREAPER, 1); // whoever kills the terminal inherits its program
    ChildProcess terminal = startOnTerminal("trap '' HUP", "3600");
    const pid_t top = std::stoi(nextLine(terminal));
    EXPECT_TRUE(awaitShown("ADDRESS"));
    terminal.kill(SIGKILL);
    EXPECT_EQ(statusOf(top), 0);
}

TEST_F(VornnetMetrics, AllOfThem_AreReadByAForeignParser) {
    ChildProcess sink = startTool({"sink", "--type", "socket"});
    ChildProcess udp = startTool({"sink", "--type", "udp"});
    addressOf(sink);
    addressOf(udp);
    const UniqueFd harmful = unixListen(pipePath("a\"b\\c"));
    const ToolResult result =
        runShell("\"$TOOL\" metrics | /usr/bin/python3 -c 'import sys\n"
                 "from prometheus_client.openmetrics.parser import text_string_to_metric_families as read\n"
                 "for family in read(sys.stdin.read()):\n"
                 "    for sample in family.samples:\n"
                 "        print(sample.name, family.type, sample.labels.get(\"address\"), sample.value)'");
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(result.output, AllOf(HasSubstr("vornnet_accepting gauge socket:127.0.0.1:5023 1\n"),
                                     HasSubstr("vornnet_dropped_datagrams_total counter udp:127.0.0.1:5023 "
                                               "0\n"),
                                     HasSubstr("vornnet_waiting_clients gauge pipe:a\"b\\c 0\n")));
}

TEST_F(VornnetMetrics, OfSocketsThatNothingTellsApart_AreThoseOfOne) {
    const UniqueFd former = unixListen(pipePath("twice"));
    ::unlink(pipePath("twice").c_str());
    const UniqueFd server = unixListen(pipePath("twice"));
    const std::string output = runTool({"metrics"}).output;
    const std::size_t first = output.find("vornnet_waiting_clients{address=\"pipe:twice\"");
    EXPECT_NE(first, std::string::npos);
    EXPECT_EQ(output.rfind("vornnet_waiting_clients{address=\"pipe:twice\""), first);
}

TEST_F(VornnetMetrics, OfAServer_AreItsQueueAndWhetherItAccepts) {
    ChildProcess server = startService("pipe:busy", {"--expect", "int"});
    const std::string labels = "{address=\"pipe:busy\",type=\"service\",pid=\"" +
                               std::to_string(server.pid()) + "\",process=\"vornnet\",user=\"root\"}";
    EXPECT_EQ(sample(runTool({"metrics"}).output, "vornnet_accepting" + labels), "1");
    const UniqueFd first = unixConnect(pipePath("busy"));
    EXPECT_TRUE(awaitCondition(
        [&] { return sample(runTool({"metrics"}).output, "vornnet_accepting" + labels) == "0"; }));
    const UniqueFd second = unixConnect(pipePath("busy"));
    unixListen(pipePath("dead"));
    const std::string output = runTool({"metrics"}).output;
    EXPECT_EQ(sample(output, "vornnet_waiting_clients" + labels), "1");
    EXPECT_EQ(sample(output, "vornnet_backlog_clients" + labels), "5");
    EXPECT_EQ(sample(output, "vornnet_connections" + labels), "1");
    EXPECT_EQ(sample(output, "vornnet_pipes{state=\"dead\"}"), "1");
}
