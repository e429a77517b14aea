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
#include <cstdio>
#include <cstring>
#include <map>

namespace VornTool {

namespace {

struct PipesOptions : CommonOptions {
    bool clean = false;
};

struct Removal {
    std::string name;
    int error = 0;
};

std::string modeText(mode_t mode) {
    std::array<char, 16> text;
    std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned int>(mode));
    return text.data();
}

std::string queueText(const PipeFile& file) {
    if (!file.queue)
        return "-";
    return std::to_string(file.queue->waiting) + "/" + std::to_string(file.queue->backlog) +
           (file.isFull() ? " full" : "");
}

int colourOf(PipeState state) {
    constexpr int cGreen = 32;
    constexpr int cRed = 31;
    constexpr int cYellow = 33;
    switch (state) {
    case PipeState::Listening:
        return cGreen;
    case PipeState::Stolen:
    case PipeState::Unlinked:
    case PipeState::Contested:
    case PipeState::Dead:
        return cRed;
    default:
        return cYellow;
    }
}

/** The servers of this host, by their addresses. */
using ServerTable = std::map<std::string, Server>;

ServerTable serversFor(const std::vector<PipeFile>& files) {
    ServerTable table;
    if (!files.empty()) {
        for (Server& server : listServers())
            table.emplace(server.address, std::move(server));
    }
    return table;
}

/** @return the publisher that has the pipe; null where that is none, or another has the path. */
const Server* publisherAt(const PipeFile& file, const ServerTable& servers) {
    const auto found = servers.find("pipe:" + file.name);
    const bool isPublisher = found != servers.end() && found->second.type == Server::Type::Publisher &&
                             file.state == PipeState::Listening;
    return isPublisher ? &found->second : nullptr;
}

std::vector<Process> subscribersOf(const Server& publisher) {
    std::vector<Process> result;
    for (const Client& client : publisher.served)
        result.insert(result.end(), client.processes.begin(), client.processes.end());
    return result;
}

std::string processText(const PipeFile& file, const ServerTable& servers) {
    const std::string text = describe(file.processes);
    const Server* publisher = publisherAt(file, servers);
    if (publisher == nullptr)
        return text;
    const std::vector<Process> subscribers = subscribersOf(*publisher);
    return text + " publishes" + (subscribers.empty() ? "" : " to " + describe(subscribers));
}

Row makeRow(const PipeFile& file, const ServerTable& servers) {
    const bool hasFile = file.ownership.has_value();
    const bool hasProcess = !file.processes.empty() || file.state == PipeState::Listening ||
                            file.state == PipeState::Hidden || file.state == PipeState::Stolen;
    return {printable(file.name),
            nameOf(file.state),
            queueText(file),
            hasFile ? modeText(file.ownership->mode) : "-",
            hasFile ? file.ownership->owner : "-",
            hasFile ? file.ownership->group : "-",
            hasProcess ? printable(processText(file, servers)) : "-"};
}

void printTable(const std::vector<PipeFile>& files, const ServerTable& servers) {
    std::vector<Row> rows = {{"NAME", "STATE", "QUEUE", "MODE", "OWNER", "GROUP", "PROCESS"}};
    for (const PipeFile& file : files)
        rows.push_back(makeRow(file, servers));
    alignColumns(rows);
    for (std::size_t i = 1; i < rows.size(); ++i)
        rows[i][1] = Output::coloured(rows[i][1], colourOf(files[i - 1].state));
    for (const Row& row : rows)
        Output::line(joined(row, "  "));
}

Json toJson(const PipeFile& file, const ServerTable& servers) {
    Json object = {{"name", file.name}, {"state", nameOf(file.state)}, {"processes", toJson(file.processes)}};
    if (const Server* publisher = publisherAt(file, servers)) {
        object["type"] = nameOf(publisher->type);
        object["subscribers"] = toJson(subscribersOf(*publisher));
    }
    if (file.queue) {
        object["waiting"] = file.queue->waiting;
        object["backlog"] = file.queue->backlog;
        object["full"] = file.isFull();
    }
    if (file.ownership) {
        object["mode"] = modeText(file.ownership->mode);
        object["owner"] = file.ownership->owner;
        object["group"] = file.ownership->group;
    }
    return object;
}

std::vector<Removal> removeDead(std::vector<PipeFile>& files) {
    std::vector<Removal> removals;
    std::erase_if(files, [&removals](const PipeFile& file) {
        if (file.state != PipeState::Dead)
            return false;
        removals.push_back({file.name, removeIfDead(pipePath(file.name))});
        return removals.back().error == 0;
    });
    return removals;
}

void printRemovals(const std::vector<Removal>& removals) {
    for (const Removal& removal : removals) {
        if (removal.error == 0)
            Output::line("removed " + printable(removal.name));
        else
            Output::error("cannot remove " + printable(removal.name) + ": " + std::strerror(removal.error));
    }
}

void printJson(const std::vector<PipeFile>& files, const ServerTable& servers,
               const std::vector<Removal>& removals) {
    Json pipes = Json::array();
    for (const PipeFile& file : files)
        pipes.push_back(toJson(file, servers));
    Json removed = Json::array();
    Json failed = Json::array();
    for (const Removal& removal : removals) {
        if (removal.error == 0)
            removed.push_back(removal.name);
        else
            failed.push_back({{"name", removal.name}, {"code", removal.error}});
    }
    Output::json({{"pipes", pipes}, {"removed", removed}, {"not_removed", failed}});
}

bool isProblem(const PipeFile& file) {
    return file.state == PipeState::Dead || file.state == PipeState::Stolen ||
           file.state == PipeState::Unlinked || file.state == PipeState::Contested;
}

int runPipes(PipesOptions& options) {
    const LibraryRecords records(options.logLevel);
    std::vector<PipeFile> files = listPipeFiles();
    std::vector<Removal> removals;
    if (options.clean)
        removals = removeDead(files);
    const ServerTable servers = serversFor(files);
    if (options.json) {
        printJson(files, servers, removals);
    } else {
        printRemovals(removals);
        printTable(files, servers);
    }
    return std::any_of(files.begin(), files.end(), isProblem) ? exitProblems : exitDone;
}

} // namespace

void addPipes(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<PipesOptions>();
    CLI::App* command = addCommand(app, "pipes", "List the pipes of this host and their processes", *options);
    command->add_flag("--clean", options->clean, "Remove the files that are proven dead");
    addJsonOption(*command, *options);
    setRunner(command, runner, options, runPipes);
}

} // namespace VornTool
