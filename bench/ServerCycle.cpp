// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"
#include "PosixServer.h"

#include <VornPipeServer.h>
#include <VornServerSocket.h>
#include <VornUDPServerSocket.h>

/** A server closed and opened again while nobody waits on it. */
namespace Bench {

namespace {

constexpr const char* cPipeName = "bench-cycle";
constexpr int cPort = 5904;

class PosixCycle : public Contender {
public:
    explicit PosixCycle(Road road) : m_server(road, cPipeName, cPort) { m_server.open(); }

    ~PosixCycle() override { m_server.close(); }

    Clock::time_point operate() override {
        m_server.close();
        m_server.open();
        return Clock::now();
    }

private:
    PosixServer m_server;
};

/** Opens without waiting for a client: init() is what waitForClient() begins with. */
template <typename Server>
class Opening : public Server {
public:
    using Server::init;
    using Server::Server;
};

template <typename Server>
class VornnetCycle : public Contender {
public:
    template <typename... Arguments>
    explicit VornnetCycle(Arguments... arguments) : m_server(arguments...) {
        m_server.init();
    }

    Clock::time_point operate() override {
        m_server.close();
        m_server.init();
        return Clock::now();
    }

private:
    Opening<Server> m_server;
};

} // namespace

void addServerCycle() {
    for (const Road road : {Road::pipe, Road::tcp, Road::udp})
        addContender<PosixCycle>(std::string("server-cycle-") + nameOf(road), "limit", 1, road);
    addContender<VornnetCycle<VornNet::VornPipeServer>>("server-cycle-pipe", "vornnet", 1, cPipeName);
    addContender<VornnetCycle<VornNet::VornServerSocket>>("server-cycle-tcp", "vornnet", 1, cPort, 5,
                                                          "127.0.0.1");
    addContender<VornnetCycle<VornNet::VornUDPServerSocket>>("server-cycle-udp", "vornnet", 1, cPort,
                                                             "127.0.0.1", 16'777'215U);
}

} // namespace Bench
