// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * Two hosts, each with a network and a hosts file of its own, joined by a cable: the service's host is the
 * test's own, 10.77.0.1, the client's is the world of a child process, 10.77.0.2.
 */

#include "Failure.h"
#include "NotificationPeer.h"
#include "Process.h"
#include "Sandbox.h"

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <system_error>
#include <vector>

#include <VornNotification.h>
#include <VornProxyDependent.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>

using namespace VornTest;
using namespace std::chrono_literals;

namespace {

using testing::Values;
using VornSupport::VornNotification;

constexpr const char* clientsHosts = "10.77.0.2 harrier localhost\n10.77.0.1 kestrel\n";

/** Runs a program to its end. */
void run(const std::vector<std::string>& command) {
    ChildProcess process = ChildProcess::spawn(command);
    if (process.wait() != 0)
        throw std::runtime_error(command.at(0) + ": " + process.readAllErrors());
}

/** Gives this process a hosts file that other processes do not see. */
void useOwnHostsFile(const std::string& text) {
    const std::string path = "/opt/.vorntest/hosts-of-client";
    std::ofstream(path) << text;
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(path.c_str(), "/etc/hosts", "none", MS_BIND, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(), "mount(/etc/hosts)");
}

/** A notification's way to a place, to its failure if there is one. */
std::string notifyAt(const std::string& address) {
    const VornNet::VornSmartPointer<VornNet::VornProxyDependent> proxy =
        new VornNet::VornProxyDependent(address, 0);
    return thrownBy([&] { proxy->remoteNotify(VornNotification(12)); });
}

std::string connectFailure(int code) {
    return "VornSocketConnection::establish: connection request failed. " + std::to_string(code);
}

class TwoHosts : public NotificationTest {
protected:
    void SetUp() override {
        NotificationTest::SetUp();
        useHostsFile("10.77.0.1 kestrel localhost\n10.77.0.2 harrier\n");
        run({"ip", "link", "add", "cable0", "type", "veth", "peer", "name", "cable1"});
        run({"ip", "addr", "add", "10.77.0.1/24", "dev", "cable0"});
        run({"ip", "link", "set", "cable0", "up"});
        // One repetition of an unanswered request, so that giving up takes seconds instead of minutes.
        std::ofstream("/proc/sys/net/ipv4/tcp_syn_retries") << "1\n";
        ASSERT_EQ(readTextFile("/proc/sys/net/ipv4/tcp_syn_retries"), "1\n");
    }

    /** Starts the other host with a client whose sink is of that kind, and returns the client's address. */
    std::string startClient(Kind kind) {
        m_client = std::make_unique<ChildProcess>(
            ChildProcess::spawnRoleWith({"QUORAX_CALLB_CONN_TYPE=" + nameOf(kind)}, "clientOnOtherHost", {}));
        EXPECT_EQ(m_client->readLine(), "network");
        run({"ip", "link", "set", "cable1", "netns", std::to_string(m_client->pid())});
        m_client->writeLine("cable is there");
        return m_client->readLine();
    }

    void TearDown() override {
        m_client.reset();
        NotificationTest::TearDown();
    }

    ChildProcess& client() { return *m_client; }

    /** Waits until the client's sink is waiting, and returns the address that it has then. */
    std::string awaitServing() {
        m_client->writeLine("ready?");
        return m_client->readLine();
    }

private:
    std::unique_ptr<ChildProcess> m_client;
};

class TwoHostsOfAnyKind : public TwoHosts, public testing::WithParamInterface<Kind> {};

INSTANTIATE_TEST_SUITE_P(Kind, TwoHostsOfAnyKind, Values(Kind::socket, Kind::udp),
                         testing::PrintToStringParamName());

} // namespace

KIT_ROLE(clientOnOtherHost) {
    enterFreshNetwork();
    useOwnHostsFile(clientsHosts);
    std::printf("network\n");
    std::string line;
    std::getline(std::cin, line);
    run({"ip", "addr", "add", "10.77.0.2/24", "dev", "cable1"});
    run({"ip", "link", "set", "cable1", "up"});
    return liveAsClient();
}

TEST_P(TwoHostsOfAnyKind, SinkPublishesItsHostsAddress) {
    EXPECT_EQ(startClient(GetParam()), nameOf(GetParam()) + ":10.77.0.2:5023");
    WatchedSink here(GetParam());
    EXPECT_EQ(here.address(), nameOf(GetParam()) + ":10.77.0.1:5023");
}

TEST_P(TwoHostsOfAnyKind, ServiceMayUseHostsName) {
    startClient(GetParam());
    awaitServing();
    EXPECT_EQ(notifyAt(nameOf(GetParam()) + ":harrier:5023"), "nothing");
    EXPECT_EQ(client().readLine(), hex(onWire(12)));
}

TEST_P(TwoHostsOfAnyKind, HostThatSwallowsPackets_IsGivenUpAfterItsTime) {
    startClient(GetParam());
    EXPECT_EQ(notifyAt(awaitServing()), "nothing");
    EXPECT_EQ(client().readLine(), hex(onWire(12)));
    const std::string address = awaitServing();
    // What is sent to another station's number gets there, and is dropped without an answer.
    run({"ip", "neigh", "replace", "10.77.0.2", "lladdr", "02:00:00:00:00:99", "dev", "cable0", "nud",
         "permanent"});
    std::string result;
    WatchedThread notifier([&] { result = notifyAt(address); });
    EXPECT_TRUE(notifier.join(60s));
    EXPECT_EQ(result, GetParam() == Kind::udp ? "nothing" : connectFailure(ETIMEDOUT));
    run({"ip", "neigh", "del", "10.77.0.2", "dev", "cable0"});
    EXPECT_EQ(notifyAt(address), "nothing");
    EXPECT_EQ(client().readLine(), hex(onWire(12)));
}

TEST_F(TwoHosts, HostWithoutSink_Refuses) {
    startClient(Kind::udp);
    EXPECT_EQ(notifyAt("socket:10.77.0.2:5023"), connectFailure(ECONNREFUSED));
}

TEST_F(TwoHosts, HostWithoutRoute_IsUnreachable) {
    EXPECT_EQ(notifyAt("socket:10.88.0.1:5023"), connectFailure(ENETUNREACH));
    run({"ip", "route", "add", "unreachable", "10.88.0.0/16"});
    EXPECT_EQ(notifyAt("socket:10.88.0.1:5023"), connectFailure(EHOSTUNREACH));
    run({"ip", "route", "add", "blackhole", "10.99.0.0/16"});
    EXPECT_EQ(notifyAt("socket:10.99.0.1:5023"), connectFailure(EINVAL));
}

TEST_F(TwoHosts, UdpToHostWithoutRoute_IsLoggedOnly) {
    LogCapture log(1);
    expectDescriptorLeak(1);
    EXPECT_EQ(notifyAt("udp:10.88.0.1:5023"), "nothing");
    EXPECT_TRUE(log.contains(1, "failed to send data (rc:101) to 10.88.0.1"));
}
