// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_FINDING_H
#define VORNTOOL_FINDING_H

#include "Processes.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace VornTool {

enum class Severity { Ok, Warning, Problem };

/** What an examination has found. */
struct Finding {
    std::string check;
    Severity severity = Severity::Ok;
    std::string text;
    std::string remedy;                               ///< a command; empty only for what is in order
    std::vector<Process> processes{};                 ///< whom it concerns
    std::optional<std::chrono::milliseconds> since{}; ///< that it has been so, where that is known
};

using Findings = std::vector<Finding>;

/** Finds out which port a TCP or UDP sink would get at the address, and why not the first. */
void checkPorts(Findings& findings, const std::string& address);

/**
 * Looks twice at the sinks and services of this host, and finds those that did not move on in between.
 *
 * @param pid only those that this process serves or is a client of; 0 for all
 */
void checkServers(Findings& findings, pid_t pid);

} // namespace VornTool

#endif
