// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SocketCell.h"

#include <Cancellation.h>
#include <Probe.h>
#include <SystemCalls.h>

#include <atomic>
#include <memory>
#include <mutex>

namespace VornNet {

namespace {

std::mutex g_lock; // guards the list and the pointers of the connections in it
constinit IntrusiveList<SocketCell::Watch> g_watches;

/**
 * How many watches there are. A connection is watched before its thread gets to use it, so a thread that sees
 * none has its cell to itself and need not take the lock.
 */
constinit std::atomic<int> g_nWatches = 0;

bool isAnyWatched() {
    return g_nWatches != 0;
}

} // namespace

const ForkHandlers SocketCell::Watch::s_forkHandlers([] { g_lock.lock(); }, [] { g_lock.unlock(); },
                                                     startAfresh);

void SocketCell::open(void*& cell, int descriptor) {
    int* owned = new int(descriptor);
    std::unique_lock lock(g_lock, std::defer_lock);
    if (isAnyWatched())
        lock.lock();
    cell = owned;
}

void SocketCell::close(void*& cell) {
    std::unique_lock lock(g_lock, std::defer_lock);
    if (isAnyWatched())
        lock.lock();
    const std::unique_ptr<int> owned(static_cast<int*>(cell));
    cell = nullptr;
    if (lock.owns_lock())
        lock.unlock();
    if (owned == nullptr)
        return;
    const CancellationOff noCancellation;
    VORN_PROBE(connection__closed, *owned);
    System::close(*owned);
}

void SocketCell::forget(void*& cell) {
    if (!isAnyWatched())
        return;
    const std::lock_guard lock(g_lock);
    for (Watch& watch : g_watches) {
        if (watch.m_cell == &cell)
            watch.m_cell = nullptr;
    }
}

SocketCell::Watch::Watch(const void* owner, void** cell)
    : m_owner(owner), m_thread(std::this_thread::get_id()), m_cell(cell) {
    const std::lock_guard lock(g_lock);
    g_watches.add(*this);
    ++g_nWatches;
}

SocketCell::Watch::~Watch() {
    const std::lock_guard lock(g_lock);
    if (isListed()) // not in the child of a fork
        --g_nWatches;
    g_watches.remove(*this);
}

void SocketCell::Watch::shutDownReading(const void* owner) {
    const std::lock_guard lock(g_lock);
    for (const Watch& watch : g_watches) {
        if (watch.m_owner == owner && watch.m_cell != nullptr && *watch.m_cell != nullptr)
            System::shutdown(descriptorOf(*watch.m_cell), SHUT_RD);
    }
}

void SocketCell::Watch::startAfresh() {
    g_lock.unlock();
    for (const Watch& watch : g_watches) {
        if (watch.m_thread != std::this_thread::get_id() && watch.m_cell != nullptr)
            SocketCell::close(*watch.m_cell);
    }
    g_watches.clear();
    g_nWatches = 0;
}

} // namespace VornNet
