// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ServerRegistry.h"

#include <NeverDestroyed.h>
#include <SystemCalls.h>

#include <map>
#include <utility>

namespace VornNet {

namespace {

/** Servers may be closed while static objects are being destroyed. */
auto& servers() {
    static NeverDestroyed<std::map<VornIPCServer*, ServerRegistry::Entry>> instance;
    return instance.object;
}

void* handleOf(const ServerRegistry::Entry& entry) {
    return readShared(*entry.handle);
}

} // namespace

constinit std::mutex ServerRegistry::s_lock;
bool ServerRegistry::s_isInChild = false;
const ForkHandlers ServerRegistry::s_forkHandlers([] { s_lock.lock(); }, lend, startAfresh);

ServerRegistry::Opening::Opening(const VornIPCServer& server, int descriptor) : m_server(server) {
    const std::lock_guard lock(s_lock);
    Entry& entry = entryOf(m_server);
    entry.opening = descriptor;
    entry.opener = std::this_thread::get_id();
}

ServerRegistry::Opening::~Opening() {
    const std::lock_guard lock(s_lock);
    entryOf(m_server).opening = -1;
}

void ServerRegistry::add(VornIPCServer& server, void*& handle, LetGo letGo) {
    const std::lock_guard lock(s_lock);
    servers().insert({&server, Entry{&handle, letGo, nullptr, nullptr, -1, -1, {}, false}});
}

void ServerRegistry::remove(VornIPCServer& server) {
    const std::lock_guard lock(s_lock);
    servers().erase(&server);
}

void ServerRegistry::markAsSinks(VornIPCServer& server) {
    const std::lock_guard lock(s_lock);
    entryOf(server).isSinks = true;
}

ServerRegistry::Entry& ServerRegistry::entryOf(const VornIPCServer& server) {
    return servers().find(const_cast<VornIPCServer*>(&server))->second;
}

bool ServerRegistry::isLent(const VornIPCServer& server) {
    const Entry& entry = entryOf(server);
    return entry.lent != nullptr && entry.lent == handleOf(entry);
}

bool ServerRegistry::wasOpenOn(const VornIPCServer& server, int nPort) {
    const std::lock_guard lock(s_lock);
    return entryOf(server).lastPort == nPort;
}

bool ServerRegistry::isParents(const Entry& entry) {
    return entry.inherited != nullptr && entry.inherited == handleOf(entry);
}

void ServerRegistry::lend() {
    for (auto& [server, entry] : servers()) {
        if (!entry.isSinks)
            entry.lent = handleOf(entry);
    }
    s_lock.unlock();
}

void ServerRegistry::startAfresh() {
    s_lock.unlock();
    s_isInChild = true;
    for (auto& [server, entry] : servers()) {
        const bool isOpener = entry.opener == std::this_thread::get_id();
        // A child of this process is not to close what has the number by then.
        const int opening = isOpener ? -1 : std::exchange(entry.opening, -1);
        if (entry.isSinks && handleOf(entry) != nullptr)
            entry.letGo(*server);
        else if (entry.isSinks && opening != -1)
            System::close(opening);
        entry.inherited = handleOf(entry);
        entry.lastPort = -1;
    }
}

} // namespace VornNet
