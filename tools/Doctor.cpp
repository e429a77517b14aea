// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Address.h"
#include "Command.h"
#include "ExitStatus.h"
#include "LibraryRecords.h"
#include "Output.h"
#include "PipeFiles.h"
#include "Ports.h"
#include "SinkObstacle.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>

#include <sys/resource.h>
#include <sys/stat.h>

namespace VornTool {

namespace {

struct DoctorOptions : CommonOptions {
    bool strict = false;
};

enum class Severity { Ok, Warning, Problem };

struct Finding {
    std::string check;
    Severity severity = Severity::Ok;
    std::string text;
    std::string remedy; ///< empty only for what is in order
};

using Findings = std::vector<Finding>;

Finding fromObstacle(const std::string& check, const Obstacle& obstacle) {
    return {check, Severity::Problem, obstacle.text, obstacle.remedy};
}

void checkPipeDirectory(Findings& findings) {
    const std::string check = "pipe-directory";
    const std::string path = pipeDirectory();
    if (const auto obstacle = pipeDirectoryObstacle())
        findings.push_back(fromObstacle(check, *obstacle));

    struct stat information {};

    if (::stat(path.c_str(), &information) != 0)
        return;
    std::array<char, 16> mode;
    std::snprintf(mode.data(), mode.size(), "%04o", information.st_mode & 07777U);
    if ((information.st_mode & S_IRWXO) != 0)
        findings.push_back(
            {check, Severity::Problem,
             "the pipe directory " + path + " is open to others (mode " + mode.data() +
                 "): anyone who can write there can take a server's name and its notifications",
             "chmod 1770 " + path});
    else if ((information.st_mode & (S_IWGRP | S_ISVTX)) == S_IWGRP)
        findings.push_back({check, Severity::Warning,
                            "the pipe directory " + path + " has no sticky bit (mode " + mode.data() +
                                "): members of its group can remove each other's pipes",
                            "chmod 1770 " + path});
    else if (findings.empty())
        findings.push_back({check, Severity::Ok, path + " is there and writable, mode " + mode.data(), ""});
}

void checkSinkType(Findings& findings) {
    const char* value = std::getenv(sinkTypeVariable);
    const std::string name = sinkTypeVariable;
    const std::string type = value != nullptr ? value : "";
    if (value == nullptr)
        findings.push_back({"sink-type", Severity::Ok, name + " is not set: sinks use pipes", ""});
    else if (type == "pipe" || type == "socket" || type == "udp")
        findings.push_back({"sink-type", Severity::Ok, name + " is \"" + type + "\"", ""});
    else
        findings.push_back({"sink-type", Severity::Problem,
                            name + " is " + quoted(type) + ", which is no transport: sinks use pipes instead",
                            "set it to pipe, socket or udp, in lower case, or unset it"});
}

void checkHostAddress(Findings& findings, const std::string& address) {
    // For pipes it does not matter what localhost resolves to.
    const bool matters = effectiveSinkType() != "pipe";
    if (const auto obstacle = hostAddressObstacle()) {
        findings.push_back(fromObstacle("localhost", *obstacle));
        if (!matters)
            findings.back().severity = Severity::Warning;
        return;
    }
    const bool isLoopback = address.rfind("127.", 0) == 0;
    findings.push_back({"localhost", Severity::Ok,
                        "a TCP or UDP sink publishes the address " + address +
                            (isLoopback ? ", which only this host can reach" : ""),
                        ""});
}

/** Why sinks cannot have the port: by whom it is taken, or that nobody has it any more. */
std::string describeUse(int port, const std::vector<PortUse>& uses,
                        const std::multimap<std::uint32_t, Process>& holders) {
    std::vector<Process> processes;
    bool isTimeWait = false;
    for (const PortUse& use : uses) {
        if (use.port != port)
            continue;
        isTimeWait = isTimeWait || use.isTimeWait();
        const auto [first, last] = holders.equal_range(use.socket);
        std::transform(first, last, std::back_inserter(processes),
                       [](const auto& entry) { return entry.second; });
    }
    if (!processes.empty())
        return "taken by " + printable(describe(processes));
    return isTimeWait ? "in TIME_WAIT" : "taken";
}

Finding judgePorts(bool udp, const std::string& address) {
    constexpr int cFirst = 5023;
    constexpr int cLast = cFirst + 99;
    constexpr std::size_t cMostShown = 5;
    const std::string kind = udp ? "UDP" : "TCP";
    const std::string check = udp ? "udp-ports" : "tcp-ports";
    int free = cFirst;
    while (free <= cLast && !isPortFree(udp, address, free))
        ++free;
    if (free == cFirst)
        return {check, Severity::Ok, "port 5023 is free for a " + kind + " sink", ""};
    const std::vector<PortUse> uses = listPortUses(udp, cFirst, cLast);
    std::set<std::uint32_t> sockets;
    for (const PortUse& use : uses)
        sockets.insert(use.socket);
    sockets.erase(0);
    const auto holders = findHolders(sockets);
    std::string text = "a " + kind + " sink moves to port " + std::to_string(free) + ": ";
    for (int port = cFirst; port < free; ++port) {
        const auto shown = static_cast<std::size_t>(port - cFirst);
        if (shown == cMostShown) {
            text += ", and so on";
            break;
        }
        text += (shown > 0 ? ", " : "") + std::to_string(port) + " is " + describeUse(port, uses, holders);
    }
    return {
        check, Severity::Warning, text,
        "give services the address that the sink publishes now; TIME_WAIT ends after a minute, and does not "
        "arise when callbacks read to the end of the stream"};
}

void checkPorts(Findings& findings, const std::string& address) {
    if (hostAddressObstacle())
        return;
    findings.push_back(judgePorts(false, address));
    findings.push_back(judgePorts(true, address));
}

std::optional<Finding> judgePipe(const PipeFile& file) {
    const std::string pipe = "pipe " + quoted(file.name);
    const std::string process = printable(describe(file.processes));
    switch (file.state) {
    case PipeState::Stolen:
        return Finding{"pipes", Severity::Problem,
                       pipe + " was stolen from process " + process + ": another socket has its path",
                       "restart the process; two sinks in one process, or two process name spaces that share "
                       "the directory, take each other's pipe"};
    case PipeState::Unlinked:
        return Finding{"pipes", Severity::Problem,
                       pipe + " of process " + process + " has lost its file: nobody can reach it",
                       "restart the process, and remove files there with vornnet pipes --clean only"};
    case PipeState::Contested:
        return Finding{"pipes", Severity::Problem,
                       pipe + " is claimed by several processes, one of which is reached: " + process,
                       "restart all but one of them under another name"};
    case PipeState::Dead:
        return Finding{"pipes", Severity::Warning, pipe + " is dead: senders are refused there",
                       "vornnet pipes --clean"};
    case PipeState::Listening:
        if (!file.isFull())
            return std::nullopt;
        return Finding{
            "pipes", Severity::Problem,
            pipe + " of process " + process + " has a full queue: its senders are blocked",
            "find out what its process is waiting for: a callback that does not return, or a client "
            "that sends nothing"};
    default:
        return std::nullopt;
    }
}

void checkPipes(Findings& findings) {
    std::vector<PipeFile> files;
    try {
        files = listPipeFiles();
    } catch (const ToolError&) {
        return; // told by the check of the directory
    }
    const std::size_t before = findings.size();
    for (const PipeFile& file : files) {
        if (const auto finding = judgePipe(file))
            findings.push_back(*finding);
    }
    if (findings.size() == before)
        findings.push_back({"pipes", Severity::Ok,
                            std::to_string(files.size()) + " entries, none of them dead, stolen or full",
                            ""});
}

void checkPathLength(Findings& findings) {
    findings.push_back({"path-length", Severity::Ok,
                        "the name of a pipe may have " + std::to_string(longestPipeName()) + " bytes", ""});
}

void checkDescriptors(Findings& findings) {
    constexpr rlim_t cEnough = 256;
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const std::string number = limit.rlim_cur == RLIM_INFINITY
                                   ? "unlimited"
                                   : std::to_string(static_cast<unsigned long>(limit.rlim_cur));
    if (limit.rlim_cur < cEnough)
        findings.push_back({"descriptors", Severity::Problem,
                            "a process may have " + number +
                                " descriptors only: a service that runs out of them can notify nobody",
                            "raise the limit: ulimit -n 1024, or LimitNOFILE= of the service's unit"});
    else
        findings.push_back(
            {"descriptors", Severity::Ok, "a process may have " + number + " descriptors", ""});
    std::ifstream file("/proc/sys/fs/file-nr");
    unsigned long open = 0;
    unsigned long unused = 0;
    unsigned long most = 0;
    if (file >> open >> unused >> most && open > most - most / 10)
        findings.push_back(
            {"descriptors", Severity::Problem,
             "the host has " + std::to_string(open) + " files open of at most " + std::to_string(most),
             "raise fs.file-max, or find the processes that have them open"});
}

std::string nameOf(Severity severity) {
    switch (severity) {
    case Severity::Ok:
        return "ok";
    case Severity::Warning:
        return "warning";
    case Severity::Problem:
        break;
    }
    return "problem";
}

void print(const Findings& findings) {
    constexpr std::array<int, 3> cColours = {32, 33, 31};
    for (const Finding& finding : findings) {
        std::string severity = nameOf(finding.severity);
        severity.resize(8, ' ');
        Output::line(Output::coloured(severity, cColours[static_cast<std::size_t>(finding.severity)]) + " " +
                     finding.check + ": " + finding.text);
        if (!finding.remedy.empty())
            Output::line("         remedy: " + finding.remedy);
    }
}

void printJson(const Findings& findings) {
    Json list = Json::array();
    for (const Finding& finding : findings) {
        Json object = {
            {"check", finding.check}, {"severity", nameOf(finding.severity)}, {"text", finding.text}};
        if (!finding.remedy.empty())
            object["remedy"] = finding.remedy;
        list.push_back(object);
    }
    Output::json({{"findings", list}});
}

int runDoctor(DoctorOptions& options) {
    const LibraryRecords records(options.logLevel);
    const std::string address = sinkHostAddress();
    Findings findings;
    checkPipeDirectory(findings);
    checkSinkType(findings);
    checkHostAddress(findings, address);
    checkPorts(findings, address);
    checkPipes(findings);
    checkPathLength(findings);
    checkDescriptors(findings);
    if (options.json)
        printJson(findings);
    else
        print(findings);
    const Severity limit = options.strict ? Severity::Warning : Severity::Problem;
    const bool found = std::any_of(findings.begin(), findings.end(),
                                   [limit](const Finding& finding) { return finding.severity >= limit; });
    return found ? exitProblems : exitDone;
}

} // namespace

void addDoctor(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<DoctorOptions>();
    CLI::App* command = addCommand(
        app, "doctor", "Find obstacles to notifications on this host, and their remedies", *options);
    command->add_flag("--strict", options->strict, "Let warnings count as problems in the exit status");
    addJsonOption(*command, *options);
    setRunner(command, runner, options, runDoctor);
}

} // namespace VornTool
