// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornUnableToResolveNameException.h"

namespace VornNet {

VornUnableToResolveNameException::VornUnableToResolveNameException(const VornString& sMessageName)
    : VornException("VornUnableToResolveNameException - " + sMessageName, 0) {}

VornUnableToResolveNameException::VornUnableToResolveNameException(
    const VornUnableToResolveNameException& source) = default;

VornUnableToResolveNameException&
VornUnableToResolveNameException::operator=(const VornUnableToResolveNameException& source) = default;

VornUnableToResolveNameException::~VornUnableToResolveNameException() = default;

} // namespace VornNet
