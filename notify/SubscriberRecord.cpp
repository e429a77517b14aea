// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SubscriberRecord.h"

#include <algorithm>

namespace VornNet {

void SubscriberRecord::begin(const VornPosition& start) {
    m_last = start;
    m_status.since = std::chrono::system_clock::now();
}

VornSubscriber::Status SubscriberRecord::status() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_status;
}

VornPosition SubscriberRecord::position() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_last;
}

VornSubscriber::Statistics SubscriberRecord::statistics() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_statistics;
}

void SubscriberRecord::count(std::uint64_t Statistics::*sum) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++(m_statistics.*sum);
}

void SubscriberRecord::noteFailedTry() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_status.nTries;
}

void SubscriberRecord::noteSubscription(std::uint64_t newest) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_statistics.nSubscriptions;
    m_statistics.nNewest = newest;
    m_status.nTries = 0;
}

void SubscriberRecord::noteNewest(std::uint64_t newest) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_statistics.nNewest = newest;
}

void SubscriberRecord::noteEvent(const VornPosition& position) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_statistics.nEvents;
    m_statistics.nNewest = std::max(m_statistics.nNewest, position.nNumber);
    m_last = position;
}

VornPosition SubscriberRecord::noteGap(std::uint64_t missed) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_statistics.nGaps;
    m_statistics.nMissed += missed;
    return m_last;
}

std::optional<VornSubscriber::Status> SubscriberRecord::enter(State state, const VornString& sReason,
                                                              int nCode) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_status.state == State::stopped)
        return std::nullopt;
    const bool isKnown = m_status.state == state && m_status.sReason == sReason;
    if (m_status.state != state)
        m_status.since = std::chrono::system_clock::now();
    m_status.state = state;
    m_status.sReason = sReason;
    m_status.nCode = nCode;
    return isKnown ? std::nullopt : std::make_optional(m_status);
}

} // namespace VornNet
