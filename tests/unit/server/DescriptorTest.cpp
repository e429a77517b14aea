// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Interpose.h"
#include "Process.h"
#include "ServerTestSupport.h"

#include <VornEvent.h>
#include <VornPipeConnection.h>
#include <VornPipeServer.h>
#include <VornServerSocket.h>
#include <VornSocketConnection.h>
#include <VornUDPServerSocket.h>
#include <VornUDPSocketConnection.h>

#include <cstdio>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornTest;

namespace {

constexpr int cPort = 4711;

/** Shows on @p output what was opened, and how many of the numbers of the standard streams are taken. */
void report(int output, const char* what) {
    int taken = 0;
    for (int number = 0; number <= STDERR_FILENO; ++number)
        taken += ::fcntl(number, F_GETFD) == -1 ? 0 : 1;
    ::dprintf(output, "%s: %d\n", what, taken);
}

/** One value from a client to a server that is open. */
void exchange(int output, const char* what, VornIPCServer& server, VornConnection& client) {
    client.transfer(7);
    report(output, what);
    const VornSmartPointer<VornConnection> spAccepted = server.waitForClient(false);
    report(output, "accepted");
    ::dprintf(output, "read %d\n", spAccepted->receiveInt());
}

} // namespace

KIT_ROLE(openWithoutStandardStreams) {
    const int output = ::fcntl(STDOUT_FILENO, F_DUPFD, 10);
    for (int number = 0; number <= STDERR_FILENO; ++number)
        ::close(number);

    Opened<VornServerSocket> tcpServer(cPort, 5, VornString("127.0.0.1"));
    report(output, "TCP server");
    VornSocketConnection tcpClient("127.0.0.1", cPort, false, false);
    exchange(output, "TCP client", tcpServer, tcpClient);

    VornPipeServer pipeServer("kite");
    report(output, "pipe server");
    VornPipeConnection pipeClient("kite");
    exchange(output, "pipe client", pipeServer, pipeClient);

    Opened<VornUDPServerSocket> udpServer(cPort, VornString("127.0.0.1"), 100U);
    report(output, "UDP server");
    const CallTrace trace;
    VornUDPSocketConnection udpClient("127.0.0.1", cPort, false);
    udpClient.transfer(7);
    udpClient.transmit();
    ::dprintf(output, "sent on a standard stream: %d\n",
              trace.records("sendto").at(0).argument <= STDERR_FILENO ? 1 : 0);

    VornEvent event;
    event.set();
    report(output, "event");
    ::dprintf(output, "a standard stream: %d\n", event.getHandle() <= STDERR_FILENO ? 1 : 0);
    return 0;
}

TEST(DescriptorTest, WhereStandardStreamsAreClosed_NothingIsOpenedInTheirPlace) {
    ChildProcess child = ChildProcess::spawnRole("openWithoutStandardStreams");
    EXPECT_EQ(child.readAllOutput(), "TCP server: 0\nTCP client: 0\naccepted: 0\nread 7\n"
                                     "pipe server: 0\npipe client: 0\naccepted: 0\nread 7\n"
                                     "UDP server: 0\nsent on a standard stream: 0\n"
                                     "event: 0\na standard stream: 0\n");
    EXPECT_EQ(child.wait(), 0);
}
