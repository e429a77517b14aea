// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Finding.h"
#include "Servers.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include <unistd.h>

namespace VornTool {

namespace {

using Activity = Server::Activity;
using Type = Server::Type;

/** Shorter than this a conversation may well pause. */
constexpr std::chrono::milliseconds cPatience(1000);

std::string counted(std::size_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

bool isPart(const std::vector<Process>& processes, pid_t pid) {
    return std::any_of(processes.begin(), processes.end(),
                       [pid](const Process& process) { return process.pid == pid; });
}

bool isPart(const std::vector<Client>& clients, pid_t pid) {
    return std::any_of(clients.begin(), clients.end(),
                       [pid](const Client& client) { return isPart(client.processes, pid); });
}

bool concerns(const Server& server, pid_t pid) {
    return pid == 0 || isPart(server.processes, pid) || isPart(server.waiting, pid) ||
           isPart(server.served, pid);
}

/** Leaves the clients that the server had before, and what they have not read at either look. */
void keepThoseOf(const Server& before, std::vector<Client>& clients) {
    std::vector<Client> kept;
    for (Client& client : clients) {
        const auto earlier =
            std::find_if(before.served.begin(), before.served.end(), [&client](const Client& candidate) {
                return candidate.connection == client.connection;
            });
        if (earlier == before.served.end())
            continue;
        // Of a process that cannot be seen only the same number tells that it does not read.
        const bool isReading = client.processes.empty() && earlier->untaken != client.untaken;
        client.untaken = isReading ? 0 : std::min(client.untaken, earlier->untaken);
        kept.push_back(client);
    }
    clients = std::move(kept);
}

/** Those that were in the same place at both looks, a moment apart. */
std::vector<Server> listUnmoved(std::vector<Server>& all, pid_t pid) {
    constexpr std::chrono::milliseconds cPause(300);
    const std::vector<Server> before = listServers();
    std::this_thread::sleep_for(cPause);
    all = listServers();
    all.erase(std::remove_if(all.begin(), all.end(),
                             [pid](const Server& server) { return !concerns(server, pid); }),
              all.end());
    std::vector<Server> unmoved;
    for (const Server& server : all) {
        const auto earlier = std::find_if(before.begin(), before.end(), [&server](const Server& candidate) {
            return server.isAsBefore(candidate);
        });
        if (earlier == before.end())
            continue;
        unmoved.push_back(server);
        keepThoseOf(*earlier, unmoved.back().served);
    }
    return unmoved;
}

std::string checkOf(const Server& server) {
    return server.isSink() ? "sinks" : "services";
}

std::string placeOf(const Server& server) {
    return server.address + " of " + describeFully(server.processes);
}

/** "; 2 of 5 clients wait: process 12 (stock, user alice) for 3 s, ...", empty where nobody waits. */
std::string describeWaiting(const Server& server) {
    constexpr std::size_t cMostShown = 3;
    if (server.backlog() == 0)
        return "";
    if (!server.socket.queue)
        return "; datagrams lie unread" +
               (server.socket.lost > 0 ? ", and " + std::to_string(server.socket.lost) + " were dropped"
                                       : "");
    std::string text = "; " + std::to_string(server.backlog()) + " of " +
                       counted(server.socket.queue->backlog, "client") +
                       (server.backlog() == 1 ? " waits" : " wait");
    for (std::size_t i = 0; i < std::min(cMostShown, server.waiting.size()); ++i)
        text += (i == 0 ? ": " : ", ") + describe(server.waiting[i]);
    if (server.waiting.size() > cMostShown)
        text += ", and so on";
    if (server.socket.queue->isFull())
        text += "; the queue is full, and whoever comes now is blocked";
    return text;
}

std::string stacksOf(const std::vector<Process>& processes) {
    return processes.empty()
               ? "sudo vornnet doctor"
               : "gdb -p " + std::to_string(processes[0].pid) + " -batch -ex 'thread apply all backtrace'";
}

std::string continuing(const std::vector<Process>& processes) {
    return "kill -CONT " + std::to_string(processes.front().pid);
}

/** @return whether the process that is named first is stopped. */
bool areStopped(const std::vector<Process>& processes) {
    return !processes.empty() && isStopped(processes.front().pid);
}

/** Ends the client, wherever it is. */
std::string remedyAgainst(const Client& client, const Server& server) {
    const std::size_t colon = client.place.rfind(':');
    for (const Process& process : client.processes) {
        if (!isPart(server.processes, process.pid))
            return "kill " + std::to_string(process.pid);
    }
    if (client.processes.empty() && colon != std::string::npos)
        return "ss --kill -tn dst " + client.place.substr(0, colon) +
               " dport = :" + client.place.substr(colon + 1);
    return stacksOf(server.processes);
}

Finding judgeEnded(const Server& server) {
    return {
        "sinks",
        Severity::Problem,
        placeOf(server) +
            ": the sink's thread has ended, and nobody takes its notifications any more (a callback threw, "
            "a sender reset its connection, or an empty datagram came)" +
            describeWaiting(server),
        restartCommand(server.processes.at(0)),
        server.processes,
        server.waiting.empty() ? std::nullopt : server.waiting[0].since};
}

std::optional<Finding> judgeHeld(const Server& server) {
    const Client& holder = *server.holder;
    const bool isReading = server.activity == Activity::Reads;
    const auto since = server.since ? server.since : holder.since;
    const bool isWaitedFor = server.backlog() > 0;
    if (!isWaitedFor && since && *since < cPatience)
        return std::nullopt;
    return Finding{checkOf(server),
                   server.isSink() || isWaitedFor ? Severity::Problem : Severity::Warning,
                   placeOf(server) + " is held" + (since ? " for " + durationText(*since) : "") + " by " +
                       describeWho(holder) +
                       (isReading ? ", which has connected and sends nothing" : ", which does not read") +
                       describeWaiting(server),
                   remedyAgainst(holder, server),
                   server.processes,
                   since};
}

std::optional<Finding> judgeWorking(const Server& server) {
    const bool isWaitedFor = server.backlog() > 0;
    const auto since = server.served.empty() ? std::nullopt : server.served[0].since;
    if (server.served.empty() && server.socket.kind != Socket::Kind::Udp)
        return std::nullopt; // another client than before
    if (!isWaitedFor && (!server.isSink() || (since && *since < cPatience)))
        return std::nullopt;
    const bool isDatagram = server.socket.kind == Socket::Kind::Udp;
    const std::string what =
        isDatagram        ? "nobody reads its datagrams: a callback does not return, or its thread has ended"
        : server.isSink() ? "a callback does not return, for a notification of " + describe(server.served[0])
                          : "it is busy with " + describe(server.served[0]);
    return Finding{checkOf(server),
                   isWaitedFor ? Severity::Problem : Severity::Warning,
                   placeOf(server) + ": " + what + describeWaiting(server),
                   stacksOf(server.processes),
                   server.processes,
                   since};
}

/** A steady sink takes connections while a callback runs; its senders then wait for the callback. */
std::optional<Finding> judgeSteady(const Server& server) {
    std::vector<Client> held;
    std::copy_if(server.served.begin(), server.served.end(), std::back_inserter(held),
                 [](const Client& client) { return client.hasEnded; });
    const auto oldest =
        std::max_element(held.begin(), held.end(),
                         [](const Client& one, const Client& other) { return one.since < other.since; });
    if (oldest == held.end() || (oldest->since && *oldest->since < cPatience))
        return std::nullopt;
    return Finding{"sinks",
                   Severity::Problem,
                   placeOf(server) + ": a callback of the steady sink does not return; " +
                       counted(held.size(), "notification") + (held.size() == 1 ? " waits" : " wait") +
                       " for it, the oldest of " + describe(*oldest),
                   stacksOf(server.processes),
                   server.processes,
                   oldest->since};
}

/** The process itself does nothing, whatever its threads were doing before. */
Finding judgeStopped(const Server& server) {
    const auto since = idleTime(server.processes.front().pid);
    return {checkOf(server),
            Severity::Problem,
            placeOf(server) + ": the process is stopped" + (since ? " for " + durationText(*since) : "") +
                describeWaiting(server),
            continuing(server.processes),
            server.processes,
            since};
}

/** What was sent to a subscriber and not read, at both looks, is held back by the subscriber. */
std::optional<Finding> judgeSubscriber(const Server& server, const Client& subscriber) {
    if (subscriber.untaken == 0)
        return std::nullopt;
    const bool isUnknown = subscriber.processes.empty();
    const auto since = isUnknown ? std::nullopt : idleTime(subscriber.processes.front().pid);
    if (since && *since < cPatience)
        return std::nullopt;
    const bool isStopped = areStopped(subscriber.processes);
    return Finding{"subscribers",
                   Severity::Problem,
                   "a subscriber of " + placeOf(server) + " does not read its events" +
                       (since ? " for " + durationText(*since) : "") + ": " + describeWho(subscriber) +
                       (isStopped   ? " is stopped"
                        : isUnknown ? ""
                                    : ", whose event handler does not return"),
                   isStopped   ? continuing(subscriber.processes)
                   : isUnknown ? remedyAgainst(subscriber, server)
                               : stacksOf(subscriber.processes),
                   subscriber.processes,
                   since};
}

void judgeSubscribers(const Server& server, Findings& findings) {
    for (const Client& subscriber : server.served) {
        if (const auto finding = judgeSubscriber(server, subscriber))
            findings.push_back(*finding);
    }
}

/** Clients wait, and what is known of the threads does not tell why. */
std::optional<Finding> judgeWaitedFor(const Server& server) {
    if (server.backlog() == 0)
        return std::nullopt;
    const bool isHidden = ::geteuid() != 0 && server.activity == Activity::Unclear;
    return Finding{checkOf(server),
                   Severity::Problem,
                   placeOf(server) + ": nobody accepts its clients" +
                       (isHidden ? ", and this user may not see why" : "") + describeWaiting(server),
                   isHidden ? "sudo vornnet doctor" : stacksOf(server.processes),
                   server.processes,
                   server.waiting.empty() ? std::nullopt : server.waiting[0].since};
}

std::optional<Finding> judge(const Server& server) {
    if (areStopped(server.processes))
        return judgeStopped(server);
    switch (server.activity) {
    case Activity::Ended:
        return judgeEnded(server);
    case Activity::Reads:
    case Activity::Writes:
        return judgeHeld(server);
    case Activity::Works:
        return judgeWorking(server);
    case Activity::Accepts:
        if (server.type == Type::SteadySink && server.backlog() == 0)
            return judgeSteady(server);
        break;
    case Activity::Unclear:
        break;
    }
    return judgeWaitedFor(server);
}

std::size_t numberOf(const std::vector<Server>& servers, Type type) {
    return static_cast<std::size_t>(std::count_if(
        servers.begin(), servers.end(), [type](const Server& server) { return server.type == type; }));
}

void addSums(const std::vector<Server>& servers, Findings& findings) {
    const auto isFound = [&findings](const std::string& check) {
        return std::any_of(findings.begin(), findings.end(),
                           [&check](const Finding& finding) { return finding.check == check; });
    };
    const std::size_t steady = numberOf(servers, Type::SteadySink);
    const std::size_t sinks = numberOf(servers, Type::Sink) + steady;
    if (!isFound("sinks"))
        findings.push_back(
            {"sinks", Severity::Ok,
             counted(sinks, "sink") + " (" + std::to_string(steady) + " steady), and none is held up", ""});
    const std::size_t publishers = numberOf(servers, Type::Publisher);
    std::size_t subscribers = 0;
    for (const Server& server : servers)
        subscribers += server.type == Type::Publisher ? server.served.size() : 0;
    if (!isFound("services"))
        findings.push_back(
            {"services", Severity::Ok,
             counted(numberOf(servers, Type::Service) + publishers, "service") + ", and none is held up",
             ""});
    if (!isFound("subscribers") && publishers > 0)
        findings.push_back({"subscribers", Severity::Ok,
                            counted(publishers, "publisher") + " with " + counted(subscribers, "subscriber") +
                                ", and none is held up",
                            ""});
}

} // namespace

void checkServers(Findings& findings, pid_t pid) {
    std::vector<Server> all;
    for (const Server& server : listUnmoved(all, pid)) {
        if (const auto finding = judge(server))
            findings.push_back(*finding);
        if (server.type == Type::Publisher)
            judgeSubscribers(server, findings);
    }
    addSums(all, findings);
}

} // namespace VornTool
