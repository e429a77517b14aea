// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * A pipe's name and file: which names are taken, whose files are replaced, and what happens when the file
 * goes.
 */

#include "Interpose.h"
#include "Process.h"
#include "Sandbox.h"
#include "SteadySinkPeer.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <tuple>

#include <VornException.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace VornTest;

namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

class VornSteadySink_PipeFile : public NotificationTest {};

SteadyOptions named(const std::string& name, VornNet::VornSteadySink::AddressHandler onAddressChange = {}) {
    SteadyOptions options = optionsFor(Kind::pipe);
    options.sPipeName = name;
    options.onAddressChange = std::move(onAddressChange);
    return options;
}

struct stat statusOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
}

bool exists(const std::string& path) {
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0;
}

/** Whether a sink listens there: its file has this mode from then on. */
bool isListening(const std::string& path) {
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0 && status.st_mode == (S_IFSOCK | 0770U);
}

std::string pathOf(const SteadyClient& client) {
    return pipePath(Target(client.address()).place);
}

/** Remembers the addresses that a handler was told. */
class Told {
public:
    VornNet::VornSteadySink::AddressHandler handler() {
        return [this](const VornSupport::VornString& address) {
            const std::lock_guard lock(m_lock);
            m_addresses.push_back(address);
            m_thread = currentTid();
        };
    }

    std::vector<std::string> addresses() const {
        const std::lock_guard lock(m_lock);
        return m_addresses;
    }

    pid_t thread() const {
        const std::lock_guard lock(m_lock);
        return m_thread;
    }

private:
    mutable std::mutex m_lock;
    std::vector<std::string> m_addresses;
    pid_t m_thread = 0;
};

} // namespace

TEST_F(VornSteadySink_PipeFile, WithoutAName_ItIsTheProcessIdAndEightRandomDigits) {
    std::set<std::string> names;
    for (int i = 0; i < 50; ++i)
        names.insert(SteadyClient(optionsFor(Kind::pipe)).address());
    EXPECT_EQ(names.size(), 50U);
    char process[32];
    std::snprintf(process, sizeof process, "pipe:quorax%x-[0-9a-f]{8}", static_cast<unsigned>(::getpid()));
    for (const std::string& name : names)
        EXPECT_THAT(name, MatchesRegex(process));
}

TEST_F(VornSteadySink_PipeFile, ARandomNameThatIsTaken_IsNotTakenAway) {
    // The first bind() is said to have failed, as when somebody has just that name.
    const FaultRule taken("bind", EADDRINUSE);
    const CallTrace trace(CallTrace::Scope::CallingThread);
    const SteadyClient client(optionsFor(Kind::pipe));
    EXPECT_EQ(deliverTo(client.address(), ""), "end");
    EXPECT_EQ(trace.calls("bind"), 2);
    EXPECT_EQ(trace.calls("unlink"), 0);
}

TEST_F(VornSteadySink_PipeFile, TheMode_Is0770WhateverTheMaskSays) {
    const mode_t before = ::umask(077);
    const SteadyClient client(optionsFor(Kind::pipe));
    ::umask(before);
    EXPECT_EQ(statusOf(pathOf(client)).st_mode, S_IFSOCK | 0770U);
    EXPECT_EQ(statusOf(pathOf(client)).st_gid, ::getegid());
}

TEST_F(VornSteadySink_PipeFile, AGroup_IsGivenTheFile) {
    SteadyOptions options = optionsFor(Kind::pipe);
    options.sPipeGroup = "root";
    const CallTrace trace(CallTrace::Scope::CallingThread);
    const SteadyClient client(options);
    const auto given = trace.records("chown");
    ASSERT_EQ(given.size(), 1U);
    EXPECT_EQ(given[0].third, 0);
    EXPECT_EQ(statusOf(pathOf(client)).st_gid, 0U);
}

TEST_F(VornSteadySink_PipeFile, WhatTheSystemDoesNotAllow_IsToldAndLeavesNoFile) {
    const std::tuple<const char*, int, int> rows[] = {
        {"bind", EADDRINUSE, EADDRINUSE}, // every random name is taken
        {"bind", EACCES, EACCES},
        {"chown", EPERM, EACCES}};
    SteadyOptions options = optionsFor(Kind::pipe);
    options.sPipeGroup = "root";
    for (const auto& [call, error, code] : rows) {
        const FaultRule fault(call, error, 1, FaultRule::always);
        EXPECT_EQ(codeOf(options, cOpenFailed), code) << call << " " << error;
        EXPECT_TRUE(std::filesystem::is_empty(pipeDirectory()));
    }
}

TEST_F(VornSteadySink_PipeFile, ANameOfALivingServer_Is98AndTheServerGoesOn) {
    const UniqueFd server = unixListen(pipePath("client"));
    EXPECT_EQ(codeOf(named("client"), cOpenFailed), EADDRINUSE);
    EXPECT_TRUE(unixConnect(pipePath("client")));
    const SteadyClient other(named("other"));
    EXPECT_EQ(codeOf(named("other"), cOpenFailed), EADDRINUSE);
    EXPECT_EQ(deliverTo("pipe:other", ""), "end");
}

TEST_F(VornSteadySink_PipeFile, ANameOfALivingDatagramServer_Is98) {
    const UniqueFd server(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, pipePath("client").c_str());
    ASSERT_EQ(::bind(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(codeOf(named("client"), cOpenFailed), EADDRINUSE);
    EXPECT_TRUE(exists(pipePath("client")));
}

TEST_F(VornSteadySink_PipeFile, ANameOfAServerWhoseQueueIsFull_Is98WithoutWaiting) {
    const UniqueFd server = unixListen(pipePath("client"), 0);
    const UniqueFd waiting = unixConnect(pipePath("client"));
    EXPECT_EQ(codeOf(named("client"), cOpenFailed), EADDRINUSE);
}

TEST_F(VornSteadySink_PipeFile, ADeadServersFile_IsReplaced) {
    unixListen(pipePath("client")).reset();
    ASSERT_TRUE(exists(pipePath("client")));
    const SteadyClient client(named("client"));
    EXPECT_EQ(deliverTo("pipe:client", ""), "end");
}

TEST_F(VornSteadySink_PipeFile, ADeadServersFileThatCannotBeMovedAway_IsTriedAgainOrToldOf) {
    const struct {
        const char* call;
        int error;
        int code;
        int nth = 1;
    } rows[] = {
        {"lstat", ENOENT, 0}, // somebody has removed it in between
        {"lstat", EIO, EIO},          {"connect", ENOENT, 0},
        {"renameat2", ENOENT, 0},     {"renameat2", EEXIST, 0},
        {"renameat2", EPERM, EACCES}, {"lstat", EIO, 0, 2}, // it is moved back, and away once more
    };

    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.call) + " " + std::to_string(row.error));
        unixListen(pipePath("client")).reset();
        const FaultRule once(row.call, row.error, row.nth);
        EXPECT_EQ(codeOf(named("client"), cOpenFailed), row.code);
        EXPECT_EQ(once.failures(), 1);
        EXPECT_EQ(exists(pipePath("client")), row.code != 0);
    }
}

TEST_F(VornSteadySink_PipeFile, AFileThatIsNoPipe_Is98AndIsKept) {
    std::fclose(std::fopen(pipePath("client").c_str(), "w"));
    EXPECT_EQ(codeOf(named("client"), cOpenFailed), EADDRINUSE);
    EXPECT_TRUE(exists(pipePath("client")));
    ::unlink(pipePath("client").c_str());
    ASSERT_EQ(::symlink("nowhere", pipePath("client").c_str()), 0);
    EXPECT_EQ(codeOf(named("client"), cOpenFailed), EADDRINUSE);
    ::unlink(pipePath("client").c_str());
}

TEST_F(VornSteadySink_PipeFile, ALivingServerThatReplacesTheDeadOneInBetween_KeepsItsName) {
    unixListen(pipePath("client")).reset();
    UniqueFd server;
    const CallHook inBetween("renameat2", [&] { server = unixListen(pipePath("client")); });
    EXPECT_EQ(codeOf(named("client"), cOpenFailed), EADDRINUSE);
    EXPECT_TRUE(unixConnect(pipePath("client")));
}

TEST_F(VornSteadySink_PipeFile, ANameThatIsTakenOverDuringTheConstruction_Is98) {
    UniqueFd server;
    const CallHook inBetween("listen", [&] { server = unixListen(pipePath("client")); });
    EXPECT_EQ(codeOf(named("client"), cOpenFailed), EADDRINUSE);
    EXPECT_TRUE(unixConnect(pipePath("client")));
}

TEST_F(VornSteadySink_PipeFile, TheDestructor_RemovesTheOwnFileOnly) {
    std::string path;
    {
        const SteadyClient client(optionsFor(Kind::pipe));
        path = pathOf(client);
        EXPECT_TRUE(exists(path));
    }
    EXPECT_FALSE(exists(path));
    UniqueFd server;
    {
        const SteadyClient client(named("client"));
        server = unixListen(pipePath("client"));
    }
    EXPECT_TRUE(unixConnect(pipePath("client")));
}

TEST_F(VornSteadySink_PipeFile, WhileTheLastCallbackRuns_TheFileIsGoneAlready) {
    HeldCallback held;
    SteadyClient client(optionsFor(Kind::pipe), held.action());
    const std::string path = pathOf(client);
    const UniqueFd sender = sendNotification(client.address(), "");
    ASSERT_TRUE(held.awaitEntered());
    WatchedThread destroyer([&] { client.destroy(); });
    EXPECT_TRUE(awaitCondition([&] { return !exists(path); }));
    EXPECT_FALSE(destroyer.finished());
    held.letGoOn();
    EXPECT_TRUE(destroyer.join());
}

TEST_F(VornSteadySink_PipeFile, AFileThatIsRemoved_IsMadeAgainUnderTheSameName) {
    Told told;
    const SteadyClient client(optionsFor(Kind::pipe, [&](auto& o) { o.onAddressChange = told.handler(); }));
    const std::string address = client.address();
    const std::string path = pathOf(client);
    ::unlink(path.c_str());
    ASSERT_TRUE(awaitCondition([&] { return isListening(path); }));
    EXPECT_EQ(client.address(), address);
    EXPECT_EQ(deliverTo(address, ""), "end");
    EXPECT_THAT(told.addresses(), ElementsAre());
}

TEST_F(VornSteadySink_PipeFile, WhoHadConnectedToARemovedFile_IsServedBeforeThoseWhoComeAfter) {
    HeldCallback held;
    const SteadyClient client(optionsFor(Kind::pipe, [](auto& o) { o.nConnectionLimit = 1; }), held.action());
    const UniqueFd running = sendNotification(client.address(), "running");
    ASSERT_TRUE(held.awaitEntered());
    const UniqueFd before = sendNotification(client.address(), "before");
    const std::string path = pathOf(client);
    ::unlink(path.c_str());
    ASSERT_TRUE(awaitCondition([&] { return isListening(path); }));
    const UniqueFd after = sendNotification(client.address(), "after");
    held.letGoOn();
    EXPECT_EQ(endingOf(running.get()), "end");
    EXPECT_EQ(endingOf(before.get()), "end");
    EXPECT_EQ(endingOf(after.get()), "end");
    EXPECT_THAT(client.callback()->contents(), ElementsAre("running", "before", "after"));
}

TEST_F(VornSteadySink_PipeFile, AFileThatIsReplaced_GivesTheSinkAnotherNameAndTheHandlerIsTold) {
    for (const char* name : {"", "client"}) {
        Told told;
        SteadyOptions options = named(name);
        options.onAddressChange = told.handler();
        const SteadyClient client(options);
        const std::string path = pathOf(client);
        const std::string before = client.address();
        const UniqueFd server = unixListen(path);
        ASSERT_TRUE(awaitCondition([&] { return told.addresses().size() == 1; }));
        EXPECT_NE(client.address(), before);
        EXPECT_THAT(client.address(), MatchesRegex("pipe:quorax[0-9a-f]+-[0-9a-f]{8}"));
        EXPECT_THAT(told.addresses(), ElementsAre(client.address()));
        EXPECT_EQ(deliverTo(client.address(), ""), "end");
        EXPECT_TRUE(unixConnect(path));
        ::unlink(path.c_str());
    }
}

TEST_F(VornSteadySink_PipeFile, ANameThatChangesAgainWhileTheHandlerRuns_IsToldAfterwards) {
    Told told;
    Gate entered;
    Gate goesOn;
    const SteadyOptions options = named("client", [&](const VornSupport::VornString& address) {
        told.handler()(address);
        entered.open();
        goesOn.await();
    });
    const SteadyClient client(options);
    {
        const FaultRule taken("bind", EADDRINUSE); // somebody is quicker
        ::unlink(pipePath("client").c_str());
        ASSERT_TRUE(entered.await());
    }
    const std::string first = client.address();
    EXPECT_NE(first, "pipe:client");
    const std::string path = pathOf(client);
    const UniqueFd server = unixListen(path);
    ASSERT_TRUE(awaitCondition([&] { return client.address() != first; }));
    EXPECT_THAT(told.addresses(), ElementsAre(first));
    goesOn.open();
    ASSERT_TRUE(awaitCondition([&] { return told.addresses().size() == 2; }));
    EXPECT_THAT(told.addresses(), ElementsAre(first, client.address()));
    ::unlink(path.c_str());
}

TEST_F(VornSteadySink_PipeFile, WhileTheHandlerTakesItsTime_CallbacksAreCalledAndTheSinkReads) {
    Gate entered;
    Gate goesOn;
    pid_t handlerThread = 0;
    const SteadyOptions options = named("client", [&](const VornSupport::VornString&) {
        handlerThread = currentTid();
        entered.open();
        goesOn.await();
    });
    pid_t callbackThread = 0;
    const SteadyClient client(options, [&](auto&) {
        callbackThread = currentTid();
        return "";
    });
    const UniqueFd server = unixListen(pipePath("client"));
    ASSERT_TRUE(entered.await());
    EXPECT_EQ(deliverTo(client.address(), ""), "end");
    ASSERT_TRUE(client.callback()->awaitCalls(1));
    EXPECT_NE(handlerThread, callbackThread);
    goesOn.open();
}

TEST_F(VornSteadySink_PipeFile, AHandlerThatThrows_IsLoggedAndTheSinkGoesOn) {
    LogCapture log(1);
    const SteadyOptions options =
        named("client", [](const VornSupport::VornString&) { throw VornSupport::VornException("oh", 5); });
    const SteadyClient client(options);
    const UniqueFd server = unixListen(pipePath("client"));
    EXPECT_TRUE(log.await("VornSteadySink::onAddressChange: the handler threw: oh (code=5)"));
    EXPECT_EQ(deliverTo(client.address(), ""), "end");
}

TEST_F(VornSteadySink_PipeFile, AHandlerThatEndsItsThread_EndsNothingElse) {
    Gate entered;
    const SteadyOptions options = named("client", [&](const VornSupport::VornString&) {
        entered.open();
        ::pthread_exit(nullptr);
    });
    SteadyClient client(options);
    const UniqueFd server = unixListen(pipePath("client"));
    ASSERT_TRUE(entered.await());
    EXPECT_EQ(deliverTo(client.address(), ""), "end");
    client.destroy();
}

TEST_F(VornSteadySink_PipeFile, WithoutAThreadForTheHandler_ItIsToldLater) {
    Told told;
    const SteadyClient client(named("client", told.handler()));
    const UniqueFd server = unixListen(pipePath("client"));
    {
        const FaultRule none("pthread_create", EAGAIN, 1, FaultRule::always);
        EXPECT_TRUE(awaitCondition([&] { return none.failures() > 0; }));
        EXPECT_NE(client.address(), "pipe:client");
        EXPECT_THAT(told.addresses(), ElementsAre());
    }
    EXPECT_TRUE(awaitCondition([&] { return told.addresses().size() == 1; }));
}

TEST_F(VornSteadySink_PipeFile, WithoutDescriptorsAfterTheFileWasMadeAgain_WhoIsThereGoesOn) {
    const SteadyClient client(named("client"));
    const UniqueFd sender = connectToSink(client.address());
    sendAll(sender.get(), onWire(0));
    ASSERT_TRUE(client.await(&SteadyStatistics::nConnections, std::size_t{1}));
    {
        const FaultRule none("accept4", EMFILE, 1, FaultRule::always);
        ::unlink(pipePath("client").c_str());
        ASSERT_TRUE(awaitCondition([&] { return isListening(pipePath("client")); }));
        const int nBefore = none.failures(); // the sink may still have been looking for a second sender
        ASSERT_TRUE(awaitCondition([&] { return none.failures() > nBefore; })); // at its former socket
        for (int i = 0; i < 10; ++i) {
            sendAll(sender.get(), "x");
            letPass(std::chrono::milliseconds(5));
        }
        endSending(sender.get());
        EXPECT_EQ(endingOf(sender.get()), "end");
    }
    EXPECT_THAT(client.callback()->contents(), ElementsAre(std::string(10, 'x')));
    EXPECT_EQ(deliverTo(client.address(), ""), "end");
}

TEST_F(VornSteadySink_PipeFile, ADirectoryThatGoesAndComesBack_IsUsedAgain) {
    const SteadyClient client(named("client"));
    {
        const MissingPipeDirectory missing;
        const FaultRule watched("lstat", 0, 1000000);
        ASSERT_TRUE(awaitCondition([&] { return watched.calls() >= 1; })); // it has looked in vain
        ::unlink(missing.pathNow("client").c_str());
    }
    ASSERT_TRUE(awaitCondition([&] { return isListening(pipePath("client")); }));
    EXPECT_EQ(client.address(), "pipe:client");
    EXPECT_EQ(deliverTo(client.address(), ""), "end");
}

TEST_F(VornSteadySink_PipeFile, AfterAKill_TheNextSinkTakesTheNameAtOnce) {
    ChildProcess child = ChildProcess::spawnRole("steadyNamedClient");
    ASSERT_EQ(child.readLine(), "pipe:client");
    child.kill(SIGKILL);
    child.wait();
    EXPECT_TRUE(exists(pipePath("client")));
    const SteadyClient client(named("client"));
    EXPECT_EQ(deliverTo("pipe:client", ""), "end");
}

KIT_ROLE(steadyNamedClient) {
    const SteadyClient client(named("client"));
    std::puts(client.address().c_str());
    std::getchar();
    return 0;
}
