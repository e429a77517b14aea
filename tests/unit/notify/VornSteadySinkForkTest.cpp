// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * A sink in a process that forks, and in one whose callback calls exit().
 */

#include "ForkedChild.h"
#include "Process.h"
#include "Sandbox.h"
#include "Sanitizer.h"
#include "SteadySinkPeer.h"

#include <cstdlib>
#include <memory>

#include <sys/stat.h>
#include <unistd.h>

using namespace VornTest;

namespace {

using testing::Values;
using VornNet::VornConnection;
using VornNet::VornSmartPointer;

using Connection = VornSmartPointer<VornConnection>;

constexpr int exitStatus = 7;

class VornSteadySink_Fork : public NotificationTest, public testing::WithParamInterface<Kind> {};

INSTANTIATE_TEST_SUITE_P(Kind, VornSteadySink_Fork, Values(Kind::pipe, Kind::socket, Kind::udp),
                         [](const auto& parameter) { return nameOf(parameter.param); });

bool hasFile(const std::string& address) {
    struct stat found {};

    return ::stat(pipePath(address.substr(address.find(':') + 1)).c_str(), &found) == 0;
}

/** Without a buffer: a child must not print again what its parent has printed. */
void print(const std::string& line) {
    const std::string bytes = line + "\n";
    if (::write(STDOUT_FILENO, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        std::abort();
}

/** Static, so that exit() destroys it. */
std::unique_ptr<VornNet::VornSteadySink> g_sink;

CallbackPointer openSink(const std::string& type, RecordingCallback::Action action) {
    useTypeText(type);
    g_sink = std::make_unique<VornNet::VornSteadySink>("client");
    CallbackPointer callback = new RecordingCallback(0, std::move(action));
    g_sink->getCallbackContainer().add(static_cast<VornNet::VornNotificationCallback*>(callback));
    return callback;
}

} // namespace

KIT_ROLE(steadySinkWhoseChildrenExit) {
    const CallbackPointer callback = openSink(args.at(0), [](Connection& connection) {
        const pid_t child = ::fork();
        if (child == 0)
            std::exit(exitStatus);
        return readToEnd(*connection) + ", the callback's child: " + std::to_string(statusOf(child));
    });
    const pid_t child = ::fork();
    if (child == 0)
        std::exit(exitStatus);
    print("main's child: " + std::to_string(statusOf(child)));
    print(g_sink->getCallbackAddress());
    if (callback->awaitCalls(1))
        print(callback->contents().at(0));
    char byte = '\0';
    return static_cast<int>(::read(STDIN_FILENO, &byte, 1)); // until the test has looked
}

TEST_P(VornSteadySink_Fork, WhenChildrenExit_TheParentIsServed) {
    ChildProcess child =
        ChildProcess::spawnRoleWith(exitOnAnyThread, "steadySinkWhoseChildrenExit", {nameOf(GetParam())});
    EXPECT_EQ(child.readLine(), "main's child: 7");
    const std::string address = child.readLine();
    EXPECT_TRUE(GetParam() != Kind::pipe || hasFile(address));
    sendByHand(address, onWire(0) + "served");
    EXPECT_EQ(child.readLine(), "served, the callback's child: 7");
    EXPECT_TRUE(GetParam() != Kind::pipe || hasFile(address));
    child.closeInput();
    EXPECT_EQ(child.wait(), 0);
    EXPECT_FALSE(GetParam() == Kind::pipe && hasFile(address));
}

KIT_ROLE(steadySinkWhoseCallbackExits) {
    openSink(args.at(0), [](Connection&) -> std::string { std::exit(exitStatus); });
    print(g_sink->getCallbackAddress());
    ::pause();
    return 0;
}

TEST_P(VornSteadySink_Fork, WhenACallbackExits_TheSinkEndsWithItsProcess) {
    ChildProcess child =
        ChildProcess::spawnRoleWith(exitOnAnyThread, "steadySinkWhoseCallbackExits", {nameOf(GetParam())});
    const std::string address = child.readLine();
    if (GetParam() == Kind::udp)
        sendByHand(address, onWire(0));
    else
        EXPECT_EQ(deliverTo(address, "content"), "reset") << "its callback has not returned";
    EXPECT_EQ(child.wait(), exitStatus);
    EXPECT_EQ(child.readAllErrors(), "");
    EXPECT_FALSE(GetParam() == Kind::pipe && hasFile(address));
}
