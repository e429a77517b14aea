// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_SOCKETS_H
#define VORNTOOL_SOCKETS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace VornTool {

/** A socket of this network name space, as the kernel tells of it. */
struct Socket {
    enum class Kind { Pipe, Tcp, Udp };
    enum class State {
        Listening,
        Connecting, ///< its owner waits in connect()
        Connected,
        PeerEnded, ///< connected, and all that the peer has to say has come
        TimeWait,
        Other
    };

    /** An address and a port, of TCP and UDP. */
    struct Place {
        std::string address;
        int port = 0;

        bool operator==(const Place& other) const { return port == other.port && address == other.address; }
    };

    /** The file which bind() made. */
    struct File {
        std::uint32_t inode = 0; ///< the low 32 bits
        std::uint32_t device = 0;
    };

    /** Clients waiting to be accepted, and how many may. */
    struct Queue {
        std::uint32_t waiting = 0;
        std::uint32_t backlog = 0;

        /** @return whether the next client would have to wait, or be refused if it does not want to. */
        bool isFull() const { return waiting > backlog; }
    };

    Kind kind = Kind::Pipe;
    State state = State::Other;
    std::uint32_t number = 0; ///< its inode, as in /proc/PID/fd; 0 before it is accepted and in TIME_WAIT
    std::string path;         ///< of a pipe: the text given to bind(); the file may be somebody else's by now
    std::optional<File> file; ///< of a bound pipe
    Place local;
    Place remote;
    std::uint32_t peer = 0;             ///< of a pipe's connection: the other end
    std::vector<std::uint32_t> clients; ///< of a listening pipe: its waiting clients, oldest first
    std::optional<Queue> queue;         ///< of listening sockets
    std::uint32_t unread = 0;           ///< bytes that have come; of UDP with the kernel's own overhead
    std::uint32_t unsent = 0;           ///< bytes of a connection that the peer has not taken yet
    std::uint32_t lost = 0;             ///< of UDP: datagrams dropped because nobody read
    std::optional<std::chrono::milliseconds> silence; ///< of TCP: since the peer connected or sent last
};

/** All sockets, or less where the kernel does not tell. */
struct Sockets {
    bool pipesKnown = false; ///< whether the kernel has told of all pipes
    std::vector<Socket> list;
};

/** @return the Unix stream sockets of this network name space, and with @p withPorts those of TCP and UDP. */
Sockets listSockets(bool withPorts);

/** @return whether a socket of the type could be bound there now; of port 0, whether the address is this
 * host's. */
bool canBind(int type, const Socket::Place& place);

} // namespace VornTool

#endif
