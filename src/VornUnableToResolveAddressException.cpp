// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornUnableToResolveAddressException.h"

namespace VornNet {

VornUnableToResolveAddressException::VornUnableToResolveAddressException(const VornString& sMessageName)
    : VornException("VornUnableToResolveAddressException - " + sMessageName, 0) {}

VornUnableToResolveAddressException::VornUnableToResolveAddressException(
    const VornUnableToResolveAddressException& source) = default;

VornUnableToResolveAddressException&
VornUnableToResolveAddressException::operator=(const VornUnableToResolveAddressException& source) = default;

VornUnableToResolveAddressException::~VornUnableToResolveAddressException() = default;

} // namespace VornNet
