// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RecordTrace.h"

#include "ExitStatus.h"
#include "Processes.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace VornTool {

namespace {

const std::string cTracing = "/sys/kernel/tracing/";

/** @return an errno value, 0 when the text was taken. */
int tryToWrite(const std::string& path, const std::string& text, int flags = O_WRONLY) {
    const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    if (fd == -1)
        return errno;
    const ssize_t count = ::write(fd, text.data(), text.size());
    const int error = count == -1 ? errno : 0;
    ::close(fd);
    return error;
}

void write(const std::string& path, const std::string& text, int flags = O_WRONLY) {
    if (const int error = tryToWrite(path, text, flags); error != 0)
        throw ToolError(exitFailed, "cannot trace: " + path + ": " + std::strerror(error));
}

/** @return a register by the kernel's name for the whole of it: "%ax" for "%eax" and "%rax". */
std::string registerOf(std::string name) {
    if (name.size() == 3 && (name[0] == 'e' || name[0] == 'r') && std::isalpha(name[1]) != 0)
        name.erase(0, 1);
    else if (name[0] == 'r' && std::isdigit(name[1]) != 0)
        name.erase(name.find_last_of("0123456789") + 1);
    return "%" + name;
}

/** @return "8@16(%rbx)" as the kernel writes it: "+16(%bx)". */
std::string placeOf(const std::string& argument) {
    const std::string place = argument.substr(argument.find('@') + 1);
    const std::size_t begin = place.find('(');
    if (place[0] == '$')
        return "\\" + place.substr(1);
    if (place[0] == '%')
        return registerOf(place.substr(1));
    // What is not of this kind, such as "16(%rbx,%rcx,8)", the kernel refuses.
    if (begin == std::string::npos || place.back() != ')' || place.find(',') != std::string::npos)
        throw ToolError(exitFailed, "cannot trace: the probe's argument " + argument + " is of another kind");
    const std::string offset = begin == 0 ? "+0" : (place[0] == '-' ? "" : "+") + place.substr(0, begin);
    return offset + "(" + registerOf(place.substr(begin + 2, place.size() - begin - 3)) + ")";
}

/** @return the number at the beginning of the text, 0 when there is none. */
template <typename Number>
Number numberAt(std::string_view text) {
    Number number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

std::string threadsOf(pid_t process) {
    std::string threads;
    for (const Thread& thread : listThreads(process))
        threads += std::to_string(thread.id) + " ";
    return threads;
}

} // namespace

RecordTrace::RecordTrace(pid_t process, const TracedLibrary& library)
    : m_event("vornnet/record_" + std::to_string(::getpid())),
      m_instance(cTracing + "instances/vornnet-" + std::to_string(::getpid()) + "/") {
    const ProbeSite site = library.probe("vornnet", "record");
    if (site.arguments.size() != 2)
        throw ToolError(exitFailed, "cannot trace: the probe of another version of the library");
    std::array<char, 20> offset;
    std::snprintf(offset.data(), offset.size(), "0x%lx", static_cast<unsigned long>(site.offset));
    remove();
    try {
        write(cTracing + "uprobe_events",
              "p:" + m_event + " " + library.path() + ":" + offset.data() + " level=" +
                  placeOf(site.arguments[0]) + ":s32 text=+0(" + placeOf(site.arguments[1]) + "):string\n",
              O_WRONLY | O_APPEND);
        if (::mkdir(m_instance.c_str(), 0700) == -1)
            throw ToolError(exitFailed, "cannot trace: " + m_instance + ": " + std::strerror(errno));
        write(m_instance + "trace_clock", "mono");
        write(m_instance + "buffer_percent", "0"); // else a reader is woken when half of the buffer is full
        write(m_instance + "options/event-fork", "1"); // its future threads, too
        write(m_instance + "set_event_pid", threadsOf(process));
        m_lines = ::open((m_instance + "trace_pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        write(m_instance + "events/" + m_event + "/enable", "1");
    } catch (...) {
        remove();
        throw;
    }
}

RecordTrace::~RecordTrace() {
    remove();
}

std::string RecordTrace::read() const {
    std::string lines;
    std::array<char, 16384> piece;
    for (ssize_t count = 0; (count = ::read(m_lines, piece.data(), piece.size())) > 0;)
        lines.append(piece.data(), static_cast<std::size_t>(count));
    return lines;
}

std::optional<TracedRecord> RecordTrace::parse(std::string_view line) {
    // As in: thread's name-17 [001] ..... 12.345678: record_4: (0x7f01) level=9 text="VornPipeServer::close"
    constexpr std::string_view cEvent = ": record_";
    constexpr std::string_view cLevel = ") level=";
    constexpr std::string_view cText = " text=\"";
    const std::size_t event = line.find(cEvent);
    const std::size_t level = line.find(cLevel, event);
    const std::size_t text = line.find(cText, level);
    if (text == std::string_view::npos || line.back() != '"' || line.size() - 1 < text + cText.size())
        return std::nullopt;
    const std::string_view head = line.substr(0, event);
    const std::size_t time = head.rfind(' ') + 1;
    const std::size_t processor = head.rfind(" [");
    const std::size_t thread = head.rfind('-', processor) + 1;
    const std::size_t begin = text + cText.size();
    return TracedRecord{numberAt<double>(head.substr(time)), numberAt<int>(head.substr(thread)),
                        numberAt<int>(line.substr(level + cLevel.size())),
                        std::string(line.substr(begin, line.size() - 1 - begin))};
}

void RecordTrace::remove() const {
    tryToWrite(m_instance + "events/" + m_event + "/enable", "0");
    if (m_lines != -1)
        ::close(m_lines);
    ::rmdir(m_instance.c_str());
    tryToWrite(cTracing + "uprobe_events", "-:" + m_event + "\n", O_WRONLY | O_APPEND);
}

} // namespace VornTool
