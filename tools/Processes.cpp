// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Processes.h"

#include "Output.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace VornTool {

namespace {

using Path = std::filesystem::path;

// Everything below may have ended by the time it is read, and then is empty.

std::string textOf(const Path& file) {
    const std::ifstream stream(file);
    std::ostringstream text;
    text << stream.rdbuf(); // an iterator would throw where the process ends before it is read
    return text.str();
}

std::string lineOf(const Path& file) {
    const std::string text = textOf(file);
    return text.substr(0, text.find('\n'));
}

Path directoryOf(pid_t pid) {
    return Path("/proc") / std::to_string(pid);
}

/** Calls @p function with each entry of a directory whose name is a number. */
template <typename Function>
void forEachNumber(const Path& directory, Function&& function) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (std::isdigit(static_cast<unsigned char>(name[0])) != 0)
            function(static_cast<int>(std::strtol(name.c_str(), nullptr, 10)), entry->path());
    }
}

/** @return the number in "socket:[123]", 0 for other links. */
std::uint32_t socketNumber(const Path& link) {
    const std::string prefix = "socket:[";
    std::error_code error;
    const std::string text = std::filesystem::read_symlink(link, error).string();
    return text.rfind(prefix, 0) == 0
               ? static_cast<std::uint32_t>(std::strtoul(text.c_str() + prefix.size(), nullptr, 10))
               : 0;
}

/** The numbers of a process's sockets, by their descriptors. */
using SocketTable = std::map<int, std::uint32_t>;

SocketTable socketsOf(pid_t pid) {
    SocketTable table;
    forEachNumber(directoryOf(pid) / "fd", [&table](int descriptor, const Path& link) {
        if (const std::uint32_t number = socketNumber(link); number != 0)
            table.emplace(descriptor, number);
    });
    return table;
}

Process processAt(pid_t pid, const Path& directory) {
    struct stat information {};

    ::stat(directory.c_str(), &information);
    return {pid, lineOf(directory / "comm"), nameOfUser(information.st_uid)};
}

/** What /proc/PID/task/TID/syscall says: the number of a system call and its arguments. */
struct Call {
    long number = -1;
    std::array<std::uint64_t, 3> arguments{};
};

Call callOf(const std::string& text) {
    Call call;
    std::istringstream stream(text);
    stream >> call.number >> std::hex;
    for (std::uint64_t& argument : call.arguments) {
        std::string word;
        stream >> word;
        argument = std::strtoull(word.c_str(), nullptr, 16);
    }
    return call;
}

/** Copies memory of another process. @return whether it could be read */
bool readMemory(pid_t pid, std::uint64_t from, void* to, std::size_t size) {
    const iovec local = {to, size};
    const iovec remote = {reinterpret_cast<void*>(from), size};
    return ::process_vm_readv(pid, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

std::vector<int> selected(pid_t pid, const Call& call) {
    std::vector<int> result;
    fd_set readable;
    FD_ZERO(&readable);
    const int count = static_cast<int>(std::min<std::uint64_t>(call.arguments[0], FD_SETSIZE));
    if (call.arguments[1] == 0 ||
        !readMemory(pid, call.arguments[1], &readable, static_cast<std::size_t>(count + 7) / 8))
        return result;
    for (int descriptor = 0; descriptor < count; ++descriptor) {
        if (FD_ISSET(descriptor, &readable))
            result.push_back(descriptor);
    }
    return result;
}

/** What an epoll descriptor watches, with its data: lines such as "tfd:  7 events:  19 data:  1  pos:0 ...".
 */
std::map<int, std::uint64_t> entriesOf(pid_t pid, std::uint64_t descriptor) {
    std::map<int, std::uint64_t> result;
    std::istringstream lines(textOf(directoryOf(pid) / "fdinfo" / std::to_string(descriptor)));
    for (std::string line; std::getline(lines, line);) {
        const std::size_t data = line.find("data:");
        if (line.rfind("tfd:", 0) == 0 && data != std::string::npos)
            result.emplace(static_cast<int>(std::strtol(line.c_str() + 4, nullptr, 10)),
                           std::strtoull(line.c_str() + data + 5, nullptr, 16));
    }
    return result;
}

std::vector<int> watched(pid_t pid, std::uint64_t descriptor) {
    std::vector<int> result;
    for (const auto& [number, data] : entriesOf(pid, descriptor))
        result.push_back(number);
    return result;
}

std::vector<int> polled(pid_t pid, const Call& call) {
    constexpr std::uint64_t cMost = 4096;
    std::vector<pollfd> entries(std::min(call.arguments[1], cMost));
    std::vector<int> result;
    if (entries.empty() ||
        !readMemory(pid, call.arguments[0], entries.data(), entries.size() * sizeof(pollfd)))
        return result;
    for (const pollfd& entry : entries) {
        if ((entry.events & POLLIN) == 0 || entry.fd < 0)
            continue;
        result.push_back(entry.fd);
        for (const int descriptor : watched(pid, static_cast<std::uint64_t>(entry.fd)))
            result.push_back(descriptor);
    }
    return result;
}

/** Which kind of wait a call is, and for which descriptors. */
std::vector<int> judge(pid_t pid, const Call& call, Thread& thread) {
    const std::vector<int> first = {static_cast<int>(call.arguments[0])};
    switch (call.number) {
    case SYS_accept:
    case SYS_accept4:
    case SYS_recvfrom:
    case SYS_recvmsg:
    case SYS_read:
    case SYS_readv:
        thread.wait = Thread::Wait::Arrival;
        return first;
    case SYS_sendto:
    case SYS_sendmsg:
    case SYS_write:
    case SYS_writev:
    case SYS_connect:
        thread.wait = Thread::Wait::Send;
        return first;
#ifdef SYS_select
    case SYS_select:
#endif
    case SYS_pselect6:
        thread.wait = Thread::Wait::Arrival;
        return selected(pid, call);
#ifdef SYS_poll
    case SYS_poll:
#endif
    case SYS_ppoll:
        thread.wait = Thread::Wait::Arrival;
        return polled(pid, call);
#ifdef SYS_epoll_wait
    case SYS_epoll_wait:
#endif
    case SYS_epoll_pwait:
    case SYS_epoll_pwait2:
        thread.wait = Thread::Wait::Arrival;
        return watched(pid, call.arguments[0]);
    default:
        thread.wait = Thread::Wait::Other;
        return {};
    }
}

/** When the thread ran last, in milliseconds of the scheduler's clock. */
std::optional<double> lastRun(const Path& directory) {
    const std::string text = textOf(directory / "sched");
    const std::size_t name = text.find("se.exec_start");
    const std::size_t colon = text.find(':', name);
    if (name == std::string::npos || colon == std::string::npos)
        return std::nullopt;
    return std::strtod(text.c_str() + colon + 1, nullptr);
}

std::optional<std::chrono::milliseconds> timeSinceRun(const Path& directory) {
    const std::optional<double> then = lastRun(directory);
    const std::optional<double> now = lastRun("/proc/thread-self");
    if (!then || !now)
        return std::nullopt;
    return std::chrono::milliseconds(static_cast<long>(std::max(0.0, *now - *then)));
}

/** The number in "voluntary_ctxt_switches:  123". */
std::uint64_t wakesOf(const Path& directory) {
    const std::string name = "\nvoluntary_ctxt_switches:";
    const std::string text = textOf(directory / "status");
    const std::size_t start = text.find(name);
    return start == std::string::npos ? 0 : std::strtoull(text.c_str() + start + name.size(), nullptr, 10);
}

Thread threadAt(pid_t pid, pid_t id, const Path& directory, const SocketTable& table) {
    Thread thread;
    thread.id = id;
    thread.since = timeSinceRun(directory);
    thread.wakes = wakesOf(directory);
    const std::string call = lineOf(directory / "syscall");
    if (call.rfind("running", 0) == 0)
        thread.wait = Thread::Wait::None;
    if (call.empty() || std::isdigit(static_cast<unsigned char>(call[0])) == 0)
        return thread;
    for (const int descriptor : judge(pid, callOf(call), thread)) {
        if (const auto found = table.find(descriptor); found != table.end())
            thread.sockets.insert(found->second);
    }
    return thread;
}

/** The unit of systemd that the process belongs to; empty where it is started by hand. */
std::string unitOf(pid_t pid) {
    const std::string group = lineOf(directoryOf(pid) / "cgroup");
    const std::string unit = group.substr(group.rfind('/') + 1);
    const std::string suffix = ".service";
    const bool isUnit =
        unit.size() > suffix.size() && unit.compare(unit.size() - suffix.size(), suffix.size(), suffix) == 0;
    return isUnit && group.find("/user@") == std::string::npos ? unit : "";
}

} // namespace

std::multimap<std::uint32_t, Process> listHolders() {
    std::multimap<std::uint32_t, Process> holders;
    forEachNumber("/proc", [&holders](pid_t pid, const Path& directory) {
        const SocketTable table = socketsOf(pid);
        if (table.empty())
            return;
        const Process process = processAt(pid, directory);
        std::set<std::uint32_t> numbers;
        for (const auto& [descriptor, number] : table)
            numbers.insert(number);
        for (const std::uint32_t number : numbers)
            holders.emplace(number, process);
    });
    return holders;
}

std::vector<Process> holdersOf(const std::multimap<std::uint32_t, Process>& holders, std::uint32_t number) {
    std::vector<Process> result;
    const auto [first, last] = holders.equal_range(number);
    std::transform(first, last, std::back_inserter(result), [](const auto& entry) { return entry.second; });
    return result;
}

std::vector<Thread> listThreads(pid_t pid) {
    std::vector<Thread> threads;
    const SocketTable table = socketsOf(pid);
    forEachNumber(directoryOf(pid) / "task", [&](pid_t id, const Path& directory) {
        threads.push_back(threadAt(pid, id, directory, table));
    });
    return threads;
}

std::map<std::uint32_t, std::uint64_t> watchedSockets(pid_t pid) {
    std::map<std::uint32_t, std::uint64_t> result;
    const SocketTable table = socketsOf(pid);
    forEachNumber(directoryOf(pid) / "fd", [&](int descriptor, const Path& link) {
        std::error_code error;
        if (std::filesystem::read_symlink(link, error) != "anon_inode:[eventpoll]")
            return;
        for (const auto& [number, data] : entriesOf(pid, static_cast<std::uint64_t>(descriptor))) {
            if (const auto found = table.find(number); found != table.end())
                result.emplace(found->second, data);
        }
    });
    return result;
}

bool isStopped(pid_t pid) {
    // "4711 (name) T ...": the name may hold anything, also brackets.
    const std::string text = lineOf(directoryOf(pid) / "stat");
    const std::size_t end = text.rfind(") ");
    return end != std::string::npos && (text[end + 2] == 'T' || text[end + 2] == 't');
}

std::optional<std::chrono::milliseconds> idleTime(pid_t pid) {
    std::optional<std::chrono::milliseconds> shortest;
    forEachNumber(directoryOf(pid) / "task", [&shortest](pid_t, const Path& directory) {
        const auto since = timeSinceRun(directory);
        if (since && (!shortest || *since < *shortest))
            shortest = since;
    });
    return shortest;
}

bool hasLoaded(pid_t pid, const std::string& library) {
    return textOf(directoryOf(pid) / "maps").find("/" + library) != std::string::npos;
}

std::string restartCommand(const Process& process) {
    if (const std::string unit = unitOf(process.pid); !unit.empty())
        return "systemctl restart " + shellWord(unit);
    std::string command = "kill " + std::to_string(process.pid) + ";";
    std::istringstream words(textOf(directoryOf(process.pid) / "cmdline"));
    for (std::string word; std::getline(words, word, '\0');)
        command += " " + shellWord(word);
    return command;
}

bool isReadable(pid_t pid) {
    std::error_code error;
    const std::filesystem::directory_iterator entry(directoryOf(pid) / "fd", error);
    return !error;
}

std::optional<std::string> environmentOf(pid_t pid, const std::string& variable) {
    const std::string prefix = variable + "=";
    std::istringstream words(textOf(directoryOf(pid) / "environ"));
    for (std::string word; std::getline(words, word, '\0');) {
        if (word.rfind(prefix, 0) == 0)
            return word.substr(prefix.size());
    }
    return std::nullopt;
}

bool mayWrite(pid_t pid, const struct stat& directory) {
    constexpr mode_t cNeeded = S_IWOTH | S_IXOTH;
    // "Uid: real effective ...", "Gid: real effective ...", "Groups: one another ..."
    std::istringstream lines(textOf(directoryOf(pid) / "status"));
    uid_t user = 0;
    std::set<gid_t> groups;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string name;
        unsigned int id = 0;
        words >> name;
        if (name == "Uid:")
            words >> id >> user;
        for (; (name == "Gid:" || name == "Groups:") && words >> id;)
            groups.insert(id);
    }
    if (user == 0)
        return true;
    const unsigned int shift = user == directory.st_uid ? 6 : groups.count(directory.st_gid) != 0 ? 3 : 0;
    return ((directory.st_mode >> shift) & cNeeded) == cNeeded;
}

std::optional<Process> findProcess(pid_t pid) {
    const Path directory = directoryOf(pid);
    std::error_code error;
    if (!std::filesystem::exists(directory, error))
        return std::nullopt;
    return processAt(pid, directory);
}

std::vector<std::string> processesNamed(const std::string& name) {
    std::vector<std::string> found;
    forEachNumber("/proc", [&](pid_t pid, const Path& directory) {
        if (pid != ::getpid() &&
            lineOf(directory / "comm") == name.substr(0, 15)) // the kernel keeps 15 bytes
            found.push_back(std::to_string(pid));
    });
    return found;
}

std::string nameOfUser(uid_t user) {
    std::array<char, 4096> buffer;
    passwd entry{};
    passwd* found = nullptr;
    ::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found);
    return found != nullptr ? found->pw_name : std::to_string(user);
}

std::string nameOfGroup(gid_t group) {
    std::array<char, 4096> buffer;
    ::group entry{};
    ::group* found = nullptr;
    ::getgrgid_r(group, &entry, buffer.data(), buffer.size(), &found);
    return found != nullptr ? found->gr_name : std::to_string(group);
}

std::string shellWord(const std::string& word) {
    const std::string text = printable(word);
    const bool isPlain = !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char character) {
        return std::isalnum(character) != 0 ||
               std::string("-_./:=,@+%").find(static_cast<char>(character)) != std::string::npos;
    });
    if (isPlain)
        return text;
    std::string result = "'";
    for (const char character : text)
        result += character == '\'' ? std::string("'\\''") : std::string(1, character);
    return result + "'";
}

std::string describe(const std::vector<Process>& processes) {
    std::string result;
    for (const Process& process : processes)
        result += (result.empty() ? "" : ", ") + std::to_string(process.pid) + " (" + process.name + ")";
    return result.empty() ? "?" : result;
}

nlohmann::ordered_json toJson(const std::vector<Process>& processes) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const Process& process : processes)
        list.push_back({{"pid", process.pid}, {"name", process.name}, {"user", process.user}});
    return list;
}

std::string describeFully(const std::vector<Process>& processes) {
    std::string result;
    for (const Process& process : processes)
        result += (result.empty() ? "process " : ", process ") + std::to_string(process.pid) + " (" +
                  printable(process.name) + ", user " + process.user + ")";
    return result.empty() ? "a process that cannot be seen" : result;
}

} // namespace VornTool
