// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Posix.h"
#include "Sandbox.h"
#include "ToolRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace VornTest;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class VornnetDoctor : public ToolNetworkTest {};

/** What the tool finds, and its exit status. */
struct Diagnosis {
    int status = -1;
    Json findings;

    /** The findings of a check. */
    std::vector<Json> of(const std::string& check) const {
        std::vector<Json> result;
        for (const Json& finding : findings) {
            if (finding.at("check") == check)
                result.push_back(finding);
        }
        return result;
    }
};

Diagnosis diagnosisOf(const ToolResult& result) {
    return {result.status, result.json().at("findings")};
}

const std::vector<std::string> cPipes = {"QUORAX_CALLB_CONN_TYPE"};

Diagnosis examine(const std::vector<std::string>& environment = cPipes,
                  const std::vector<std::string>& options = {}) {
    return diagnosisOf(runTool(with({"doctor", "--json"}, options), environment));
}

/** Expects that the only finding of a check is this one, and that the exit status tells a problem. */
void expectFinding(const Diagnosis& diagnosis, const std::string& check, const std::string& severity,
                   const std::string& text) {
    const std::vector<Json> findings = diagnosis.of(check);
    EXPECT_EQ(diagnosis.status, severity == "problem" ? 5 : 0) << diagnosis.findings.dump(1);
    ASSERT_EQ(findings.size(), 1U) << diagnosis.findings.dump(1);
    EXPECT_EQ(findings[0].at("severity"), severity);
    EXPECT_THAT(findings[0].at("text").get<std::string>(), HasSubstr(text));
    if (severity == "ok")
        EXPECT_FALSE(findings[0].contains("remedy"));
    else
        EXPECT_NE(findings[0].value("remedy", ""), "");
}

/** With a file system of its own for the pipe directory. */
Diagnosis examineMounted(unsigned long flags, const char* options) {
    EXPECT_EQ(::mount("tmpfs", pipeDirectory(), "tmpfs", flags, options), 0);
    Diagnosis diagnosis = examine();
    EXPECT_EQ(::umount(pipeDirectory()), 0);
    return diagnosis;
}

/** Gives the pipe directory another mode while it exists. */
class DirectoryMode {
public:
    explicit DirectoryMode(mode_t mode) { ::chmod(pipeDirectory(), mode); }

    ~DirectoryMode() { ::chmod(pipeDirectory(), 0770); }

    DirectoryMode(const DirectoryMode&) = delete;
    DirectoryMode& operator=(const DirectoryMode&) = delete;
};

/** Leaves a TCP port in TIME_WAIT, by closing the server's side first. */
void leaveInTimeWait(int port) {
    UniqueFd accepted;
    UniqueFd client;
    {
        const UniqueFd server = tcpListen("127.0.0.1", port);
        client = tcpConnect("127.0.0.1", port);
        accepted = acceptClient(server.get());
    }
    accepted.reset();
    receiveToEnd(client.get());
}

} // namespace

KIT_ROLE(runWithFewDescriptors) {
    const rlimit limit = {64, 64};
    if (::setrlimit(RLIMIT_NOFILE, &limit) == 0)
        ::execl(args.at(0).c_str(), "vornnet", "doctor", "--json", nullptr);
    return 125;
}

TEST_F(VornnetDoctor, WhereAllIsWell_FindsNothing) {
    const DirectoryMode mode(01770);
    const Diagnosis diagnosis = examine();
    EXPECT_EQ(diagnosis.status, 0);
    for (const Json& finding : diagnosis.findings)
        EXPECT_EQ(finding.at("severity"), "ok") << finding;
    for (const char* check : {"pipe-directory", "sink-type", "localhost", "tcp-ports", "udp-ports", "pipes",
                              "sinks", "services", "path-length", "descriptors"})
        EXPECT_EQ(diagnosis.of(check).size(), 1U) << check;
}

TEST_F(VornnetDoctor, WithoutJson_PrintsEachFindingWithItsRemedy) {
    const DirectoryMode mode(0777);
    const ToolResult result = runTool({"doctor"});
    EXPECT_EQ(result.status, 5);
    EXPECT_THAT(result.output, StartsWith("problem  pipe-directory: the pipe directory "));
    EXPECT_THAT(result.output,
                HasSubstr(std::string("\n         remedy: chmod 1770 ") + pipeDirectory() + "\n"));
    EXPECT_THAT(result.output, HasSubstr("\nok       descriptors: "));
}

TEST_F(VornnetDoctor, WithoutPipeDirectory_FindsAProblem) {
    const Diagnosis diagnosis = diagnosisOf(runToolWithoutPipeDirectory({"doctor", "--json"}));
    expectFinding(diagnosis, "pipe-directory", "problem", "is missing");
    const std::string remedy = diagnosis.of("pipe-directory").at(0).at("remedy");
    const std::string manual = readTextFile(toolFile("../docs/installing.md"));
    for (const std::string command :
         {"groupadd --system --force vorn",
          "install -d -o root -g vorn -m 1770 /opt/vorn/hostmgr/var/lib/kestrel/rendez"}) {
        EXPECT_THAT(remedy, HasSubstr(command));
        EXPECT_THAT(manual, HasSubstr("sudo " + command + "\n"));
    }
}

TEST_F(VornnetDoctor, WithPipeDirectoryOpenToOthers_FindsAProblem) {
    const DirectoryMode mode(01777);
    expectFinding(examine(), "pipe-directory", "problem", "open to others (mode 1777)");
}

TEST_F(VornnetDoctor, WithPipeDirectoryWithoutStickyBit_Warns) {
    const DirectoryMode mode(0770);
    expectFinding(examine(), "pipe-directory", "warning", "has no sticky bit (mode 0770)");
}

TEST_F(VornnetDoctor, WithPipeDirectoryNotWritable_FindsAProblem) {
    expectFinding(examineMounted(MS_RDONLY, "mode=1770"), "pipe-directory", "problem",
                  "not writable for this user: Read-only file system");
}

TEST_F(VornnetDoctor, WithPipeDirectoryWithoutRoom_FindsAProblem) {
    expectFinding(examineMounted(0, "mode=1770,nr_inodes=1"), "pipe-directory", "problem",
                  "no file left to give");
}

TEST_F(VornnetDoctor, WithSinkType_SaysWhichOrThatItIsNone) {
    for (const std::string type : {"pipe", "socket", "udp"})
        expectFinding(examine({"QUORAX_CALLB_CONN_TYPE=" + type}), "sink-type", "ok",
                      "QUORAX_CALLB_CONN_TYPE is \"" + type + "\"");
    expectFinding(examine({"QUORAX_CALLB_CONN_TYPE=Pipe"}), "sink-type", "problem",
                  "is \"Pipe\", which is no transport");
}

TEST_F(VornnetDoctor, WithLocalhost_TellsTheAddressThatASinkPublishes) {
    const std::string text = "publishes the address 127.0.0.1, which only this host can reach";
    expectFinding(examine(), "localhost", "ok", text);
    useHostsFile("127.0.0.1 host1 localhost\n127.0.0.9 other\n"); // the official name is another
    expectFinding(examine(), "localhost", "ok", text);
}

TEST_F(VornnetDoctor, WithoutLocalhost_FindsAProblemForSocketsOnly) {
    useHostsFile("");
    expectFinding(examine({"QUORAX_CALLB_CONN_TYPE=socket"}), "localhost", "problem", "does not resolve");
    expectFinding(examine(), "localhost", "warning", "does not resolve");
}

TEST_F(VornnetDoctor, WithLocalhostOfAnotherHost_FindsAProblem) {
    useHostsFile("10.1.2.3 localhost\n");
    const Diagnosis diagnosis = examine({"QUORAX_CALLB_CONN_TYPE=udp"});
    expectFinding(diagnosis, "localhost", "problem", "10.1.2.3, which is no address of this host");
    EXPECT_EQ(diagnosis.of("localhost").at(0).at("remedy"),
              "sed -i 's/^10.1.2.3\\(.*localhost\\)/127.0.0.1\\1/' /etc/hosts");
}

TEST_F(VornnetDoctor, WithHealthyTcpSink_FindsNothing) {
    const DirectoryMode mode(01770);
    ChildProcess sink = startTool({"sink", "--type", "socket"});
    addressOf(sink);
    const Diagnosis diagnosis = examine(cPipes, {"--strict"});
    expectFinding(diagnosis, "tcp-ports", "ok",
                  "the next TCP sink gets port 5024: 5023 is taken by " + std::to_string(sink.pid()) +
                      " (vornnet)");
    expectFinding(diagnosis, "sinks", "ok", "1 sink (0 steady), and none is held up");
}

TEST_F(VornnetDoctor, WithPortTakenByAForeignProcess_NamesItAndTheNextPort) {
    int port = 5023;
    UniqueFd taken = tcpListen("127.0.0.1", port);
    const std::string holder = "5023 is taken by " + std::to_string(::getpid()) + " (";
    const Diagnosis tcp = examine();
    expectFinding(tcp, "tcp-ports", "warning", "the next TCP sink gets port 5024: " + holder);
    expectFinding(tcp, "udp-ports", "ok", "port 5023 is free");
    taken = udpSocket("127.0.0.1", port);
    const Diagnosis udp = examine();
    expectFinding(udp, "udp-ports", "warning", "the next UDP sink gets port 5024: " + holder);
    expectFinding(udp, "tcp-ports", "ok", "port 5023 is free");
}

TEST_F(VornnetDoctor, WithTcpPortsInTimeWait_SaysSo) {
    leaveInTimeWait(5023);
    leaveInTimeWait(5024);
    expectFinding(examine(), "tcp-ports", "warning",
                  "the next TCP sink gets port 5025: 5023 is in TIME_WAIT, 5024 is in TIME_WAIT");
}

TEST_F(VornnetDoctor, WithStrict_CountsWarningsAsProblems) {
    const DirectoryMode mode(01770);
    EXPECT_EQ(examine({"QUORAX_CALLB_CONN_TYPE"}, {"--strict"}).status, 0);
    unixListen(pipePath("dead"));
    EXPECT_EQ(examine().status, 0);
    EXPECT_EQ(examine({"QUORAX_CALLB_CONN_TYPE"}, {"--strict"}).status, 5);
}

TEST_F(VornnetDoctor, WithDeadPipes_TellsThemInOneLine) {
    unixListen(pipePath("dead"));
    expectFinding(examine(), "pipes", "warning", "pipe \"dead\" is dead");
    for (int i = 0; i < 200; ++i)
        unixListen(pipePath("dead" + std::to_string(100 + i)));
    expectFinding(examine(), "pipes", "warning",
                  "201 pipes are dead: \"dead\", \"dead100\", \"dead101\" and 198 more; ");
}

TEST_F(VornnetDoctor, WithStolenPipe_FindsAProblem) {
    ChildProcess first = startService("pipe:shared");
    const UniqueFd second = [] {
        ::unlink(pipePath("shared").c_str());
        return unixListen(pipePath("shared"));
    }();
    expectFinding(examine(), "pipes", "problem",
                  "pipe \"shared\" was stolen from process " + std::to_string(first.pid()) + " (vornnet)");
}

TEST_F(VornnetDoctor, WithUnlinkedPipe_FindsAProblem) {
    const UniqueFd server = unixListen(pipePath("lost"));
    ::unlink(pipePath("lost").c_str());
    expectFinding(examine(), "pipes", "problem", "has lost its file");
}

TEST_F(VornnetDoctor, WithFullPipe_FindsAProblem) {
    const UniqueFd server = unixListen(pipePath("full"), 0);
    const UniqueFd client = unixConnect(pipePath("full"));
    expectFinding(examine(), "services", "problem", "the queue is full, and whoever comes now is blocked");
}

TEST_F(VornnetDoctor, WithLivePipe_FindsNothing) {
    const UniqueFd server = unixListen(pipePath("live"));
    expectFinding(examine(), "pipes", "ok", "1 entries, none of them dead or stolen");
}

TEST_F(VornnetDoctor, Always_TellsHowLongThePipesNamesMayBe) {
    const Diagnosis diagnosis = examine();
    const std::size_t longest = 107 - std::string(pipeDirectory()).size();
    expectFinding(diagnosis, "path-length", "ok", "may have " + std::to_string(longest) + " bytes");
    ChildProcess server = startTool({"serve", "pipe:" + std::string(longest, 'x')});
    EXPECT_THAT(nextLine(server), StartsWith("listening at pipe:xxx"));
    EXPECT_EQ(runTool({"serve", "pipe:" + std::string(longest + 1, 'x')}).status, 2);
}

TEST_F(VornnetDoctor, WithFewDescriptors_FindsAProblem) {
    ChildProcess tool = ChildProcess::spawnRole("runWithFewDescriptors", toolPath());
    expectFinding(diagnosisOf(finish(tool)), "descriptors", "problem",
                  "a process may have 64 descriptors only");
}
