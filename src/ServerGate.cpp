// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ServerGate.h"

#include "Descriptor.h"

#include <SystemCalls.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace VornNet {

namespace {

/** Never destroyed: servers may be closed while static objects are being destroyed. */
union Monitor {
    Monitor() : parts() {}

    ~Monitor() {}

    struct {
        std::mutex lock; // guards the list, and every server's pointer to its cell
        std::condition_variable changed;
    } parts;
};

auto& monitor() {
    static Monitor instance;
    return instance.parts;
}

int descriptorIn(const void* cell) {
    return cell == nullptr ? -1 : descriptorOf(cell);
}

} // namespace

ServerGate::Entry* ServerGate::s_first = nullptr;

ServerGate::Visit::Visit(const void* server, void* const& cell)
    : m_entry{server, false, false, nullptr}, m_descriptor(-1), m_isInside(true) {
    std::unique_lock lock(monitor().lock);
    monitor().changed.wait(lock, [server] { return find(server, true) == nullptr; });
    m_descriptor = descriptorIn(__atomic_load_n(&cell, __ATOMIC_ACQUIRE));
    enter(m_entry);
}

ServerGate::Visit::~Visit() {
    leave();
}

bool ServerGate::Visit::leave() {
    if (!m_isInside)
        return m_entry.wasClosed;
    m_isInside = false;
    std::unique_lock lock(monitor().lock);
    remove(m_entry);
    if (m_entry.wasClosed) {
        monitor().changed.notify_all();
        monitor().changed.wait(lock, [this] { return find(m_entry.server, true) == nullptr; });
    }
    return m_entry.wasClosed;
}

ServerGate::Closure::Closure(const void* server, void*& cell)
    : m_entry{server, true, false, nullptr}, m_cell(cell), m_isNeeded(false) {
    std::unique_lock lock(monitor().lock);
    monitor().changed.wait(lock, [server] { return find(server, true) == nullptr; });
    m_isNeeded = __atomic_load_n(&m_cell, __ATOMIC_ACQUIRE) != nullptr;
    if (m_isNeeded)
        enter(m_entry);
}

ServerGate::Closure::~Closure() {
    if (!m_isNeeded)
        return;
    const std::lock_guard lock(monitor().lock);
    remove(m_entry);
    monitor().changed.notify_all();
}

void ServerGate::Closure::closeSocket() {
    const int descriptor = descriptorIn(m_cell);
    std::unique_lock lock(monitor().lock);
    bool isVisited = false;
    for (Entry* entry = s_first; entry != nullptr; entry = entry->next) {
        if (entry->server == m_entry.server && !entry->isClosure) {
            entry->wasClosed = true;
            isVisited = true;
        }
    }
    if (isVisited) {
        // It ends a blocked accept() and recvfrom() wherever the socket is bound, and one that is only about
        // to block. On a datagram socket it reports ENOTCONN and works all the same.
        // It is done again until they have gone: one that fails would leave them, and this thread, for ever.
        const auto areGone = [this] { return find(m_entry.server, false) == nullptr; };
        do {
            System::shutdown(descriptor, SHUT_RDWR);
        } while (!monitor().changed.wait_for(lock, std::chrono::milliseconds(20), areGone));
    }
    lock.unlock();
    System::close(descriptor);
}

void ServerGate::Closure::releaseCell() {
    const std::lock_guard lock(monitor().lock);
    delete static_cast<int*>(m_cell);
    __atomic_store_n(&m_cell, nullptr, __ATOMIC_RELEASE);
}

void ServerGate::awaitClosure(const void* server) {
    std::unique_lock lock(monitor().lock);
    monitor().changed.wait(lock, [server] { return find(server, true) == nullptr; });
}

void ServerGate::enter(Entry& entry) {
    entry.next = s_first;
    s_first = &entry;
}

void ServerGate::remove(const Entry& entry) {
    Entry** link = &s_first;
    while (*link != &entry)
        link = &(*link)->next;
    *link = entry.next;
}

ServerGate::Entry* ServerGate::find(const void* server, bool isClosure) {
    Entry* entry = s_first;
    while (entry != nullptr && (entry->server != server || entry->isClosure != isClosure))
        entry = entry->next;
    return entry;
}

} // namespace VornNet
