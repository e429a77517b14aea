// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornProxyDependentIdentifier.h"

using VornSupport::VornString;

VornProxyDependentIdentifier::VornProxyDependentIdentifier() : m_hDependent(0) {}

VornProxyDependentIdentifier::VornProxyDependentIdentifier(const VornString& sRemoteName, long hDependent)
    : m_sRemoteName(sRemoteName), m_hDependent(hDependent) {}

VornProxyDependentIdentifier::VornProxyDependentIdentifier(const VornProxyDependentIdentifier& source) =
    default;

VornProxyDependentIdentifier&
VornProxyDependentIdentifier::operator=(const VornProxyDependentIdentifier& source) = default;

VornProxyDependentIdentifier::~VornProxyDependentIdentifier() = default;

bool operator<(const VornProxyDependentIdentifier& a, const VornProxyDependentIdentifier& b) {
    const int order = a.m_sRemoteName.compare(b.m_sRemoteName); // unsigned bytes, then the length
    return order != 0 ? order < 0 : a.m_hDependent < b.m_hDependent;
}
