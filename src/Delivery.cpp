// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Delivery.h"

#include "VornPipeConnection.h"
#include "VornSocketConnection.h"

#include <SystemCalls.h>

#include <memory>
#include <mutex>

namespace VornNet {

namespace {

std::mutex g_lock; // guards the list and what the cells of the connections in it hold
Delivery* g_first = nullptr;

} // namespace

Delivery::Delivery(const void* owner, VornConnection& connection) : m_owner(owner), m_cell(nullptr) {
    const auto* socket = dynamic_cast<VornSocketConnection*>(&connection);
    const auto* pipe = dynamic_cast<VornPipeConnection*>(&connection);
    if (socket != nullptr)
        m_cell = &socket->m_pClient;
    else if (pipe != nullptr)
        m_cell = &pipe->m_pipeHandle;
    const std::lock_guard lock(g_lock);
    m_next = g_first;
    g_first = this;
}

Delivery::~Delivery() {
    const std::lock_guard lock(g_lock);
    Delivery** link = &g_first;
    while (*link != this)
        link = &(*link)->m_next;
    *link = m_next;
}

void Delivery::cutOff(const void* owner) {
    const std::lock_guard lock(g_lock);
    for (const Delivery* delivery = g_first; delivery != nullptr; delivery = delivery->m_next) {
        if (delivery->m_owner == owner && delivery->m_cell != nullptr && *delivery->m_cell != nullptr)
            System::shutdown(*static_cast<const int*>(*delivery->m_cell), SHUT_RD);
    }
}

void Delivery::forget(void* const& cell) {
    const std::lock_guard lock(g_lock);
    for (Delivery* delivery = g_first; delivery != nullptr; delivery = delivery->m_next) {
        if (delivery->m_cell == &cell)
            delivery->m_cell = nullptr;
    }
}

void Delivery::closeCell(void*& cell) {
    std::unique_lock lock(g_lock);
    const std::unique_ptr<int> owned(static_cast<int*>(cell));
    cell = nullptr;
    lock.unlock();
    if (owned != nullptr)
        System::close(*owned);
}

} // namespace VornNet
