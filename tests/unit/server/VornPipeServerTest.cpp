// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include <VornPipeConnection.h>
#include <VornPipeServer.h>

#include "Interpose.h"
#include "Interruptions.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"
#include "Posix.h"
#include "Sandbox.h"
#include "ServerTestSupport.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace VornTest;
using VornNet::VornPipeConnection;
using VornNet::VornPipeServer;
using VornSupport::VornLogging;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Record = LogCapture::Record;

constexpr const char* directory = "/opt/vorn/hostmgr/var/lib/kestrel/rendez/";
const Failure notSetUp{"VornPipeServer::waitForClient: pipe not setup. ", 0};
const Failure readError{"VornPipeServer::waitForClient: pipe read error. ", 0};

class VornPipeServerTest : public LeakCheckedTest {
protected:
    ~VornPipeServerTest() override { ::unlink(pipePath("kite").c_str()); }
};

class PipeProbe : public VornPipeServer {
public:
    using VornPipeServer::_pipe;
    using VornPipeServer::init;
    using VornPipeServer::m_iAccessPrivileges;
    using VornPipeServer::m_lock;
    using VornPipeServer::m_pipeHandle;
    using VornPipeServer::m_sPipeName;
    using VornPipeServer::m_sUserGroupName;
    using VornPipeServer::VornPipeServer;
    using VornPipeServer::waitForClientImpl;

    _pipe* record() const { return static_cast<_pipe*>(__atomic_load_n(&m_pipeHandle, __ATOMIC_ACQUIRE)); }

    std::vector<int> descriptors() const {
        return {record()->m_hClientPipe, record()->m_hRWPipe[0], record()->m_hRWPipe[1]};
    }
};

/** A server whose init() only counts. */
class Uninitialised : public PipeProbe {
public:
    Uninitialised() : PipeProbe("kite") {}

    int m_calls = 0;

protected:
    void init() override { ++m_calls; }
};

/** A server whose waiting thread lingers in the close() that releases the record. */
class SlowCloser : public PipeProbe {
public:
    using PipeProbe::PipeProbe;

    ImplOutcome wait() {
        m_waiter = std::this_thread::get_id();
        return waitForImpl(*this);
    }

    void close() override {
        if (std::this_thread::get_id() == m_waiter)
            m_closing.pass();
        VornPipeServer::close();
    }

    Checkpoint m_closing;

private:
    std::atomic<std::thread::id> m_waiter;
};

class UmaskScope {
public:
    explicit UmaskScope(mode_t mask) : m_old(::umask(mask)) {}

    ~UmaskScope() { ::umask(m_old); }

    UmaskScope(const UmaskScope&) = delete;
    UmaskScope& operator=(const UmaskScope&) = delete;

private:
    mode_t m_old;
};

/** While it exists, there is no pipe directory. */
class MissingDirectory {
public:
    MissingDirectory() { EXPECT_EQ(::rename(path().c_str(), (path() + "-away").c_str()), 0); }

    ~MissingDirectory() { EXPECT_EQ(::rename((path() + "-away").c_str(), path().c_str()), 0); }

    MissingDirectory(const MissingDirectory&) = delete;
    MissingDirectory& operator=(const MissingDirectory&) = delete;

private:
    static std::string path() {
        const std::string text = pipeDirectory();
        return text.substr(0, text.size() - 1);
    }
};

struct stat statOf(const std::string& path) {
    struct stat information = {};
    EXPECT_EQ(::stat(path.c_str(), &information), 0) << path;
    return information;
}

mode_t modeOf(const std::string& path) {
    return statOf(path).st_mode & 07777;
}

/** The descriptors that the trace has seen closed, in their order. */
std::vector<int> closedOf(const CallTrace& trace) {
    std::vector<int> closed;
    for (const CallRecord& call : trace.records("close"))
        closed.push_back(call.argument);
    return closed;
}

std::vector<Record> debugRecords(const std::vector<std::string>& texts) {
    std::vector<Record> records;
    for (const std::string& text : texts)
        records.push_back({9, text});
    return records;
}

class VornPipeServer_Umask : public VornPipeServerTest, public testing::WithParamInterface<mode_t> {};

} // namespace

TEST_F(VornPipeServerTest, GetFullPipeName_PutsTheDirectoryBeforeTheName) {
    EXPECT_EQ(VornPipeServer::getFullPipeName("kite"), std::string(directory) + "kite");
    EXPECT_EQ(VornPipeServer::getFullPipeName(""), directory);
}

TEST_F(VornPipeServerTest, GetFullPipeName_DoesNotLookAtTheName) {
    EXPECT_EQ(VornPipeServer::getFullPipeName("/kite"), std::string(directory) + "/kite");
    EXPECT_EQ(VornPipeServer::getFullPipeName("../kite"), std::string(directory) + "../kite");
    const std::string longName(500, 'x');
    EXPECT_EQ(VornPipeServer::getFullPipeName(longName), directory + longName);
}

TEST_F(VornPipeServerTest, GetFullPipeName_IsLoggedAtLevel9AndNotAtLevel8) {
    for (const int level : {8, 9}) {
        const LogCapture log(level);
        VornPipeServer::getFullPipeName("kite");
        const std::vector<Record> expected(
            level == 9 ? 1 : 0, Record{9, "VornPipeServer::getFullPipeName () : sFullPipeName is : " +
                                              std::string(directory) + "kite"});
        EXPECT_EQ(log.records(), expected);
    }
}

TEST_F(VornPipeServerTest, WhenConstructed_ListensWithPrivileges7AndNoGroup) {
    PipeProbe server("kite");
    EXPECT_EQ(server.m_sPipeName, "kite");
    EXPECT_EQ(server.m_iAccessPrivileges, 7U);
    EXPECT_EQ(server.m_sUserGroupName, "");
    ASSERT_NE(server.record(), nullptr);
    EXPECT_FALSE(server.record()->m_bClientWaiting);
    unixConnect(pipePath("kite"));
}

TEST_F(VornPipeServerTest, WhenConstructedWithPrivileges_KeepsThem) {
    PipeProbe server("kite", 5, "falcon");
    EXPECT_EQ(server.m_iAccessPrivileges, 5U);
    EXPECT_EQ(server.m_sUserGroupName, "falcon");
    EXPECT_NE(server.record(), nullptr);
}

TEST_F(VornPipeServerTest, Init_MakesPipeAndSocketBindsListensAndSetsTheMode) {
    const CallTrace trace;
    const PipeProbe server("kite");
    EXPECT_GE(trace.calls("pipe"), 1);
    EXPECT_THAT(callsOf(trace), ElementsAre("fcntl", "fcntl", "socket", "fcntl", "unlink", "fchmod", "bind",
                                            "listen", "chmod"));
    const CallRecord socket = trace.records("socket").at(0);
    EXPECT_EQ(socket.argument, AF_UNIX);
    EXPECT_EQ(socket.second, SOCK_STREAM);
    EXPECT_EQ(socket.third, 0);
    EXPECT_EQ(trace.records("unlink").at(0).path, pipePath("kite"));
    EXPECT_EQ(trace.records("listen").at(0).second, 5);
    EXPECT_EQ(trace.records("chmod").at(0).path, pipePath("kite"));
    EXPECT_EQ(trace.records("chmod").at(0).second, 0770);
}

TEST_F(VornPipeServerTest, Init_WhenListening_DoesNothing) {
    PipeProbe server("kite");
    const CallTrace trace;
    server.init();
    EXPECT_THAT(callsOf(trace), IsEmpty());
}

TEST_F(VornPipeServerTest, Init_WithALeadingSeparator_BindsTheDoubledPath) {
    const PipeProbe server("/kite");
    unixConnect(std::string(directory) + "/kite");
    EXPECT_TRUE(S_ISSOCK(statOf(pipePath("kite")).st_mode));
}

TEST_F(VornPipeServerTest, Init_ReplacesAFileLeftByAnEarlierRun) {
    { const UniqueFd crashed = unixListen(pipePath("kite")); }
    // Held, or the file system may give the number of the old file to the new one.
    const UniqueFd before(::open(pipePath("kite").c_str(), O_PATH | O_CLOEXEC));
    struct stat old = {};
    ASSERT_EQ(::fstat(before.get(), &old), 0);
    const PipeProbe server("kite");
    EXPECT_NE(statOf(pipePath("kite")).st_ino, old.st_ino);
    unixConnect(pipePath("kite"));
}

TEST_F(VornPipeServerTest, Init_ReplacesAnyOtherFileToo) {
    std::ofstream(pipePath("kite")) << "text";
    const PipeProbe server("kite");
    EXPECT_TRUE(S_ISSOCK(statOf(pipePath("kite")).st_mode));
}

TEST_F(VornPipeServerTest, Init_TakesThePathFromALivingServer) {
    PipeProbe first("kite");
    PipeProbe second("kite");
    const UniqueFd peer = unixConnect(pipePath("kite"));
    sendAll(peer.get(), bytes("00 07"));
    EXPECT_EQ(waitFor(second).spClient->receiveShort(), 7);
}

TEST_F(VornPipeServerTest, Init_AcceptsTheLongestPathAndRefusesALongerOne) {
    const std::string longest(107 - std::string(directory).size(), 'x');
    {
        const PipeProbe server(longest);
        unixConnect(pipePath(longest));
    }
    EXPECT_EQ(::unlink(pipePath(longest).c_str()), 0);
    const Failure tooLong{"VornPipeServer::init: failed to prepare pipe.", ENAMETOOLONG};
    EXPECT_EQ(failureOf([&] { PipeProbe server(longest + "x"); }), tooLong);
    EXPECT_EQ(failureOf([&] { PipeProbe server(std::string(5000, 'x')); }), tooLong);
}

TEST_F(VornPipeServerTest, Init_WithoutTheDirectory_FailsToPrepareWithCode2) {
    const MissingDirectory missing;
    EXPECT_EQ(failureOf([] { PipeProbe server("kite"); }),
              (Failure{"VornPipeServer::init: failed to prepare pipe.", ENOENT}));
}

TEST_F(VornPipeServerTest, Init_WithAnEmptyName_FailsToPrepareWithCode98) {
    EXPECT_EQ(failureOf([] { PipeProbe server(""); }),
              (Failure{"VornPipeServer::init: failed to prepare pipe.", EADDRINUSE}));
}

TEST_P(VornPipeServer_Umask, SocketFileEndsOpenToOwnerAndGroupAlone) {
    const UmaskScope umask(GetParam());
    const PipeProbe server("kite");
    const struct stat information = statOf(pipePath("kite"));
    EXPECT_EQ(information.st_mode & 07777, 0770U);
    EXPECT_EQ(information.st_uid, ::geteuid());
    EXPECT_EQ(information.st_gid, ::getegid());
}

TEST_P(VornPipeServer_Umask, SocketFileIsNeverOpenToGroupOrOthersBeforeItsModeIsSet) {
    const UmaskScope umask(GetParam());
    mode_t afterBind = 07777;
    mode_t beforeChmod = 07777;
    const CallHook listening("listen", [&] { afterBind = modeOf(pipePath("kite")); });
    const CallHook changing("chmod", [&] { beforeChmod = modeOf(pipePath("kite")); });
    const PipeProbe server("kite");
    EXPECT_EQ(afterBind & 0077, 0U) << std::oct << afterBind;
    EXPECT_EQ(beforeChmod & 0077, 0U) << std::oct << beforeChmod;
}

INSTANTIATE_TEST_SUITE_P(Masks, VornPipeServer_Umask, testing::Values(0, 022, 077),
                         testing::PrintToStringParamName());

TEST_F(VornPipeServerTest, WithPrivileges1AndAGroup_TheFileIsGivenToTheCallerAndTheGroup) {
    useGroupFile("root:x:0:\nfalcon:x:4711:\n");
    const LogCapture log(9);
    const CallTrace trace;
    const PipeProbe server("kite", 1, "falcon");
    ASSERT_EQ(trace.calls("chown"), 1);
    const CallRecord chown = trace.records("chown").at(0);
    EXPECT_EQ(chown.path, pipePath("kite"));
    EXPECT_EQ(chown.second, static_cast<long>(::getuid()));
    EXPECT_EQ(chown.third, 4711);
    // The sandbox of an ordinary user knows no group but 0.
    EXPECT_EQ(statOf(pipePath("kite")).st_gid, chown.result == 0 ? 4711U : ::getegid());
    EXPECT_EQ(modeOf(pipePath("kite")), 0770U);
    EXPECT_TRUE(log.contains(9, "VornPipeServer::init () : successfully granted rw access to the NamedPipe "
                                "for OS Group : falcon"));
}

TEST_F(VornPipeServerTest, WithPrivileges1AndAMissingGroup_StartsAndSaysSoInTheLog) {
    const LogCapture log(9);
    const CallTrace trace;
    const PipeProbe server("kite", 1, "falcon");
    EXPECT_TRUE(log.contains(9, "VornPipeServer::init () : failed to grant rw access to the NamedPipe for OS "
                                "Group : falcon"));
    EXPECT_EQ(log.count("successfully granted"), 0);
    EXPECT_EQ(trace.calls("chown"), 0);
    unixConnect(pipePath("kite"));
}

TEST_F(VornPipeServerTest, WithOtherPrivilegesOrNoGroup_TheOwnerIsNeverChanged) {
    useGroupFile("root:x:0:\nfalcon:x:4711:\n");
    for (const auto& [privileges, group] :
         {std::pair(0U, "falcon"), std::pair(2U, "falcon"), std::pair(3U, "falcon"), std::pair(7U, "falcon"),
          std::pair(0x80000001U, "falcon"), std::pair(1U, "")}) {
        SCOPED_TRACE(privileges);
        const LogCapture log(9);
        const CallTrace trace;
        const PipeProbe server("kite", privileges, group);
        EXPECT_EQ(trace.calls("getgrnam_r"), 0);
        EXPECT_EQ(trace.calls("chown"), 0);
        EXPECT_EQ(log.count("OS Group"), 0);
    }
}

TEST_F(VornPipeServerTest, WaitForInit_ReturnsAtOnceEvenWhenClosed) {
    PipeProbe server("kite");
    const CallTrace trace;
    server.waitForInit();
    EXPECT_THAT(callsOf(trace), IsEmpty());
    server.close();
    server.waitForInit();
    EXPECT_EQ(trace.calls("usleep"), 0);
}

TEST_F(VornPipeServerTest, Client_IsALocalPipeConnectionThatTalks) {
    PipeProbe server("kite");
    const UniqueFd peer = unixConnect(pipePath("kite"));
    const CallTrace trace;
    const ImplOutcome outcome = waitForImpl(server);
    EXPECT_TRUE(isCloseOnExec(static_cast<int>(trace.records("accept").at(0).result)));
    ASSERT_NE(dynamic_cast<VornPipeConnection*>(outcome.client()), nullptr);
    EXPECT_TRUE(outcome.client()->getLocalAccess());
    EXPECT_EQ(outcome.client()->refCount(), 1);
    sendAll(peer.get(), bytes("00 00 00 03 61 62 63"));
    EXPECT_EQ(outcome.client()->receiveString(), "abc");
    outcome.client()->transfer(258);
    EXPECT_EQ(hex(receiveExactly(peer.get(), 4)), "00 00 01 02");
    EXPECT_EQ(outcome.text, untouchedText);
    EXPECT_EQ(outcome.code, untouchedCode);
    EXPECT_FALSE(server.record()->m_bClientWaiting);
}

TEST_F(VornPipeServerTest, Client_HasTheServersPrivilegesAsAccessRights) {
    for (const unsigned int privileges : {7U, 0U, 0x80000001U}) {
        PipeProbe server("kite", privileges, "");
        const UniqueFd peer = unixConnect(pipePath("kite"));
        EXPECT_EQ(waitFor(server).client()->getAccessRights(), privileges);
    }
}

TEST_F(VornPipeServerTest, Client_IsNotLookedUpWhenIdentified) {
    PipeProbe server("kite");
    const UniqueFd peer = unixConnect(pipePath("kite"));
    const CallTrace trace;
    EXPECT_EQ(waitFor(server, true).client()->getRemoteName(), "");
    EXPECT_EQ(trace.calls("gethostbyaddr_r"), 0);
}

TEST_F(VornPipeServerTest, Wait_LogsItsSocketAndTheClientsAtLevel9) {
    PipeProbe server("kite");
    const UniqueFd peer = unixConnect(pipePath("kite"));
    const LogCapture log(9);
    const CallTrace trace;
    const WaitOutcome outcome = waitFor(server);
    const std::string listener = std::to_string(server.record()->m_hClientPipe);
    const std::string client = std::to_string(trace.records("accept").at(0).result);
    EXPECT_EQ(log.records(),
              debugRecords(
                  {"VornPipeServer::waitForClient: kite ready, accepting connections... (" + listener + ")",
                   "VornPipeServer::waitForClient: kite returned from accept with clientSocket=" + client}));
}

TEST_F(VornPipeServerTest, Wait_WhileItLasts_IsMarkedInTheRecordAndAsksFor1024Descriptors) {
    PipeProbe server("kite");
    bool waiting = false;
    const CallHook hook("select", [&] { waiting = server.record()->m_bClientWaiting; });
    const UniqueFd peer = unixConnect(pipePath("kite"));
    const CallTrace trace;
    const WaitOutcome outcome = waitFor(server);
    EXPECT_TRUE(waiting);
    EXPECT_FALSE(server.record()->m_bClientWaiting);
    EXPECT_EQ(trace.records("select").at(0).argument, 1024);
}

TEST_F(VornPipeServerTest, Wait_RunsTheVirtualInitAndNeedsARecord) {
    Uninitialised server;
    server.close();
    const ImplOutcome outcome = waitForImpl(server);
    EXPECT_EQ(server.m_calls, 1);
    expectNoClient(outcome, notSetUp.text);
    EXPECT_EQ(waitFor(server).failure, notSetUp);
}

TEST_F(VornPipeServerTest, Wait_WhenClosedBeforeItIsMarked_ReportsThatThePipeIsNotSetUp) {
    class ClosedEarly : public PipeProbe {
    public:
        ClosedEarly() : PipeProbe("kite") {}

    protected:
        void init() override {
            VornPipeServer::init();
            close();
        }
    };

    ClosedEarly server;
    EXPECT_EQ(waitFor(server).failure, notSetUp);
}

TEST_F(VornPipeServerTest, Wait_WhenSelectFails_ReportsAReadErrorWithoutACode) {
    PipeProbe server("kite");
    for (const long result : {-1, 0}) {
        FaultRule fault("select", ENOMEM, 1, 2);
        fault.returning(result);
        expectNoClient(waitForImpl(server), readError.text);
        EXPECT_FALSE(server.record()->m_bClientWaiting);
        EXPECT_EQ(waitFor(server).failure, readError);
    }
}

TEST_F(VornPipeServerTest, Wait_WhenTheInterruptingHandlerIsToRestartCalls_ReportsAReadErrorAllTheSame) {
    const InterruptingSignal signal(SA_RESTART);
    PipeProbe server("kite");
    ClientWait wait(server);
    ASSERT_TRUE(wait.awaitBlocked());
    InterruptingSignal::sendTo(wait.thread().tid());
    EXPECT_EQ(wait.outcome().failure, readError);
}

TEST_F(VornPipeServerTest, Wait_WhenAcceptFails_ReportsAConnectionErrorWithItsCode) {
    PipeProbe server("kite");
    const UniqueFd peer = unixConnect(pipePath("kite"));
    const LogCapture log(9);
    const FaultRule fault("accept", EMFILE);
    const ImplOutcome outcome = waitForImpl(server);
    expectNoClient(outcome, "VornPipeServer::waitForClient: connection error. ", EMFILE);
    EXPECT_TRUE(log.contains(9, "VornPipeServer::waitForClient: kite returned from accept with "
                                "clientSocket=-1"));
    EXPECT_FALSE(server.record()->m_bClientWaiting);
    EXPECT_NE(waitFor(server).client(), nullptr);
}

TEST_F(VornPipeServerTest, Wait_WhenAcceptFailsOnASocketOfNumber0_CountsItAsAShutdown) {
    const UniqueFd standardInput(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
    ASSERT_TRUE(standardInput);
    {
        const CallHook hook("socket", [] { ::close(STDIN_FILENO); });
        FaultRule noOtherNumber("fcntl", EMFILE);
        noOtherNumber.onlyDescriptor(STDIN_FILENO);
        PipeProbe server("kite");
        EXPECT_EQ(server.record()->m_hClientPipe, 0);
        const UniqueFd peer = unixConnect(pipePath("kite"));
        const LogCapture log(9);
        const FaultRule fault("accept", ECONNABORTED);
        const ImplOutcome outcome = waitForImpl(server);
        expectNoClient(outcome);
        EXPECT_EQ(server.record(), nullptr);
        EXPECT_TRUE(log.contains(9, "VornPipeServer::waitForClient : Shutting down thread"));
    }
    EXPECT_EQ(::dup2(standardInput.get(), STDIN_FILENO), STDIN_FILENO);
}

TEST_F(VornPipeServerTest, Close_WhileAThreadWaits_EndsTheWaitWithTextAndCodeUntouchedAndLogsEachStep) {
    PipeProbe server("kite");
    ImplOutcome outcome;
    WatchedThread thread([&] { outcome = waitForImpl(server); });
    ASSERT_TRUE(awaitBlockedInIo(thread.tid()));
    const LogCapture log(9);
    server.close();
    ASSERT_TRUE(thread.join());
    expectNoClient(outcome);
    EXPECT_EQ(server.record(), nullptr);
    EXPECT_EQ(log.records(),
              debugRecords({"VornPipeServer::close", "VornPipeServer::close: signaling wait thread",
                            "VornPipeServer::waitForClient : Shutting down thread", "VornPipeServer::close",
                            "VornPipeServer::close: releasing resources"}));
}

TEST_F(VornPipeServerTest, Close_WhileAThreadWaits_WritesFourBytesAndLeavesTheReleaseToTheThread) {
    PipeProbe server("kite");
    Checkpoint selecting;
    const CallHook hook("select", [&] { selecting.pass(); });
    ClientWait wait(server);
    ASSERT_TRUE(selecting.awaitReached());
    const std::vector<int> descriptors = server.descriptors();
    const CallTrace trace;
    server.close();
    ASSERT_EQ(trace.calls("write"), 1);
    EXPECT_EQ(trace.records("write").at(0).argument, descriptors.at(2));
    EXPECT_EQ(trace.records("write").at(0).second, 4);
    EXPECT_EQ(trace.calls("close"), 0);
    selecting.open();
    expectQuiet(wait.outcome());
    EXPECT_EQ(closedOf(trace), descriptors);
}

TEST_F(VornPipeServerTest, Close_WhileTheWokenThreadIsInACloseOfItsOwn_HoldsNoLockAgainstIt) {
    SlowCloser server("kite");
    ImplOutcome outcome;
    WatchedThread waiter([&] { outcome = server.wait(); });
    ASSERT_TRUE(awaitBlockedInIo(waiter.tid()));
    server.close();
    ASSERT_TRUE(server.m_closing.awaitReached());
    EXPECT_FALSE(server.record()->m_bClientWaiting);
    WatchedThread closer([&] { server.close(); });
    EXPECT_TRUE(closer.join());
    EXPECT_NE(server.record(), nullptr); // it is the woken thread's to release
    server.m_closing.open();
    ASSERT_TRUE(waiter.join());
    EXPECT_EQ(server.record(), nullptr);
    expectNoClient(outcome);
}

TEST_F(VornPipeServerTest, Close_OfTwoServersAtOnce_ReleasesEachByItsOwnThread) {
    SlowCloser first("kite");
    SlowCloser second("hawk");
    WatchedThread firstWaiter([&] { first.wait(); });
    WatchedThread secondWaiter([&] { second.wait(); });
    for (auto [server, waiter] : {std::pair(&first, &firstWaiter), std::pair(&second, &secondWaiter)}) {
        ASSERT_TRUE(awaitBlockedInIo(waiter->tid()));
        server->close();
        ASSERT_TRUE(server->m_closing.awaitReached());
    }
    second.m_closing.open();
    ASSERT_TRUE(secondWaiter.join());
    EXPECT_EQ(second.record(), nullptr);
    EXPECT_NE(first.record(), nullptr);
    first.m_closing.open();
    ASSERT_TRUE(firstWaiter.join());
    EXPECT_EQ(first.record(), nullptr);
    ::unlink(pipePath("hawk").c_str());
}

TEST_F(VornPipeServerTest, Close_WhileAThreadWaits_RunsTheVirtualCloseOnThatThread) {
    class Counting : public PipeProbe {
    public:
        Counting() : PipeProbe("kite") {}

        void close() override {
            m_closer = currentTid();
            VornPipeServer::close();
        }

        pid_t m_closer = 0;
    };

    Counting server;
    ClientWait wait(server);
    const pid_t waiter = wait.thread().tid();
    ASSERT_TRUE(wait.awaitBlocked());
    server.VornPipeServer::close();
    expectQuiet(wait.outcome());
    EXPECT_EQ(server.m_closer, waiter);
}

TEST_F(VornPipeServerTest, Close_WithoutAWaitingThread_ReleasesAtOnceInOrder) {
    PipeProbe server("kite");
    const std::vector<int> descriptors = server.descriptors();
    const LogCapture log(9);
    const CallTrace trace;
    server.close();
    EXPECT_EQ(server.record(), nullptr);
    EXPECT_EQ(closedOf(trace), descriptors);
    EXPECT_EQ(log.records(),
              debugRecords({"VornPipeServer::close", "VornPipeServer::close: releasing resources"}));
}

TEST_F(VornPipeServerTest, Close_Again_OnlyLogs) {
    PipeProbe server("kite");
    server.close();
    const LogCapture log(9);
    const CallTrace trace;
    server.close();
    EXPECT_THAT(callsOf(trace), IsEmpty());
    EXPECT_EQ(log.records(), debugRecords({"VornPipeServer::close"}));
}

TEST_F(VornPipeServerTest, Close_LeavesTheFileAndTheNextWaitReplacesIt) {
    PipeProbe server("kite");
    const ino_t before = statOf(pipePath("kite")).st_ino;
    server.close();
    EXPECT_EQ(statOf(pipePath("kite")).st_ino, before);
    EXPECT_THROW(unixConnect(pipePath("kite")), std::system_error);
    ClientWait wait(server);
    ASSERT_TRUE(wait.awaitBlocked());
    const UniqueFd peer = unixConnect(pipePath("kite"));
    EXPECT_NE(wait.outcome().client(), nullptr);
    EXPECT_EQ(modeOf(pipePath("kite")), 0770U);
}

TEST_F(VornPipeServerTest, AClientThatComesWhileItIsClosed_IsNotAccepted) {
    for (const char* function : {"select", "poll"}) {
        SCOPED_TRACE(function);
        std::optional<ManyDescriptors> many;
        if (function == std::string("poll"))
            many.emplace();
        PipeProbe server("kite");
        UniqueFd peer;
        const CallHook hook(function, [&] {
            peer = unixConnect(pipePath("kite"));
            server.close();
        });
        const CallTrace trace;
        expectQuiet(waitFor(server));
        EXPECT_EQ(trace.calls("accept"), 0);
        EXPECT_EQ(server.record(), nullptr);
    }
}

TEST_F(VornPipeServerTest, AWakeUpThatMeetsAnAcceptingThread_IsLeftBehindForTheNextWait) {
    PipeProbe server("kite");
    const UniqueFd peer = unixConnect(pipePath("kite"));
    const CallHook hook("accept", [&] { server.close(); });
    EXPECT_NE(waitFor(server).client(), nullptr);
    EXPECT_NE(server.record(), nullptr);
    expectQuiet(waitFor(server));
    EXPECT_EQ(server.record(), nullptr);
    ClientWait wait(server);
    ASSERT_TRUE(wait.awaitBlocked());
    const UniqueFd next = unixConnect(pipePath("kite"));
    EXPECT_NE(wait.outcome().client(), nullptr);
}

TEST_F(VornPipeServerTest, TwentyThousandClosesWhileTheWaitingThreadIsHeldUp_DoNotBlock) {
    PipeProbe server("kite");
    Checkpoint selecting;
    const CallHook hook("select", [&] { selecting.pass(); });
    ClientWait wait(server);
    ASSERT_TRUE(selecting.awaitReached());
    WatchedThread closer([&] {
        for (int i = 0; i < 20000; ++i)
            server.close();
    });
    EXPECT_TRUE(closer.join(std::chrono::seconds(60)));
    selecting.open();
    expectQuiet(wait.outcome());
    EXPECT_EQ(server.record(), nullptr);
    server.init();
    const UniqueFd peer = unixConnect(pipePath("kite"));
    EXPECT_NE(waitFor(server).client(), nullptr);
}

TEST_F(VornPipeServerTest, Destructor_WithoutAWaitingThread_ReleasesWithoutPause) {
    const CallTrace trace;
    std::vector<int> descriptors;
    {
        const PipeProbe server("kite");
        descriptors = server.descriptors();
    }
    EXPECT_EQ(trace.calls("usleep"), 0);
    for (const int fd : descriptors)
        EXPECT_FALSE(isOpen(fd)) << fd;
    EXPECT_TRUE(S_ISSOCK(statOf(pipePath("kite")).st_mode));
}

TEST_F(VornPipeServerTest, Destructor_GivesAWaitingThreadTimeToLeave) {
    auto server = std::make_unique<PipeProbe>("kite");
    Checkpoint selecting;
    const CallHook hook("select", [&] { selecting.pass(); });
    ClientWait wait(*server);
    ASSERT_TRUE(selecting.awaitReached());
    const CallTrace trace;
    WatchedThread destroyer([&] { server.reset(); });
    ASSERT_TRUE(awaitCondition([&] { return trace.calls("write") == 1; }));
    ASSERT_TRUE(awaitBlockedIn(destroyer.tid(), {SYS_nanosleep, SYS_clock_nanosleep}));
    EXPECT_FALSE(destroyer.finished());
    selecting.open();
    expectQuiet(wait.outcome());
    EXPECT_TRUE(destroyer.join());
    EXPECT_GE(trace.calls("usleep"), 1);
    EXPECT_LE(trace.calls("usleep"), 40);
    for (const CallRecord& call : trace.records("usleep"))
        EXPECT_EQ(call.second, 250000);
}

TEST_F(VornPipeServerTest, Destructor_AbandonsAThreadThatHasNotLeftAfter40Pauses) {
    auto server = std::make_unique<PipeProbe>("kite");
    const std::unique_ptr<PipeProbe::_pipe> abandoned(server->record());
    abandoned->m_bClientWaiting = true; // as if a thread waited that never runs again
    FaultRule pauses("usleep", 0, 1, FaultRule::always);
    pauses.returning(0);
    server.reset();
    EXPECT_EQ(pauses.calls(), 40);
    EXPECT_TRUE(isOpen(abandoned->m_hClientPipe));
    EXPECT_TRUE(isOpen(abandoned->m_hRWPipe[0]));
    EXPECT_TRUE(isOpen(abandoned->m_hRWPipe[1]));
    expectDescriptorLeak(3);
}

TEST_F(VornPipeServerTest, WhenNeitherDescriptorIsReadable_ReportsASelectErrorWithCode0) {
    const ManyDescriptors many;
    PipeProbe server("kite");
    FaultRule fault("poll", 0);
    fault.returning(1);
    const ImplOutcome outcome = waitForImpl(server);
    expectNoClient(outcome, "VornPipeServer::waitForClient: error on select. ", 0);
    EXPECT_FALSE(server.record()->m_bClientWaiting);
}

TEST_F(VornPipeServerTest, WithPrivileges1AndAGroupThatCannotBeGiven_TheLogSaysGrantedAllTheSame) {
    useGroupFile("root:x:0:\nfalcon:x:4711:\n");
    const LogCapture log(9);
    const CallTrace trace;
    FaultRule realUser("getuid", 0);
    realUser.returning(1234); // as in a program that has the rights of its file's owner
    const FaultRule fault("chown", EPERM);
    const PipeProbe server("kite", 1, "falcon");
    ASSERT_EQ(fault.failures(), 1);
    EXPECT_EQ(trace.records("chown").at(0).second, 1234) << "and not the effective user";
    EXPECT_EQ(statOf(pipePath("kite")).st_gid, ::getegid());
    EXPECT_TRUE(log.contains(9, "VornPipeServer::init () : successfully granted rw access to the NamedPipe "
                                "for OS Group : falcon"));
}

TEST_F(VornPipeServerTest, Init_LogsThePathItBindsAtLevel9) {
    const LogCapture log(9);
    const PipeProbe server("kite");
    EXPECT_EQ(log.records(), debugRecords({"VornPipeServer::getFullPipeName () : sFullPipeName is : " +
                                           std::string(directory) + "kite"}));
}

TEST_F(VornPipeServerTest, Close_WhenTheWakeUpPipeHasAnEventButNoRoom_DoesNotWrite) {
    PipeProbe server("kite");
    ClientWait wait(server);
    ASSERT_TRUE(wait.awaitBlocked());
    {
        FaultRule broken("poll", 0);
        broken.returning(1);
        const CallTrace trace;
        server.close();
        EXPECT_EQ(broken.failures(), 1);
        EXPECT_EQ(trace.calls("write"), 0);
    }
    EXPECT_FALSE(wait.thread().finished());
    server.close();
    expectQuiet(wait.outcome());
}

TEST_F(VornPipeServerTest, WithADescriptorOfExactly1024_WaitsWithoutSelect) {
    // The pipe's ends are opened first and then the socket, or the socket gets a number that is free again.
    const struct {
        int last;
        int freed;
        bool isSelected;
    } rows[] = {{1020, -1, true},  {1021, -1, false},  {1022, -1, false},
                {1023, -1, false}, {1022, 1000, true}, {1023, 1000, false}};

    for (const auto& row : rows) {
        SCOPED_TRACE(row.last);
        ManyDescriptors many(row.last);
        const CallHook hook("socket", [&] { many.free(row.freed); });
        PipeProbe server("kite");
        ASSERT_EQ(server.record()->m_hRWPipe[0], row.last + 1);
        ASSERT_EQ(server.record()->m_hClientPipe, row.freed == -1 ? row.last + 3 : row.freed);
        const UniqueFd peer = unixConnect(pipePath("kite"));
        const CallTrace trace;
        EXPECT_NE(waitFor(server).client(), nullptr);
        EXPECT_EQ(trace.calls("select"), row.isSelected ? 1 : 0);
        EXPECT_EQ(trace.calls("poll"), row.isSelected ? 0 : 1);
    }
}

TEST_F(VornPipeServerTest, Close_HoldsItsLockOverAllThatItDoes) {
    // The first closes a server that nobody waits on; the second wakes a thread.
    for (const char* function : {"close", "write"}) {
        PipeProbe server("kite");
        std::optional<ClientWait> wait;
        if (std::string(function) == "write") {
            wait.emplace(server);
            ASSERT_TRUE(wait->awaitBlocked());
        }
        HeldCall working(function);
        WatchedThread closer([&] { server.close(); });
        ASSERT_TRUE(working.awaitReached());
        WatchedThread visitor([&] { const VornNet::VornCriticalSection lock(server.m_lock, true); });
        EXPECT_TRUE(awaitBlockedOnLock(visitor.tid())) << function;
        EXPECT_FALSE(visitor.finished()) << function;
        working.open();
        EXPECT_TRUE(closer.join());
        EXPECT_TRUE(visitor.join());
        if (wait)
            expectQuiet(wait->outcome());
    }
}

TEST_F(VornPipeServerTest, Close_BesideAnotherClose_ReleasesOnlyOnce) {
    PipeProbe server("kite");
    const std::vector<int> descriptors = server.descriptors();
    const CallTrace trace;
    HeldCall releasing("close");
    WatchedThread first([&] { server.close(); });
    ASSERT_TRUE(releasing.awaitReached());
    WatchedThread second([&] { server.close(); });
    EXPECT_TRUE(awaitBlockedOnLock(second.tid()));
    EXPECT_FALSE(second.finished());
    releasing.open();
    EXPECT_TRUE(first.join());
    EXPECT_TRUE(second.join());
    EXPECT_EQ(trace.calls("close"), 3);
    for (const int fd : descriptors)
        EXPECT_FALSE(isOpen(fd)) << fd;
}

TEST_F(VornPipeServerTest, Close_SaysThatItReleasesBeforeItDoesAndLetsTheLogHandlerCloseTheServerToo) {
    PipeProbe server("kite");
    const std::vector<int> descriptors = server.descriptors();
    std::ptrdiff_t stillOpen = 0;
    const RecordAction action(9, "releasing resources", [&] {
        stillOpen = std::ranges::count_if(descriptors, isOpen);
        server.close();
    });
    const CallTrace trace;
    server.close();
    EXPECT_EQ(stillOpen, 3);
    EXPECT_EQ(trace.calls("close"), 3) << "once for each";
    EXPECT_EQ(server.record(), nullptr);
}

TEST_F(VornPipeServerTest, Close_WhenAThreadBeginsToWaitDuringItsRecord_WakesThatThread) {
    PipeProbe server("kite");
    std::optional<ClientWait> wait;
    const RecordAction action(9, "releasing resources", [&] {
        VornLogging::getInstance().setLogLevel(VornLogging::cOff); // or the other thread waits for this one
        wait.emplace(server);
        EXPECT_TRUE(wait->awaitBlocked());
    });
    server.close();
    ASSERT_TRUE(wait);
    expectQuiet(wait->outcome());
    EXPECT_EQ(server.record(), nullptr);
}

TEST_F(VornPipeServerTest, Close_WhenTheWaitEndsDuringItsRecordAndTheServerIsClosed_WakesNobody) {
    PipeProbe server("kite");
    ClientWait wait(server);
    ASSERT_TRUE(wait.awaitBlocked());
    UniqueFd peer;
    const RecordAction action(9, "signaling wait thread", [&] {
        VornLogging::getInstance().setLogLevel(VornLogging::cOff); // or the other thread waits for this one
        peer = unixConnect(pipePath("kite"));
        EXPECT_NE(wait.outcome().client(), nullptr);
        server.close();
    });
    const CallTrace trace;
    server.close();
    EXPECT_NE(peer.get(), -1);
    EXPECT_EQ(trace.calls("write"), 0);
    EXPECT_EQ(server.record(), nullptr);
}

TEST_F(VornPipeServerTest, Destructor_WaitsForAThreadThatIsOnItsWayOutOfClose) {
    // Its checkpoint is not its own, for the thread is held up while the server is destroyed.
    class Lingering : public PipeProbe {
    public:
        explicit Lingering(Checkpoint& leaving) : PipeProbe("kite"), m_leaving(leaving) {}

        void close() override {
            Checkpoint& leaving = m_leaving;
            VornPipeServer::close();
            leaving.pass();
        }

    private:
        Checkpoint& m_leaving;
    };

    Checkpoint leaving;
    auto server = std::make_unique<Lingering>(leaving);
    ClientWait wait(*server);
    ASSERT_TRUE(wait.awaitBlocked());
    server->VornPipeServer::close();
    ASSERT_TRUE(leaving.awaitReached());
    WatchedThread destroyer([&] { server.reset(); });
    EXPECT_TRUE(awaitBlockedOnLock(destroyer.tid()));
    EXPECT_FALSE(destroyer.finished());
    leaving.open();
    EXPECT_TRUE(destroyer.join());
    expectQuiet(wait.outcome());
}
