// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_SINKSETTINGS_H
#define VORNNOTIFY_SINKSETTINGS_H

#include "SenderRules.h"
#include "VornSteadySink.h"

#include <VornString.h>

#include <chrono>
#include <cstddef>
#include <optional>

#include <netinet/in.h>
#include <sys/types.h>

namespace VornNet {

/** A sink's options after they have been checked: nothing in them can be wrong any more. */
struct SinkSettings {
    /**
     * Checks the options. Those of another transport are not looked at.
     * @throws std::system_error 22 (EINVAL) for an invalid one
     */
    static SinkSettings check(const VornSteadySink::Options& options);

    VornSteadySink::Kind kind = VornSteadySink::Kind::pipe; ///< not byEnvironment
    VornString sPipeName;                                   ///< empty: one that is unique
    std::optional<gid_t> group;                             ///< none: what the system gives
    in_port_t nPort = 0;                                    ///< 0: what the system chooses
    std::optional<in_addr> bindAddress;                     ///< none: the one of "localhost"
    std::optional<in_addr> publishedHost;                   ///< none: the bind address
    std::chrono::milliseconds readLimit{};
    std::size_t nMessageLimit = 0;
    std::size_t nByteLimit = 0;
    std::size_t nConnectionLimit = 0; ///< the number itself
    SenderRules senders;
};

} // namespace VornNet

#endif
