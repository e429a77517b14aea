// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_SUBSCRIBERRECORD_H
#define VORNNOTIFY_SUBSCRIBERRECORD_H

#include "VornSubscriber.h"

#include <cstdint>
#include <mutex>
#include <optional>

namespace VornNet {

/**
 * What a subscriber says of itself: its status, its position and its sums. Whoever drives it writes, and any
 * thread asks; all is under a lock of its own, which is held for moments only.
 */
class SubscriberRecord {
public:
    using State = VornSubscriber::State;
    using Status = VornSubscriber::Status;
    using Statistics = VornSubscriber::Statistics;

    /** @param start the position before anything is called for */
    void begin(const VornPosition& start);

    Status status() const;
    VornPosition position() const;
    Statistics statistics() const;

    /** Adds one to a sum. */
    void count(std::uint64_t Statistics::*sum);

    void noteFailedTry();

    void noteSubscription(std::uint64_t newest);
    void noteNewest(std::uint64_t newest);
    void noteEvent(const VornPosition& position);

    /** @return the position before the gap. */
    VornPosition noteGap(std::uint64_t missed);

    /** Notes a state. @return what the program is to be told, unless it knows that, or has called stop() */
    std::optional<Status> enter(State state, const VornString& sReason, int nCode);

private:
    mutable std::mutex m_mutex;
    Status m_status;
    Statistics m_statistics;
    VornPosition m_last;
};

} // namespace VornNet

#endif
