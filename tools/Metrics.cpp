// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Command.h"
#include "ExitStatus.h"
#include "LibraryRecords.h"
#include "Output.h"
#include "PipeFiles.h"
#include "Servers.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <functional>

namespace VornTool {

namespace {

using MetricsOptions = CommonOptions;

std::string escapedLabel(const std::string& text) {
    std::string result;
    for (const char character : text) {
        if (character == '\\' || character == '"')
            result += '\\';
        if (character == '\n')
            result += "\\n";
        else
            result += character;
    }
    return result;
}

std::string labelsOf(const Server& server) {
    const Process process = server.processes.empty() ? Process{} : server.processes.front();
    return "{address=\"" + escapedLabel(server.address) + "\",type=\"" + nameOf(server.type) + "\",pid=\"" +
           (process.pid == 0 ? "" : std::to_string(process.pid)) + "\",process=\"" +
           escapedLabel(process.name) + "\",user=\"" + escapedLabel(process.user) + "\"}";
}

/** A number of each server; none where it has none. */
struct Family {
    const char* name;
    const char* type;
    const char* help;
    std::function<std::optional<double>(const Server&)> valueOf;
};

double seconds(std::chrono::milliseconds duration) {
    return std::chrono::duration<double>(duration).count();
}

std::vector<Family> families() {
    return {
        {"vornnet_waiting_clients", "gauge", "Clients that wait to be accepted.",
         [](const Server& server) -> std::optional<double> {
             return server.socket.queue ? std::optional<double>(server.socket.queue->waiting) : std::nullopt;
         }},
        {"vornnet_backlog_clients", "gauge", "How many clients may wait to be accepted.",
         [](const Server& server) -> std::optional<double> {
             return server.socket.queue ? std::optional<double>(server.socket.queue->backlog) : std::nullopt;
         }},
        {"vornnet_oldest_waiting_seconds", "gauge",
         "How long the oldest of them has waited, where it is known.",
         [](const Server& server) -> std::optional<double> {
             return !server.waiting.empty() && server.waiting[0].since
                        ? std::optional<double>(seconds(*server.waiting[0].since))
                        : std::nullopt;
         }},
        {"vornnet_connections", "gauge", "Connections that have been accepted and are open.",
         [](const Server& server) -> std::optional<double> {
             return server.socket.queue ? std::optional<double>(static_cast<double>(server.served.size()))
                                        : std::nullopt;
         }},
        {"vornnet_unread_bytes", "gauge",
         "Bytes of datagrams that nobody has read, the kernel's own included.",
         [](const Server& server) -> std::optional<double> {
             return server.socket.queue ? std::nullopt : std::optional<double>(server.socket.unread);
         }},
        {"vornnet_dropped_datagrams", "counter",
         "Datagrams dropped because nobody read, since the socket was opened.",
         [](const Server& server) -> std::optional<double> {
             return server.socket.queue ? std::nullopt : std::optional<double>(server.socket.lost);
         }},
        {"vornnet_accepting", "gauge", "1 when a thread waits for the next client, 0 when none does.",
         [](const Server& server) -> std::optional<double> {
             return server.activity == Server::Activity::Unclear
                        ? std::nullopt
                        : std::optional<double>(server.activity == Server::Activity::Accepts ? 1 : 0);
         }},
    };
}

std::string numberText(double number) {
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), "%.9g", number);
    return text.data();
}

void print(const Family& family, const std::vector<Server>& servers) {
    const std::string name = family.name;
    const std::string type = family.type;
    Output::line("# TYPE " + name + " " + type);
    Output::line("# HELP " + name + " " + family.help);
    for (const Server& server : servers) {
        if (const auto value = family.valueOf(server))
            Output::line(name + (type == "counter" ? "_total" : "") + labelsOf(server) + " " +
                         numberText(*value));
    }
}

void printPipes() {
    std::vector<PipeFile> files;
    try {
        files = listPipeFiles();
    } catch (const ToolError&) {
        return; // without the directory there are no pipes
    }
    Output::line("# TYPE vornnet_pipes gauge");
    Output::line("# HELP vornnet_pipes Entries of the pipe directory by their state.");
    for (const PipeState state :
         {PipeState::Listening, PipeState::Bound, PipeState::Hidden, PipeState::Contested, PipeState::Stolen,
          PipeState::Unlinked, PipeState::Dead, PipeState::NoSocket, PipeState::Unknown}) {
        const auto count = std::count_if(files.begin(), files.end(),
                                         [state](const PipeFile& file) { return file.state == state; });
        Output::line("vornnet_pipes{state=\"" + nameOf(state) + "\"} " + std::to_string(count));
    }
}

int runMetrics(MetricsOptions& options) {
    const LibraryRecords records(options.logLevel);
    const std::vector<Server> servers = listServers();
    for (const Family& family : families())
        print(family, servers);
    printPipes();
    Output::line("# EOF");
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
