// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_CHECKPOINT_H
#define VORNTEST_CHECKPOINT_H

#include "Await.h"

#include <condition_variable>
#include <mutex>

namespace VornTest {

/** Holds a thread up at a point until the test lets it go on. */
class Checkpoint {
public:
    /** A thread that is still on its way passes. */
    ~Checkpoint() { open(); }

    /** Called by the thread. */
    void pass() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_reached = true;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_open; });
    }

    bool awaitReached() {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, defaultLimit, [this] { return m_reached; });
    }

    void open() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_reached = false;
    bool m_open = false;
};

} // namespace VornTest

#endif
