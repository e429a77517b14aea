// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Each kind of notification, sent to a plain receiver.

#include "Peers.h"
#include "Scenarios.h"

#include <VornProxyDependent.h>

#include <cerrno>

using namespace VornNet;

namespace VornTest {

namespace {

constexpr const char* cWrite = "VornConnection::put: transfer failed.";

Outcome notifyOver(const Stage& stage, const std::string& address) {
    VornProxyDependent proxy(address, 3);
    return twice(stage, [&proxy] {
        proxy.remoteNotify(VornNotification(5));
        return "";
    });
}

Outcome pipeNotification(const Stage& stage) {
    const UniqueFd listener = listenAtPipe();
    return notifyOver(stage, "pipe:faults");
}

Outcome tcpNotificationTo(const Stage& stage, const std::string& host) {
    int port = 0;
    const UniqueFd listener = tcpListen("127.0.0.1", port, 20);
    return notifyOver(stage, "socket:" + host + ":" + std::to_string(port));
}

Outcome tcpNotification(const Stage& stage) {
    return tcpNotificationTo(stage, "127.0.0.1");
}

/** A name that cannot be looked up is attempted as 0.0.0.0, which is this host. */
Outcome tcpNotificationByName(const Stage& stage) {
    return tcpNotificationTo(stage, "localhost");
}

Outcome udpNotificationTo(const Stage& stage, const std::string& host) {
    int port = 0;
    const UniqueFd receiver = udpSocket("127.0.0.1", port);
    return notifyOver(stage, "udp:" + host + ":" + std::to_string(port));
}

Outcome udpNotification(const Stage& stage) {
    return udpNotificationTo(stage, "127.0.0.1");
}

Outcome udpNotificationByName(const Stage& stage) {
    return udpNotificationTo(stage, "localhost");
}

std::vector<FailingCall> streamCalls(const char* connectText) {
    return {{"socket", isTriedAgain(endsWith(cWrite, ENOTCONN))},
            {"connect", fails(connectText)},
            {"send", fails(cWrite)},
            {"fcntl", isIgnored()},
            {"close", isIgnored()}};
}

} // namespace

std::vector<Scenario> notificationScenarios() {
    return {
        {"pipe notification", pipeNotification,
         streamCalls("VornPipeConnection::establish: connection request failed.")},
        {"TCP notification", tcpNotification,
         streamCalls("VornSocketConnection::establish: connection request failed.")},
        {"TCP notification by name", tcpNotificationByName, {{"gethostbyname_r", isIgnored()}}},
        {"UDP notification",
         udpNotification,
         {{"socket", isIgnored()},
          {"setsockopt", isIgnoredAndLeaks()},
          {"sendto", isIgnoredAndLeaks()},
          {"fcntl", isIgnored()},
          {"close", isIgnored()}}},
        {"UDP notification by name", udpNotificationByName, {{"gethostbyname_r", isIgnored()}}},
    };
}

} // namespace VornTest
