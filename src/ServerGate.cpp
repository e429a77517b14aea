// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ServerGate.h"

#include "ServerRegistry.h"
#include "SocketCell.h"

#include <Cancellation.h>
#include <ForkHandlers.h>
#include <NeverDestroyed.h>
#include <SharedField.h>
#include <SystemCalls.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>

namespace VornNet {

namespace {

/** Tells of a change in the lists; servers may be closed while static objects are being destroyed. */
std::condition_variable& changed() {
    static NeverDestroyed<std::condition_variable> instance;
    return instance.object;
}

int descriptorIn(const void* cell) {
    return cell == nullptr ? -1 : SocketCell::descriptorOf(cell);
}

} // namespace

// Under the registry's lock.
constinit IntrusiveList<ServerGate::Wait> ServerGate::s_waits;
constinit IntrusiveList<ServerGate::Closing> ServerGate::s_closings;

const ForkHandlers ServerGate::s_forkHandlers([] {}, [] {}, startAfresh);

ServerGate::Wait::Wait(const VornIPCServer& server, void* const& cell)
    : m_server(&server), m_thread(std::this_thread::get_id()), m_cell(cell), m_wasClosed(false),
      m_hasSocket(false) {
    std::unique_lock lock(ServerRegistry::lock());
    awaitClosing(m_server, lock);
    m_descriptor = descriptorIn(readShared(cell));
    s_waits.add(*this);
}

ServerGate::Wait::~Wait() {
    end();
}

bool ServerGate::Wait::end() {
    if (!isListed())
        return m_wasClosed;
    std::unique_lock lock(ServerRegistry::lock());
    s_waits.remove(*this);
    if (!m_wasClosed) {
        m_hasSocket = readShared(m_cell) != nullptr;
        return false;
    }
    if (m_server == nullptr) {
        const auto sharesSocket = [this](const Wait& wait) {
            return wait.m_server == nullptr && wait.m_descriptor == m_descriptor;
        };
        if (s_waits.find(sharesSocket) == nullptr) {
            const CancellationOff noCancellation;
            System::close(m_descriptor);
        }
        return true;
    }
    changed().notify_all();
    awaitClosing(m_server, lock);
    return true;
}

ServerGate::Closing::Closing(const VornIPCServer& server, void*& cell)
    : m_server(&server), m_cell(cell), m_isNeeded(false), m_isShared(false) {
    std::unique_lock lock(ServerRegistry::lock());
    // If this thread is in a signal handler during its own wait, the closing thread already waits for it.
    while (isClosing(m_server) && !isWaitedOn(m_server, true))
        changed().wait(lock);
    m_isNeeded = !isClosing(m_server) && readShared(m_cell) != nullptr;
    if (!m_isNeeded)
        return;
    m_isShared = ServerRegistry::isInherited(server);
    s_closings.add(*this);
}

ServerGate::Closing::~Closing() {
    if (!m_isNeeded)
        return;
    const std::lock_guard lock(ServerRegistry::lock());
    s_closings.remove(*this);
    changed().notify_all();
}

bool ServerGate::Closing::close(bool& bInitialized, int nPort) {
    std::unique_lock lock(ServerRegistry::lock());
    const int descriptor = descriptorIn(m_cell);
    bool isWaitedOn = false;
    for (Wait& wait : s_waits) {
        if (wait.m_server == m_server)
            isWaitedOn = wait.m_wasClosed = true;
    }
    const bool isOurs = !m_isShared && (isWaitedOn || !ServerRegistry::isLent(*m_server));
    if (isOurs)
        shutDown(descriptor, lock);
    bool isLeftToOthers = false;
    for (Wait& wait : s_waits) {
        if (wait.m_server == m_server) {
            wait.m_server = nullptr;
            isLeftToOthers = true;
        }
    }
    // Under the lock: the child of a fork that came now would hold the socket and not know it.
    if (!isLeftToOthers)
        System::close(descriptor);
    ServerRegistry::Entry& entry = ServerRegistry::entryOf(*m_server);
    entry.lastPort = nPort;
    entry.inherited = entry.lent = nullptr; // what is opened next may get the same place in memory
    writeShared(bInitialized, false);
    delete static_cast<int*>(m_cell);
    writeShared(m_cell, nullptr);
    return isOurs;
}

void ServerGate::Closing::shutDown(int descriptor, std::unique_lock<std::mutex>& lock) {
    // It ends an accept() or recvfrom() that blocks or is about to block, wherever the socket is bound, and
    // also that of a derived class, which the lists do not know. On a datagram socket it reports ENOTCONN and
    // works all the same.
    System::shutdown(descriptor, SHUT_RDWR);
    // Repeated until they have left: after a shutdown() that failed, they and this thread would wait forever.
    const auto haveLeft = [this] { return !isWaitedOn(m_server, false); };
    while (!haveLeft() && !changed().wait_for(lock, std::chrono::milliseconds(20), haveLeft))
        System::shutdown(descriptor, SHUT_RDWR);
}

void ServerGate::awaitClosing(const VornIPCServer& server) {
    std::unique_lock lock(ServerRegistry::lock());
    awaitClosing(&server, lock);
}

bool ServerGate::endsWait(int nError) {
    switch (nError) {
    case EINTR: // kept: an interrupted wait is not taken up again
    case EBADF:
    case ENONET:
    case ENOTSOCK:
    case EHOSTDOWN:
        return true;
    default:
        return false;
    }
}

void ServerGate::startAfresh() {
    makeAnew(changed());
    s_waits.clear();
    s_closings.clear();
}

void ServerGate::awaitClosing(const VornIPCServer* server, std::unique_lock<std::mutex>& lock) {
    while (isClosing(server))
        changed().wait(lock);
}

bool ServerGate::isClosing(const VornIPCServer* server) {
    return s_closings.find([server](const Closing& closing) { return closing.m_server == server; }) !=
           nullptr;
}

bool ServerGate::isWaitedOn(const VornIPCServer* server, bool byThisThread) {
    const std::thread::id self = std::this_thread::get_id();
    return s_waits.find([=](const Wait& wait) {
        return wait.m_server == server && (wait.m_thread == self) == byThisThread;
    }) != nullptr;
}

} // namespace VornNet
