// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornCriticalSection.h"

#include "ForkHandlers.h"

#include <mutex>

namespace VornSupport {

namespace {

struct Mutex : std::recursive_mutex, RenewedInChild<Mutex> {
    void startAfresh() { makeAnew(static_cast<std::recursive_mutex&>(*this)); }
};

} // namespace

VornCriticalSectionObject::VornCriticalSectionObject() : m_pCriticalSection(new Mutex), m_bFast(false) {}

VornCriticalSectionObject::~VornCriticalSectionObject() {
    delete static_cast<Mutex*>(m_pCriticalSection);
}

void VornCriticalSectionObject::acquire() {
    static_cast<Mutex*>(m_pCriticalSection)->lock();
}

void VornCriticalSectionObject::releaseHold() {
    static_cast<Mutex*>(m_pCriticalSection)->unlock();
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
