// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornDependent.h"

namespace VornSupport {

VornDependent::~VornDependent() = default;

void VornDependent::handleNotification(VornCollaborator& /*collaborator*/,
                                       const VornNotification& /*notification*/) {}

} // namespace VornSupport
