// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Servers: each transport's wait, service and close; and its close while another thread waits.

#include "Interpose.h"
#include "Peers.h"
#include "Sandbox.h"
#include "Scenarios.h"

#include <VornPipeServer.h>
#include <VornServerSocket.h>
#include <VornUDPServerSocket.h>

#include <cerrno>
#include <mutex>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace VornNet;

namespace VornTest {

namespace {

constexpr const char* cRead = "VornConnection::get: failed read";

std::string serveOne(VornIPCServer& server, bool isIdentified = false) {
    server.close(); // what is left of an earlier attempt
    const VornSmartPointer<VornConnection> client = server.waitForClient(isIdentified);
    if (client == nullptr)
        return "no client";
    const bool isRight = client->receiveInt() == 7;
    server.close();
    return isRight ? client->getRemoteName() : "wrong value";
}

// The server of the scenario that runs, for its interruption by another thread, which keeps it alive
// meanwhile.
std::mutex g_serverLock;
VornIPCServer* g_server = nullptr;

class Publication {
public:
    explicit Publication(VornIPCServer* server) { set(server); }

    ~Publication() { set(nullptr); }

    Publication(const Publication&) = delete;
    Publication& operator=(const Publication&) = delete;

private:
    static void set(VornIPCServer* server) {
        const std::lock_guard lock(g_serverLock);
        g_server = server;
    }
};

/** A wait that fails again and again is ended by another thread. */
void closeServer() {
    const std::lock_guard lock(g_serverLock);
    if (g_server != nullptr)
        g_server->close();
}

Outcome pipeServerOf(const Stage& stage, unsigned int privileges, const std::string& group) {
    const Repeated caller([] { callServer(unixConnect(pipePath("faults"))); });
    return twice(stage, [&] {
        VornPipeServer server("faults", privileges, group);
        return serveOne(server);
    });
}

/** A server that waits with poll(), because of its descriptors select() could not take one. */
Outcome pipeServerWithManyDescriptors(const Stage& stage) {
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit raised = {std::max<rlim_t>(limit.rlim_cur, 2048), limit.rlim_max};
    if (::setrlimit(RLIMIT_NOFILE, &raised) != 0)
        return {"no room for descriptors", errno};
    std::vector<UniqueFd> taken;
    do {
        taken.emplace_back(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
    } while (taken.back().get() < FD_SETSIZE);
    const Outcome outcome = pipeServerOf(stage, 7, "");
    taken.clear();
    ::setrlimit(RLIMIT_NOFILE, &limit);
    return outcome;
}

Outcome tcpServerOf(const Stage& stage, bool isIdentified) {
    const int port = freshPort();
    const int portAgain = freshPort(); // the first one may be in TIME_WAIT
    VornServerSocket server(port, 5, "127.0.0.1");
    const Publication publication(&server);
    const auto call = [](int where) {
        const UniqueFd fd = tcpConnect("127.0.0.1", where);
        resetOnClose(fd.get());
        sendAll(fd.get(), bytes("00 00 00 07"));
        receiveToEnd(fd.get());
    };
    const Repeated caller([&] {
        try {
            call(port);
        } catch (const std::system_error&) {
            call(portAgain);
        }
    });
    const Outcome outcome = stage([&] { return serveOne(server, isIdentified); });
    server.close();
    server.setPort(portAgain);
    const Outcome again = outcomeOf([&] { return serveOne(server, false); });
    return again == Outcome{} ? outcome : Outcome{"cannot be used again: " + again.text, again.code};
}

Outcome udpServerOf(const Stage& stage, bool isIdentified) {
    const int serverPort = freshPort();
    VornUDPServerSocket server(serverPort, "127.0.0.1", 100);
    const Publication publication(&server);
    int port = 0;
    const UniqueFd sender = udpSocket("127.0.0.1", port);
    const Repeated caller([&] {
        udpSendTo(sender.get(), "127.0.0.1", serverPort, bytes("00 00 00 07"));
        std::this_thread::yield();
    });
    const Outcome outcome = stage([&] { return serveOne(server, isIdentified); });
    const Outcome again = outcomeOf([&] { return serveOne(server); });
    return again == Outcome{} ? outcome : Outcome{"cannot be used again: " + again.text, again.code};
}

/** Closes a server while another thread waits on it; the wait must end silently. */
Outcome closeUnderWait(const Stage& stage, VornIPCServer& server, const std::function<void()>& comeAsClient) {
    Outcome waited;
    WatchedThread waiter([&] {
        waited = outcomeOf([&] { return server.waitForClient(false) == nullptr ? "" : "a client"; });
    });
    awaitBlockedInIo(waiter.tid());
    std::atomic<bool> isClosed = false;
    std::atomic<bool> hasHung = false;
    WatchedThread rescuer([&] {
        hasHung = !awaitCondition([&] { return isClosed.load(); }, std::chrono::seconds(3));
        if (hasHung)
            comeAsClient();
    });
    const Outcome outcome = stage([&] {
        server.close();
        return "";
    });
    isClosed = true;
    rescuer.join();
    // Without a wake-up the thread goes on waiting, and closing again ends it.
    awaitCondition([&] {
        server.close();
        return waiter.finished();
    });
    waiter.join();
    if (hasHung)
        return {"close() did not return", 0};
    return waited == Outcome{} ? outcome : Outcome{"the wait: " + waited.text, waited.code};
}

Outcome pipeServerClosed(const Stage& stage) {
    VornPipeServer server("faults");
    return closeUnderWait(stage, server, [] { unixConnect(pipePath("faults")); });
}

Outcome tcpServerClosed(const Stage& stage) {
    const int port = freshPort();
    VornServerSocket server(port, 5, "127.0.0.1");
    return closeUnderWait(stage, server, [port] { tcpConnect("127.0.0.1", port); });
}

Outcome udpServerClosed(const Stage& stage) {
    const int port = freshPort();
    VornUDPServerSocket server(port, "127.0.0.1", 100);
    return closeUnderWait(stage, server, [port] {
        int ownPort = 0;
        udpSendTo(udpSocket("127.0.0.1", ownPort).get(), "127.0.0.1", port, "x");
    });
}

/** The same from the side of the thread that waits. */
Outcome tcpWaitClosed(const Stage& stage) {
    const int port = freshPort();
    VornServerSocket server(port, 5, "127.0.0.1");
    const pid_t waiter = currentTid();
    std::atomic<bool> isWaiting = false;
    WatchedThread closer([&] {
        awaitCondition([&] { return isWaiting.load(); });
        awaitBlockedIn(waiter, {SYS_accept});
        server.close();
    });
    const Outcome outcome = stage([&] {
        isWaiting = true;
        return server.waitForClient(false) == nullptr ? "" : "a client";
    });
    closer.join();
    return outcome;
}

/** Somebody who closes meanwhile waits until the failure has passed. */
Rule holdsWhileItLasts() {
    return [](const CallFault& fault) { return Promise{{}, 0, fault.isLasting}; };
}

std::vector<FailingCall> pipeServerCalls() {
    return {{"pipe", fails("VornPipeServer::init: failed to create pipe.")},
            {"socket", fails("VornPipeServer::init: failed to create pipe.")},
            // The file of the last run is in the way.
            {"unlink", endsWith("VornPipeServer::init: failed to prepare pipe.", EADDRINUSE)},
            {"fchmod", isIgnored()},
            {"bind", fails("VornPipeServer::init: failed to prepare pipe.")},
            {"listen", fails("VornPipeServer::init: failed to listen on bound pipe.")},
            {"chmod", isIgnored()},
            {"select", endsWith("VornPipeServer::waitForClient: pipe read error. ")},
            {"accept", fails("VornPipeServer::waitForClient: connection error. ")},
            {"recv", fails(cRead)},
            {"fcntl", isIgnored()},
            {"close", isIgnored()}};
}

std::vector<FailingCall> tcpServerCalls() {
    return {{"socket", fails("VornServerSocket::init: failed to create socket.")},
            {"bind", fails("VornServerSocket::init: failed to bind socket.")},
            {"getsockname", fails("VornServerSocket::init: failed to get socket name.")},
            {"listen", fails("VornServerSocket::init: failed to listen on bound socket.")},
            {"accept", endsWait({EINTR, EBADF, ENONET, ENOTSOCK, EHOSTDOWN})},
            {"recv", fails(cRead)},
            {"fcntl", isIgnored()},
            {"close", isIgnored()}};
}

std::vector<FailingCall> udpServerCalls() {
    // The second socket is the wake-up's.
    return {{"socket", ofFirstCall(fails("VornUDPServerSocket::init: failed to create socket."))},
            {"bind", fails("VornUDPServerSocket::init: failed to bind socket.")},
            {"getsockname", fails("VornUDPServerSocket::init: failed to get socket name.")},
            {"recvfrom", endsWait({EINTR, EBADF, ENONET, ENOTSOCK, ECONNRESET, EHOSTDOWN})},
            {"setsockopt", isIgnoredAndLeaks()},
            {"sendto", isIgnoredAndLeaks()},
            {"fcntl", isIgnored()},
            {"close", isIgnored()}};
}

} // namespace

std::vector<Scenario> serverScenarios() {
    using std::placeholders::_1;
    const Outcome localhost = {"localhost", 0};
    const std::vector<FailingCall> identifying = {{"gethostbyaddr_r", endsWith("")}};
    return {
        {"pipe server", std::bind(pipeServerOf, _1, 7, ""), pipeServerCalls()},
        {"pipe server of a group",
         std::bind(pipeServerOf, _1, 1, "root"),
         {{"getgrnam_r", isIgnored()}, {"chown", isIgnored()}}},
        {"pipe server with many descriptors",
         pipeServerWithManyDescriptors,
         {{"poll", endsWith("VornPipeServer::waitForClient: pipe read error. ")}}},
        {"TCP server", std::bind(tcpServerOf, _1, false), tcpServerCalls(), {}, closeServer},
        {"TCP server that identifies", std::bind(tcpServerOf, _1, true), identifying, localhost},
        {"UDP server", std::bind(udpServerOf, _1, false), udpServerCalls(), {}, closeServer},
        {"UDP server that identifies", std::bind(udpServerOf, _1, true), identifying, localhost},
    };
}

std::vector<Scenario> closingScenarios() {
    const FailingCall shutdown = {"shutdown", holdsWhileItLasts()};
    return {
        {"pipe server closed", pipeServerClosed, {{"poll", isIgnored()}, {"write", isIgnored()}}},
        {"TCP server closed", tcpServerClosed, {shutdown, {"close", isIgnored()}}},
        {"TCP wait closed", tcpWaitClosed, {{"getsockopt", isIgnored()}}},
        {"UDP server closed",
         udpServerClosed,
         {shutdown,
          {"socket", isIgnored()},
          {"setsockopt", isIgnoredAndLeaks()},
          {"sendto", isIgnoredAndLeaks()},
          {"close", isIgnored()}}},
    };
}

} // namespace VornTest
