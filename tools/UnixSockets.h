// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_UNIXSOCKETS_H
#define VORNTOOL_UNIXSOCKETS_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <sys/types.h>

namespace VornTool {

/** A Unix-domain socket of this network name space that is bound to a path. */
struct UnixSocket {
    std::uint32_t number = 0; ///< the socket's own inode number, as in /proc/PID/fd
    bool listening = false;
    std::string path; ///< the text given to bind(); the file may be somebody else's by now

    /** The file which bind() made; unknown without the kernel's socket diagnosis. */
    struct File {
        std::uint32_t inode = 0; ///< the low 32 bits
        std::uint32_t device = 0;
    };

    std::optional<File> file;

    /** Clients waiting to be accepted, and how many may; for listening sockets, where known. */
    struct Queue {
        std::uint32_t waiting = 0;
        std::uint32_t backlog = 0;

        /** @return whether the next client would have to wait, or be refused if it does not want to. */
        bool isFull() const { return waiting > backlog; }
    };

    std::optional<Queue> queue;
};

/** The bound sockets, and whether the kernel told which files they are bound to. */
struct UnixSockets {
    bool exact = false;
    std::vector<UnixSocket> sockets;
};

/** @return the bound sockets; by socket diagnosis, or from /proc/net/unix where there is none. */
UnixSockets listUnixSockets();

/** A process that holds a socket. */
struct Process {
    pid_t pid = 0;
    std::string name;
};

/** @return who holds the sockets of these numbers, as far as this user may see. */
std::multimap<std::uint32_t, Process> findHolders(const std::set<std::uint32_t>& numbers);

} // namespace VornTool

#endif
