// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Scenarios.h"

#include "Await.h"
#include "Posix.h"
#include "Sandbox.h"

#include <VornException.h>
#include <VornPipeConnection.h>
#include <VornPipeServer.h>
#include <VornProxyDependent.h>
#include <VornServerSocket.h>
#include <VornSocketConnection.h>
#include <VornUDPServerSocket.h>
#include <VornUDPSocketConnection.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>

#include <sys/socket.h>
#include <unistd.h>

using namespace VornNet;

namespace VornTest {

namespace {

constexpr const char* cRead = "VornConnection::get: failed read";
constexpr const char* cWrite = "VornConnection::put: transfer failed.";

UniqueFd freshPipe() {
    const std::string path = pipePath("faults");
    ::unlink(path.c_str());
    return unixListen(path, 20);
}

/// Answers each client's int with the same int, until it is destroyed.
class Echo {
public:
    explicit Echo(UniqueFd listener) : m_listener(std::move(listener)), m_thread([this] { serve(); }) {}

    ~Echo() {
        m_ending = true;
        ::shutdown(m_listener.get(), SHUT_RDWR);
        m_thread.join();
    }

private:
    void serve() {
        while (!m_ending) {
            try {
                const UniqueFd client = acceptClient(m_listener.get());
                sendAll(client.get(), receiveExactly(client.get(), 4));
                receiveToEnd(client.get());
            } catch (const std::system_error&) {
                // A client that fails early, or the end.
            }
        }
    }

    UniqueFd m_listener;
    std::atomic<bool> m_ending = false;
    WatchedThread m_thread;
};

/// Connects again and again until somebody listens, writes an int and waits for the end.
class Caller {
public:
    explicit Caller(std::function<UniqueFd()> connect)
        : m_connect(std::move(connect)), m_thread([this] { call(); }) {}

    ~Caller() {
        m_ending = true;
        m_thread.join();
    }

private:
    void call() {
        while (!m_ending) {
            try {
                const UniqueFd server = m_connect();
                sendAll(server.get(), bytes("00 00 00 07"));
                receiveToEnd(server.get());
                return;
            } catch (const std::system_error&) {
                // Not listening yet, or never.
            }
        }
    }

    std::function<UniqueFd()> m_connect;
    std::atomic<bool> m_ending = false;
    WatchedThread m_thread;
};

std::string exchange(VornConnection& connection) {
    connection.transfer(7);
    return connection.receiveInt() == 7 ? "" : "wrong answer";
}

template <typename Server>
std::string serveOne(Server& server) {
    const VornSmartPointer<VornConnection> client = server.waitForClient(false);
    if (client == nullptr)
        return "no client";
    const bool isRight = client->receiveInt() == 7;
    server.close();
    return isRight ? "" : "wrong value";
}

// The server of the scenario that runs, for its interruption by another thread, which keeps it alive
// meanwhile.
std::mutex g_serverLock;
VornIPCServer* g_server = nullptr;

void setServer(VornIPCServer* server) {
    const std::lock_guard lock(g_serverLock);
    g_server = server;
}

void closeServer() {
    const std::lock_guard lock(g_serverLock);
    if (g_server != nullptr)
        g_server->close();
}

template <typename Server, typename... Arguments>
std::string serveWith(const Arguments&... arguments) {
    Server server(arguments...);

    struct Publication {
        explicit Publication(VornIPCServer* server) { setServer(server); }

        ~Publication() { setServer(nullptr); }
    };

    const Publication publication(&server);

    return serveOne(server);
}

Outcome pipeClient(const Stage& stage) {
    const Echo echo(freshPipe());
    return stage([] {
        VornPipeConnection connection("faults");
        return exchange(connection);
    });
}

Outcome tcpClient(const Stage& stage) {
    int port = 0;
    const Echo echo(tcpListen("127.0.0.1", port, 20));
    return stage([port] {
        VornSocketConnection connection("127.0.0.1", port, false, false);
        return exchange(connection);
    });
}

/// A service that says no, so that the handshake fails with or without a fault. It is over TCP: a pipe's raw
/// write reports its failure in a way that the handshake, by contract, does not look at.
Outcome refusedService(const Stage& stage) {
    int port = 0;
    UniqueFd listener = tcpListen("127.0.0.1", port, 20);
    std::atomic<bool> ending = false;
    WatchedThread service([&] {
        while (!ending) {
            try {
                const UniqueFd client = acceptClient(listener.get());
                receiveExactly(client.get(), 5);
                sendAll(client.get(), "-");
                receiveToEnd(client.get());
            } catch (const std::system_error&) {
                // A client that fails early, or the end.
            }
        }
    });
    const Outcome outcome = stage([port] {
        VornSocketConnection connection("127.0.0.1", port, false, false);
        connection.setServiceName("svc");
        connection.transfer(7);
        return "accepted";
    });
    ending = true;
    ::shutdown(listener.get(), SHUT_RDWR);
    service.join();
    return outcome;
}

Outcome datagram(const Stage& stage) {
    int port = 0;
    const UniqueFd receiver = udpSocket("127.0.0.1", port);
    return stage([port] {
        VornUDPSocketConnection connection("127.0.0.1", port, false);
        connection.transfer(7);
        return connection.transmit() ? "" : "not sent";
    });
}

Outcome pipeServer(const Stage& stage) {
    const Caller caller([] { return unixConnect(pipePath("faults")); });
    return stage([] { return serveWith<VornPipeServer>("faults"); });
}

// Each run of a server has a port of its own: the last one may be in TIME_WAIT.

Outcome tcpServer(const Stage& stage) {
    const int port = unusedTcpPort();
    const Caller caller([port] {
        UniqueFd fd = tcpConnect("127.0.0.1", port);
        resetOnClose(fd.get());
        return fd;
    });
    return stage([port] { return serveWith<VornServerSocket>(port, 5, "127.0.0.1"); });
}

Outcome udpServer(const Stage& stage) {
    const int serverPort = unusedUdpPort();
    std::atomic<bool> ending = false;
    WatchedThread caller([&ending, serverPort] {
        int port = 0;
        const UniqueFd sender = udpSocket("127.0.0.1", port);
        while (!ending) {
            try {
                udpSendTo(sender.get(), "127.0.0.1", serverPort, bytes("00 00 00 07"));
            } catch (const std::system_error&) {
                // Nobody is bound.
            }
        }
    });
    const Outcome outcome =
        stage([serverPort] { return serveWith<VornUDPServerSocket>(serverPort, "127.0.0.1", 100U); });
    ending = true;
    caller.join();
    return outcome;
}

Outcome notifyOver(const Stage& stage, const std::string& address) {
    return stage([&address] {
        VornProxyDependent(address, 3).remoteNotify(VornNotification(5));
        return "";
    });
}

Outcome pipeNotification(const Stage& stage) {
    const UniqueFd listener = freshPipe();
    return notifyOver(stage, "pipe:faults");
}

Outcome tcpNotification(const Stage& stage) {
    int port = 0;
    const UniqueFd listener = tcpListen("127.0.0.1", port, 20);
    return notifyOver(stage, "socket:127.0.0.1:" + std::to_string(port));
}

Outcome udpNotification(const Stage& stage) {
    int port = 0;
    const UniqueFd receiver = udpSocket("127.0.0.1", port);
    return notifyOver(stage, "udp:127.0.0.1:" + std::to_string(port));
}

} // namespace

void PrintTo(const Outcome& outcome, std::ostream* stream) {
    *stream << '"' << outcome.text << "\" code " << outcome.code;
}

Outcome outcomeOf(const std::function<std::string()>& action) {
    try {
        return {action(), 0};
    } catch (const VornSupport::VornException& e) {
        return {e.getText(), e.getCode()};
    }
}

std::vector<Scenario> allScenarios() {
    constexpr int same = Expectation::sameErrno;
    const std::string pipeConnect = "VornPipeConnection::establish: connection request failed.";
    const std::string tcpConnect = "VornSocketConnection::establish: connection request failed.";
    const std::string service = "VornConnection::connectToService: connection to remote service failed.";
    const std::string pipeInit = "VornPipeServer::init: failed to ";
    const std::string tcpInit = "VornServerSocket::init: failed to ";
    const std::string udpInit = "VornUDPServerSocket::init: failed to ";
    const Expectation fcntl{"fcntl", "", 0};
    const Expectation close{"close", "", 0};
    return {
        {"pipe client",
         pipeClient,
         {{"socket", cWrite, ENOTCONN, 0, true},
          {"connect", pipeConnect, same},
          {"send", cWrite, same},
          {"recv", cRead, same},
          fcntl,
          close},
         nullptr},
        {"TCP client",
         tcpClient,
         {{"socket", cWrite, ENOTCONN, 0, true},
          {"connect", tcpConnect, same},
          {"send", cWrite, same},
          {"recv", cRead, same},
          fcntl,
          close},
         nullptr},
        {"refused service handshake",
         refusedService,
         {{"send", service, 0}, {"recv", service, 0}, {"connect", tcpConnect, same}},
         nullptr,
         {service, 0}},
        {"datagram",
         datagram,
         {{"socket", "not sent", 0},
          {"setsockopt", "not sent", 0, 1},
          {"sendto", "not sent", 0, 1},
          fcntl,
          close},
         nullptr},
        {"pipe server",
         pipeServer,
         {{"pipe", pipeInit + "create pipe.", same},
          {"socket", pipeInit + "create pipe.", same},
          {"unlink", pipeInit + "prepare pipe.", EADDRINUSE}, // the file of the last run is in the way

          {"fchmod", "", 0},
          {"bind", pipeInit + "prepare pipe.", same},
          {"listen", pipeInit + "listen on bound pipe.", same},
          {"chmod", "", 0},
          {"select", "VornPipeServer::waitForClient: pipe read error. ", 0},
          {"accept", "VornPipeServer::waitForClient: connection error. ", same},
          {"recv", cRead, same},
          fcntl,
          close},
         nullptr},
        {"TCP server",
         tcpServer,
         {{"socket", tcpInit + "create socket.", same},
          {"bind", tcpInit + "bind socket.", same},
          {"getsockname", tcpInit + "get socket name.", same},
          {"listen", tcpInit + "listen on bound socket.", same},
          {"accept", "no client", 0},
          {"recv", cRead, same},
          fcntl,
          close},
         closeServer},
        {"UDP server",
         udpServer,
         {{"socket", udpInit + "create socket.", same, 0, false, true},
          {"bind", udpInit + "bind socket.", same},
          {"getsockname", udpInit + "get socket name.", same},
          {"recvfrom", "no client", 0},
          {"setsockopt", "", 0, 1},
          {"sendto", "", 0, 1},
          fcntl,
          close},
         closeServer},
        {"pipe notification",
         pipeNotification,
         {{"socket", cWrite, ENOTCONN, 0, true},
          {"connect", pipeConnect, same},
          {"send", cWrite, same},
          fcntl,
          close},
         nullptr},
        {"TCP notification",
         tcpNotification,
         {{"socket", cWrite, ENOTCONN, 0, true},
          {"connect", tcpConnect, same},
          {"send", cWrite, same},
          fcntl,
          close},
         nullptr},
        {"UDP notification",
         udpNotification,
         {{"socket", "", 0}, {"setsockopt", "", 0, 1}, {"sendto", "", 0, 1}, fcntl, close},
         nullptr},
    };
}

const std::vector<int>& errorsOf(const std::string& function) {
    // EMSGSIZE of recv() is left out: by contract it reads one byte before the buffer, which has a test of
    // its own.
    static const std::map<std::string, std::vector<int>> errors = {
        {"accept",
         {EAGAIN, EBADF, ECONNABORTED, EFAULT, EHOSTDOWN, EINTR, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM,
          ENONET, ENOTSOCK, EOPNOTSUPP, EPERM, EPROTO}},
        {"bind",
         {EACCES, EADDRINUSE, EADDRNOTAVAIL, EBADF, EFAULT, EINVAL, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM,
          ENOTDIR, ENOTSOCK, EROFS}},
        {"chmod", {EACCES, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS}},
        {"close", {EBADF, EINTR, EIO, ENOSPC, EDQUOT}},
        {"connect",
         {EACCES, EADDRINUSE, EADDRNOTAVAIL, EAFNOSUPPORT, EAGAIN, EALREADY, EBADF, ECONNREFUSED, EFAULT,
          EINPROGRESS, EINTR, EISCONN, ENETUNREACH, ENOTSOCK, EPERM, EPROTOTYPE, ETIMEDOUT}},
        {"fchmod", {EBADF, EIO, EPERM, EROFS}},
        {"fcntl", {EBADF, EINVAL}},
        {"getsockname", {EBADF, EFAULT, EINVAL, ENOBUFS, ENOTSOCK}},
        {"listen", {EADDRINUSE, EBADF, ENOTSOCK, EOPNOTSUPP}},
        {"pipe", {EFAULT, EMFILE, ENFILE}},
        {"recv",
         {EAGAIN, EBADF, ECONNREFUSED, ECONNRESET, EFAULT, EINTR, EINVAL, ENOMEM, ENOTCONN, ENOTSOCK}},
        {"recvfrom",
         {EAGAIN, EBADF, ECONNREFUSED, ECONNRESET, EFAULT, EHOSTDOWN, EINTR, EINVAL, ENOMEM, ENONET, ENOTCONN,
          ENOTSOCK}},
        {"select", {EBADF, EINTR, EINVAL, ENOMEM}},
        {"send",
         {EACCES, EAGAIN, EALREADY, EBADF, ECONNRESET, EDESTADDRREQ, EFAULT, EINTR, EINVAL, EISCONN, EMSGSIZE,
          ENOBUFS, ENOMEM, ENOTCONN, ENOTSOCK, EOPNOTSUPP, EPIPE}},
        {"sendto",
         {EACCES, EAGAIN, EBADF, EDESTADDRREQ, EFAULT, EINTR, EINVAL, EMSGSIZE, ENETUNREACH, ENOBUFS, ENOMEM,
          ENOTSOCK, EPERM}},
        {"setsockopt", {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK}},
        {"socket", {EACCES, EAFNOSUPPORT, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTONOSUPPORT}},
        {"unlink",
         {EACCES, EBUSY, EFAULT, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS}},
    };
    return errors.at(function);
}

} // namespace VornTest
