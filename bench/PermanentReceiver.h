// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNBENCH_PERMANENTRECEIVER_H
#define VORNBENCH_PERMANENTRECEIVER_H

#include "Pacing.h"
#include "PosixServer.h"

#include <string>

namespace Bench {

/** A plain receiver that listens all the time and takes one notification per connection. */
class PermanentReceiver {
public:
    /** @param batch how many notifications the sender waits for at a time */
    PermanentReceiver(Road road, int batch);
    ~PermanentReceiver();

    const Address& address() const { return m_address; }

    /** The same in the form in which a service is told of it. */
    std::string callbackAddress() const;

    /** Waits until the batch has been received. @return when it was */
    Clock::time_point awaitBatch() { return m_pacing.awaitReady(); }

    static constexpr const char* cPipeName = "bench-receiver";
    static constexpr int cPort = 5901;

private:
    void run();

    const Road m_road;
    const Address m_address;
    const int m_batch;
    const int m_listener;
    Pacing m_pacing;
    Joined m_thread; // last: it uses the others
};

} // namespace Bench

#endif
