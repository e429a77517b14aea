// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SocketCell.h"

#include <SystemCalls.h>

#include <memory>
#include <mutex>

namespace VornNet {

namespace {

std::mutex g_lock; // guards the list and the pointers of the connections in it
constinit IntrusiveList<SocketCell::Watch> g_watches;

} // namespace

void SocketCell::close(void*& cell) {
    std::unique_lock lock(g_lock);
    const std::unique_ptr<int> owned(static_cast<int*>(cell));
    cell = nullptr;
    lock.unlock();
    if (owned != nullptr)
        System::close(*owned);
}

void SocketCell::forget(void*& cell) {
    const std::lock_guard lock(g_lock);
    for (Watch& watch : g_watches) {
        if (watch.m_cell == &cell)
            watch.m_cell = nullptr;
    }
}

SocketCell::Watch::Watch(const void* owner, void** cell) : m_owner(owner), m_cell(cell) {
    const std::lock_guard lock(g_lock);
    g_watches.add(*this);
}

SocketCell::Watch::~Watch() {
    const std::lock_guard lock(g_lock);
    g_watches.remove(*this);
}

void SocketCell::Watch::shutDownReading(const void* owner) {
    const std::lock_guard lock(g_lock);
    for (const Watch& watch : g_watches) {
        if (watch.m_owner == owner && watch.m_cell != nullptr && *watch.m_cell != nullptr)
            System::shutdown(descriptorOf(*watch.m_cell), SHUT_RD);
    }
}

} // namespace VornNet
