// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_SERVERFINDINGS_H
#define VORNTOOL_SERVERFINDINGS_H

#include "Finding.h"

namespace VornTool {

/**
 * Looks twice at the sinks and services of this host, and finds those that did not move on in between.
 *
 * @param pid only those that this process serves or is a client of; 0 for all
 */
void checkServers(Findings& findings, pid_t pid);

} // namespace VornTool

#endif
