// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_PORTS_H
#define VORNTOOL_PORTS_H

#include <cstdint>
#include <string>
#include <vector>

namespace VornTool {

/** A socket of this network name space that has a local port. */
struct PortUse {
    int port = 0;
    int state = 0;            ///< as in the kernel: 6 is TIME_WAIT, 10 is listening
    std::uint32_t socket = 0; ///< its inode number; 0 in TIME_WAIT, which belongs to no process

    bool isTimeWait() const { return state == 6; }
};

/** @return the TCP or UDP sockets with local ports from @p first to @p last. */
std::vector<PortUse> listPortUses(bool udp, int first, int last);

/** @return whether a server of the library could be bound there now. */
bool isPortFree(bool udp, const std::string& address, int port);

} // namespace VornTool

#endif
