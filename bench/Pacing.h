// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNBENCH_PACING_H
#define VORNBENCH_PACING_H

#include "Bench.h"
#include "Sockets.h"

#include <atomic>

namespace Bench {

/**
 * Tells a sending thread when the receiving thread is ready for the next message.
 *
 * A System V semaphore does it because nothing else in the program uses one: its two calls per message can be
 * told from the calls of the job. They come after the end of what is measured.
 */
class Pacing {
public:
    Pacing();
    ~Pacing();

    Pacing(const Pacing&) = delete;
    Pacing& operator=(const Pacing&) = delete;

    /** The receiving thread has done everything and is about to wait for the next message. */
    void ready();

    /** @return when ready() was called; each call of it is waited for once */
    Clock::time_point awaitReady();

private:
    const int m_semaphore;
    std::atomic<Clock::time_point> m_time;
};

/**
 * Makes the call in which the road's server waits for its next client report to a pacing, on other threads
 * than the one that made this object. One at a time.
 */
class ServerWatch {
public:
    ServerWatch(Road road, Pacing& pacing);
    ~ServerWatch();

    ServerWatch(const ServerWatch&) = delete;
    ServerWatch& operator=(const ServerWatch&) = delete;
};

} // namespace Bench

#endif
