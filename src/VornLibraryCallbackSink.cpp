// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornLibraryCallbackSink.h"

#include "HostEntry.h"
#include "ServedConnection.h"
#include "ServerRegistry.h"
#include "VornPipeServer.h"
#include "VornServerSocket.h"
#include "VornUDPServerSocket.h"

#include <Cancellation.h>
#include <ForkHandlers.h>
#include <LogRecord.h>
#include <Probe.h>
#include <SharedField.h>
#include <SystemCalls.h>
#include <VornCriticalSection.h>
#include <VornException.h>
#include <VornSleep.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>

namespace VornNet {

namespace {

constexpr const char* cTypeVariable = "QUORAX_CALLB_CONN_TYPE";
constexpr short cFirstPort = 5023;
constexpr int cBacklog = 5;
constexpr unsigned int cDatagramSize = 16'777'215;

/** Guards every sink's address text: its thread rewrites it while others copy it. */
std::mutex g_addressLock;
const ForkHandlers g_forkHandlers([] { g_addressLock.lock(); }, [] { g_addressLock.unlock(); },
                                  [] { g_addressLock.unlock(); });

VornString makePipeName() {
    std::array<char, 24> name;
    std::snprintf(name.data(), name.size(), "quorax%x", static_cast<unsigned int>(System::getpid()));
    return name.data();
}

/** Whether the calling thread, a sink's, has called exit(). */
thread_local bool t_bExiting = false;

/**
 * Tells a sink's destructor on its own thread whether a callback has called exit() or has destroyed the sink
 * by itself: exit() destroys what is local to the calling thread before anything that is static.
 */
struct ExitMark {
    ~ExitMark() { t_bExiting = true; }
};

/** Keeps a wait that fails again and again from taking a whole processor. */
void pauseAfter(int nFailedWaits) {
    constexpr int cLongestPause = 100;
    VornSleep(std::min(cLongestPause, 1 << std::min(nFailedWaits - 1, 7)));
}

} // namespace

VornLibraryCallbackSink::VornLibraryCallbackSink(const VornString& moduleName)
    : VornThread(moduleName), m_bThreadStarted(false), m_nCallbackServerPort(cFirstPort) {
    logRecord(VornLogging::cDebug, "VornLibraryCallbackSink::VornLibraryCallbackSink: moduleName=|",
              moduleName, "|");
    start();
    waitForServerPort();
}

VornLibraryCallbackSink::~VornLibraryCallbackSink() {
    const CancellationOff noCancellation;
    const bool bOwnThread = isOwnThread();
    if (bOwnThread && !t_bExiting) {
        logRecord(VornLogging::cError,
                  "VornLibraryCallbackSink::~VornLibraryCallbackSink: destroyed by one of its own callbacks");
        std::terminate(); // the thread would have to end before its own call returns
    }
    if (m_spCallbackServer != nullptr)
        logRecord(VornLogging::cDebug, "VornLibraryCallbackSink::~VornLibraryCallbackSink: closing socket");
    if (!bOwnThread)
        endThread();
    else if (m_spCallbackServer != nullptr)
        m_spCallbackServer->close(); // the process ends: the thread never comes back from the callback
}

int VornLibraryCallbackSink::run() {
    [[maybe_unused]] static thread_local const ExitMark mark;
    logRecord(VornLogging::cDebug, "VornLibraryCallbackSink::run: enter");
    establishCallbackServer();
    int rc = 0;
    int nFailedWaits = 0; // in a row
    for (bool bGoesOn = true; bGoesOn && !isStopRequested();) {
        try {
            bGoesOn = serveOneClient(nFailedWaits);
        } catch (const VornException& e) {
            bGoesOn = continuesAfter(e.getCode(), nFailedWaits, rc);
        }
    }
    logRecord(VornLogging::cDebug, "VornLibraryCallbackSink::run: exiting rc=", rc);
    return rc;
}

short VornLibraryCallbackSink::getCallbackSocket() const {
    return readShared(m_nCallbackServerPort);
}

VornCallbackContainer& VornLibraryCallbackSink::getCallbackContainer() {
    return m_callbackContainer;
}

VornString VornLibraryCallbackSink::getCallbackAddress() {
    const std::lock_guard lock(g_addressLock);
    return m_sCallbackName;
}

void VornLibraryCallbackSink::establishCallbackServer() {
    const char* type = std::getenv(cTypeVariable);
    if (type == nullptr) {
        establishDefaultCallbackServer();
    } else {
        m_sCallbackType = type;
        if (m_sCallbackType == "udp") {
            logRecord(VornLogging::cDebug,
                      "VornLibraryCallbackSink::establishCallbackServer: creating udp server on socket ",
                      m_nCallbackServerPort);
            getMyIpAddr();
            useServer(new VornUDPServerSocket(m_nCallbackServerPort, m_sIpAddr, cDatagramSize));
            publishAddress(m_sIpAddr + ":" + std::to_string(m_nCallbackServerPort));
        } else if (m_sCallbackType == "pipe") {
            const VornString sPipeName = makePipeName();
            logRecord(VornLogging::cDebug,
                      "VornLibraryCallbackSink::establishCallbackServer: creating pipe server '", sPipeName,
                      "'");
            useServer(new VornPipeServer(sPipeName));
            publishAddress(sPipeName);
        } else if (m_sCallbackType == "socket") {
            logRecord(VornLogging::cDebug,
                      "VornLibraryCallbackSink::establishCallbackServer: creating tcp server on socket ",
                      m_nCallbackServerPort);
            getMyIpAddr();
            useServer(new VornServerSocket(m_nCallbackServerPort, cBacklog, m_sIpAddr));
            publishAddress(m_sIpAddr + ":" + std::to_string(m_nCallbackServerPort));
        } else {
            logRecord(VornLogging::cDebug,
                      "VornLibraryCallbackSink::establishCallbackServer: unknown callback server type, "
                      "creating default");
            establishDefaultCallbackServer();
        }
    }
    writeShared(m_bThreadStarted, true);
}

void VornLibraryCallbackSink::establishDefaultCallbackServer() {
    const VornString sPipeName = makePipeName();
    m_sCallbackType = "pipe";
    logRecord(VornLogging::cDebug,
              "VornLibraryCallbackSink::establishCallbackServer: creating default (pipe) server '", sPipeName,
              "'");
    useServer(new VornPipeServer(sPipeName));
    publishAddress(sPipeName);
}

void VornLibraryCallbackSink::waitForServerPort() {
    constexpr useconds_t cPause = 1000;
    // Kept: without limit. If the server cannot be created, the thread's record at level 1 is the only sign.
    while (!readShared(m_bThreadStarted))
        System::usleep(cPause);
    if (m_spCallbackServer != nullptr)
        m_spCallbackServer->waitForInit();
}

bool VornLibraryCallbackSink::tryNextPort() {
    if (m_sCallbackType != "udp" && m_sCallbackType != "socket")
        return false;
    const auto nPort = static_cast<short>(m_nCallbackServerPort + 1); // after 32767 come the negative ports
    publishAddress(m_sIpAddr + ":" + std::to_string(nPort));          // first: only this can fail
    writeShared(m_nCallbackServerPort, nPort);
    VornIPCServer* pServer = m_spCallbackServer;
    if (auto* pServerSocket = dynamic_cast<VornServerSocket*>(pServer))
        pServerSocket->setPort(nPort);
    VORN_PROBE(server__moved, m_sCallbackName.c_str());
    logRecord(VornLogging::cDebug, "VornLibraryCallbackSink::tryNextPort: retrying ", m_sCallbackType,
              " server on socket ", nPort);
    return true;
}

void VornLibraryCallbackSink::getMyIpAddr() {
    const HostEntry local = HostEntry::byName("localhost");
    if (!local.isFound())
        return;
    const HostEntry official = HostEntry::byName(local.name());
    if (!official.isFound())
        return;
    const auto* bytes = reinterpret_cast<const unsigned char*>(official.addresses()[0]);
    std::array<char, 20> text;
    std::snprintf(text.data(), text.size(), "%u.%u.%u.%u", bytes[0], bytes[1], bytes[2], bytes[3]);
    m_sIpAddr = text.data();
    logRecord(VornLogging::cDebug, "VornLibraryCallbackSink::getMyIpAddr: address is '", m_sIpAddr, "'");
}

void VornLibraryCallbackSink::useServer(VornIPCServer* pServer) {
    m_spCallbackServer = pServer;
    ServerRegistry::markAsSinks(*pServer);
}

void VornLibraryCallbackSink::publishAddress(const VornString& sPlace) {
    VornString sAddress = m_sCallbackType + ":" + sPlace;
    const std::lock_guard lock(g_addressLock);
    m_sCallbackName.swap(sAddress);
}

bool VornLibraryCallbackSink::serveOneClient(int& nFailedWaits) {
    logRecord(VornLogging::cDebug, "VornLibraryCallbackSink::run: waiting for data : ", m_sCallbackName);
    ++nFailedWaits;
    VornSmartPointer<VornConnection> spConnection = m_spCallbackServer->waitForClient(false);
    nFailedWaits = 0;
    if (spConnection == nullptr) {
        logRecord(VornLogging::cDebug,
                  "VornLibraryCallbackSink::run: NULL returned from waitForClient : ", m_sCallbackName,
                  ", exiting");
        return false;
    }
    const ServedConnection served(this, *spConnection);
    logRecord(VornLogging::cDebug, "VornLibraryCallbackSink::run: received data : ", m_sCallbackName);
    deliver(spConnection);
    return true;
}

void VornLibraryCallbackSink::deliver(VornSmartPointer<VornConnection>& spConnection) {
    const long hCallback = spConnection->receiveLong();
    logRecord(VornLogging::cDebug, "VornLibraryCallbackSink::run: hCallback=", hCallback);
    VORN_PROBE(notification__received, m_sCallbackName.c_str(), hCallback);
    const VornCriticalSection lock(m_callbackContainer.mutex(), true);
    VornSmartPointer<VornNotificationCallback> spCallback =
        m_callbackContainer.lookup(static_cast<int>(hCallback));
    if (spCallback != nullptr) {
        logRecord(VornLogging::cDebug, "VornLibraryCallbackSink::run: found callback... invoking");
        VORN_PROBE(notification__dispatched, m_sCallbackName.c_str(), hCallback);
        spCallback->callback(spConnection);
        VORN_PROBE(notification__done, m_sCallbackName.c_str(), hCallback);
        logRecord(VornLogging::cDebug, "VornLibraryCallbackSink::run: callback returned");
    } else {
        logRecord(VornLogging::cDebug,
                  "VornLibraryCallbackSink::run: unable to find callback... ignoring notification");
    }
    // One connection, one notification, one life of the server's socket: the next wait opens it again.
    m_spCallbackServer->close();
}

bool VornLibraryCallbackSink::continuesAfter(int nCode, int nFailedWaits, int& rc) {
    if (nCode == EADDRINUSE) {
        const bool bMoved = tryNextPort();
        if (bMoved)
            logRecord(VornLogging::cDebug, "VornLibraryCallbackSink::run: exception=", nCode,
                      " trying next port=", m_nCallbackServerPort);
        else
            logRecord(VornLogging::cDebug, "VornLibraryCallbackSink::run: exception=", nCode,
                      " cannot establish connection, exiting");
        return bMoved;
    }
    if (nCode == ECONNRESET || nCode == EINTR) {
        logRecord(VornLogging::cDebug, "VornLibraryCallbackSink::run: exception=", nCode,
                  " connection closed, exiting");
        return false;
    }
    rc = nCode;
    if (nFailedWaits > 0)
        pauseAfter(nFailedWaits);
    return true;
}

void VornLibraryCallbackSink::endThread() {
    using Clock = std::chrono::steady_clock;
    constexpr int cPause = 20;
    const Clock::time_point cutOffTime = Clock::now() + std::chrono::milliseconds(200);
    VornThread::stop();
    do {
        // Once is not enough: between two waits there is nothing to close, and the next wait opens again.
        if (m_spCallbackServer != nullptr)
            m_spCallbackServer->close();
        if (Clock::now() >= cutOffTime)
            ServedConnection::endRead(this);
    } while (!VornThread::wait(cPause));
}

} // namespace VornNet
