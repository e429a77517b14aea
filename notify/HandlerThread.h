// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_HANDLERTHREAD_H
#define VORNNOTIFY_HANDLERTHREAD_H

#include "QuietThread.h"

#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>

namespace VornNet {

/** A thread that calls a program's handlers, one at a time in the order in which they were asked for. */
class HandlerThread {
public:
    /** @throws std::system_error */
    void start(const VornString& sName);

    using Calls = std::list<std::function<void()>>;

    /** Has the thread call @p call, which must not throw. */
    void post(std::function<void()> call);

    /** The same for calls that were prepared when there was memory: needs none. Leaves @p prepared empty. */
    void post(Calls& prepared) noexcept;

    /** Waits until all calls that were asked for have returned, and for the thread's end. */
    void finish();

    /** @return whether the caller runs on this thread. */
    bool isCurrent() const { return m_thread.isCurrent(); }

private:
    void run();

    std::mutex m_mutex;
    std::condition_variable m_changed;
    Calls m_calls;
    bool m_isFinishing = false;
    QuietThread m_thread;
};

} // namespace VornNet

#endif
