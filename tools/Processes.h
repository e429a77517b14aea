// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_PROCESSES_H
#define VORNTOOL_PROCESSES_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <sys/types.h>

namespace VornTool {

/** A process of this host. */
struct Process {
    pid_t pid = 0;
    std::string name;
    std::string user;
};

/** A thread, and what it is waiting for. */
struct Thread {
    enum class Wait {
        None,    ///< it runs
        Arrival, ///< of a client or of bytes, also in select(), poll() or epoll_wait()
        Send,
        Other,
        Unknown ///< this user may not know
    };

    pid_t id = 0;
    Wait wait = Wait::Unknown;
    std::set<std::uint32_t> sockets;                ///< the numbers of those that it waits on
    std::optional<std::chrono::milliseconds> since; ///< how long it has not run
    std::uint64_t wakes = 0;                        ///< how often it has waited, and gone on
};

/** @return who holds which socket, by the socket's number, as far as this user may see. */
std::multimap<std::uint32_t, Process> listHolders();

/** @return the processes among @p holders that hold a socket; none for the number 0. */
std::vector<Process> holdersOf(const std::multimap<std::uint32_t, Process>& holders, std::uint32_t number);

/** @return the threads of a process; none when it has ended. */
std::vector<Thread> listThreads(pid_t pid);

/**
 * @return the sockets that the process watches by epoll, by their numbers, and with what it gets their
 * events: a number of its own, or the address of an object
 */
std::map<std::uint32_t, std::uint64_t> watchedSockets(pid_t pid);

/** @return whether the process is stopped, by a signal or a debugger. */
bool isStopped(pid_t pid);

/** @return how long no thread of the process has run, where that is known. */
std::optional<std::chrono::milliseconds> idleTime(pid_t pid);

/** @return whether the process has loaded a shared object whose name begins like this. */
bool hasLoaded(pid_t pid, const std::string& library);

/** @return a command that starts the process anew: its unit's, or what it was started with. */
std::string restartCommand(const Process& process);

/** @return whether this user may look into the process. */
bool isReadable(pid_t pid);

/** @return the value of a variable in the environment with which the process was started. */
std::optional<std::string> environmentOf(pid_t pid, const std::string& variable);

/** @return whether the process may make and remove files in a directory, by its user, groups and mode. */
bool mayWrite(pid_t pid, const struct stat& directory);

/** @return the process of that number, if there is one. */
std::optional<Process> findProcess(pid_t pid);

/** @return the ids of the processes whose program has this name, the tool's own left out. */
std::vector<std::string> processesNamed(const std::string& name);

/** @return the name of a user or group, or its number where it has none. @{ */
std::string nameOfUser(uid_t user);
std::string nameOfGroup(gid_t group);
/** @} */

/** @return a word as it is typed in a shell. */
std::string shellWord(const std::string& word);

/** @return "123 (name)" for each, joined; "?" for none. */
std::string describe(const std::vector<Process>& processes);

/** @return an array of objects with pid, name and user. */
nlohmann::ordered_json toJson(const std::vector<Process>& processes);

/** @return "process 123 (name, user alice)" for each, joined; "a process that cannot be seen" for none. */
std::string describeFully(const std::vector<Process>& processes);

} // namespace VornTool

#endif
