// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Command.h"
#include "ExitStatus.h"
#include "LibraryRecords.h"
#include "Output.h"
#include "PipeFiles.h"
#include "Servers.h"

#include <VornMetrics.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <optional>
#include <set>

namespace VornTool {

namespace {

using MetricsOptions = CommonOptions;
using VornNet::VornMetrics;
using Type = VornMetrics::Type;

VornMetrics::Labels labelsOf(const Server& server) {
    const Process process = server.processes.empty() ? Process{} : server.processes.front();
    return {{"address", server.address},
            {"type", nameOf(server.type)},
            {"pid", process.pid == 0 ? "" : std::to_string(process.pid)},
            {"process", process.name},
            {"user", process.user}};
}

/** A number of each server; none where it has none. */
struct Family {
    const char* name;
    VornMetrics::Type type;
    const char* help;
    std::function<std::optional<double>(const Server&)> valueOf;
};

double seconds(std::chrono::milliseconds duration) {
    return std::chrono::duration<double>(duration).count();
}

std::vector<Family> families() {
    return {
        {"vornnet_waiting_clients", Type::gauge, "Clients that wait to be accepted.",
         [](const Server& server) -> std::optional<double> {
             return server.socket.queue ? std::optional<double>(server.socket.queue->waiting) : std::nullopt;
         }},
        {"vornnet_backlog_clients", Type::gauge, "How many clients may wait to be accepted.",
         [](const Server& server) -> std::optional<double> {
             return server.socket.queue ? std::optional<double>(server.socket.queue->backlog) : std::nullopt;
         }},
        {"vornnet_oldest_waiting_seconds", Type::gauge,
         "How long the oldest of them has waited, where it is known.",
         [](const Server& server) -> std::optional<double> {
             return !server.waiting.empty() && server.waiting[0].since
                        ? std::optional<double>(seconds(*server.waiting[0].since))
                        : std::nullopt;
         }},
        {"vornnet_connections", Type::gauge, "Connections that have been accepted and are open.",
         [](const Server& server) -> std::optional<double> {
             return server.socket.queue ? std::optional<double>(static_cast<double>(server.served.size()))
                                        : std::nullopt;
         }},
        {"vornnet_unread_bytes", Type::gauge,
         "Bytes of datagrams that nobody has read, the kernel's own included.",
         [](const Server& server) -> std::optional<double> {
             return server.socket.queue ? std::nullopt : std::optional<double>(server.socket.unread);
         }},
        {"vornnet_dropped_datagrams", Type::counter,
         "Datagrams dropped because nobody read, since the socket was opened.",
         [](const Server& server) -> std::optional<double> {
             return server.socket.queue ? std::nullopt : std::optional<double>(server.socket.lost);
         }},
        {"vornnet_accepting", Type::gauge, "1 when a thread waits for the next client, 0 when none does.",
         [](const Server& server) -> std::optional<double> {
             return server.activity == Server::Activity::Unclear
                        ? std::nullopt
                        : std::optional<double>(server.activity == Server::Activity::Accepts ? 1 : 0);
         }},
    };
}

void addPipes(VornMetrics& metrics) {
    std::vector<PipeFile> files;
    try {
        files = listPipeFiles();
    } catch (const ToolError&) {
        return; // without the directory there are no pipes
    }
    for (const PipeState state :
         {PipeState::Listening, PipeState::Bound, PipeState::Hidden, PipeState::Contested, PipeState::Stolen,
          PipeState::Unlinked, PipeState::Dead, PipeState::NoSocket, PipeState::Unknown}) {
        const auto count = std::count_if(files.begin(), files.end(),
                                         [state](const PipeFile& file) { return file.state == state; });
        metrics.add("vornnet_pipes", Type::gauge, "Entries of the pipe directory by their state.",
                    {{"state", nameOf(state)}}, static_cast<double>(count));
    }
}

int runMetrics(MetricsOptions& options) {
    const LibraryRecords records(options.logLevel);
    std::vector<Server> servers = listServers();
    // One whose file is gone and its successor, where their processes cannot be seen: a series is there once.
    std::set<VornMetrics::Labels> known;
    std::erase_if(servers, [&known](const Server& server) { return !known.insert(labelsOf(server)).second; });
    VornMetrics metrics;
    for (const Family& family : families()) {
        for (const Server& server : servers) {
            if (const auto value = family.valueOf(server))
                metrics.add(family.name, family.type, family.help, labelsOf(server), *value);
        }
    }
    addPipes(metrics);
    Output::bytes(metrics.text());
    return exitDone;
}

} // namespace

void addMetrics(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<MetricsOptions>();
    CLI::App* command = addCommand(
        app, "metrics", "Print the numbers of this host's sinks and services as OpenMetrics", *options);
    setRunner(command, runner, options, runMetrics);
}

} // namespace VornTool
