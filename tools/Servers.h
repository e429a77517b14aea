// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_SERVERS_H
#define VORNTOOL_SERVERS_H

#include "Processes.h"
#include "Sockets.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace VornTool {

/** Who is at the other end of a connection to a server. */
struct Client {
    std::uint32_t number = 0;       ///< the client's socket, 0 where it is on another host
    std::uint32_t connection = 0;   ///< the server's end of the connection, 0 until it is accepted
    std::vector<Process> processes; ///< who holds it, as far as can be seen
    std::string place;              ///< "127.0.0.1:40000"; empty for a pipe
    bool hasEnded = false;          ///< it has sent all it has to say
    bool hasGone = false;           ///< it has closed its end
    std::uint32_t untaken = 0;      ///< bytes sent to it that it has not read
    std::optional<std::chrono::milliseconds> since; ///< that it has been silent, or waits
};

/** A socket of the library at which clients or notifications arrive, and what happens there. */
struct Server {
    enum class Type { Sink, SteadySink, Publisher, Service };

    enum class Activity {
        Accepts, ///< a thread waits for the next client
        Reads,   ///< its thread waits for a client to send
        Writes,  ///< its thread waits for a client to read
        Works,   ///< it has a client, and waits for nothing of it: a callback runs
        Ended,   ///< a sink without a thread that serves it
        Unclear  ///< it runs, or cannot be seen
    };

    Socket socket;
    std::string address; ///< as a callback address
    Type type = Type::Service;
    Activity activity = Activity::Unclear;
    std::vector<Process> processes;
    std::vector<Client> waiting;                    ///< not yet accepted, oldest first
    std::vector<Client> served;                     ///< accepted
    std::optional<Client> holder;                   ///< for whom its thread waits
    std::optional<std::chrono::milliseconds> since; ///< that its thread waits there
    std::uint64_t wakes = 0;                        ///< of all threads of its processes

    bool isSink() const { return type == Type::Sink || type == Type::SteadySink; }

    /** @return how many wait to be accepted; of datagrams 1 for any. */
    std::uint32_t backlog() const;

    /** @return what tells whether it has moved on when it is seen again. */
    bool isAsBefore(const Server& before) const;
};

/** @return the servers of the library on this host. */
std::vector<Server> listServers();

/** @return "process 123 (name, user alice)" or its address, and for describe() how long. @{ */
std::string describe(const Client& client);
std::string describeWho(const Client& client);
/** @} */

/** @return "3 s", "5 min", "2 h". */
std::string durationText(std::chrono::milliseconds duration);

/** @return the words for tables and JSON. @{ */
std::string nameOf(Server::Type type);
std::string nameOf(Server::Activity activity);
/** @} */

} // namespace VornTool

#endif
