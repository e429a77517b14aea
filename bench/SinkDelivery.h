// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNBENCH_SINKDELIVERY_H
#define VORNBENCH_SINKDELIVERY_H

#include "Bench.h"
#include "Pacing.h"
#include "PosixServer.h"

#include <VornLibraryCallbackSink.h>
#include <VornProxyDependent.h>

#include <atomic>

namespace Bench {

/**
 * Holds the receiver back until the sender has closed its end. It does so by itself as long as no tool stops
 * the threads; a TCP server that closes first would leave its port in TIME_WAIT and could not bind it again.
 */
class ClosingOrder {
public:
    void senderHasClosed() {
        if (isCounting())
            m_pacing.ready();
    }

    void awaitSender() {
        if (isCounting())
            m_pacing.awaitReady();
    }

private:
    Pacing m_pacing;
};

/** The sink's and the sender's system calls and nothing else. */
class PosixSink : public Contender {
public:
    explicit PosixSink(Road road);
    ~PosixSink() override;

    Clock::time_point operate() override;

private:
    void run();

    const Road m_road;
    PosixServer m_server; // the sink's thread opens it, and the sender looks at its address while it is open
    std::atomic<bool> m_isEnding;
    Pacing m_pacing;
    ClosingOrder m_order;
    Joined m_thread; // last: it uses the others
};

/** A sink of the library with so many callbacks, the first of which is notified through a proxy. */
class VornnetSink : public Contender {
public:
    VornnetSink(Road road, int callbacks);

    void prepare() override;
    Clock::time_point operate() override;

private:
    Pacing m_pacing;
    ClosingOrder m_order;
    ServerWatch m_watch;
    int m_kind; // set in the environment before the sink looks there
    VornNet::VornLibraryCallbackSink m_sink;
    VornSupport::VornNotification m_notification;
    std::unique_ptr<VornNet::VornProxyDependent> m_proxy;
};

} // namespace Bench

#endif
