// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornCriticalSection.h"

#include <mutex>

namespace VornSupport {

VornCriticalSectionObject::VornCriticalSectionObject()
    : m_pCriticalSection(new std::recursive_mutex), m_bFast(false) {}

VornCriticalSectionObject::~VornCriticalSectionObject() {
    delete static_cast<std::recursive_mutex*>(m_pCriticalSection);
}

void VornCriticalSectionObject::acquire() {
    static_cast<std::recursive_mutex*>(m_pCriticalSection)->lock();
}

void VornCriticalSectionObject::releaseHold() {
    static_cast<std::recursive_mutex*>(m_pCriticalSection)->unlock();
}

VornCriticalSection::VornCriticalSection(VornCriticalSectionObject& object, bool bLock)
    : m_CriticalSection(object), m_bIsLocked(bLock) {
    if (m_bIsLocked)
        m_CriticalSection.acquire();
}

VornCriticalSection::~VornCriticalSection() {
    if (m_bIsLocked)
        m_CriticalSection.releaseHold();
}

} // namespace VornSupport
