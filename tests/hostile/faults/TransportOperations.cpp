// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// The table's rows for what differs between the transports: construction, the connecting that their first
// operation does, and what only one of them has.

#include "Operations.h"
#include "Peers.h"
#include "Sandbox.h"

#include <VornBufferConnection.h>
#include <VornLogging.h>
#include <VornPipeConnection.h>
#include <VornSSLSocketConnection.h>
#include <VornSocketConnection.h>
#include <VornUDPSocketConnection.h>

#include <optional>

#include <sys/socket.h>

using namespace VornNet;

namespace VornTest {

namespace {

const VornString cName(40, 'x');
const VornString cLongService(40, 's');

/** A plain listener of either stream, which accepts nobody; connecting to it succeeds all the same. */
class Listener {
public:
    explicit Listener(bool isPipe)
        : m_isPipe(isPipe), m_fd(isPipe ? listenAtPipe() : tcpListen("127.0.0.1", m_port)) {}

    std::unique_ptr<VornConnection> client() const {
        if (m_isPipe)
            return std::make_unique<VornPipeConnection>("faults");
        return std::make_unique<VornSocketConnection>("127.0.0.1", m_port, false, false);
    }

    int descriptor() const { return m_fd.get(); }

    int port() const { return m_port; }

private:
    bool m_isPipe;
    int m_port = 0;
    UniqueFd m_fd;
};

bool isUsable(VornConnection& connection) {
    try {
        connection.disconnect();
        connection.transfer(7);
        return true;
    } catch (const VornException&) {
        return false;
    }
}

/** Does something with a client of a listener. */
template <typename Do>
std::function<void(Trial&)> withClient(bool isPipe, Do work) {
    return [=](Trial& trial) {
        std::optional<Listener> listener(isPipe);
        const auto connection = listener->client();
        work(trial, *connection, listener);
    };
}

/** An operation that has to connect first. */
template <typename Do>
std::function<void(Trial&)> connecting(bool isPipe, Do operation) {
    return withClient(isPipe, [=](Trial& trial, VornConnection& connection, const auto&) {
        trial.attempt([&] { operation(connection); });
        trial.expect(isUsable(connection), "it cannot be used again");
    });
}

void addConnecting(Operations& table, bool isPipe) {
    using C = VornConnection;
    const std::string kind = isPipe ? "pipe" : "TCP";
    const std::string own = isPipe ? "VornPipeConnection::" : "VornSocketConnection::";
    const unsigned ofTyped = throwsVornException | endsProcess;
    // What is no VornException ends the process at the boundary of a typed operation.
    table.add("VornConnection::transfer, " + own + "establishImpl", kind + ", connecting", ofTyped,
              connecting(isPipe, [](C& c) { c.transfer(7); }));
    table.add("VornConnection::establish", kind + ", connecting", throwsBadAlloc,
              connecting(isPipe, [](C& c) { c.establish(); }));
    table.add(own + "transfer", kind + ", raw, connecting", throwsBadAlloc, connecting(isPipe, [](C& c) {
                  long error = 0;
                  c.transfer("x", 1, &error);
              }));
    table.add(own + "receive", kind + ", connecting", throwsBadAlloc, connecting(isPipe, [](C& c) {
                  long error = 0;
                  c.receive(nullptr, 0, &error, true);
              }));
    for (const char* answer : {"+", "-"}) {
        table.add("VornConnection::connectToService, connectToServiceImpl", kind + ", answered " + answer,
                  throwsBadAlloc | throwsVornException,
                  withClient(isPipe, [=](Trial& trial, C& connection, const auto& listener) {
                      connection.establish();
                      const UniqueFd peer = acceptClient(listener->descriptor());
                      sendAll(peer.get(), answer);
                      connection.setServiceName(cLongService);
                      trial.attempt([&] { connection.connectToService(); });
                  }));
    }
    table.add("VornConnection::transfer", kind + ", nobody there", ofTyped,
              withClient(isPipe, [](Trial& trial, C& connection, auto& listener) {
                  listener.reset();
                  trial.attempt([&] { connection.transfer(7); });
              }));
    table.add("VornConnection::receiveInt", kind + ", end of the stream", ofTyped,
              withClient(isPipe, [](Trial& trial, C& connection, const auto& listener) {
                  connection.establish();
                  acceptClient(listener->descriptor());
                  trial.attempt([&] { connection.receiveInt(); });
              }));
}

/** One end of a connected pair, which a connection takes over unless it cannot be made. */
template <typename Make>
std::function<void(Trial&)> takingOver(Make make) {
    return [=](Trial& trial) {
        int ends[2] = {};
        ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
        const UniqueFd peer(ends[0]);
        UniqueFd taken(ends[1]);
        trial.attempt([&] { make(ends[1]); });
        if (!trial.hasThrown())
            taken.release(); // closed by the connection's destructor
    };
}

void addMaking(Operations& table) {
    const std::string ofAll = "VornConnection::VornConnection, ~VornConnection";
    table.add("VornPipeConnection::VornPipeConnection, ~VornPipeConnection, " + ofAll, throwsBadAlloc,
              [] { VornPipeConnection connection(cName); });
    table.add("VornSocketConnection::VornSocketConnection, ~VornSocketConnection, " + ofAll, throwsBadAlloc,
              [] { VornSocketConnection connection(cName, 9, false, false); });
    table.add("VornUDPSocketConnection::VornUDPSocketConnection, ~VornUDPSocketConnection, " + ofAll,
              throwsBadAlloc, [] { VornUDPSocketConnection connection(cName, 9, false); });
    table.add("VornSSLSocketConnection::VornSSLSocketConnection, ~VornSSLSocketConnection, " + ofAll,
              throwsBadAlloc, [] { VornSSLSocketConnection connection(cName, 9, true); });
    table.add("VornBufferConnection::VornBufferConnection (empty)", allocatesNothing,
              [] { VornBufferConnection connection; });
    // The copy of the message is one of the writes that are dropped.
    table.add("VornBufferConnection::VornBufferConnection, ~VornBufferConnection, buf, size (of a message)",
              throwsBadAlloc | doesWithout, [](Trial& trial) {
                  char message[] = "0123456789";
                  int size = 0;
                  const void* block = nullptr;
                  trial.attempt([&] {
                      const VornBufferConnection connection(message, 10, cName);
                      size = connection.size();
                      block = connection.buf();
                  });
                  trial.expect(trial.hasThrown() || (size == 10 && block != nullptr) ||
                                   (size == -1 && block == nullptr),
                               "the message is half there");
              });
    table.add("VNETInitWinsock, VNETFinitWinsock, VNETInitSSL, VNETFinitSSL", allocatesNothing, [] {
        VNETInitWinsock();
        VNETInitSSL();
        VNETFinitSSL();
        VNETFinitWinsock();
    });
}

/** Around a descriptor that is connected already. */
void addAccepted(Operations& table) {
    table.add("VornPipeConnection::VornPipeConnection (accepted)", throwsBadAlloc,
              takingOver([](int fd) { VornPipeConnection connection(&fd, 7); }));
    table.add("VornSocketConnection::VornSocketConnection, getSocket, getServerName, getPortName (accepted)",
              throwsBadAlloc, takingOver([](int fd) {
                  VornSocketConnection connection(fd, cName, nullptr, false);
                  connection.getSocket();
                  connection.getServerName();
                  connection.getPortName();
              }));
    table.add("VornSSLSocketConnection::VornSSLSocketConnection (accepted)", throwsBadAlloc,
              takingOver([](int fd) { VornSSLSocketConnection connection(fd, cName, nullptr, false); }));
    table.add("VornSSLSocketConnection::VornSSLSocketConnection (wrapping)", throwsBadAlloc,
              takingOver([](int fd) {
                  const VornSmartPointer<VornSocketConnection> client(
                      new VornSocketConnection(fd, cName, nullptr, false));
                  VornSSLSocketConnection connection(client, nullptr);
              }));
    table.add("VornSSLSocketConnection::VornSSLSocketConnection (nothing to wrap)",
              throwsBadAlloc | throwsVornException,
              [] { VornSSLSocketConnection connection(nullptr, nullptr); });
}

void addTransmission(Operations& table, const std::string& host) {
    table.add("VornUDPSocketConnection::transmit", "to " + host, doesWithout, [host](Trial& trial) {
        int port = 0;
        const UniqueFd receiver = udpSocket("127.0.0.1", port);
        VornUDPSocketConnection connection(host, port, true);
        connection.transfer(7);
        std::string record;
        record.reserve(200);
        if (VornLogging::isAdmitted(VornLogging::cError)) {
            VornLogging::setRecordHandler([&](int level, const VornString& text) {
                if (level == VornLogging::cError)
                    record = text;
            });
        }
        trial.attempt([&] { connection.transmit(); });
        VornLogging::setRecordHandler([](int, const VornString&) {});
        trial.expect(record.empty() || record == "VornUDPSocketConnection::transmit: failed to send "
                                                 "data (rc:12) to " +
                                                     host,
                     "another record than that of memory");
        trial.expect(connection.transmit(), "it cannot be used again");
    });
}

} // namespace

void addTransports(Operations& table) {
    // A block that has never been written to: its first write is dropped, and the object is as before.
    table.add("VornBufferConnection::transfer, establishImpl (first write)", doesWithout, [](Trial& trial) {
        VornBufferConnection connection;
        trial.attempt([&] { connection.transfer(7); });
        trial.expect(connection.size() == -1 || connection.size() == 4, "half a value is there");
        connection.transfer(8);
        trial.expect(connection.receiveInt() == (connection.size() == 8 ? 7 : 8), "another value");
    });
    addTransmission(table, "127.0.0.1");
    addTransmission(table, "localhost");
    addMaking(table);
    addAccepted(table);
    addConnecting(table, true);
    addConnecting(table, false);
    table.add("VornConnection::establish (TCP, by name)", throwsBadAlloc | throwsVornException | doesWithout,
              [](Trial& trial) {
                  const Listener listener(false);
                  VornSocketConnection connection("localhost", listener.port(), false, true);
                  trial.attempt([&] { connection.establish(); });
                  trial.expect(isUsable(connection), "it cannot be used again");
              });
}

} // namespace VornTest
