// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Part of the kit in builds that measure coverage, and of no other. Processes that end by _exit() or abort(),
// std::terminate() included, run no exit handlers, and what they have covered would not be written down. The
// instrumented libraries write it in quick_exit() too, so the two functions are taken over here and make that
// call.
#include <csignal>
#include <cstdlib>

#include <sys/wait.h>
#include <unistd.h>

extern "C" [[noreturn]] void _exit(int status) {
    std::quick_exit(status);
}

extern "C" [[noreturn]] void abort() noexcept {
    // By a child: the process itself has to end by the signal, and what writing takes may just be failing
    // here.
    const pid_t child = ::fork();
    if (child == 0)
        std::quick_exit(0);
    if (child > 0)
        ::waitpid(child, nullptr, 0);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGABRT);
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    std::signal(SIGABRT, SIG_DFL);
    ::raise(SIGABRT);
    std::quick_exit(128 + SIGABRT);
}
