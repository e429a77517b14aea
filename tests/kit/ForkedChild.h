// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_FORKEDCHILD_H
#define VORNTEST_FORKEDCHILD_H

#include "Await.h"

#include <functional>

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

} // namespace VornTest

#endif
