// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Posix.h"
#include "Sandbox.h"
#include "ToolRun.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

using namespace VornTest;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

const std::string cTracing = "/sys/kernel/tracing/";

class VornnetFollow : public ToolNetworkTest {};

/** Where the kernel lets this user trace; where it does not, the suite above has what the tool says. */
class VornnetTrace : public ToolNetworkTest {
protected:
    void SetUp() override {
        ToolNetworkTest::SetUp();
        if (::access((cTracing + "uprobe_events").c_str(), W_OK) != 0)
            GTEST_SKIP() << "there is no tracefs here that may be written: " << ::strerror(errno);
        m_sink.emplace(startTool({"sink", "--log-level", "1"}));
        m_address = addressOf(*m_sink);
    }

    void TearDown() override {
        m_sink.reset();
        ToolNetworkTest::TearDown();
    }

    /** Starts `follow` for the sink and waits until it does. */
    ChildProcess follow(const std::vector<std::string>& options) {
        std::vector<std::string> arguments = {"follow", std::to_string(m_sink->pid())};
        arguments.insert(arguments.end(), options.begin(), options.end());
        ChildProcess tool = startTool(arguments);
        EXPECT_THAT(nextLine(tool), HasSubstr("following"));
        return tool;
    }

    void notify() { EXPECT_EQ(runTool({"notify", m_address, "0", "12"}).status, 0); }

    /** Has the sink's log at level 1, which it writes to standard error, and nothing more. */
    std::optional<ChildProcess> m_sink;
    std::string m_address;
};

} // namespace

TEST_F(VornnetTrace, RecordsOfARunningProcess_AreShown) {
    ChildProcess tool = follow({"--count", "2", "--class", "VornLibraryCallbackSink"});
    notify();
    const std::string prefix = "20[0-9-]+T[0-9:.]+Z 9 \\[" + std::to_string(m_sink->pid()) + ":[0-9]+\\] ";
    EXPECT_THAT(nextLine(tool),
                MatchesRegex(prefix + "VornLibraryCallbackSink::run: received data : " + m_address));
    EXPECT_THAT(nextLine(tool), MatchesRegex(prefix + "VornLibraryCallbackSink::run: hCallback=0"));
    EXPECT_EQ(finish(tool).status, 0);
}

TEST_F(VornnetTrace, RecordsAsJson_AreObjects) {
    ChildProcess tool = follow({"--json", "--count", "1", "--class", "VornLibraryCallbackSink"});
    notify();
    const Json record = nextJson(tool);
    EXPECT_EQ(record.at("level"), 9);
    EXPECT_EQ(record.at("pid"), m_sink->pid());
    EXPECT_THAT(record.at("text").get<std::string>(), HasSubstr("received data"));
}

TEST_F(VornnetTrace, RecordsAboveTheLevel_AreNotShown) {
    ChildProcess tool = follow({"--level", "5"});
    notify();
    m_sink->kill(SIGINT);
    const ToolResult result = finish(tool);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, HasSubstr("has ended"));
}

TEST_F(VornnetTrace, RecordsThatTheProgramHasNotAskedFor_StayOutOfItsLog) {
    ChildProcess tool = follow({"--count", "1"});
    notify();
    EXPECT_EQ(finish(tool).status, 0);
    m_sink->kill(SIGINT);
    EXPECT_EQ(finish(*m_sink).errors, "");
}

TEST_F(VornnetTrace, AfterTheEnd_NothingIsLeftInTheKernel) {
    ChildProcess tool = follow({});
    tool.kill(SIGINT);
    EXPECT_EQ(finish(tool).status, 130);
    const std::string pid = std::to_string(tool.pid());
    EXPECT_EQ(readTextFile(cTracing + "uprobe_events").find("record_" + pid + " "), std::string::npos);
    EXPECT_NE(::access((cTracing + "instances/vornnet-" + pid).c_str(), F_OK), 0);
}

TEST_F(VornnetFollow, ProcessThatDoesNotExist_IsUnreachable) {
    const ToolResult result = runTool({"follow", "4194303"});
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.errors, "vornnet follow: there is no process 4194303\n");
}

TEST_F(VornnetFollow, NameThatNoProgramHas_IsUnreachable) {
    const ToolResult result = runTool({"follow", "no-such-program"});
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.errors, "vornnet follow: there is no process \"no-such-program\"\n");
}

TEST_F(VornnetFollow, ProcessWithoutTheLibrary_IsUnreachable) {
    ChildProcess other = ChildProcess::spawn({"/bin/sleep", "60"});
    const std::string pid = std::to_string(other.pid());
    const ToolResult result = runTool({"follow", pid});
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.errors, "vornnet follow: process " + pid + " does not use libvornsupt.so.\n");
    other.kill(SIGKILL);
}

TEST_F(VornnetFollow, WhereTheKernelOffersNoTracing_SaysWhatIsMissing) {
    ASSERT_EQ(::mount("tmpfs", "/sys/kernel", "tmpfs", 0, ""), 0);
    ChildProcess sink = startTool({"sink"});
    addressOf(sink);
    const ToolResult result = runTool({"follow", std::to_string(sink.pid())});
    EXPECT_EQ(::umount("/sys/kernel"), 0);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors,
              "vornnet follow: cannot trace: /sys/kernel/tracing/uprobe_events: No such file or directory\n");
    sink.kill(SIGINT);
    finish(sink);
}
