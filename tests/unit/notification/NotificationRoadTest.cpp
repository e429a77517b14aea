// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * The whole road of a notification, between processes.
 */

#include "NotificationPeer.h"
#include "Process.h"
#include "Sandbox.h"

#include <csignal>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace VornTest;

namespace {

using testing::Values;

class NotificationRoad : public NotificationTestOfKind {};

INSTANTIATE_TEST_SUITE_P(Kind, NotificationRoad, Values(Kind::pipe, Kind::socket, Kind::udp),
                         [](const auto& parameter) { return nameOf(parameter.param); });

/** A client in a process of its own. */
class Client {
public:
    explicit Client(Kind kind, int callbacks = 1)
        : m_process(ChildProcess::spawnRoleWith({"QUORAX_CALLB_CONN_TYPE=" + nameOf(kind)}, "roadClient",
                                                {std::to_string(callbacks)})),
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

/** A service in a process of its own, with one callback of its clients. */
class Service {
public:
    explicit Service(int handle = 0)
        : m_process(ChildProcess::spawnRole("roadService", std::to_string(handle))) {}

    /** Lets it notify the sink at the address, and returns what became of it. */
    std::string notify(const std::string& address, int id) {
        m_process.writeLine(address + " " + std::to_string(id));
        return m_process.readLine();
    }

private:
    ChildProcess m_process;
};

/** What a client prints when it has been told of an id. */
std::string eventLine(int callback, int id) {
    return std::to_string(callback) + " " + hex(onWire(id));
}

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
    return liveAsClient(std::stoi(args.at(0)));
}

KIT_ROLE(roadService) {
    return liveAsService(std::stol(args.at(0)));
}

TEST_P(NotificationRoad, FromSocatToSink) {
    Client client(GetParam());
    client.awaitServing();
    ChildProcess socat = ChildProcess::spawn(socatTo(client.address()));
    socat.writeLine(onWire(0) + "said by socat");
    socat.closeInput();
    EXPECT_EQ(client.process().readLine(), "0 " + hex("said by socat\n"));
    EXPECT_EQ(socat.wait(), 0) << socat.readAllErrors();
}

TEST_P(NotificationRoad, PacedNotificationsArriveOnceAndInOrder) {
    Client client(GetParam());
    Service service;
    for (int id = 0; id < 50; ++id) {
        client.awaitServing();
        ASSERT_EQ(service.notify(client.address(), id), "sent");
        ASSERT_EQ(client.process().readLine(), eventLine(0, id));
    }
    client.process().closeInput();
    EXPECT_EQ(client.process().wait(), 0);
    EXPECT_EQ(client.process().readAllOutput(), "") << "nothing arrives twice";
}

TEST_P(NotificationRoad, EachClientGetsItsOwn) {
    Client first(GetParam());
    Client second(GetParam());
    ASSERT_NE(first.address(), second.address());
    Service toFirst;
    Service toSecond;
    for (int id = 0; id < 5; ++id) {
        first.awaitServing();
        second.awaitServing();
        EXPECT_EQ(toFirst.notify(first.address(), id), "sent");
        EXPECT_EQ(toSecond.notify(second.address(), 100 + id), "sent");
        EXPECT_EQ(first.process().readLine(), eventLine(0, id));
        EXPECT_EQ(second.process().readLine(), eventLine(0, 100 + id));
    }
}

TEST_P(NotificationRoad, EachCallbackGetsItsOwn) {
    Client client(GetParam(), 3);
    for (const int callback : {2, 0, 1}) {
        Service service(callback);
        client.awaitServing();
        EXPECT_EQ(service.notify(client.address(), 12), "sent");
        EXPECT_EQ(client.process().readLine(), eventLine(callback, 12));
    }
}

TEST_P(NotificationRoad, KilledClientIsNoticedByStreams) {
    Client client(GetParam());
    Service service;
    client.awaitServing();
    EXPECT_EQ(service.notify(client.address(), 1), "sent");
    EXPECT_EQ(client.process().readLine(), eventLine(0, 1));
    // Until its sink waits again the address may be gone for a moment: a pipe would answer 2, not 111.
    client.awaitServing();
    client.process().kill(SIGKILL);
    EXPECT_EQ(client.process().wait(), 128 + SIGKILL);
    switch (GetParam()) {
    case Kind::pipe:
        EXPECT_EQ(service.notify(client.address(), 2),
                  "failed 111 VornPipeConnection::establish: connection request failed.");
        break;
    case Kind::socket:
        EXPECT_EQ(service.notify(client.address(), 2),
                  "failed 111 VornSocketConnection::establish: connection request failed.");
        break;
    case Kind::udp:
        EXPECT_EQ(service.notify(client.address(), 2), "sent");
        break;
    }
}
