// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_FORKEDCHILD_H
#define VORNTEST_FORKEDCHILD_H

#include "Await.h"

#include <cstdlib>
#include <functional>
#include <string>

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

/**
 * @file
 * Children that go on with the objects of the test, as a program that forks without exec does.
 */
namespace VornTest {

/** What statusOf() returns for a child that did not end. */
inline constexpr int hangs = -1;

/** Waits for a child: its exit status, or 128 plus the signal. One that does not end in time is killed. */
inline int statusOf(pid_t child) {
    int status = 0;
    if (!awaitCondition([&] { return ::waitpid(child, &status, WNOHANG) == child; })) {
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
        return hangs;
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

/** Forks a child that does @p work and ends with what it returns, without the handlers of exit(). */
inline pid_t forkChild(const std::function<int()>& work) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(60); // should the test be gone by then
        ::_exit(work());
    }
    return child;
}

/** Does @p work in a child and waits for it. */
inline int inChild(const std::function<int()>& work) {
    return statusOf(forkChild(work));
}

/** The status of programs that end in the midst of what they do. */
inline constexpr int exitStatus = 7;

/** Lets a child end as a program does, with the handlers of exit(). @return its status, which is 7 */
inline std::string childThatExits() {
    const pid_t child = ::fork();
    if (child == 0)
        std::exit(exitStatus);
    return std::to_string(statusOf(child));
}

/** Prints a line without a buffer: a child must not print again what its parent has printed. */
inline void printLine(const std::string& line) {
    const std::string data = line + "\n";
    if (::write(STDOUT_FILENO, data.data(), data.size()) != static_cast<ssize_t>(data.size()))
        std::abort();
}

} // namespace VornTest

#endif
