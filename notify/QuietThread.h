// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_QUIETTHREAD_H
#define VORNNOTIFY_QUIETTHREAD_H

#include <VornNetExport.h>
#include <VornString.h>

#include <atomic>
#include <functional>
#include <thread>

namespace VornNet {

/**
 * A thread of the library's own: it has all signals blocked, so that a program's handlers run on the
 * program's threads, and its pauses end on time. It is joined or detached before it is destroyed.
 */
class QuietThread {
public:
    /**
     * Starts @p run; when this returns, the thread has its name.
     * @param sName the system sees its first 15 bytes
     * @throws std::system_error, std::bad_alloc
     */
    void start(const VornString& sName, std::function<void()> run);

    /**
     * @return whether the caller runs on such a thread and has called exit(), which destroys there what is
     * static: the thread never comes back to what it was doing.
     */
    static bool isExiting();

    /** Waits for the end; at once when it was not started, or has been joined. */
    void join();

    /** Lets the thread end by itself; what it uses must not need its owner. */
    void detach() { m_thread.detach(); }

    /** @return whether the caller runs on this thread. */
    bool isCurrent() const { return m_id.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

private:
    std::thread m_thread;
    std::atomic<std::thread::id>
        m_id; // while it runs, for the system may give it to another thread afterwards
};

} // namespace VornNet

#endif
