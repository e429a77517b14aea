// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_SERVERTESTSUPPORT_H
#define VORNTEST_SERVERTESTSUPPORT_H

#include "Await.h"
#include "Checkpoint.h"
#include "Failure.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "Posix.h"
#include "Sandbox.h"

#include <VornException.h>
#include <VornIPCServer.h>
#include <VornLogging.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

/**
 * @file
 * What the tests of the servers have in common.
 */
namespace VornTest {

using VornNet::VornConnection;
using VornNet::VornException;
using VornNet::VornIPCServer;
using VornNet::VornSmartPointer;
using VornNet::VornString;

/** An address of this host that is no loopback address, see addLocalAddress(). */
inline constexpr const char* lanAddress = "10.1.2.3";

/**
 * The names of the recorded calls but for pipe(), by which the undefined behaviour sanitizer tests
 * addresses.
 */
inline std::vector<std::string> callsOf(const CallTrace& trace) {
    std::vector<std::string> names = trace.names();
    names.erase(std::remove(names.begin(), names.end(), "pipe"), names.end());
    return names;
}

/** A server that shows its fields and hooks. */
template <typename Server>
class Probe : public Server {
public:
    using Server::init;
    using Server::m_bInitialized;
    using Server::m_nBacklog;
    using Server::m_nPort;
    using Server::m_pSocketImpl;
    using Server::m_sBindAddress;
    using Server::Server;
    using Server::waitForClientImpl;
};

/** A server that is open before anybody waits. */
template <typename Server>
class Opened : public Server {
public:
    template <typename... Arguments>
    explicit Opened(const Arguments&... arguments) : Server(arguments...) {
        Server::init();
    }
};

/** How a wait for a client ended. */
struct WaitOutcome {
    VornSmartPointer<VornConnection> spClient;
    std::optional<Failure> failure;

    VornConnection* client() const { return spClient; }
};

inline WaitOutcome waitFor(VornIPCServer& server, bool bIdentify = false) {
    WaitOutcome outcome;
    outcome.failure = failureOf([&] { outcome.spClient = server.waitForClient(bIdentify); });
    return outcome;
}

/** Checks that a wait ended without a client and without an exception. */
inline void expectQuiet(const WaitOutcome& outcome) {
    EXPECT_EQ(outcome.client(), nullptr);
    EXPECT_EQ(outcome.failure, std::nullopt);
}

/** A thread that waits for one client. */
class ClientWait {
public:
    explicit ClientWait(VornIPCServer& server, bool bIdentify = false)
        : m_server(server), m_thread([this, bIdentify] { m_outcome = waitFor(m_server, bIdentify); }) {}

    VornIPCServer& server() { return m_server; }

    WatchedThread& thread() { return m_thread; }

    bool awaitBlocked() { return awaitBlockedInIo(m_thread.tid()); }

    /** Joins the thread. */
    const WaitOutcome& outcome() {
        m_thread.join();
        return m_outcome;
    }

private:
    VornIPCServer& m_server;
    WaitOutcome m_outcome;
    WatchedThread m_thread;
};

/** How a server's waitForClientImpl() ended. */
struct ImplOutcome {
    VornSmartPointer<VornConnection> spClient;
    std::string text;
    int code = 0;

    VornConnection* client() const { return spClient; }
};

/** What the out-parameters hold before a call, to see whether they are touched. */
inline constexpr const char* untouchedText = "untouched";
inline constexpr int untouchedCode = 4711;

/** Runs waitForClientImpl() of a probe that makes it public. */
template <typename Probe>
ImplOutcome waitForImpl(Probe& server, bool bIdentify = false) {
    ImplOutcome outcome{{}, untouchedText, untouchedCode};
    outcome.spClient = server.waitForClientImpl(bIdentify, outcome.text, outcome.code);
    return outcome;
}

/** Checks that a wait ended without a client, and whether it has told why. */
inline void expectNoClient(const ImplOutcome& outcome, const std::string& text = untouchedText,
                           int code = untouchedCode) {
    EXPECT_EQ(outcome.client(), nullptr);
    EXPECT_EQ(outcome.text, text);
    EXPECT_EQ(outcome.code, code);
}

/** The socket of a probe that makes m_pSocketImpl public; -1 if there is none. */
template <typename Probe>
int socketOf(const Probe& server) {
    const void* cell = __atomic_load_n(&server.m_pSocketImpl, __ATOMIC_ACQUIRE);
    return cell == nullptr ? -1 : *static_cast<const int*>(cell);
}

/** Reads a protected field of a connection that somebody else made. */
template <typename Value>
Value fieldOf(const VornConnection* connection, Value VornConnection::*field) {
    return connection->*field;
}

/**
 * While it exists, the action is done by whoever logs a record with the text, at the level or below, once.
 */
class RecordAction {
public:
    RecordAction(int level, std::string text, std::function<void()> action) {
        VornNet::VornLogging::setRecordHandler(
            [text = std::move(text), next = std::move(action)](int, const VornString& record) mutable {
                if (next && record.find(text) != VornString::npos)
                    std::exchange(next, nullptr)();
            });
        VornNet::VornLogging::getInstance().setLogLevel(level);
    }

    ~RecordAction() {
        VornNet::VornLogging::getInstance().setLogLevel(VornNet::VornLogging::cOff);
        VornNet::VornLogging::setRecordHandler({});
    }

    RecordAction(const RecordAction&) = delete;
    RecordAction& operator=(const RecordAction&) = delete;
};

/**
 * Gives the loopback interface one more address; doing it again is harmless. @param label "lo:1", "lo:2"...
 */
inline void addLocalAddress(const char* label, const char* address) {
    needSandbox("an address of its own");
    int port = 0;
    const UniqueFd fd = udpSocket("127.0.0.1", port);
    ifreq request = {};
    std::strncpy(request.ifr_name, label, IFNAMSIZ - 1);
    sockaddr_in value = {};
    value.sin_family = AF_INET;
    value.sin_addr.s_addr = ::inet_addr(address);
    std::memcpy(&request.ifr_addr, &value, sizeof(value));
    int status = ::ioctl(fd.get(), SIOCSIFADDR, &request);
    value.sin_addr.s_addr = INADDR_NONE; // the address alone, not its whole class
    std::memcpy(&request.ifr_netmask, &value, sizeof(value));
    status = status == 0 ? ::ioctl(fd.get(), SIOCSIFNETMASK, &request) : status;
    if (status != 0)
        throw std::system_error(errno, std::generic_category(), "address on lo");
}

/** A host with an address besides that of its loopback device. */
class ServerTest : public LeakCheckedTest {
protected:
    ServerTest() { addLocalAddress("lo:1", lanAddress); }
};

/** Ends a connection without leaving its port in TIME_WAIT, whoever closes first. */
inline void reset(UniqueFd& peer) {
    resetOnClose(peer.get());
    peer.reset();
}

/** A plain TCP client, which leaves no port in TIME_WAIT, whoever closes first. */
class TcpClient {
public:
    explicit TcpClient(int port, const char* from = "127.0.0.1")
        : m_socket(tcpConnect("127.0.0.1", port, from)) {}

    ~TcpClient() { reset(m_socket); }

    int fd() const { return m_socket.get(); }

private:
    UniqueFd m_socket;
};

/** While it exists, every new descriptor's number is above @p last. */
class ManyDescriptors {
public:
    explicit ManyDescriptors(int last = 1100) {
        ::getrlimit(RLIMIT_NOFILE, &m_old);
        rlimit raised = m_old;
        raised.rlim_cur = std::max<rlim_t>(m_old.rlim_cur, static_cast<rlim_t>(last) + 200);
        if (::setrlimit(RLIMIT_NOFILE, &raised) != 0)
            throw std::system_error(errno, std::generic_category(), "setrlimit()");
        int newest = -1;
        do {
            newest = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            m_descriptors.emplace_back(newest);
        } while (newest != -1 && newest < last);
        EXPECT_EQ(newest, last);
    }

    ~ManyDescriptors() {
        m_descriptors.clear();
        ::setrlimit(RLIMIT_NOFILE, &m_old);
    }

    ManyDescriptors(const ManyDescriptors&) = delete;
    ManyDescriptors& operator=(const ManyDescriptors&) = delete;

    /** Makes one of the numbers free again. */
    void free(int fd) {
        for (UniqueFd& descriptor : m_descriptors) {
            if (descriptor.get() == fd)
                descriptor.reset();
        }
    }

private:
    rlimit m_old = {};
    std::vector<UniqueFd> m_descriptors;
};

} // namespace VornTest

#endif
