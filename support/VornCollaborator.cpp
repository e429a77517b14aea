// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornCollaborator.h"

#include "VornDependent.h"

#include <algorithm>

namespace VornSupport {

VornCollaborator::VornCollaborator() = default;

VornCollaborator::~VornCollaborator() = default;

void VornCollaborator::notify(const VornNotification& notification) {
    const VornCriticalSection lock(m_lock, true);
    // A copy, since a dependent may change the list; those removed meanwhile are passed over.
    const std::vector<VornDependent*> told = m_dependents;
    for (VornDependent* dependent : told) {
        if (std::find(m_dependents.begin(), m_dependents.end(), dependent) != m_dependents.end())
            dependent->handleNotification(*this, notification);
    }
}

void VornCollaborator::addDependent(VornDependent& dependent) {
    const VornCriticalSection lock(m_lock, true);
    if (std::find(m_dependents.begin(), m_dependents.end(), &dependent) == m_dependents.end())
        m_dependents.push_back(&dependent);
}

void VornCollaborator::removeDependent(VornDependent& dependent) {
    const VornCriticalSection lock(m_lock, true);
    m_dependents.erase(std::remove(m_dependents.begin(), m_dependents.end(), &dependent), m_dependents.end());
}

} // namespace VornSupport
