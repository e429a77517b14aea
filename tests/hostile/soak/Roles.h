// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef SOAK_ROLES_H
#define SOAK_ROLES_H

#include <csignal>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

/** @file The roles of the one program; each returns the exit status. */
namespace Soak {

using Arguments = std::vector<std::string>;

/** How many callbacks a client has; their ids count from 0. */
constexpr int callbacksPerClient = 3;

/** How long one operation may block. */
constexpr int patienceInSeconds = 2;

/** Of a notification's contents, the same on both sides if nothing was altered. */
inline std::size_t sumOf(const std::string& token, const std::string& body) {
    return std::hash<std::string>{}(token + body);
}

/** Notifies its clients until SIGTERM: NUMBER HOST PORT SLOTS SEED. */
int runService(const Arguments& arguments);

/**
 * Receives notifications until SIGTERM: SLOT GENERATION SERVICE, the latter written like a callback address.
 */
int runClient(const Arguments& arguments);

/** Signals that are waited for, never handled: those that end the process. */
sigset_t blockEndSignals();

} // namespace Soak

#endif
