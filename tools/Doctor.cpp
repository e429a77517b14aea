// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Address.h"
#include "Command.h"
#include "ExitStatus.h"
#include "Finding.h"
#include "LibraryRecords.h"
#include "Output.h"
#include "PipeFiles.h"
#include "SinkObstacle.h"
#include "Usage.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace VornTool {

namespace {

struct DoctorOptions : CommonOptions {
    bool strict = false;
    bool monitor = false;
    pid_t pid = 0;
};

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
    const std::string remedy = std::string(::geteuid() == 0 ? "" : "sudo ") + "chmod 1770 " + path;
    if ((information.st_mode & S_IRWXO) != 0)
        findings.push_back(
            {check, Severity::Problem,
             "the pipe directory " + path + " is open to others (mode " + mode.data() +
                 "): anyone who can write there can take a server's name and its notifications",
             remedy});
    else if ((information.st_mode & (S_IWGRP | S_ISVTX)) == S_IWGRP)
        findings.push_back({check, Severity::Warning,
                            "the pipe directory " + path + " has no sticky bit (mode " + mode.data() +
                                "): members of its group can remove each other's pipes",
                            remedy});
    else if (findings.empty())
        findings.push_back({check, Severity::Ok, path + " is there and writable, mode " + mode.data(), ""});
}

void checkSinkType(Findings& findings, const std::optional<std::string>& value) {
    const std::string name = sinkTypeVariable;
    const std::string type = value.value_or("");
    if (!value)
        findings.push_back({"sink-type", Severity::Ok, name + " is not set: sinks use pipes", ""});
    else if (type == "pipe" || type == "socket" || type == "udp")
        findings.push_back({"sink-type", Severity::Ok, name + " is \"" + type + "\"", ""});
    else
        findings.push_back({"sink-type", Severity::Problem,
                            name + " is " + quoted(type) + ", which is no transport: sinks use pipes instead",
                            "unset " + name});
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

std::optional<Finding> judgePipe(const PipeFile& file) {
    const std::string pipe = "pipe " + quoted(file.name);
    const std::string process = printable(describe(file.processes));
    const std::string restart =
        file.processes.empty() ? "sudo vornnet pipes" : restartCommand(file.processes.front());
    switch (file.state) {
    case PipeState::Stolen:
        return Finding{
            "pipes", Severity::Problem,
            pipe + " was stolen from process " + process +
                ": another socket has its path (two sinks in one process, or two process name spaces "
                "that share the directory, take each other's pipe)",
            restart};
    case PipeState::Unlinked:
        return Finding{"pipes", Severity::Problem,
                       pipe + " of process " + process + " has lost its file: nobody can reach it", restart};
    case PipeState::Contested:
        return Finding{"pipes", Severity::Problem,
                       pipe + " is claimed by several processes, one of which is reached: " + process,
                       restart};
    default:
        return std::nullopt;
    }
}

/** All together: hundreds of them would bury what matters. */
void addDeadPipes(const std::vector<PipeFile>& files, Findings& findings) {
    constexpr std::size_t cMostShown = 3;
    std::vector<std::string> names;
    for (const PipeFile& file : files) {
        if (file.state == PipeState::Dead)
            names.push_back(quoted(file.name));
    }
    if (names.empty())
        return;
    std::string text = names.size() == 1 ? "pipe " : std::to_string(names.size()) + " pipes are dead: ";
    text += joined({names.begin(), names.begin() + std::min<long>(cMostShown, names.size())}, ", ");
    if (names.size() > cMostShown)
        text += " and " + std::to_string(names.size() - cMostShown) + " more";
    findings.push_back({"pipes", Severity::Warning,
                        text + (names.size() == 1 ? " is dead" : "") + "; senders are refused there",
                        "vornnet pipes --clean"});
}

void checkPipes(Findings& findings) {
    std::vector<PipeFile> files;
    try {
        files = listPipeFiles();
    } catch (const ToolError&) {
        return; // told by the check of the directory
    }
    const std::size_t before = findings.size();
    addDeadPipes(files, findings);
    for (const PipeFile& file : files) {
        if (const auto finding = judgePipe(file))
            findings.push_back(*finding);
    }
    if (findings.size() == before)
        findings.push_back({"pipes", Severity::Ok,
                            std::to_string(files.size()) + " entries, none of them dead or stolen", ""});
}

void checkPathLength(Findings& findings) {
    findings.push_back({"path-length", Severity::Ok,
                        "the name of a pipe may have " + std::to_string(longestPipeName()) + " bytes", ""});
}

void checkDescriptors(Findings& findings, pid_t pid) {
    constexpr rlim_t cEnough = 256;
    rlimit limit{};
    // Of another user's process it is not told.
    if (::prlimit(pid, RLIMIT_NOFILE, nullptr, &limit) != 0)
        return;
    const std::string number = limit.rlim_cur == RLIM_INFINITY
                                   ? "unlimited"
                                   : std::to_string(static_cast<unsigned long>(limit.rlim_cur));
    if (limit.rlim_cur < cEnough)
        findings.push_back(
            {"descriptors", Severity::Problem,
             "a process may have " + number +
                 " descriptors only: a service that runs out of them can notify nobody",
             pid == 0 ? "ulimit -n 1024" : "prlimit --nofile=1024:1024 --pid " + std::to_string(pid)});
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
             "sysctl fs.file-max=" + std::to_string(most * 2)});
}

/** What one process has that others may not have. */
Finding judgeProcess(const Process& process) {
    const std::string named = describeFully({process});
    const std::string check = "process";
    const std::string pid = std::to_string(process.pid);
    if (!isReadable(process.pid))
        return {check, Severity::Warning, "this user may not look into " + named,
                "sudo vornnet doctor --pid " + pid};
    if (!hasLoaded(process.pid, "libvornnet.so"))
        return {check, Severity::Problem,
                named + " has not loaded the library: it neither sends nor receives",
                "grep vornnet /proc/" + pid + "/maps"};

    struct stat information {};

    if (::stat(pipeDirectory().c_str(), &information) == 0 && !mayWrite(process.pid, information)) {
        const std::string group = nameOfGroup(information.st_gid);
        return {check, Severity::Problem,
                named + " may not use the pipe directory, which is for the group " + group,
                "usermod -aG " + group + " " + process.user + "; " + restartCommand(process)};
    }
    return {check, Severity::Ok, named + " has loaded the library and may use the pipe directory", ""};
}

std::string nameOf(Severity severity) {
    constexpr std::array cNames = {"ok", "warning", "problem"};
    return cNames.at(static_cast<std::size_t>(severity));
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
        if (!finding.processes.empty())
            object["processes"] = toJson(finding.processes);
        if (finding.since)
            object["seconds"] = std::chrono::duration<double>(*finding.since).count();
        list.push_back(object);
    }
    Output::json({{"findings", list}});
}

Findings examineHost() {
    Findings findings;
    const char* type = std::getenv(sinkTypeVariable);
    checkPipeDirectory(findings);
    checkSinkType(findings, type != nullptr ? std::optional<std::string>(type) : std::nullopt);
    const std::string address = sinkHostAddress();
    checkHostAddress(findings, address);
    if (!hostAddressObstacle())
        checkPorts(findings, address);
    checkPipes(findings);
    checkServers(findings, 0);
    checkPathLength(findings);
    checkDescriptors(findings, 0);
    return findings;
}

Findings examineProcess(pid_t pid) {
    const std::optional<Process> process = findProcess(pid);
    if (!process)
        throw ToolError(exitFailed, "there is no process " + std::to_string(pid));
    Findings findings = {judgeProcess(*process)};
    findings.back().processes = {*process};
    if (!isReadable(pid))
        return findings;
    checkSinkType(findings, environmentOf(pid, sinkTypeVariable));
    checkServers(findings, pid);
    checkDescriptors(findings, pid);
    return findings;
}

/** One line and a status, as programs that watch hosts expect them of a plug-in. */
int printForMonitor(const Findings& findings, Severity worst) {
    constexpr std::array<const char*, 3> cWords = {"OK", "WARNING", "CRITICAL"};
    std::string text;
    for (const Finding& finding : findings) {
        if (finding.severity != Severity::Ok && finding.severity == worst)
            text += (text.empty() ? "" : " | ") + finding.check + ": " + finding.text;
    }
    // What follows a bar would be taken for figures.
    std::replace(text.begin(), text.end(), '|', ';');
    Output::line(std::string("VORNNET ") + cWords[static_cast<std::size_t>(worst)] + " - " +
                 (text.empty() ? "nothing found" : text));
    return static_cast<int>(worst);
}

int runDoctor(DoctorOptions& options) {
    constexpr int cUnknown = 3;
    const LibraryRecords records(options.logLevel);
    Findings findings;
    try {
        findings = options.pid == 0 ? examineHost() : examineProcess(options.pid);
    } catch (const ToolError& error) {
        if (!options.monitor)
            throw;
        Output::line(std::string("VORNNET UNKNOWN - ") + error.what());
        return cUnknown;
    }
    Severity worst = Severity::Ok;
    for (const Finding& finding : findings)
        worst = std::max(worst, finding.severity);
    if (options.monitor)
        return printForMonitor(findings, worst);
    if (options.json)
        printJson(findings);
    else
        print(findings);
    return worst >= (options.strict ? Severity::Warning : Severity::Problem) ? exitProblems : exitDone;
}

} // namespace

void addDoctor(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<DoctorOptions>();
    CLI::App* command = addCommand(
        app, "doctor", "Find obstacles to notifications on this host, and their remedies", *options);
    command->add_flag("--strict", options->strict, "Let warnings count as problems in the exit status");
    command
        ->add_option("--pid", options->pid,
                     "Examine what process N has: its rights, its environment, its sinks and peers")
        ->type_name("N")
        ->check(atLeastOne());
    command->add_flag(
        "--monitor", options->monitor,
        "Print one line, and end as a monitoring plug-in does: 0 when all is well, 1 for warnings, "
        "2 for problems, 3 when it cannot be known");
    addJsonOption(*command, *options);
    setRunner(command, runner, options, runDoctor);
}

} // namespace VornTool
