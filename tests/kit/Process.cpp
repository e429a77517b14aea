// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Process.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace VornTest {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

[[noreturn]] void fail(const std::string& what, int error = errno) {
    throw std::system_error(error, std::generic_category(), what);
}

void check(int error, const std::string& what) {
    if (error != 0)
        fail(what, error);
}

std::map<std::string, RoleFunction>& roles() {
    // Roles are registered while the objects of other files are being constructed.
    static std::map<std::string, RoleFunction> instance;
    return instance;
}

struct Pipe {
    UniqueFd readEnd;
    UniqueFd writeEnd;
};

Pipe makePipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        fail("pipe2()");
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

/** What is different in the new process. */
class SpawnChanges {
public:
    SpawnChanges() {
        check(::posix_spawn_file_actions_init(&m_actions), "posix_spawn_file_actions_init()");
        check(::posix_spawnattr_init(&m_attributes), "posix_spawnattr_init()");
        // The test program ignores SIGPIPE, which a program of somebody else does not expect.
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGPIPE);
        check(::posix_spawnattr_setsigdefault(&m_attributes, &signals), "posix_spawnattr_setsigdefault()");
        check(::posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGDEF), "posix_spawnattr_setflags()");
    }

    ~SpawnChanges() {
        ::posix_spawnattr_destroy(&m_attributes);
        ::posix_spawn_file_actions_destroy(&m_actions);
    }

    SpawnChanges(const SpawnChanges&) = delete;
    SpawnChanges& operator=(const SpawnChanges&) = delete;

    void duplicate(const UniqueFd& fd, int number) {
        check(::posix_spawn_file_actions_adddup2(&m_actions, fd.get(), number), "posix_spawn adddup2");
    }

    void closeFrom(int number) {
        check(::posix_spawn_file_actions_addclosefrom_np(&m_actions, number), "posix_spawn addclosefrom");
    }

    const posix_spawn_file_actions_t* actions() const { return &m_actions; }

    const posix_spawnattr_t* attributes() const { return &m_attributes; }

private:
    posix_spawn_file_actions_t m_actions;
    posix_spawnattr_t m_attributes;
};

std::string nameOf(const std::string& setting) {
    return setting.substr(0, setting.find('='));
}

std::vector<std::string> changedEnvironment(const std::vector<std::string>& changes) {
    std::vector<std::string> result;
    for (char** setting = environ; *setting != nullptr; ++setting) {
        const bool changed = std::any_of(changes.begin(), changes.end(), [&](const std::string& change) {
            return nameOf(change) == nameOf(*setting);
        });
        if (!changed)
            result.emplace_back(*setting);
    }
    std::copy_if(changes.begin(), changes.end(), std::back_inserter(result),
                 [](const std::string& change) { return change.find('=') != std::string::npos; });
    return result;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts)
        result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

milliseconds remainingOrFail(Clock::time_point end, const char* what) {
    const auto result = std::chrono::ceil<milliseconds>(end - Clock::now());
    if (result.count() <= 0)
        fail(what, ETIMEDOUT);
    return result;
}

void receive(int fd, UniqueFd& owner, std::string& text) {
    std::array<char, 4096> buffer;
    const ssize_t count = ::read(fd, buffer.data(), buffer.size());
    if (count > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
        owner.reset();
    }
}

} // namespace

bool registerRole(const std::string& name, RoleFunction function) {
    if (!roles().emplace(name, function).second) {
        std::fprintf(stderr, "there are two roles called %s\n", name.c_str());
        std::abort();
    }
    return true;
}

int runRole(const std::string& name, const std::vector<std::string>& args) {
    const auto role = roles().find(name);
    if (role == roles().end()) {
        std::fprintf(stderr, "there is no role called %s\n", name.c_str());
        return 2;
    }
    try {
        return role->second(args);
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "role %s: %s\n", name.c_str(), exception.what());
        return 125;
    }
}

ChildProcess ChildProcess::spawn(const std::vector<std::string>& arguments,
                                 const std::vector<std::string>& environment) {
    ChildProcess child;
    child.start(arguments.at(0), arguments, environment);
    return child;
}

ChildProcess ChildProcess::spawnRoleWith(const std::vector<std::string>& environment, const std::string& role,
                                         const std::vector<std::string>& arguments) {
    std::vector<std::string> all = {std::filesystem::read_symlink("/proc/self/exe"), "--kit-role", role};
    all.insert(all.end(), arguments.begin(), arguments.end());
    ChildProcess child;
    // The path may be hidden by the sandbox's mounts or have been replaced since, the link is neither.
    child.start("/proc/self/exe", all, environment);
    return child;
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept {
    *this = std::move(other);
}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
    killAndReap();
    m_pid = std::exchange(other.m_pid, -1);
    m_reaped = std::exchange(other.m_reaped, true);
    m_status = other.m_status;
    m_input = std::move(other.m_input);
    m_output = std::move(other.m_output);
    m_errors = std::move(other.m_errors);
    return *this;
}

ChildProcess::~ChildProcess() {
    killAndReap();
}

void ChildProcess::start(const std::string& program, const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment) {
    Pipe input = makePipe();
    Pipe output = makePipe();
    Pipe errors = makePipe();
    SpawnChanges changes;
    changes.duplicate(input.readEnd, STDIN_FILENO);
    changes.duplicate(output.writeEnd, STDOUT_FILENO);
    changes.duplicate(errors.writeEnd, STDERR_FILENO);
    changes.closeFrom(STDERR_FILENO + 1);
    std::vector<std::string> ownArguments = arguments;
    std::vector<std::string> ownEnvironment = changedEnvironment(environment);
    check(::posix_spawnp(&m_pid, program.c_str(), changes.actions(), changes.attributes(),
                         pointersTo(ownArguments).data(), pointersTo(ownEnvironment).data()),
          "posix_spawnp(" + program + ")");
    m_reaped = false;
    m_input = std::move(input.writeEnd);
    m_output.fd = std::move(output.readEnd);
    m_errors.fd = std::move(errors.readEnd);
}

std::string ChildProcess::readLine(milliseconds limit) {
    const Clock::time_point end = Clock::now() + limit;
    std::size_t lineEnd = 0;
    while ((lineEnd = m_output.text.find('\n')) == std::string::npos) {
        if (!m_output.fd)
            fail("no more output of the child; its errors: " + m_errors.text, ENODATA);
        pump(remainingOrFail(end, "readLine()"));
    }
    const std::string line = m_output.text.substr(0, lineEnd);
    m_output.text.erase(0, lineEnd + 1);
    return line;
}

void ChildProcess::writeLine(const std::string& line) {
    const std::string text = line + '\n';
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = ::write(m_input.get(), text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR)
            fail("write() to the child");
        done += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
}

void ChildProcess::closeInput() {
    m_input.reset();
}

std::string ChildProcess::readAllOutput(milliseconds limit) {
    return takeAll(m_output, limit);
}

std::string ChildProcess::readAllErrors(milliseconds limit) {
    return takeAll(m_errors, limit);
}

int ChildProcess::wait(milliseconds limit) {
    // A child which writes more than a pipe holds ends only if somebody reads.
    const bool ended = awaitCondition(
        [this] {
            pump(milliseconds(0));
            return reap(WNOHANG);
        },
        limit);
    if (!ended)
        fail("wait() for the child", ETIMEDOUT);
    return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : 128 + WTERMSIG(m_status);
}

void ChildProcess::kill(int signalNumber) {
    if (!m_reaped && ::kill(m_pid, signalNumber) != 0)
        fail("kill()");
}

void ChildProcess::pump(milliseconds limit) {
    std::array<pollfd, 2> entries = {pollfd{m_output.fd.get(), POLLIN, 0},
                                     pollfd{m_errors.fd.get(), POLLIN, 0}};
    if (::poll(entries.data(), entries.size(), static_cast<int>(limit.count())) <= 0)
        return;
    if (entries[0].revents != 0)
        receive(entries[0].fd, m_output.fd, m_output.text);
    if (entries[1].revents != 0)
        receive(entries[1].fd, m_errors.fd, m_errors.text);
}

std::string ChildProcess::takeAll(Stream& stream, milliseconds limit) {
    const Clock::time_point end = Clock::now() + limit;
    while (stream.fd)
        pump(remainingOrFail(end, "reading all of the child's output"));
    return std::exchange(stream.text, {});
}

bool ChildProcess::reap(int options) {
    if (!m_reaped)
        m_reaped = ::waitpid(m_pid, &m_status, options) == m_pid;
    return m_reaped;
}

void ChildProcess::killAndReap() {
    if (!m_reaped) {
        ::kill(m_pid, SIGKILL);
        while (!reap(0) && errno == EINTR) {
        }
    }
}

} // namespace VornTest
