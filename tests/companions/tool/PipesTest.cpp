// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Posix.h"
#include "Sandbox.h"
#include "ToolRun.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iostream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

using namespace VornTest;

using testing::_;
using testing::HasSubstr;
using testing::Not;

namespace {

class VornnetPipes : public ToolTest {
protected:
    /** What the tool says of the pipes called @p name. */
    static std::vector<Json> entries(const std::string& name) {
        std::vector<Json> result;
        const Json object = runTool({"pipes", "--json"}).json();
        for (const Json& pipe : object.at("pipes")) {
            if (pipe.at("name") == name)
                result.push_back(pipe);
        }
        return result;
    }

    static Json entry(const std::string& name) {
        const std::vector<Json> all = entries(name);
        EXPECT_EQ(all.size(), 1U);
        return all.empty() ? Json() : all.front();
    }
};

/** A socket file whose server has gone. */
void makeDeadPipe(const std::string& name) {
    unixListen(pipePath(name));
}

/** Makes socket(AF_NETLINK) fail from now on, as it does in hardened services. */
bool forbidNetlink() {
    sock_filter instructions[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_socket, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_NETLINK, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAFNOSUPPORT),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {static_cast<unsigned short>(std::size(instructions)), instructions};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

/** `pipes --json` on a host whose kernel has no socket diagnosis. */
Json pipesWithoutDiagnosis() {
    ChildProcess tool = ChildProcess::spawnRole("runWithoutNetlink", toolPath(), "pipes", "--json");
    return finish(tool).json().at("pipes");
}

} // namespace

KIT_ROLE(runWithoutNetlink) {
    std::vector<char*> arguments;
    for (const std::string& argument : args)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    if (forbidNetlink())
        ::execv(arguments[0], arguments.data());
    return 125;
}

KIT_ROLE(listenInAnotherNetwork) {
    if (::unshare(CLONE_NEWNET) != 0)
        return 125;
    const UniqueFd server = unixListen(pipePath(args.at(0)));
    std::cout << "ready" << std::endl;
    std::string line;
    std::getline(std::cin, line);
    return 0;
}

TEST_F(VornnetPipes, InAnEmptyDirectory_PrintsTheHeadingAndIsDone) {
    EXPECT_THAT(runTool({"pipes"}), ended(0, "NAME  STATE  QUEUE  MODE  OWNER  GROUP  PROCESS\n"));
    EXPECT_EQ(runTool({"pipes", "--json"}).json().at("pipes"), Json::array());
}

TEST_F(VornnetPipes, WithALiveServer_PrintsItWithProcessAndRightsAndDoesNotConnect) {
    ChildProcess server = startService("pipe:live");
    const Json pipe = entry("live");
    EXPECT_EQ(pipe.at("state"), "listening");
    EXPECT_EQ(pipe.at("waiting"), 0);
    EXPECT_EQ(pipe.at("backlog"), 5);
    EXPECT_EQ(pipe.at("full"), false);
    EXPECT_EQ(pipe.at("mode"), "0770");
    EXPECT_EQ(pipe.at("owner"), "root");
    EXPECT_EQ(pipe.at("group"), "root");
    ASSERT_EQ(pipe.at("processes").size(), 1U);
    EXPECT_EQ(pipe.at("processes").at(0).at("pid"), server.pid());
    EXPECT_EQ(pipe.at("processes").at(0).at("name"), "vornnet");
    EXPECT_EQ(runTool({"pipes"}).status, 0);
    EXPECT_EQ(runTool({"pipes", "--clean"}).status, 0);
    server.kill(SIGINT);
    EXPECT_EQ(finish(server).output, "") << "something has connected to it";
}

TEST_F(VornnetPipes, WithADeadFile_SaysSoAndFindsAProblem) {
    makeDeadPipe("dead");
    EXPECT_EQ(entry("dead").at("state"), "dead");
    EXPECT_THAT(runTool({"pipes"}), ended(5, HasSubstr("dead  dead   -      07")));
}

TEST_F(VornnetPipes, WithAFullQueue_DoesNotTakeTheServerForDead) {
    const UniqueFd server = unixListen(pipePath("full"), 0);
    const UniqueFd client = unixConnect(pipePath("full"));
    const Json pipe = entry("full");
    EXPECT_EQ(pipe.at("state"), "listening");
    EXPECT_EQ(pipe.at("waiting"), 1);
    EXPECT_EQ(pipe.at("backlog"), 0);
    EXPECT_EQ(pipe.at("full"), true);
    EXPECT_THAT(runTool({"pipes"}).output, HasSubstr("1/0 full"));
    EXPECT_EQ(runTool({"pipes", "--clean"}).status, 0);
    EXPECT_TRUE(exists(pipePath("full")));
}

TEST_F(VornnetPipes, WithAStolenPath_ShowsBothProcessesAndLeavesTheThiefsFile) {
    ChildProcess first = startService("pipe:shared");
    ChildProcess second = startService("pipe:shared");
    const std::vector<Json> all = entries("shared");
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0].at("state"), "listening");
    EXPECT_EQ(all[0].at("processes").at(0).at("pid"), second.pid());
    EXPECT_EQ(all[1].at("state"), "stolen");
    EXPECT_EQ(all[1].at("processes").at(0).at("pid"), first.pid());
    EXPECT_FALSE(all[1].contains("mode"));
    EXPECT_EQ(runTool({"pipes", "--clean"}).status, 5);
    EXPECT_TRUE(exists(pipePath("shared")));
}

TEST_F(VornnetPipes, WithAFileRemovedUnderItsServer_SaysSo) {
    const UniqueFd server = unixListen(pipePath("unlinked"));
    ASSERT_EQ(::unlink(pipePath("unlinked").c_str()), 0);
    EXPECT_EQ(entry("unlinked").at("state"), "unlinked");
    EXPECT_EQ(runTool({"pipes"}).status, 5);
}

TEST_F(VornnetPipes, WithASocketThatDoesNotListen_SaysSo) {
    // A server between its bind() and its listen().
    const UniqueFd server(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    pipePath("bound").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(entry("bound").at("state"), "bound");
    EXPECT_EQ(runTool({"pipes", "--clean"}).status, 0);
    EXPECT_TRUE(exists(pipePath("bound")));
}

TEST_F(VornnetPipes, WithAProcessThatEndsAsItIsLookedAt_GoesOn) {
    needSandbox("a mount of its own");
    ChildProcess sink = startTool({"sink"});
    addressOf(sink);
    // To read this fails, as when the process ends after its file has been opened.
    const std::string process = "/proc/" + std::to_string(sink.pid());
    ASSERT_EQ(::mount((process + "/mem").c_str(), (process + "/comm").c_str(), nullptr, MS_BIND, nullptr), 0);
    const ToolResult result = runTool({"pipes"});
    EXPECT_EQ(result.status, 0) << result.errors;
}

TEST_F(VornnetPipes, WithAServerInAnotherNetwork_KnowsThatItLives) {
    needSandbox("a second network");
    ChildProcess server = ChildProcess::spawnRole("listenInAnotherNetwork", "elsewhere");
    ASSERT_EQ(nextLine(server), "ready");
    EXPECT_EQ(entry("elsewhere").at("state"), "hidden");
    EXPECT_EQ(runTool({"pipes", "--clean"}).status, 0);
    EXPECT_TRUE(exists(pipePath("elsewhere")));
}

TEST_F(VornnetPipes, WithAFileOfAnotherKind_SaysSoAndLeavesIt) {
    std::ofstream(pipePath("notes")) << "text";
    std::filesystem::create_directory(pipePath("folder"));
    EXPECT_EQ(entry("notes").at("state"), "no-socket");
    EXPECT_EQ(entry("folder").at("state"), "no-socket");
    EXPECT_EQ(runTool({"pipes", "--clean"}).status, 0);
    EXPECT_TRUE(exists(pipePath("notes")));
    EXPECT_TRUE(exists(pipePath("folder")));
}

TEST_F(VornnetPipes, WithAnAcceptedConnection_ShowsTheServerOnce) {
    const UniqueFd server = unixListen(pipePath("served"));
    const UniqueFd client = unixConnect(pipePath("served"));
    const UniqueFd accepted = acceptClient(server.get());
    EXPECT_EQ(entry("served").at("state"), "listening");
}

TEST_F(VornnetPipes, WithAPublisher_ShowsItWithItsSubscribers) {
    ChildProcess service = startTool({"publish", "pipe:news", "builds"});
    EXPECT_EQ(nextLine(service), "address pipe:news");
    const std::string publishes = std::to_string(service.pid()) + " (vornnet) publishes";
    EXPECT_TRUE(awaitCondition( // its thread may begin later
        [&] { return runTool({"pipes"}).output.find(publishes + "\n") != std::string::npos; }));
    ChildProcess client = startTool({"subscribe", "pipe:news", "builds", "--content", "string"});
    EXPECT_EQ(nextLine(client), "connected");
    EXPECT_THAT(runTool({"pipes"}).output,
                HasSubstr(publishes + " to " + std::to_string(client.pid()) + " (vornnet)\n"));
    const Json pipe = runTool({"pipes", "--json"}).json().at("pipes").at(0);
    EXPECT_EQ(pipe.at("type"), "publisher");
    EXPECT_EQ(pipe.at("subscribers"),
              Json::array({{{"pid", client.pid()}, {"name", "vornnet"}, {"user", "root"}}}));
}

TEST_F(VornnetPipes, WithTheRelay_DoesNotTakeItForAPublisher) {
    // What the relay has loaded, in a program that watches its sockets as it does. The address sanitizer
    // wants to be loaded first.
    ChildProcess relay = startTool({"publish", "pipe:relayed", "builds"},
                                   {"LD_PRELOAD=libnats.so", "ASAN_OPTIONS=verify_asan_link_order=0"});
    EXPECT_EQ(nextLine(relay), "address pipe:relayed");
    EXPECT_THAT(runTool({"pipes"}).output, HasSubstr(std::to_string(relay.pid()) + " (vornnet)\n"));
}

TEST_F(VornnetPipes, WithANameHarmfulToATerminal_ShowsItEscaped) {
    makeDeadPipe("a\033[2Jb");
    const std::string output = runTool({"pipes"}).output;
    EXPECT_THAT(output, HasSubstr("a\\x1b[2Jb"));
    EXPECT_THAT(output, Not(HasSubstr("\033")));
}

TEST_F(VornnetPipes, WithClean_RemovesTheDeadOnly) {
    makeDeadPipe("dead1");
    makeDeadPipe("dead2");
    ChildProcess server = startService("pipe:live");
    EXPECT_THAT(runTool({"pipes", "--clean"}), ended(0, HasSubstr("removed dead1\nremoved dead2\nNAME")));
    EXPECT_FALSE(exists(pipePath("dead1")));
    EXPECT_FALSE(exists(pipePath("dead2")));
    EXPECT_EQ(runTool({"connect", "pipe:live"}).status, 0);
}

TEST_F(VornnetPipes, WithCleanAndJson_NamesWhatWasRemoved) {
    makeDeadPipe("dead");
    const Json object = runTool({"pipes", "--clean", "--json"}).json();
    EXPECT_EQ(object, Json::parse(R"({"pipes":[],"removed":["dead"],"not_removed":[]})"));
}

TEST_F(VornnetPipes, WithCleanWhileASinkOpensAndClosesItsServer_LeavesItWithinReach) {
    ChildProcess sink = startTool({"sink", "--type", "pipe", "--count", "20"});
    const std::string address = addressOf(sink);
    ChildProcess cleaner = ChildProcess::spawn(
        {"/bin/sh", "-c", "while \"$TOOL\" pipes --clean >/dev/null; do :; done"}, {"TOOL=" + toolPath()});
    ChildProcess sender = startTool({"notify", address, "0", "1", "--repeat", "10000", "--every", "5"});
    EXPECT_EQ(finish(sink).status, 0);
}

TEST_F(VornnetPipes, WithoutTheDirectory_Fails) {
    EXPECT_THAT(runToolWithoutPipeDirectory({"pipes"}), ended(1, _, HasSubstr("No such file or directory")));
}

TEST_F(VornnetPipes, WithoutSocketDiagnosis_TellsTheLiveFromTheDead) {
    makeDeadPipe("dead");
    ChildProcess server = startService("pipe:live");
    const Json pipes = pipesWithoutDiagnosis();
    ASSERT_EQ(pipes.size(), 2U);
    EXPECT_EQ(pipes.at(0).at("name"), "dead");
    EXPECT_EQ(pipes.at(0).at("state"), "dead");
    EXPECT_EQ(pipes.at(1).at("name"), "live");
    EXPECT_EQ(pipes.at(1).at("state"), "hidden");
    EXPECT_FALSE(pipes.at(1).contains("full"));
}

TEST_F(VornnetPipes, OnAnOverlay_ShowsAStolenPathAsContested) {
    needSandbox("a mount");
    // There a socket is told with the number of a file below, so nothing tells who has the path.
    const std::string directory(pipeDirectory(), std::string(pipeDirectory()).size() - 1);
    const std::string base = directory + ".overlay";
    for (const char* part : {"", "/lower", "/upper", "/work"})
        std::filesystem::create_directory(base + part);
    const std::string options =
        "lowerdir=" + base + "/lower,upperdir=" + base + "/upper,workdir=" + base + "/work";
    ASSERT_EQ(::mount("overlay", directory.c_str(), "overlay", 0, options.c_str()), 0);
    Json pipes;
    {
        ChildProcess first = startService("pipe:shared");
        ChildProcess second = startService("pipe:shared");
        pipes = runTool({"pipes", "--json"}).json().at("pipes");
    }
    EXPECT_EQ(::umount2(directory.c_str(), MNT_DETACH), 0);
    ASSERT_EQ(pipes.size(), 1U);
    EXPECT_EQ(pipes.at(0).at("state"), "contested");
    EXPECT_EQ(pipes.at(0).at("processes").size(), 2U);
}
