// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ServerGate.h"

#include "SocketCell.h"

#include <NeverDestroyed.h>
#include <SystemCalls.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace VornNet {

namespace {

struct Monitor {
    std::mutex lock; // guards the lists, and every server's pointer to its cell
    std::condition_variable changed;
};

/** Servers may be closed while static objects are being destroyed. */
Monitor& monitor() {
    static NeverDestroyed<Monitor> instance;
    return instance.object;
}

int descriptorIn(const void* cell) {
    return cell == nullptr ? -1 : SocketCell::descriptorOf(cell);
}

} // namespace

constinit IntrusiveList<ServerGate::Wait> ServerGate::s_waits;
constinit IntrusiveList<ServerGate::Closing> ServerGate::s_closings;

ServerGate::Wait::Wait(const void* server, void* const& cell) : m_server(server), m_wasClosed(false) {
    std::unique_lock lock(monitor().lock);
    monitor().changed.wait(lock, [server] { return !isClosing(server); });
    m_descriptor = descriptorIn(__atomic_load_n(&cell, __ATOMIC_ACQUIRE));
    s_waits.add(*this);
}

ServerGate::Wait::~Wait() {
    end();
}

bool ServerGate::Wait::end() {
    if (!isListed())
        return m_wasClosed;
    std::unique_lock lock(monitor().lock);
    s_waits.remove(*this);
    if (m_wasClosed) {
        monitor().changed.notify_all();
        monitor().changed.wait(lock, [this] { return !isClosing(m_server); });
    }
    return m_wasClosed;
}

ServerGate::Closing::Closing(const void* server, void*& cell)
    : m_server(server), m_cell(cell), m_isNeeded(false) {
    std::unique_lock lock(monitor().lock);
    monitor().changed.wait(lock, [server] { return !isClosing(server); });
    m_isNeeded = __atomic_load_n(&m_cell, __ATOMIC_ACQUIRE) != nullptr;
    if (m_isNeeded)
        s_closings.add(*this);
}

ServerGate::Closing::~Closing() {
    if (!m_isNeeded)
        return;
    const std::lock_guard lock(monitor().lock);
    s_closings.remove(*this);
    monitor().changed.notify_all();
}

void ServerGate::Closing::closeSocket() {
    const int descriptor = descriptorIn(m_cell);
    std::unique_lock lock(monitor().lock);
    for (Wait& wait : s_waits)
        wait.m_wasClosed = wait.m_wasClosed || wait.m_server == m_server;
    if (isWaitedOn(m_server)) {
        // It ends a blocked accept() and recvfrom() wherever the socket is bound, and one that is only about
        // to block. On a datagram socket it reports ENOTCONN and works all the same.
        // It is done again until they have left: one that fails would leave them, and this thread, forever.
        const auto haveLeft = [this] { return !isWaitedOn(m_server); };
        do {
            System::shutdown(descriptor, SHUT_RDWR);
        } while (!monitor().changed.wait_for(lock, std::chrono::milliseconds(20), haveLeft));
    }
    lock.unlock();
    System::close(descriptor);
}

void ServerGate::Closing::releaseCell() {
    const std::lock_guard lock(monitor().lock);
    delete static_cast<int*>(m_cell);
    __atomic_store_n(&m_cell, nullptr, __ATOMIC_RELEASE);
}

void ServerGate::awaitClosing(const void* server) {
    std::unique_lock lock(monitor().lock);
    monitor().changed.wait(lock, [server] { return !isClosing(server); });
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

bool ServerGate::isClosing(const void* server) {
    return s_closings.find([server](const Closing& closing) { return closing.m_server == server; }) !=
           nullptr;
}

bool ServerGate::isWaitedOn(const void* server) {
    return s_waits.find([server](const Wait& wait) { return wait.m_server == server; }) != nullptr;
}

} // namespace VornNet
