// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Clients: each transport's connect, exchange, close and notification; and what else a program does outside
// of servers.

#include "Peers.h"
#include "Scenarios.h"

#include <VornEvent.h>
#include <VornException.h>
#include <VornLogging.h>
#include <VornPipeConnection.h>
#include <VornProxyDependent.h>
#include <VornSocketConnection.h>
#include <VornUDPSocketConnection.h>

#include <array>
#include <cerrno>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace VornNet;

namespace VornTest {

namespace {

constexpr const char* cRead = "VornConnection::get: failed read";
constexpr const char* cWrite = "VornConnection::put: transfer failed.";
constexpr const char* cPipeConnect = "VornPipeConnection::establish: connection request failed.";
constexpr const char* cTcpConnect = "VornSocketConnection::establish: connection request failed.";
constexpr const char* cHostUnknown = "VornSocketConnection::establish: could not find host.";
constexpr const char* cService = "VornConnection::connectToService: connection to remote service failed.";

std::string exchange(VornConnection& connection) {
    connection.disconnect(); // what is left of an earlier attempt
    connection.transfer(7);
    const bool isRight = connection.receiveInt() == 7;
    connection.disconnect();
    return isRight ? "" : "wrong answer";
}

Outcome exchangeTwice(const Stage& stage, VornConnection& connection) {
    return twice(stage, [&connection] { return exchange(connection); });
}

Outcome pipeClient(const Stage& stage) {
    const Service service(listenAtPipe(), echoInt);
    VornPipeConnection connection("faults");
    return exchangeTwice(stage, connection);
}

auto tcpClient(const std::string& host, bool isIdentified) {
    return [=](const Stage& stage) {
        int port = 0;
        const Service service(tcpListen("127.0.0.1", port, 20), echoInt);
        VornSocketConnection connection(host, port, false, isIdentified);
        return exchangeTwice(stage, connection);
    };
}

/** A service that says at once what it thinks of any service name, and echoes an int. */
class NamedService {
public:
    NamedService(UniqueFd listener, char answer)
        : m_service(std::move(listener), [answer](int client) {
              sendAll(client, std::string(1, answer));
              receiveExactly(client, 5);
              echoInt(client);
          }) {}

private:
    Service m_service;
};

auto tcpHandshake(char answer, const Outcome& undisturbed) {
    return [=](const Stage& stage) {
        int port = 0;
        const NamedService service(tcpListen("127.0.0.1", port, 20), answer);
        VornSocketConnection connection("127.0.0.1", port, false, false);
        connection.setServiceName("svc");
        return twice(
            stage, [&connection] { return exchange(connection); }, undisturbed);
    };
}

/**
 * Over a pipe the raw write reports its failure in a way that the handshake, by contract, does not look at:
 * the service's answer decides, and the name's bytes are missing in what follows.
 */
Outcome acceptedPipeHandshake(const Stage& stage) {
    const NamedService service(listenAtPipe(), '+');
    VornPipeConnection connection("faults");
    connection.setServiceName("svc");
    return twice(stage, [&connection] {
        connection.disconnect();
        connection.transfer(7);
        connection.disconnect();
        return "";
    });
}

std::string readLine(VornConnection& connection) {
    std::array<char, 64> line;
    int error = 0;
    connection.disconnect();
    if (connection.getLine(line.data(), line.size(), error) == nullptr)
        throw VornException("no line", error);
    const std::string text = line.data();
    connection.disconnect();
    return text == "GET x" ? "" : text;
}

void sayLine(int client) {
    sendAll(client, "GET x\r\n");
    receiveToEnd(client);
}

Outcome pipeLine(const Stage& stage) {
    const Service service(listenAtPipe(), sayLine);
    VornPipeConnection connection("faults");
    return twice(stage, [&connection] { return readLine(connection); });
}

Outcome tcpLine(const Stage& stage) {
    int port = 0;
    const Service service(tcpListen("127.0.0.1", port, 20), sayLine);
    VornSocketConnection connection("127.0.0.1", port, false, false);
    return twice(stage, [&connection] { return readLine(connection); });
}

Outcome ownAddress(const Stage& stage) {
    int port = 0;
    const Service service(tcpListen("127.0.0.1", port, 20), echoInt);
    VornSocketConnection connection("127.0.0.1", port, false, false);
    connection.establish();
    const Outcome outcome = stage([&connection] { return connection.getServerName(); });
    return connection.getServerName() == "127.0.0.1" ? outcome : Outcome{"cannot be used again", 0};
}

/** A name that cannot be looked up is sent to as 0.0.0.0, which is this host. */
auto datagramTo(const std::string& host) {
    return [=](const Stage& stage) {
        int port = 0;
        const UniqueFd receiver = udpSocket("127.0.0.1", port);
        VornUDPSocketConnection connection(host, port, false);
        return twice(stage, [&connection] {
            connection.transfer(7);
            return connection.transmit() ? "" : "not sent";
        });
    };
}

/** Notifies over a stream or by a datagram, with the same odds for a name as above. */
auto notification(const std::string& kind, const std::string& host = "127.0.0.1") {
    return [=](const Stage& stage) {
        int port = 0;
        const UniqueFd receiver = kind == "pipe"  ? listenAtPipe()
                                  : kind == "udp" ? udpSocket("127.0.0.1", port)
                                                  : tcpListen("127.0.0.1", port, 20);
        const std::string place = kind == "pipe" ? "faults" : host + ":" + std::to_string(port);
        VornProxyDependent proxy(kind + ":" + place, 3);
        return twice(stage, [&proxy] {
            proxy.remoteNotify(VornNotification(5));
            return "";
        });
    };
}

Outcome eventDescriptor(const Stage& stage) {
    return stage([] {
        VornEvent event;
        const int descriptor = event.getHandle();
        event.set();
        event.reset();
        event.set();
        if (!event.wait(0))
            return "lost";
        return descriptor == -1 ? "no descriptor" : "";
    });
}

/** A log record in the default form, with standard error out of sight. */
Outcome logLine(const Stage& stage) {
    const UniqueFd before(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    const UniqueFd nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    ::dup2(nowhere.get(), STDERR_FILENO);
    const Outcome outcome = stage([] {
        VornLogging::getInstance() << setloglevel(VornLogging::cError) << "a record" << endrecord;
        return "";
    });
    ::dup2(before.get(), STDERR_FILENO);
    return outcome;
}

std::vector<FailingCall> streamCalls(const char* connectText) {
    return {{"socket", isTriedAgain(endsWith(cWrite, ENOTCONN))},
            {"connect", fails(connectText)},
            {"send", fails(cWrite)},
            {"fcntl", isIgnored()},
            {"close", isIgnored()}};
}

std::vector<FailingCall> clientCalls(const char* connectText) {
    std::vector<FailingCall> calls = streamCalls(connectText);
    calls.push_back({"recv", fails(cRead)});
    return calls;
}

/** In the handshake the service is refused, afterwards the operation fails. */
Rule inHandshake(const Rule& later) {
    return [later](const CallFault& fault) { return fault.nth == 1 ? Promise{{cService, 0}} : later(fault); };
}

std::vector<FailingCall> lineCalls() {
    const Rule ofSecond = [](const CallFault& fault) {
        return Promise{{fault.nth == 1 ? "no line" : cRead, fault.error}};
    };
    return {{"socket", endsWith("no line", ENOTCONN)},
            {"connect", fails("no line")},
            {"recv", ofSecond},
            {"close", isIgnored()}};
}

} // namespace

std::vector<Scenario> clientScenarios() {
    const Rule leavesOpen = [](const CallFault&) { return Promise{{"not sent", 0}, 1}; };
    const Rule missesName = [](const CallFault& fault) {
        const bool isNameOnly = fault.nth == 1 && !fault.isLasting;
        return isNameOnly ? Promise{} : Promise{{cWrite, fault.error}};
    };
    const std::vector<FailingCall> lookUp = {{"gethostbyname_r", isIgnored()}};
    const FailingCall connectTcp = {"connect", fails(cTcpConnect)};
    const FailingCall fcntl = {"fcntl", isIgnored()};
    const FailingCall close = {"close", isIgnored()};
    return {
        {"pipe client", pipeClient, clientCalls(cPipeConnect)},
        {"TCP client", tcpClient("127.0.0.1", false), clientCalls(cTcpConnect)},
        {"TCP client by name", tcpClient("localhost", true), {{"gethostbyname_r", fails(cHostUnknown)}}},
        {"TCP client by any name", tcpClient("localhost", false), lookUp},
        {"accepted TCP handshake",
         tcpHandshake('+', {}),
         {{"send", inHandshake(fails(cWrite))}, {"recv", inHandshake(fails(cRead))}, connectTcp}},
        {"refused TCP handshake",
         tcpHandshake('-', {cService, 0}),
         {{"send", endsWith(cService)}, {"recv", endsWith(cService)}, connectTcp},
         {cService, 0}},
        {"accepted pipe handshake",
         acceptedPipeHandshake,
         {{"send", missesName}, {"recv", endsWith(cService)}, {"connect", fails(cPipeConnect)}}},
        {"pipe line", pipeLine, lineCalls()},
        {"TCP line", tcpLine, lineCalls()},
        {"own address", ownAddress, {{"getsockname", endsWith("")}}, {"127.0.0.1", 0}},
        {"datagram",
         datagramTo("127.0.0.1"),
         {{"socket", endsWith("not sent")},
          {"setsockopt", leavesOpen},
          {"sendto", leavesOpen},
          fcntl,
          close}},
        {"datagram by name", datagramTo("localhost"), lookUp},
        {"pipe notification", notification("pipe"), streamCalls(cPipeConnect)},
        {"TCP notification", notification("socket"), streamCalls(cTcpConnect)},
        {"TCP notification by name", notification("socket", "localhost"), lookUp},
        {"UDP notification",
         notification("udp"),
         {{"socket", isIgnored()},
          {"setsockopt", isIgnoredAndLeaks()},
          {"sendto", isIgnoredAndLeaks()},
          fcntl,
          close}},
        {"UDP notification by name", notification("udp", "localhost"), lookUp},
        {"event",
         eventDescriptor,
         {{"eventfd", endsWith("no descriptor")}, {"write", isIgnored()}, {"read", isIgnored()}, close}},
        {"log line", logLine, {{"fstat", isIgnored()}, {"write", isIgnored()}}},
    };
}

} // namespace VornTest
