// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Exchange.h"

#include "Peers.h"
#include "Sandbox.h"

#include <VornException.h>
#include <VornPipeConnection.h>
#include <VornPipeServer.h>
#include <VornServerSocket.h>
#include <VornSocketConnection.h>
#include <VornUDPServerSocket.h>
#include <VornUDPSocketConnection.h>

#include <cerrno>
#include <ostream>

#include <sys/socket.h>

using namespace VornNet;

namespace VornTest {

namespace {

const std::string cLong(3000, 'x');

/** Every type of value on the wire, as writeAll() writes it and readAll() reads it. */
std::string allBytes() {
    return bytes("12 34 56 78 00 00 00 00" // long 305419896
                 "ff ff ff fe"             // int -2
                 "ff fd"                   // short -3
                 "00 01 00 00"             // true, false
                 "00 00 00 00"             // an empty text
                 "00 00 00 03 61 62 63"    // "abc"
                 "00 00 00 03 64 00 65"    // "d", a zero byte, "e"
                 "00 01 00 00"             // acknowledgement
                 "00 01 ff ff"             // error
                 "00 00 0b b8") +          // the length of
           cLong;
}

void writeAll(VornConnection& connection) {
    connection.transfer(305'419'896L);
    connection.transfer(-2);
    connection.transfer(static_cast<short>(-3));
    connection.transfer(true);
    connection.transfer(false);
    connection.transfer(VornString());
    connection.transfer("abc");
    connection.transfer(VornString("d\0e", 3));
    connection.transferACK();
    connection.transferError();
    connection.transfer(cLong);
}

void readAll(VornConnection& connection, std::vector<std::string>& read) {
    read.push_back(std::to_string(connection.receiveLong()));
    read.push_back(std::to_string(connection.receiveInt()));
    for (int i = 0; i < 3; ++i)
        read.push_back(std::to_string(connection.receiveShort()));
    for (int i = 0; i < 3; ++i)
        read.push_back(connection.receiveString());
    for (int i = 0; i < 4; ++i)
        read.push_back(std::to_string(connection.receiveShort()));
    read.push_back(connection.receiveString());
}

std::vector<std::string> allValues() {
    return {"305419896", "-2", "-3", "1", "0", "", "abc", "d", "1", "0", "1", "-1", cLong};
}

/** The bytes up to a number of them, or to the end. */
std::string receiveUpTo(int fd, std::size_t count) {
    std::string result(count, '\0');
    std::size_t arrived = 0;
    ssize_t length = 1;
    while (arrived < count && length > 0) {
        length = ::recv(fd, result.data() + arrived, count - arrived, 0);
        arrived += length > 0 ? static_cast<std::size_t>(length) : 0;
    }
    result.resize(arrived);
    return result;
}

/** The peer's part: it reads everything, answers with the same, and waits for the end. */
void answerAll(int fd, std::string& arrived) {
    const std::string all = receiveUpTo(fd, allBytes().size());
    arrived += all;
    if (all.size() == allBytes().size()) {
        sendAll(fd, all);
        arrived += receiveToEnd(fd);
    }
}

constexpr const char* cService = "svc\r\n";

/** The peer's part when the client names the service. */
void answerNamed(int fd, std::string& arrived) {
    arrived = receiveUpTo(fd, 5);
    if (arrived == cService) {
        sendAll(fd, "+");
        answerAll(fd, arrived);
    }
}

/** A client, and a service that serves it again after a failure. */
Exchanged clientExchange(const Stage& stage, UniqueFd listener, VornConnection& connection,
                         void (*answer)(int, std::string&), const std::function<UniqueFd()>& connect) {
    Exchanged exchanged;
    std::atomic<bool> isLastSeen = false;
    const Service service(std::move(listener), [&](int client) {
        std::string arrived;
        try {
            answer(client, arrived);
        } catch (const std::system_error&) {
            // It was closed before the answer was out.
        }
        isLastSeen = arrived == "!";
        if (!isLastSeen)
            exchanged.arrived = arrived;
    });
    exchanged.outcome = stage([&] {
        connection.disconnect(); // what is left of an earlier attempt
        exchanged.read.clear();
        writeAll(connection);
        readAll(connection, exchanged.read);
        connection.disconnect();
        return "";
    });
    connection.disconnect();
    // Clients are served one after the other: when one more has been served, the connection's bytes are
    // there.
    sendAll(connect().get(), "!");
    awaitCondition([&] { return isLastSeen.load(); });
    return exchanged;
}

/** Without a service's name: over a pipe, a handshake does not notice that its writing has failed. */
Exchanged pipeClientExchange(const Stage& stage) {
    VornPipeConnection connection("faults");
    return clientExchange(stage, listenAtPipe(), connection, answerAll,
                          [] { return unixConnect(pipePath("faults")); });
}

Exchanged tcpClientExchange(const Stage& stage) {
    int port = 0;
    UniqueFd listener = tcpListen("127.0.0.1", port);
    VornSocketConnection connection("127.0.0.1", port, false, false);
    connection.setServiceName("svc");
    return clientExchange(stage, std::move(listener), connection, answerNamed,
                          [port] { return tcpConnect("127.0.0.1", port); });
}

/** A server and its client. */
Exchanged serverExchange(const Stage& stage, VornIPCServer& server,
                         const std::function<UniqueFd()>& connect) {
    Exchanged exchanged;
    std::atomic<bool> ended = false;
    WatchedThread peer([&] {
        UniqueFd fd;
        while (!fd && !ended) {
            try {
                fd = connect();
            } catch (const std::system_error&) {
                std::this_thread::yield(); // not listening yet
            }
        }
        try {
            if (fd)
                answerAll(fd.get(), exchanged.arrived);
        } catch (const std::system_error&) {
            // The server failed early.
        }
    });
    exchanged.outcome = stage([&] {
        const VornSmartPointer<VornConnection> client = server.waitForClient(false);
        if (client == nullptr)
            return "no client";
        writeAll(*client);
        readAll(*client, exchanged.read);
        client->disconnect();
        server.close();
        return "";
    });
    ended = true;
    server.close();
    peer.join();
    return exchanged;
}

Exchanged pipeServerExchange(const Stage& stage) {
    VornPipeServer server("faults");
    return serverExchange(stage, server, [] { return unixConnect(pipePath("faults")); });
}

Exchanged tcpServerExchange(const Stage& stage) {
    const int port = freshPort();
    VornServerSocket server(port, 5, "127.0.0.1");
    return serverExchange(stage, server, [port] { return tcpConnect("127.0.0.1", port); });
}

/** One datagram to a plain receiver, and the same one back to a server. */
Exchanged datagramExchange(const Stage& stage) {
    Exchanged exchanged;
    int receiverPort = 0;
    const UniqueFd receiver = udpSocket("127.0.0.1", receiverPort);
    const int serverPort = freshPort();
    VornUDPServerSocket server(serverPort, "127.0.0.1", 65'536);
    const Repeated sender([&] {
        udpSendTo(receiver.get(), "127.0.0.1", serverPort, allBytes());
        std::this_thread::yield();
    });
    bool isSent = false;
    exchanged.outcome = stage([&] {
        VornUDPSocketConnection connection("127.0.0.1", receiverPort, false);
        writeAll(connection);
        isSent = connection.transmit();
        if (!isSent)
            return "not sent";
        const VornSmartPointer<VornConnection> client = server.waitForClient(false);
        if (client == nullptr)
            return "no client";
        readAll(*client, exchanged.read);
        return "";
    });
    if (isSent)
        exchanged.arrived = receiveDatagram(receiver.get());
    return exchanged;
}

Outcome interruptedTransfer(const std::string& function) {
    return {function == "send" ? "VornConnection::put: transfer failed." : "VornConnection::get: failed read",
            EINTR};
}

Outcome interruptedPipeClient(const std::string& function, int) {
    if (function == "connect")
        return {"VornPipeConnection::establish: connection request failed.", EINTR};
    return interruptedTransfer(function);
}

Outcome interruptedTcpClient(const std::string& function, int nth) {
    if (function == "connect")
        return {"VornSocketConnection::establish: connection request failed.", EINTR};
    if (nth == 1) // of the handshake
        return {"VornConnection::connectToService: connection to remote service failed.", 0};
    return interruptedTransfer(function);
}

Outcome interruptedPipeServer(const std::string& function, int) {
    if (function == "select")
        return {"VornPipeServer::waitForClient: pipe read error. ", 0};
    if (function == "accept")
        return {"VornPipeServer::waitForClient: connection error. ", EINTR};
    return interruptedTransfer(function);
}

Outcome interruptedTcpServer(const std::string& function, int) {
    return function == "accept" ? Outcome{"no client", 0} : interruptedTransfer(function);
}

Outcome interruptedDatagram(const std::string& function, int) {
    return {function == "sendto" ? "not sent" : "no client", 0};
}

} // namespace

void PrintTo(const Exchanged& exchanged, std::ostream* stream) {
    PrintTo(exchanged.outcome, stream);
    *stream << ", values read:";
    for (const std::string& value : exchanged.read)
        *stream << " \"" << value.substr(0, 20) << '"';
    *stream << ", " << exchanged.arrived.size() << " bytes arrived: " << hex(exchanged.arrived.substr(0, 70));
}

std::vector<Exchange> allExchanges() {
    const Exchanged named = {{}, allValues(), cService + allBytes()};
    const Exchanged plain = {{}, allValues(), allBytes()};
    return {
        {"pipe client", pipeClientExchange, plain, interruptedPipeClient, true},
        {"TCP client", tcpClientExchange, named, interruptedTcpClient, true},
        {"accepted pipe", pipeServerExchange, plain, interruptedPipeServer},
        {"accepted TCP", tcpServerExchange, plain, interruptedTcpServer},
        {"datagram", datagramExchange, plain, interruptedDatagram},
    };
}

} // namespace VornTest
