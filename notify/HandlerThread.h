// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_HANDLERTHREAD_H
#define VORNNOTIFY_HANDLERTHREAD_H

#include "QuietThread.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace VornNet {

/** A thread that calls a program's handlers, one at a time in the order in which they were asked for. */
class HandlerThread {
public:
    /** @throws std::system_error */
    void start(const VornString& sName);

    /** Has the thread call @p call, which must not throw. */
    void post(std::function<void()> call);

    /** Waits until all calls that were asked for have returned, and for the thread's end. */
    void finish();

    /** @return whether the caller runs on this thread. */
    bool isCurrent() const { return m_thread.isCurrent(); }

private:
    void run();

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::function<void()>> m_calls;
    bool m_isFinishing = false;
    QuietThread m_thread;
};

} // namespace VornNet

#endif
