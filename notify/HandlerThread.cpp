// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "HandlerThread.h"

#include <utility>

namespace VornNet {

void HandlerThread::start(const VornString& sName) {
    m_thread.start(sName, [this] { run(); });
}

void HandlerThread::post(std::function<void()> call) {
    Calls calls;
    calls.push_back(std::move(call));
    post(calls);
}

void HandlerThread::post(Calls& prepared) noexcept {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.splice(m_calls.end(), prepared);
    m_changed.notify_one();
}

void HandlerThread::finish() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isFinishing = true;
        m_changed.notify_one();
    }
    m_thread.join();
}

void HandlerThread::run() {
    for (std::unique_lock<std::mutex> lock(m_mutex);;) {
        m_changed.wait(lock, [this] { return m_isFinishing || !m_calls.empty(); });
        if (m_calls.empty())
            return;
        std::function<void()> call = std::move(m_calls.front());
        m_calls.pop_front();
        lock.unlock();
        call();
        call = nullptr; // what it holds is let go of before the next one is waited for
        lock.lock();
    }
}

} // namespace VornNet
