// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornNotificationCallback.h"

namespace VornNet {

VornNotificationCallback::VornNotificationCallback(int nId) : m_nId(nId) {}

VornNotificationCallback::~VornNotificationCallback() = default;

void VornNotificationCallback::callback(VornSmartPointer<VornConnection>& spConnection) {
    doCallback(spConnection);
    set();
}

int VornNotificationCallback::getId() {
    return m_nId;
}

} // namespace VornNet
