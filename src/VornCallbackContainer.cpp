// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornCallbackContainer.h"

namespace VornNet {

VornCallbackContainer::VornCallbackContainer() : m_nIdCounter(0) {}

VornCallbackContainer::~VornCallbackContainer() = default;

int VornCallbackContainer::getNewId() {
    const VornCriticalSection lock(m_lock, true);
    const int nId = m_nIdCounter;
    // Unsigned, so that the step past the highest id wraps.
    m_nIdCounter = static_cast<int>(static_cast<unsigned int>(m_nIdCounter) + 1U);
    return nId;
}

void VornCallbackContainer::add(VornSmartPointer<VornNotificationCallback> spCallback) {
    const VornCriticalSection lock(m_lock, true);
    m_callbackMap[spCallback->getId()] = spCallback;
}

VornSmartPointer<VornNotificationCallback> VornCallbackContainer::lookup(int nId) {
    const VornCriticalSection lock(m_lock, true);
    const auto found = m_callbackMap.find(nId);
    return found == m_callbackMap.end() ? VornSmartPointer<VornNotificationCallback>() : found->second;
}

void VornCallbackContainer::remove(int nId) {
    const VornCriticalSection lock(m_lock, true);
    m_callbackMap.erase(nId);
}

VornCriticalSectionObject& VornCallbackContainer::mutex() {
    return m_lock;
}

} // namespace VornNet
