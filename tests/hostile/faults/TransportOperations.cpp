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

    std::unique_ptr<VornConnection> client(const VornString& host = "127.0.0.1") const {
        if (m_isPipe)
            return std::make_unique<VornPipeConnection>("faults");
        return std::make_unique<VornSocketConnection>(host, m_port, false, false);
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

/** An operation that has to connect first. */
template <typename Do>
Operation connecting(std::vector<std::string> names, const std::string& detail, bool isPipe, unsigned allowed,
                     Do operation) {
    return {std::move(names), (isPipe ? "pipe, " : "TCP, ") + detail, allowed, [=](Trial& trial) {
                const Listener listener(isPipe);
                const auto connection = listener.client();
                trial.attempt([&] { operation(*connection); });
                trial.expect(isUsable(*connection), "it cannot be used again");
            }};
}

Operations connectingRows(bool isPipe) {
    const std::string own = isPipe ? "VornPipeConnection::" : "VornSocketConnection::";
    const auto establish = own + "establishImpl";
    return {
        // What is no VornException ends the process at the boundary of a typed operation.
        connecting({"VornConnection::transfer", establish}, "connecting", isPipe,
                   throwsVornException | endsProcess, [](VornConnection& c) { c.transfer(7); }),
        connecting({"VornConnection::establish"}, "connecting", isPipe, throwsBadAlloc,
                   [](VornConnection& c) { c.establish(); }),
        connecting({own + "transfer"}, "raw, connecting", isPipe, throwsBadAlloc,
                   [](VornConnection& c) {
                       long error = 0;
                       c.transfer("x", 1, &error);
                   }),
        connecting({own + "receive"}, "connecting", isPipe, throwsBadAlloc,
                   [](VornConnection& c) {
                       long error = 0;
                       c.receive(nullptr, 0, &error, true);
                   }),
        {{"VornConnection::connectToService", "VornConnection::connectToServiceImpl"},
         isPipe ? "pipe" : "TCP",
         throwsBadAlloc | throwsVornException,
         [=](Trial& trial) {
             const Listener listener(isPipe);
             const auto connection = listener.client();
             connection->establish();
             const UniqueFd peer = acceptClient(listener.descriptor());
             sendAll(peer.get(), "+");
             connection->setServiceName(cLongService);
             trial.attempt([&] { connection->connectToService(); });
         }},
        {{"VornConnection::connectToService"},
         isPipe ? "pipe, refused" : "TCP, refused",
         throwsBadAlloc | throwsVornException,
         [=](Trial& trial) {
             const Listener listener(isPipe);
             const auto connection = listener.client();
             connection->establish();
             const UniqueFd peer = acceptClient(listener.descriptor());
             sendAll(peer.get(), "-");
             connection->setServiceName(cLongService);
             trial.attempt([&] { connection->connectToService(); });
         }},
    };
}

Operations failingRows(bool isPipe) {
    return {
        {{"VornConnection::transfer"},
         isPipe ? "pipe, nobody there" : "TCP, nobody there",
         throwsVornException | endsProcess,
         [=](Trial& trial) {
             std::optional<Listener> listener(isPipe);
             const auto connection = listener->client();
             listener.reset();
             trial.attempt([&] { connection->transfer(7); });
         }},
        {{"VornConnection::receiveInt"},
         isPipe ? "pipe, end of the stream" : "TCP, end of the stream",
         throwsVornException | endsProcess,
         [=](Trial& trial) {
             const Listener listener(isPipe);
             const auto connection = listener.client();
             connection->establish();
             acceptClient(listener.descriptor());
             trial.attempt([&] { connection->receiveInt(); });
         }},
    };
}

/** Construction and destruction. */
template <typename Make>
Operation making(const std::string& className, const std::string& detail, Make make) {
    return {{className + "::" + className, className + "::~" + className, "VornConnection::VornConnection",
             "VornConnection::~VornConnection"},
            detail,
            throwsBadAlloc,
            [=](Trial& trial) { trial.attempt([&] { make(); }); }};
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

Operations makingRows() {
    return {
        making("VornPipeConnection", "", [] { VornPipeConnection connection(cName); }),
        making("VornSocketConnection", "", [] { VornSocketConnection connection(cName, 9, false, false); }),
        making("VornUDPSocketConnection", "", [] { VornUDPSocketConnection connection(cName, 9, false); }),
        making("VornSSLSocketConnection", "", [] { VornSSLSocketConnection connection(cName, 9, true); }),
        {{"VornBufferConnection::VornBufferConnection"},
         "empty",
         allocatesNothing,
         [](Trial& trial) { trial.attempt([] { VornBufferConnection connection; }); }},
        // The copy of the message is one of the writes that are dropped.
        {{"VornBufferConnection::VornBufferConnection", "VornBufferConnection::~VornBufferConnection",
          "VornBufferConnection::buf", "VornBufferConnection::size"},
         "of a message",
         throwsBadAlloc | doesWithout,
         [](Trial& trial) {
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
         }},
        {{"VNETInitWinsock", "VNETFinitWinsock", "VNETInitSSL", "VNETFinitSSL"},
         "",
         allocatesNothing,
         [](Trial& trial) {
             trial.attempt([] {
                 VNETInitWinsock();
                 VNETInitSSL();
                 VNETFinitSSL();
                 VNETFinitWinsock();
             });
         }},
    };
}

/** Around a descriptor that is connected already. */
Operations acceptedRows() {
    return {
        {{"VornPipeConnection::VornPipeConnection"}, "accepted", throwsBadAlloc, takingOver([](int fd) {
             VornPipeConnection connection(&fd, 7);
         })},
        {{"VornSocketConnection::VornSocketConnection", "VornSocketConnection::getSocket",
          "VornSocketConnection::getServerName", "VornSocketConnection::getPortName"},
         "accepted",
         throwsBadAlloc,
         takingOver([](int fd) {
             VornSocketConnection connection(fd, cName, nullptr, false);
             connection.getSocket();
             connection.getServerName();
             connection.getPortName();
         })},
        {{"VornSSLSocketConnection::VornSSLSocketConnection"},
         "accepted",
         throwsBadAlloc,
         takingOver([](int fd) { VornSSLSocketConnection connection(fd, cName, nullptr, false); })},
        {{"VornSSLSocketConnection::VornSSLSocketConnection"},
         "wrapping",
         throwsBadAlloc,
         takingOver([](int fd) {
             const VornSmartPointer<VornSocketConnection> client(
                 new VornSocketConnection(fd, cName, nullptr, false));
             VornSSLSocketConnection connection(client, nullptr);
         })},
        {{"VornSSLSocketConnection::VornSSLSocketConnection"},
         "nothing to wrap",
         throwsBadAlloc | throwsVornException,
         [](Trial& trial) { trial.attempt([] { VornSSLSocketConnection connection(nullptr, nullptr); }); }},
    };
}

/** A block that has never been written to: its first write is dropped, and the object is as before. */
Operation firstWrite() {
    return {{"VornBufferConnection::transfer", "VornBufferConnection::establishImpl"},
            "first write",
            doesWithout,
            [](Trial& trial) {
                VornBufferConnection connection;
                trial.attempt([&] { connection.transfer(7); });
                trial.expect(connection.size() == -1 || connection.size() == 4, "half a value is there");
                connection.transfer(8);
                trial.expect(connection.receiveInt() == (connection.size() == 8 ? 7 : 8), "another value");
            }};
}

Operation transmission(const std::string& host) {
    return {{"VornUDPSocketConnection::transmit"}, "to " + host, doesWithout, [host](Trial& trial) {
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
            }};
}

} // namespace

Operations transportOperations() {
    Operations rows = {firstWrite(), transmission("127.0.0.1"), transmission("localhost")};
    for (const Operations& more : {makingRows(), acceptedRows(), connectingRows(true), connectingRows(false),
                                   failingRows(true), failingRows(false)})
        rows.insert(rows.end(), more.begin(), more.end());
    rows.push_back({{"VornConnection::establish"},
                    "TCP, by name",
                    throwsBadAlloc | throwsVornException | doesWithout,
                    [](Trial& trial) {
                        const Listener listener(false);
                        VornSocketConnection connection("localhost", listener.port(), false, true);
                        trial.attempt([&] { connection.establish(); });
                        trial.expect(isUsable(connection), "it cannot be used again");
                    }});
    return rows;
}

} // namespace VornTest
