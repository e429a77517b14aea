// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AllHeaders.h"

const void* addressInSecondUnit();

const void* addressInSecondUnit() {
    return reinterpret_cast<const void*>(&VornSupport::VornLogging::getInstance);
}
