// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ServerRegistry.h"

#include <NeverDestroyed.h>

#include <map>

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
const ForkHandlers ServerRegistry::s_forkHandlers([] { s_lock.lock(); }, [] { s_lock.unlock(); },
                                                  startAfresh);

void ServerRegistry::add(VornIPCServer& server, void*& handle, LetGo letGo) {
    const std::lock_guard lock(s_lock);
    servers().insert({&server, Entry{&handle, letGo, nullptr, -1, false}});
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

bool ServerRegistry::wasOpenOn(const VornIPCServer& server, int nPort) {
    const std::lock_guard lock(s_lock);
    return entryOf(server).lastPort == nPort;
}

bool ServerRegistry::isParents(const Entry& entry) {
    return entry.inherited != nullptr && entry.inherited == handleOf(entry);
}

void ServerRegistry::startAfresh() {
    s_lock.unlock();
    s_isInChild = true;
    for (auto& [server, entry] : servers()) {
        if (entry.isSinks && handleOf(entry) != nullptr)
            entry.letGo(*server);
        entry.inherited = handleOf(entry);
        entry.lastPort = -1;
    }
}

} // namespace VornNet
