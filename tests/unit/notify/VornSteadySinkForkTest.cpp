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

class VornSteadySink_Fork : public NotificationTestOfKind {};

INSTANTIATE_TEST_SUITE_P(Kind, VornSteadySink_Fork, Values(Kind::pipe, Kind::socket, Kind::udp),
                         testing::PrintToStringParamName());

bool hasFile(const std::string& address) {
    struct stat found {};

    return ::stat(pipePath(address.substr(address.find(':') + 1)).c_str(), &found) == 0;
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
        const std::string status = childThatExits();
        return readToEnd(*connection) + ", the callback's child: " + status;
    });
    printLine("main's child: " + childThatExits());
    printLine(g_sink->getCallbackAddress());
    if (callback->awaitCalls(1))
        printLine(callback->contents().at(0));
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
    printLine(g_sink->getCallbackAddress());
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
