// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "Posix.h"
#include "Sandbox.h"
#include "ToolRun.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <system_error>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

using namespace VornTest;
using testing::_;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

const std::string cTracing = "/sys/kernel/tracing/";

/** @return the level up to which another process writes records, read from its memory. */
int admittedLevelOf(pid_t process) {
    const std::string maps = readTextFile("/proc/" + std::to_string(process) + "/maps");
    const std::size_t line = maps.rfind('\n', maps.find("/libvornsupt.so")) + 1; // the part at the beginning
    const std::size_t path = maps.find('/', line);
    void* library = ::dlopen(maps.substr(path, maps.find('\n', path) - path).c_str(), RTLD_NOW);
    void* symbol =
        library == nullptr ? nullptr : ::dlsym(library, "_ZN11VornSupport11VornLogging16s_nAdmittedLevelE");
    Dl_info place{};
    if (symbol == nullptr || ::dladdr(symbol, &place) == 0)
        return -1;
    const auto base = std::stoull(maps.substr(line), nullptr, 16);
    const auto offset = static_cast<char*>(symbol) - static_cast<char*>(place.dli_fbase);
    int level = -1;
    iovec here{&level, sizeof level};
    iovec there{reinterpret_cast<void*>(base + static_cast<unsigned long long>(offset)), sizeof level};
    return ::process_vm_readv(process, &here, 1, &there, 1, 0) == sizeof level ? level : -1;
}

class VornnetFollow : public ToolNetworkTest {};

/** Where the kernel lets this user trace. Where it does not, the suite above shows that the tool says so. */
class VornnetTrace : public ToolNetworkTest {
protected:
    void SetUp() override {
        ToolNetworkTest::SetUp();
        // A container has none mounted; in the sandbox root can do that.
        if (::access((cTracing + "uprobe_events").c_str(), F_OK) != 0)
            ::mount("tracefs", cTracing.c_str(), "tracefs", 0, nullptr);
        if (::access((cTracing + "uprobe_events").c_str(), W_OK) != 0)
            GTEST_SKIP() << "this user may not trace, which the kernel grants to root alone: " << cTracing
                         << ": " << ::strerror(errno);
        m_sink.emplace(startTool({"sink", "--log-level", "1"}));
        m_address = addressOf(*m_sink);
    }

    void TearDown() override {
        m_sink.reset();
        ToolNetworkTest::TearDown();
    }

    /** Starts `follow` for the sink and waits until it does. */
    ChildProcess follow(const std::vector<std::string>& options) {
        ChildProcess tool = startTool(with({"follow", std::to_string(m_sink->pid())}, options));
        EXPECT_THAT(nextLine(tool), HasSubstr("following"));
        return tool;
    }

    static void expectNothingLeftOf(const ChildProcess& tool) {
        const std::string pid = std::to_string(tool.pid());
        EXPECT_EQ(readTextFile(cTracing + "uprobe_events").find("record_" + pid + " "), std::string::npos);
        EXPECT_NE(::access((cTracing + "instances/vornnet-" + pid).c_str(), F_OK), 0);
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
    EXPECT_THAT(finish(tool), ended(0, "", HasSubstr("has ended")));
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
    expectNothingLeftOf(tool);
}

TEST_F(VornnetTrace, PagerThatReadsNothing_IsLeftAndSoIsTheProcessAsItWas) {
    ChildProcess tool = follow({});
    EXPECT_EQ(admittedLevelOf(m_sink->pid()), 9);
    const std::string process = "/proc/" + std::to_string(tool.pid());
    const std::string writing = std::to_string(SYS_write) + " 0x1 ";
    EXPECT_TRUE(awaitCondition([&] {
        try {
            sendAll(connectTo(m_address).get(), bytes("00 00 00 00 00 00 00 00"));
        } catch (const std::system_error&) { // the sink opens its pipe anew
        }
        return readTextFile(process + "/syscall").substr(0, writing.size()) == writing;
    })) << "nobody reads what it writes";
    EXPECT_TRUE(awaitCondition([&] {
        tool.kill(SIGINT);
        return readTextFile(process + "/stat").find(") Z ") != std::string::npos;
    }));
    EXPECT_EQ(finish(tool).status, 130);
    EXPECT_EQ(admittedLevelOf(m_sink->pid()), 1);
    expectNothingLeftOf(tool);
}

TEST_F(VornnetFollow, ProcessThatDoesNotExist_IsUnreachable) {
    EXPECT_THAT(runTool({"follow", "4194303"}), ended(4, _, "vornnet follow: there is no process 4194303\n"));
}

TEST_F(VornnetFollow, NameThatNoProgramHas_IsUnreachable) {
    EXPECT_THAT(runTool({"follow", "no-such-program"}),
                ended(4, _, "vornnet follow: there is no process \"no-such-program\"\n"));
}

TEST_F(VornnetFollow, ProcessWithoutTheLibrary_IsUnreachable) {
    ChildProcess other = ChildProcess::spawn({"/bin/sleep", "60"});
    const std::string pid = std::to_string(other.pid());
    EXPECT_THAT(runTool({"follow", pid}),
                ended(4, _, "vornnet follow: process " + pid + " does not use libvornsupt.so.\n"));
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
