// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_SINKOBSTACLE_H
#define VORNTOOL_SINKOBSTACLE_H

#include <optional>
#include <string>

namespace VornTool {

/** The environment variable that says which kind of server a sink makes. */
extern const char* const sinkTypeVariable;

/** @return "pipe", "socket" or "udp": what a sink makes of the environment. */
std::string effectiveSinkType();

/** @return the address that a TCP or UDP sink is bound to and publishes, empty when there is none. */
std::string sinkHostAddress();

/** Why something cannot be, and what to do about it. */
struct Obstacle {
    std::string text;
    std::string remedy;
};

/** @return why the pipe directory cannot take a server's pipe, if it cannot. */
std::optional<Obstacle> pipeDirectoryObstacle();

/** @return why the address that a sink would publish cannot be used, if it cannot. */
std::optional<Obstacle> hostAddressObstacle();

/** @return the one that matters for a sink of this kind. A sink itself would wait forever. */
std::optional<Obstacle> sinkObstacle(const std::string& type);

} // namespace VornTool

#endif
