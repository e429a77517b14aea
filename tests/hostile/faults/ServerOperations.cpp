// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// The table's rows for the servers.

#include "Operations.h"
#include "Peers.h"
#include "Sandbox.h"

#include <VornPipeServer.h>
#include <VornSSLServerSocket.h>
#include <VornServerSocket.h>
#include <VornUDPServerSocket.h>

#include <sys/resource.h>

using namespace VornNet;

namespace VornTest {

namespace {

const VornString cText(40, 'x');
constexpr unsigned ofWait = throwsVornException | endsProcess;

/** A server of either socket kind, which can be opened before anybody waits on it. */
template <typename Server>
class Opened : public Server {
public:
    using Server::init;
    using Server::Server;
};

/** Waits for the client that is there; a server that could not do it must be able to do it later. */
void waitFor(Trial& trial, VornIPCServer& server, bool isIdentified, const std::function<void()>& come) {
    come();
    VornSmartPointer<VornConnection> client;
    trial.attempt([&] { client = server.waitForClient(isIdentified); });
    trial.expect(trial.hasThrown() || client != nullptr, "no client");
    if (trial.hasThrown()) {
        server.close();
        WatchedThread waiter([&] { client = server.waitForClient(isIdentified); });
        const Repeated caller([&] { come(); });
        trial.expect(waiter.join(), "it does not wait again");
        trial.expect(client != nullptr, "it serves nobody any more");
        server.close(); // a caller in a full queue would wait, and be waited for, for minutes
    }
    client = nullptr;
    server.close();
}

void addPipe(Operations& table) {
    const auto come = [] { unixConnect(pipePath("faults")); };
    table.add("VornPipeServer::VornPipeServer, ~VornPipeServer, init, VornIPCServer::VornIPCServer, "
              "~VornIPCServer",
              throwsBadAlloc, [](Trial& trial) {
                  trial.attempt([] { VornPipeServer server("faults"); });
                  VornPipeServer again("faults");
              });
    table.add("VornPipeServer::VornPipeServer (of a group)", throwsBadAlloc | doesWithout, [](Trial& trial) {
        trial.attempt([] { VornPipeServer server("faults", 1, "root"); });
        VornPipeServer again("faults");
    });
    table.add("VornPipeServer::VornPipeServer (with too long a name)", throwsBadAlloc | throwsVornException,
              [] { VornPipeServer server(VornString(200, 'x')); });
    table.add("VornPipeServer::getFullPipeName", throwsBadAlloc,
              [] { VornPipeServer::getFullPipeName(cText); });
    table.add("VornPipeServer::close, waitForInit", allocatesNothing, [](Trial& trial) {
        VornPipeServer server("faults");
        trial.attempt([&] {
            server.waitForInit();
            server.close();
        });
    });
    table.add("VornIPCServer::waitForClient, VornPipeServer::waitForClientImpl (pipe)", ofWait,
              [=](Trial& trial) {
                  VornPipeServer server("faults");
                  waitFor(trial, server, false, come);
              });
    table.add("VornIPCServer::waitForClient, VornPipeServer::init (pipe without a descriptor left)", ofWait,
              [](Trial& trial) {
                  VornPipeServer server("faults");
                  server.close();
                  rlimit limit = {};
                  ::getrlimit(RLIMIT_NOFILE, &limit);
                  const rlimit none = {0, limit.rlim_max};
                  ::setrlimit(RLIMIT_NOFILE, &none);
                  trial.attempt([&] { server.waitForClient(false); });
                  ::setrlimit(RLIMIT_NOFILE, &limit);
              });
}

void addTcp(Operations& table) {
    table.add("VornServerSocket::VornServerSocket, ~VornServerSocket, getBindAddress, getPort, setPort",
              throwsBadAlloc, [] {
                  VornServerSocket server(9, 5, cText);
                  server.getBindAddress();
                  server.setPort(server.getPort());
              });
    table.add("VornServerSocket::init, close, waitForInit", throwsBadAlloc, [](Trial& trial) {
        Opened<VornServerSocket> server(freshPort(), 5, "127.0.0.1");
        trial.attempt([&] {
            server.init();
            server.waitForInit();
            server.close();
        });
        server.init();
    });
    table.add("VornServerSocket::init (to no address)", throwsBadAlloc | throwsVornException,
              [](Trial& trial) {
                  Opened<VornServerSocket> server(freshPort(), 5, "localhost");
                  trial.attempt([&] { server.init(); });
              });
    table.add("VornIPCServer::waitForClient, VornServerSocket::waitForClientImpl (TCP)", ofWait,
              [](Trial& trial) {
                  const int port = freshPort();
                  Opened<VornServerSocket> server(port, 5, "127.0.0.1");
                  server.init();
                  waitFor(trial, server, false, [=] { resetOnClose(tcpConnect("127.0.0.1", port).get()); });
              });
}

void addOtherTcpWait(Operations& table) {
    table.add("VornIPCServer::waitForClient (TCP, identified)", ofWait | doesWithout, [](Trial& trial) {
        const int port = freshPort();
        Opened<VornServerSocket> server(port, 5, "127.0.0.1");
        server.init();
        waitFor(trial, server, true, [=] { resetOnClose(tcpConnect("127.0.0.1", port).get()); });
    });
    table.add("VornIPCServer::waitForClient (TCP, opening)", ofWait, [](Trial& trial) {
        const int port = freshPort();
        VornServerSocket server(port, 5, "127.0.0.1");
        const Repeated caller([=] { resetOnClose(tcpConnect("127.0.0.1", port).get()); });
        trial.attempt([&] { server.waitForClient(false); });
        server.close(); // a caller in a full queue would wait, and be waited for, for minutes
    });
}

void addUdp(Operations& table) {
    const auto sendTo = [](int port) {
        return [=] {
            int ownPort = 0;
            udpSendTo(udpSocket("127.0.0.1", ownPort).get(), "127.0.0.1", port, "0123456789");
        };
    };
    table.add("VornUDPServerSocket::VornUDPServerSocket, ~VornUDPServerSocket", throwsBadAlloc,
              [] { VornUDPServerSocket server(9, cText, 100); });
    table.add("VornUDPServerSocket::init", throwsBadAlloc, [](Trial& trial) {
        Opened<VornUDPServerSocket> server(freshPort(), "127.0.0.1", 100);
        trial.attempt([&] { server.init(); });
        server.init();
        server.waitForInit();
    });
    // Its datagram to itself has nothing in it then, and cannot be sent.
    table.add("VornUDPServerSocket::close", doesWithout, [](Trial& trial) {
        trial.allowOpenDescriptor();
        Opened<VornUDPServerSocket> server(freshPort(), "127.0.0.1", 100);
        server.init();
        trial.attempt([&] { server.close(); });
        server.init();
    });
    // The datagram's copy is one of the writes of a buffer connection, which are dropped.
    table.add("VornIPCServer::waitForClient, VornUDPServerSocket::waitForClientImpl (UDP)",
              ofWait | doesWithout, [=](Trial& trial) {
                  const int port = freshPort();
                  Opened<VornUDPServerSocket> server(port, "127.0.0.1", 100);
                  server.init();
                  waitFor(trial, server, false, sendTo(port));
              });
    table.add("VornIPCServer::waitForClient (UDP, identified)", ofWait | doesWithout, [=](Trial& trial) {
        const int port = freshPort();
        Opened<VornUDPServerSocket> server(port, "127.0.0.1", 100);
        server.init();
        waitFor(trial, server, true, sendTo(port));
    });
}

void addSsl(Operations& table) {
    static const VornCertificate certificate(cText, "PEM", cText, "PEM");
    table.add("VornSSLServerSocket::VornSSLServerSocket, ~VornSSLServerSocket", throwsBadAlloc,
              [] { VornSSLServerSocket server(9, certificate, 5, cText); });
    table.add("VornIPCServer::waitForClient, VornSSLServerSocket::waitForClientImpl, init, close (SSL)",
              allocatesNothing, [](Trial& trial) {
                  VornSSLServerSocket server(9, certificate, 5, cText);
                  trial.attempt([&] {
                      server.waitForClient(false);
                      server.close();
                  });
              });
}

} // namespace

void addServers(Operations& table) {
    addPipe(table);
    addTcp(table);
    addOtherTcpWait(table);
    addUdp(table);
    addSsl(table);
}

} // namespace VornTest
