// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_PROCESS_H
#define VORNTEST_PROCESS_H

#include "Await.h"
#include "Posix.h"

#include <chrono>
#include <string>
#include <vector>

#include <sys/types.h>

/**
 * @file
 * Child processes, which are either other programs or functions of the test program run in a new process.
 */
namespace VornTest {

/** What a role does in its process; the result is the exit status. */
using RoleFunction = int (*)(const std::vector<std::string>& args);

/** Makes a role known; used by #KIT_ROLE. */
bool registerRole(const std::string& name, RoleFunction function);

/** Runs the role called @p name in this process; used by main(). */
int runRole(const std::string& name, const std::vector<std::string>& args);

/**
 * A child process whose standard input, output and error are pipes to the test.
 *
 * A child inherits no other descriptor. It is in the test's sandbox. The destructor kills and reaps it.
 * Functions with a limit throw std::system_error (ETIMEDOUT) if it is exceeded.
 */
class ChildProcess {
public:
    /**
     * Starts a program.
     *
     * @param arguments   the program, sought in PATH, and its arguments
     * @param environment additions to the environment "NAME=value"; a "NAME" alone is taken away
     */
    static ChildProcess spawn(const std::vector<std::string>& arguments,
                              const std::vector<std::string>& environment = {});

    /** Starts the role defined by KIT_ROLE(@p role). */
    template <typename... Arguments>
    static ChildProcess spawnRole(const std::string& role, const Arguments&... arguments) {
        return spawnRoleWith({}, role, {std::string(arguments)...});
    }

    /** The same with a changed environment, see spawn(). */
    static ChildProcess spawnRoleWith(const std::vector<std::string>& environment, const std::string& role,
                                      const std::vector<std::string>& arguments = {});

    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess& operator=(ChildProcess&& other) noexcept;
    ~ChildProcess();

    pid_t pid() const { return m_pid; }

    /** The next line of standard output without its end; ENODATA if there is none to come. */
    std::string readLine(std::chrono::milliseconds limit = defaultLimit);

    /** Writes @p line and a line end to the child's standard input. */
    void writeLine(const std::string& line);

    /** Ends the child's standard input. */
    void closeInput();

    /** What is left of standard output, up to its end. */
    std::string readAllOutput(std::chrono::milliseconds limit = std::chrono::seconds(30));

    /** What is left of standard error, up to its end. */
    std::string readAllErrors(std::chrono::milliseconds limit = std::chrono::seconds(30));

    /** Waits for the end: the exit status, or 128 plus the signal. */
    int wait(std::chrono::milliseconds limit = std::chrono::seconds(30));

    /** Sends a signal, unless the child has been reaped. */
    void kill(int signalNumber);

private:
    struct Stream {
        UniqueFd fd;
        std::string text;
    };

    ChildProcess() = default;
    void start(const std::string& program, const std::vector<std::string>& arguments,
               const std::vector<std::string>& environment);
    void pump(std::chrono::milliseconds limit);
    std::string takeAll(Stream& stream, std::chrono::milliseconds limit);
    bool reap(int options);
    void killAndReap();

    pid_t m_pid = -1;
    bool m_reaped = true;
    int m_status = 0;
    UniqueFd m_input;
    Stream m_output;
    Stream m_errors;
};

} // namespace VornTest

/**
 * Defines a function which can be run in a process of its own:
 * `KIT_ROLE(echo) { std::cout << args.at(0) << std::endl; return 0; }`
 * and in a test `ChildProcess child = ChildProcess::spawnRole("echo", "text");`. At file scope only.
 */
#define KIT_ROLE(name)                                                                                       \
    static int kitRole_##name(const std::vector<std::string>& args);                                         \
    [[maybe_unused]] static const bool kitRoleRegistered_##name =                                            \
        ::VornTest::registerRole(#name, &kitRole_##name);                                                    \
    static int kitRole_##name([[maybe_unused]] const std::vector<std::string>& args)

#endif
