// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornWorkInformation.h"

namespace VornSupport {

VornWorkInformation::VornWorkInformation() = default;

VornWorkInformation::~VornWorkInformation() = default;

} // namespace VornSupport
