// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * The whole road of a notification, between processes.
 */

#include "Failure.h"
#include "NotificationPeer.h"
#include "Process.h"
#include "Sandbox.h"

#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include <VornNotification.h>
#include <VornProxyDependent.h>
#include <gmock/gmock.h>

using namespace VornTest;

namespace {

using testing::Values;
using VornNet::VornProxyDependent;
using VornNet::VornSmartPointer;
using VornSupport::VornNotification;

class NotificationRoad : public NotificationTestOfKind {};

INSTANTIATE_TEST_SUITE_P(Kind, NotificationRoad, Values(Kind::pipe, Kind::socket, Kind::udp),
                         testing::PrintToStringParamName());

/** A client in a process of its own. */
class Client {
public:
    explicit Client(Kind kind)
        : m_process(ChildProcess::spawnRoleWith({"QUORAX_CALLB_CONN_TYPE=" + nameOf(kind)}, "roadClient")),
          m_address(m_process.readLine()) {}

    /** Where the sink was when it was last seen waiting. */
    const std::string& address() const { return m_address; }

    ChildProcess& process() { return m_process; }

    /** Waits until its sink can take the next notification. What it has received must have been read. */
    void awaitServing() {
        m_process.writeLine("ready?");
        m_address = m_process.readLine();
    }

private:
    ChildProcess m_process;
    std::string m_address;
};

/** A service in a process of its own. */
class Service {
public:
    /** Lets it notify the sink at the address, and returns what became of it. */
    std::string notify(const std::string& address, int id) {
        m_process.writeLine(address + " " + std::to_string(id));
        return m_process.readLine();
    }

private:
    ChildProcess m_process = ChildProcess::spawnRole("roadService");
};

/** A socat command that sends its standard input to the address. */
std::vector<std::string> socatTo(const std::string& address) {
    const Target target(address);
    if (target.kind == "pipe")
        return {"socat", "-u", "STDIN", "UNIX-CONNECT:" + pipePath(target.place)};
    const std::string kind = target.kind == "udp" ? "UDP4-SENDTO:" : "TCP4:";
    return {"socat", "-u", "STDIN", kind + target.place + ":" + std::to_string(target.port)};
}

} // namespace

KIT_ROLE(roadClient) {
    return liveAsClient();
}

/** Notifies as each line "<address> <id>" says, and prints what came of it. */
KIT_ROLE(roadService) {
    for (std::string address; std::cin >> address;) {
        int id = 0;
        std::cin >> id;
        const VornSmartPointer<VornProxyDependent> proxy = new VornProxyDependent(address, 0);
        const std::string failure = thrownBy([&] { proxy->remoteNotify(VornNotification(id)); });
        std::printf("%s\n", failure.c_str());
    }
    return 0;
}

TEST_P(NotificationRoad, FromSocatToSink) {
    Client client(GetParam());
    client.awaitServing();
    ChildProcess socat = ChildProcess::spawn(socatTo(client.address()));
    socat.writeLine(onWire(0) + "said by socat");
    socat.closeInput();
    EXPECT_EQ(client.process().readLine(), hex("said by socat\n"));
    EXPECT_EQ(socat.wait(), 0) << socat.readAllErrors();
}

TEST_P(NotificationRoad, PacedNotificationsOfTwoServicesArriveWhereTheyShouldOnceAndInOrder) {
    Client first(GetParam());
    Client second(GetParam());
    ASSERT_NE(first.address(), second.address());
    Service toFirst;
    Service toSecond;
    for (int id = 0; id < 25; ++id) {
        first.awaitServing();
        second.awaitServing();
        ASSERT_EQ(toFirst.notify(first.address(), id), "nothing");
        ASSERT_EQ(toSecond.notify(second.address(), 100 + id), "nothing");
        ASSERT_EQ(first.process().readLine(), hex(onWire(id)));
        ASSERT_EQ(second.process().readLine(), hex(onWire(100 + id)));
    }
    for (Client* client : {&first, &second}) {
        client->process().closeInput();
        EXPECT_EQ(client->process().wait(), 0);
        EXPECT_EQ(client->process().readAllOutput(), "") << "nothing arrives twice";
    }
}

TEST_P(NotificationRoad, KilledClientIsNoticedByStreams) {
    Client client(GetParam());
    Service service;
    client.awaitServing();
    EXPECT_EQ(service.notify(client.address(), 1), "nothing");
    EXPECT_EQ(client.process().readLine(), hex(onWire(1)));
    // Until its sink waits again the address may be gone for a moment: a pipe would answer 2, not 111.
    client.awaitServing();
    client.process().kill(SIGKILL);
    EXPECT_EQ(client.process().wait(), 128 + SIGKILL);
    switch (GetParam()) {
    case Kind::pipe:
        EXPECT_EQ(service.notify(client.address(), 2),
                  "VornPipeConnection::establish: connection request failed. 111");
        break;
    case Kind::socket:
        EXPECT_EQ(service.notify(client.address(), 2),
                  "VornSocketConnection::establish: connection request failed. 111");
        break;
    case Kind::udp:
        EXPECT_EQ(service.notify(client.address(), 2), "nothing");
        break;
    }
}
