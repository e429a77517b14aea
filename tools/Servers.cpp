// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Servers.h"

#include "Address.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <map>

namespace VornTool {

namespace {

constexpr int cFirstSinkPort = 5023;
constexpr int cLastSinkPort = cFirstSinkPort + 99;

/** What is looked up of a process once. */
struct ProcessView {
    bool usesLibrary = false;
    std::vector<Thread> threads;
};

/** Puts sockets, processes and threads together, once. */
class Survey {
public:
    std::vector<Server> run();

private:
    using Holders = std::multimap<std::uint32_t, Process>;

    const ProcessView& viewOf(const Process& process);
    bool isServer(const Socket& socket, const std::vector<Process>& processes);
    Server inspect(const Socket& socket, const std::vector<Process>& processes);
    void addPipeClients(Server& server);
    void addTcpClients(Server& server);
    Client clientOf(std::uint32_t number);
    std::optional<std::chrono::milliseconds> waitOn(const Client& client);
    void judge(Server& server);
    bool judgeThread(Server& server, const Thread& thread);
    static void judgeByWatch(Server& server);

    const Sockets m_sockets = listSockets(true);
    const Holders m_holders = listHolders();
    std::map<pid_t, ProcessView> m_views;
};

bool isSinkPort(const Socket& socket) {
    return socket.kind != Socket::Kind::Pipe && socket.local.port >= cFirstSinkPort &&
           socket.local.port <= cLastSinkPort;
}

bool isWaitedAt(const Socket& socket, const std::vector<Thread>& threads) {
    return std::any_of(threads.begin(), threads.end(),
                       [&socket](const Thread& thread) { return thread.sockets.count(socket.number) != 0; });
}

std::string pipeNameOf(const Socket& socket) {
    const std::string directory = pipeDirectory();
    return socket.path.rfind(directory, 0) == 0 ? socket.path.substr(directory.size()) : "";
}

std::string addressOf(const Socket& socket) {
    switch (socket.kind) {
    case Socket::Kind::Pipe:
        return "pipe:" + pipeNameOf(socket);
    case Socket::Kind::Tcp:
    case Socket::Kind::Udp:
        break;
    }
    return (socket.kind == Socket::Kind::Tcp ? "socket:" : "udp:") + socket.local.address + ":" +
           std::to_string(socket.local.port);
}

/** @return whether a sink of the process has such a pipe: "quorax" and its id, or that and more. */
bool isSinkName(const std::string& name, pid_t pid, bool& steady) {
    std::array<char, 24> text;
    std::snprintf(text.data(), text.size(), "quorax%x", static_cast<unsigned int>(pid));
    const std::string own = text.data();
    steady = name.rfind(own + "-", 0) == 0;
    return steady || name == own;
}

const ProcessView& Survey::viewOf(const Process& process) {
    const auto known = m_views.find(process.pid);
    if (known != m_views.end())
        return known->second;
    return m_views
        .emplace(process.pid, ProcessView{hasLoaded(process.pid, "libvornnet.so"), listThreads(process.pid)})
        .first->second;
}

bool Survey::isServer(const Socket& socket, const std::vector<Process>& processes) {
    if (socket.kind == Socket::Kind::Pipe)
        return socket.state == Socket::State::Listening && !pipeNameOf(socket).empty();
    const bool isOpen = socket.kind == Socket::Kind::Tcp ? socket.state == Socket::State::Listening
                                                         : socket.remote.port == 0 && socket.number != 0;
    if (!isOpen)
        return false;
    if (processes.empty())
        return isSinkPort(socket);
    return std::any_of(processes.begin(), processes.end(), [&](const Process& process) {
        const ProcessView& view = viewOf(process);
        // Who sends datagrams has such a socket as well, and does not wait for any.
        return view.usesLibrary &&
               (socket.kind == Socket::Kind::Tcp || isSinkPort(socket) || isWaitedAt(socket, view.threads));
    });
}

Client Survey::clientOf(std::uint32_t number) {
    Client client;
    client.number = number;
    client.processes = holdersOf(m_holders, number);
    return client;
}

/** Nothing tells how old a pipe's connection is but a thread that has waited on it ever since. */
std::optional<std::chrono::milliseconds> Survey::waitOn(const Client& client) {
    for (const Process& process : client.processes) {
        for (const Thread& thread : viewOf(process).threads) {
            if (thread.sockets.count(client.number) != 0)
                return thread.since;
        }
    }
    return std::nullopt;
}

void Survey::addPipeClients(Server& server) {
    for (const std::uint32_t number : server.socket.clients) {
        server.waiting.push_back(clientOf(number));
        server.waiting.back().since = waitOn(server.waiting.back());
    }
    for (const Socket& socket : m_sockets.list) {
        const bool isConnection = socket.kind == Socket::Kind::Pipe && socket.path == server.socket.path &&
                                  socket.number != 0 && socket.state != Socket::State::Listening;
        if (!isConnection)
            continue;
        Client client = clientOf(socket.peer);
        client.hasGone = socket.peer == 0;
        client.connection = socket.number;
        client.hasEnded = socket.state == Socket::State::PeerEnded;
        client.untaken = socket.unsent;
        client.since = waitOn(client);
        server.served.push_back(client);
    }
}

void Survey::addTcpClients(Server& server) {
    for (const Socket& socket : m_sockets.list) {
        const bool isConnection =
            socket.kind == Socket::Kind::Tcp && socket.local.port == server.socket.local.port &&
            (socket.state == Socket::State::Connected || socket.state == Socket::State::PeerEnded);
        if (!isConnection)
            continue;
        Client client;
        const auto other =
            std::find_if(m_sockets.list.begin(), m_sockets.list.end(), [&socket](const Socket& candidate) {
                return candidate.kind == Socket::Kind::Tcp && candidate.local == socket.remote &&
                       candidate.remote == socket.local;
            });
        if (other != m_sockets.list.end() && other->number != 0)
            client = clientOf(other->number);
        client.connection = socket.number;
        client.place = socket.remote.address + ":" + std::to_string(socket.remote.port);
        client.hasEnded = socket.state == Socket::State::PeerEnded;
        client.untaken = socket.unsent;
        client.since = socket.silence;
        (socket.number == 0 ? server.waiting : server.served).push_back(client);
    }
    std::stable_sort(server.waiting.begin(), server.waiting.end(),
                     [](const Client& one, const Client& other) { return one.since > other.since; });
}

/** @return whether the thread serves this server; it is then known what it does there. */
bool Survey::judgeThread(Server& server, const Thread& thread) {
    const bool isAtServer = thread.sockets.count(server.socket.number) != 0;
    if (isAtServer) {
        server.activity = Server::Activity::Accepts;
        server.since = thread.since;
        return true;
    }
    for (const Client& client : server.served) {
        if (thread.sockets.count(client.connection) == 0)
            continue;
        server.activity =
            thread.wait == Thread::Wait::Send ? Server::Activity::Writes : Server::Activity::Reads;
        server.since = thread.since;
        server.holder = client;
    }
    return false;
}

/**
 * Steady sinks and publishers watch their listener by epoll, whatever their threads do at the moment. The one
 * numbers what it watches, the other has objects. So has the relay, the only program with libnats, whose
 * sockets are neither.
 */
void Survey::judgeByWatch(Server& server) {
    constexpr std::uint64_t cLowestAddress = 4096;
    for (const Process& process : server.processes) {
        if (!hasLoaded(process.pid, "libvornnotify.so") || hasLoaded(process.pid, "libnats.so"))
            continue;
        const auto watched = watchedSockets(process.pid);
        const auto found = watched.find(server.socket.number);
        if (found == watched.end())
            continue;
        server.type = found->second < cLowestAddress ? Server::Type::SteadySink : Server::Type::Publisher;
        if (server.type == Server::Type::Publisher)
            server.activity = Server::Activity::Accepts; // whomever it is sending to
    }
}

void Survey::judge(Server& server) {
    bool isUnclear = server.processes.empty();
    std::size_t threads = 0;
    for (const Process& process : server.processes) {
        for (const Thread& thread : viewOf(process).threads) {
            ++threads;
            isUnclear = isUnclear || thread.wait == Thread::Wait::Unknown;
            if (judgeThread(server, thread))
                return;
        }
    }
    if (isUnclear || server.activity != Server::Activity::Unclear)
        return;
    if (!server.served.empty())
        server.activity = Server::Activity::Works;
    else if (server.isSink() && (server.socket.kind != Socket::Kind::Udp || threads == 1))
        server.activity = Server::Activity::Ended;
    else if (server.isSink())
        server.activity = Server::Activity::Works; // of datagrams nothing tells which
}

Server Survey::inspect(const Socket& socket, const std::vector<Process>& processes) {
    Server server;
    server.socket = socket;
    server.address = addressOf(socket);
    server.processes = processes;
    bool isSteadyName = false;
    for (const Process& process : processes) {
        for (const Thread& thread : viewOf(process).threads)
            server.wakes += thread.wakes;
        if (socket.kind == Socket::Kind::Pipe && isSinkName(pipeNameOf(socket), process.pid, isSteadyName))
            server.type = isSteadyName ? Server::Type::SteadySink : Server::Type::Sink;
    }
    if (isSinkPort(socket))
        server.type = Server::Type::Sink;
    if (socket.kind == Socket::Kind::Pipe)
        addPipeClients(server);
    else if (socket.kind == Socket::Kind::Tcp)
        addTcpClients(server);
    judge(server);
    judgeByWatch(server);
    return server;
}

std::vector<Server> Survey::run() {
    std::vector<Server> servers;
    for (const Socket& socket : m_sockets.list) {
        const std::vector<Process> processes = holdersOf(m_holders, socket.number);
        if (isServer(socket, processes))
            servers.push_back(inspect(socket, processes));
    }
    std::sort(servers.begin(), servers.end(),
              [](const Server& one, const Server& other) { return one.address < other.address; });
    return servers;
}

} // namespace

std::uint32_t Server::backlog() const {
    if (socket.queue)
        return socket.queue->waiting;
    return socket.unread > 0 ? 1 : 0;
}

bool Server::isAsBefore(const Server& before) const {
    const auto first = [](const Server& server) {
        return server.waiting.empty() ? std::make_pair(std::uint32_t{0}, std::string())
                                      : std::make_pair(server.waiting[0].number, server.waiting[0].place);
    };
    const bool isHolderTheSame = holder.has_value() == before.holder.has_value() &&
                                 (!holder || holder->connection == before.holder->connection);
    return socket.number == before.socket.number && activity == before.activity && isHolderTheSame &&
           first(*this) == first(before) && (backlog() > 0) == (before.backlog() > 0);
}

std::vector<Server> listServers() {
    return Survey().run();
}

std::string describe(const Client& client) {
    const bool isTimed = client.since && !client.hasGone;
    return describeWho(client) + (isTimed ? " for " + durationText(*client.since) : "");
}

std::string describeWho(const Client& client) {
    if (client.hasGone)
        return "a process that has closed its end";
    return client.processes.empty() && !client.place.empty() ? "the peer at " + client.place
                                                             : describeFully(client.processes);
}

std::string durationText(std::chrono::milliseconds duration) {
    constexpr double cMinute = 60;
    constexpr double cHour = 60 * cMinute;
    const double seconds = std::chrono::duration<double>(duration).count();
    std::array<char, 32> text;
    if (seconds < 2 * cMinute)
        std::snprintf(text.data(), text.size(), seconds < 10 ? "%.1f s" : "%.0f s", seconds);
    else if (seconds < 2 * cHour)
        std::snprintf(text.data(), text.size(), "%.0f min", seconds / cMinute);
    else
        std::snprintf(text.data(), text.size(), "%.0f h", seconds / cHour);
    return text.data();
}

std::string nameOf(Server::Type type) {
    constexpr std::array cNames = {"sink", "steady-sink", "publisher", "service"};
    return cNames.at(static_cast<std::size_t>(type));
}

std::string nameOf(Server::Activity activity) {
    constexpr std::array cNames = {"accepts", "reads", "writes", "works", "ended", "unclear"};
    return cNames.at(static_cast<std::size_t>(activity));
}

} // namespace VornTool
