// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_PORTS_H
#define VORNTOOL_PORTS_H

#include "Finding.h"

namespace VornTool {

/** Finds out which port a TCP or UDP sink would get at the address, and why not the first. */
void checkPorts(Findings& findings, const std::string& address);

} // namespace VornTool

#endif
