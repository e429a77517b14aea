// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_INTERRUPTIONS_H
#define VORNTEST_INTERRUPTIONS_H

#include <atomic>
#include <csignal>

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace VornTest {

/** While it exists, sendTo() ends a system call of a thread with EINTR. */
class InterruptingSignal {
public:
    /** @param flags of the handler, such as SA_RESTART */
    explicit InterruptingSignal(int flags = 0) {
        struct sigaction action = {};
        action.sa_flags = flags;
        action.sa_handler = [](int) {};
        ::sigaction(SIGUSR1, &action, &m_oldAction);
    }

    ~InterruptingSignal() { ::sigaction(SIGUSR1, &m_oldAction, nullptr); }

    InterruptingSignal(const InterruptingSignal&) = delete;
    InterruptingSignal& operator=(const InterruptingSignal&) = delete;

    static void sendTo(pid_t tid) { ::syscall(SYS_tgkill, ::getpid(), tid, SIGUSR1); }

private:
    struct sigaction m_oldAction = {};
};

/**
 * Interrupts the program every few milliseconds while it exists, by signals that are handled without
 * SA_RESTART. A thread that blocks SIGALRM is left in peace. There can be one at a time.
 */
class Interruptions {
public:
    explicit Interruptions(int milliseconds = 3) {
        s_count = 0;
        struct sigaction action = {};
        action.sa_handler = [](int) { ++s_count; };
        ::sigaction(SIGALRM, &action, &m_oldAction);
        const itimerval every = {{0, milliseconds * 1000}, {0, milliseconds * 1000}};
        ::setitimer(ITIMER_REAL, &every, nullptr);
    }

    ~Interruptions() {
        const itimerval never = {};
        ::setitimer(ITIMER_REAL, &never, nullptr);
        ::sigaction(SIGALRM, &m_oldAction, nullptr);
    }

    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;

    /** How many there have been. */
    static int count() { return s_count; }

private:
    struct sigaction m_oldAction = {};
    static inline std::atomic<int> s_count{0};
};

} // namespace VornTest

#endif
