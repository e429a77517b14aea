// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornNotification.h"

namespace VornSupport {

VornNotification::VornNotification(int nId) : m_nId(nId) {}

VornNotification::~VornNotification() = default;

int VornNotification::getId() const {
    return m_nId;
}

} // namespace VornSupport
