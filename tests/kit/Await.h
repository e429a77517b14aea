// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_AWAIT_H
#define VORNTEST_AWAIT_H

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/types.h>

/**
 * @file
 * Waiting for conditions, and threads whose state a test can watch. No test lets time pass by itself.
 */
namespace VornTest {

/** How long the kit waits for something which should happen at once. */
inline constexpr std::chrono::milliseconds defaultLimit{10000};

/** Polls @p condition until it is true; false if it was not within @p limit. */
bool awaitCondition(const std::function<bool()>& condition, std::chrono::milliseconds limit = defaultLimit);

/** The kernel's number of the calling thread. */
pid_t currentTid();

/** The kernel's numbers of all threads of this process, including the kit's watchdog. */
std::vector<pid_t> threadIds();

/** Waits until the thread is blocked in one of the system calls (SYS_...); false if it was not in time. */
bool awaitBlockedIn(pid_t tid, std::initializer_list<long> syscallNumbers);

/** awaitBlockedIn() for every call which waits for input or output: select, poll, accept, recv, send... */
bool awaitBlockedInIo(pid_t tid);

/** awaitBlockedIn() for mutexes, condition variables and joins. */
bool awaitBlockedOnLock(pid_t tid);

/** One line for each thread of this process: what it is called and where the kernel has it waiting. */
std::string describeThreads();

/**
 * A thread which can be watched and joined with a time limit.
 *
 * Its destructor joins without a limit, for the function may use the test's variables: a thread which never
 * ends is then found by the watchdog.
 */
class WatchedThread {
public:
    /** Starts @p work; what escapes from it is kept, see exceptionText(). */
    explicit WatchedThread(std::function<void()> work);
    ~WatchedThread();

    /** The kernel's number of the thread; waits for its start. */
    pid_t tid();

    /** For pthread_cancel() and the like; not after join(). */
    pthread_t handle() { return m_thread.native_handle(); }

    /** Whether the function has returned or thrown. */
    bool finished();

    /** Joins the thread; a function which does not end within @p limit is a test failure, and false. */
    bool join(std::chrono::milliseconds limit = defaultLimit);

    /** what() of the exception which ended the function, its type's name, or "cancelled". */
    std::optional<std::string> exceptionText();

    /** The exception itself, for a test of its type; null if there was none or the thread was cancelled. */
    std::exception_ptr exception();

private:
    void run(const std::function<void()>& work);
    void finish(std::exception_ptr exception, std::optional<std::string> text);

    std::mutex m_mutex;
    std::condition_variable m_changed;
    pid_t m_tid = 0;
    bool m_finished = false;
    std::exception_ptr m_exception;
    std::optional<std::string> m_exceptionText;
    std::thread m_thread;
};

} // namespace VornTest

#endif
