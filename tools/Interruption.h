// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_INTERRUPTION_H
#define VORNTOOL_INTERRUPTION_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace VornTool {

/**
 * Turns SIGINT, SIGTERM and an optional time limit into an orderly end.
 *
 * A thread of its own takes the signals: a handler could call next to nothing, and a wait of the library that
 * is interrupted by one would end in its own way. On a signal it runs the given action (close the server),
 * and when the program has not ended after a while, or somebody asks a second time, it ends the process: a
 * blocked connect() or send() cannot be ended otherwise. Signals that come together are one request.
 */
class Interruption {
public:
    /** To be called before any thread is started, so that only this class gets the signals. */
    static void blockSignals();

    /**
     * @param grace  how long the program may take to end by itself
     * @param limit  end it after that time with exitUnreachable; zero for never
     */
    explicit Interruption(std::chrono::milliseconds grace,
                          std::chrono::milliseconds limit = std::chrono::milliseconds(0));
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    /** @param action runs on the thread, again and again until the program has ended */
    void onRequest(std::function<void()> action);

    /** @param report runs on the thread just before it ends the process, to tell what was done so far */
    void onForcedEnd(std::function<void()> report);

    bool isRequested() const { return m_status != 0; }

    /** @return the exit status of the request, 0 without one. */
    int status() const { return m_status; }

    /** Waits. @return false when a request came meanwhile */
    bool sleepFor(std::chrono::milliseconds time);

    /** Ends another thread's awaitChange(). */
    void wake();

    /** Waits for a request or wake(), at most for @p time. */
    void awaitChange(std::chrono::milliseconds time);

private:
    void run();
    int nextEvent(int timeout) const;
    void request(int status);
    bool isEndedInTime();

    const std::chrono::milliseconds m_grace;
    const std::chrono::milliseconds m_limit;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_woken = false;              // guarded by m_mutex
    std::function<void()> m_action;    // guarded by m_mutex
    std::function<void()> m_forcedEnd; // guarded by m_mutex
    std::atomic<int> m_status{0};
    int m_signals = -1;
    int m_stop = -1;
    std::thread m_thread;
};

} // namespace VornTool

#endif
