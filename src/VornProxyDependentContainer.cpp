// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornProxyDependentContainer.h"

#include <SharedField.h>

#include <atomic>
#include <iterator>

namespace VornNet {

namespace {

/**
 * The number of entries of the one registry, for size(), which takes no lock: the map's own count may not be
 * read while another thread changes the map. Atomic; written under the registry's lock.
 */
int g_nEntries = 0;

void publishSize(const ProxyDependentMap& entries) {
    writeShared(g_nEntries, static_cast<int>(entries.size()));
}

bool isPlace(const ProxyDependentMap& entries, int index) {
    return index >= 0 && static_cast<std::size_t>(index) < entries.size();
}

} // namespace

VornProxyDependentContainer* VornProxyDependentContainer::m_pThis = nullptr;

VornProxyDependentContainer& VornProxyDependentContainer::getInstance() {
    VornProxyDependentContainer* pInstance = readShared(m_pThis);
    if (pInstance != nullptr)
        return *pInstance;
    auto* pNew = new VornProxyDependentContainer;
    if (std::atomic_ref(m_pThis).compare_exchange_strong(pInstance, pNew))
        return *pNew;
    delete pNew; // another thread was first
    return *pInstance;
}

void VornProxyDependentContainer::deleteInstance() {
    VornProxyDependentContainer* pInstance = readShared(m_pThis);
    if (pInstance == nullptr)
        return;
    // The entries go first, while this is still the registry: a proxy whose destructor asks for the registry
    // would create another one.
    pInstance->letGo();
    writeShared(m_pThis, nullptr);
    writeShared(g_nEntries, 0);
    delete pInstance;
}

VornCriticalSectionObject& VornProxyDependentContainer::getlock() {
    return m_lock;
}

void VornProxyDependentContainer::add(VornSmartPointer<VornProxyDependent> spDependent) {
    const VornCriticalSection lock(m_lock, true);
    // Kept: the id of the key is an int widened again, so a longer one is found under its cut value only.
    const VornProxyDependentIdentifier key(spDependent->getRemoteName(), spDependent->getDependentHandle());
    m_proxyDependentMap[key] = spDependent;
    publishSize(m_proxyDependentMap);
}

VornSmartPointer<VornProxyDependent> VornProxyDependentContainer::lookup(const VornString& sRemoteName,
                                                                         long hDependent) {
    const VornCriticalSection lock(m_lock, true);
    const auto found = m_proxyDependentMap.find(VornProxyDependentIdentifier(sRemoteName, hDependent));
    return found == m_proxyDependentMap.end() ? VornSmartPointer<VornProxyDependent>() : found->second;
}

void VornProxyDependentContainer::remove(const VornString& sRemoteName, long hDependent) {
    const VornCriticalSection lock(m_lock, true);
    m_proxyDependentMap.erase(VornProxyDependentIdentifier(sRemoteName, hDependent));
    publishSize(m_proxyDependentMap);
}

void VornProxyDependentContainer::remove(int index) {
    const VornCriticalSection lock(m_lock, true);
    if (!isPlace(m_proxyDependentMap, index))
        return;
    m_proxyDependentMap.erase(std::next(m_proxyDependentMap.begin(), index));
    publishSize(m_proxyDependentMap);
}

int VornProxyDependentContainer::size() {
    return readShared(g_nEntries);
}

VornSmartPointer<VornProxyDependent> VornProxyDependentContainer::operator[](int index) {
    const VornCriticalSection lock(m_lock, true);
    if (!isPlace(m_proxyDependentMap, index))
        return {};
    return std::next(m_proxyDependentMap.begin(), index)->second;
}

VornProxyDependentContainer::VornProxyDependentContainer() = default;

VornProxyDependentContainer::~VornProxyDependentContainer() = default;

void VornProxyDependentContainer::letGo() {
    ProxyDependentMap entries; // destroyed after the lock is released: a proxy's destructor may want it
    const VornCriticalSection lock(m_lock, true);
    entries.swap(m_proxyDependentMap);
    publishSize(m_proxyDependentMap);
}

} // namespace VornNet
