// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Command.h"
#include "ExitStatus.h"
#include "Interruption.h"
#include "Output.h"
#include "Processes.h"
#include "RecordTrace.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstring>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace VornTool {

namespace {

struct FollowOptions : CommonOptions {
    std::string process;
    std::string className;
    int level = 9;
    long count = 0;
};

pid_t findProcess(const std::string& text) {
    pid_t process = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), process);
    if (error == std::errc() && end == text.data() + text.size() && process > 0)
        return process;
    const std::vector<std::string> found = processesNamed(text);
    if (found.empty())
        throw ToolError(exitUnreachable, "there is no process " + quoted(text));
    if (found.size() > 1)
        throw ToolError(exitUsage,
                        "more than one process has the name " + quoted(text) + ": " + joined(found, " "));
    return std::stoi(found[0]);
}

/** Records begin with the name of the class and function that wrote them. */
bool isOfClass(const std::string& text, const std::string& className) {
    return className.empty() || text.rfind(className + "::", 0) == 0;
}

std::string timeOf(const TracedRecord& record) {
    using std::chrono::microseconds;
    const auto sinceBoot = std::chrono::steady_clock::now().time_since_epoch();
    const auto start = std::chrono::system_clock::now().time_since_epoch() - sinceBoot;
    return timeText(
        std::chrono::duration_cast<microseconds>(start) + microseconds(std::llround(record.time * 1e6)), 6);
}

/**
 * Raises the level of the records that another process writes, while it exists.
 *
 * The records above the program's own level are for tracers only: the library keeps them from the program's
 * handler and from its standard error. A program that sets its level meanwhile takes the raise back.
 */
class AdmittedLevel {
public:
    /** @throws ToolError when the process's memory cannot be written */
    AdmittedLevel(pid_t process, const TracedLibrary& library, int level);
    ~AdmittedLevel();
    AdmittedLevel(const AdmittedLevel&) = delete;
    AdmittedLevel& operator=(const AdmittedLevel&) = delete;

    /** Sets it back, unless the program has set another one meanwhile; also for a forced end. */
    void restore() const;

private:
    bool transfer(bool isRead, int& value, std::uint64_t address) const;

    pid_t m_process;
    std::uint64_t m_address;
    int m_raised;
    int m_before = 0;
    bool m_isRaised = false;
};

AdmittedLevel::AdmittedLevel(pid_t process, const TracedLibrary& library, int level)
    : m_process(process), m_address(library.addressOf("_ZN11VornSupport11VornLogging16s_nAdmittedLevelE")),
      m_raised(level) {
    m_isRaised = transfer(true, m_before, m_address) && m_before < level;
    if (m_isRaised && !transfer(false, level, m_address))
        throw ToolError(exitFailed, std::string("cannot raise the level: ") + std::strerror(errno));
}

AdmittedLevel::~AdmittedLevel() {
    restore();
}

void AdmittedLevel::restore() const {
    int level = 0;
    int before = m_before;
    if (m_isRaised && transfer(true, level, m_address) && level == m_raised)
        transfer(false, before, m_address);
}

bool AdmittedLevel::transfer(bool isRead, int& value, std::uint64_t address) const {
    iovec here{&value, sizeof value};
    iovec there{reinterpret_cast<void*>(address), sizeof value};
    const ssize_t count = isRead ? ::process_vm_readv(m_process, &here, 1, &there, 1, 0)
                                 : ::process_vm_writev(m_process, &here, 1, &there, 1, 0);
    return count == sizeof value;
}

/** Prints the records of the lines of a trace. */
class RecordPrinter {
public:
    RecordPrinter(pid_t process, const FollowOptions& options) : m_process(process), m_options(options) {}

    void take(const std::string& piece) {
        m_lines += piece;
        // A text may contain line ends; its record ends with a quote.
        for (std::size_t end = 0; !isDone() && (end = m_lines.find('\n', end)) != std::string::npos; ++end) {
            const std::optional<TracedRecord> record = RecordTrace::parse(m_lines.substr(0, end));
            if (!record && m_lines.find(": record_") < end && m_lines[end - 1] != '"')
                continue;
            if (record)
                print(*record);
            m_lines.erase(0, end + 1);
            end = static_cast<std::size_t>(-1);
        }
    }

    bool isDone() const { return m_options.count > 0 && m_printed >= m_options.count; }

private:
    void print(const TracedRecord& record) {
        if (record.level > m_options.level || !isOfClass(record.text, m_options.className))
            return;
        ++m_printed;
        const std::string time = timeOf(record);
        Output::either(m_options.json,
                       {{"event", "record"},
                        {"time", time},
                        {"level", record.level},
                        {"pid", m_process},
                        {"tid", record.thread},
                        {"text", record.text}},
                       time + " " + std::to_string(record.level) + " [" + std::to_string(m_process) + ":" +
                           std::to_string(record.thread) + "] " + printable(record.text));
    }

    pid_t m_process;
    const FollowOptions& m_options;
    std::string m_lines;
    long m_printed = 0;
};

int runFollow(FollowOptions& options) {
    const pid_t process = findProcess(options.process);
    const int ended = static_cast<int>(::syscall(SYS_pidfd_open, process, 0));
    if (ended == -1)
        throw ToolError(exitUnreachable, "there is no process " + std::to_string(process));
    const TracedLibrary library(process, "libvornsupt.so.");
    const int wake = ::eventfd(0, EFD_CLOEXEC);
    const RecordTrace trace(process, library);
    const AdmittedLevel level(process, library, options.level);
    Interruption interruption(std::chrono::milliseconds(2000));
    interruption.onRequest([wake] { ::eventfd_write(wake, 1); });
    interruption.onForcedEnd([&] { // a pager that reads no more holds this thread up for good
        level.restore();
        trace.remove();
    });
    Output::either(options.json, {{"event", "following"}, {"pid", process}, {"level", options.level}},
                   "following process " + std::to_string(process) + " up to level " +
                       std::to_string(options.level));
    RecordPrinter printer(process, options);
    std::array<pollfd, 3> events{{{trace.descriptor(), POLLIN, 0}, {ended, POLLIN, 0}, {wake, POLLIN, 0}}};
    while (!printer.isDone() && !Output::isLost() && !interruption.isRequested()) {
        ::poll(events.data(), events.size(), -1);
        printer.take(trace.read());
        if (events[1].revents != 0) {
            Output::diagnostic("process " + std::to_string(process) + " has ended");
            break;
        }
    }
    return interruption.status();
}

} // namespace

void addFollow(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<FollowOptions>();
    CLI::App* command =
        addCommand(app, "follow", "Show the library's log records of a running process", *options);
    command->add_option("PROCESS", options->process, "The process's id, or its program's name")->required();
    command
        ->add_option("--level", options->level, "Records up to level N, whatever the program's own level is")
        ->type_name("N")
        ->check(CLI::Range(0, 9))
        ->capture_default_str();
    command->add_option("--class", options->className, "Only records of the class NAME")->type_name("NAME");
    command->add_option("--count", options->count, "End after N records")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
    addJsonOption(*command, *options);
    setRunner(command, runner, options, runFollow);
}

} // namespace VornTool
