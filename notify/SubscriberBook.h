// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_SUBSCRIBERBOOK_H
#define VORNNOTIFY_SUBSCRIBERBOOK_H

#include "PublisherClient.h"
#include "PublisherTopic.h"
#include "VornPublisher.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

namespace VornNet {

/**
 * What a publisher's threads share: who is subscribed, how far each has got, and the sums. All is under its
 * lock, which is held for moments only; the sending thread writes, and any thread asks.
 */
class SubscriberBook {
public:
    using Statistics = VornPublisher::Statistics;

    explicit SubscriberBook(const PublisherTopics& topics) : m_topics(topics) {}

    std::vector<VornPublisher::Subscriber> subscribers() const;
    Statistics statistics() const;

    /** Waits until all has been sent that is published now. @return false when the time has come */
    bool flush(std::chrono::milliseconds timeLimit);

    /** Notes that a subscriber is to be dropped. @return false when there is none, or it was noted before */
    bool noteDrop(std::uint64_t nId);

    // For the sending thread.

    /** @return the subscriber of that id, or null. */
    PublisherClient* find(std::uint64_t nId) const;

    std::size_t size() const;

    /** Adds one to a sum. */
    void count(std::uint64_t Statistics::*sum);

    /** From here on it is a subscriber. @param gap that it is told of @throws std::bad_alloc */
    void enter(PublisherClient& client, const PublisherClient::Sent& gap);

    /** Notes what a subscriber was sent, and where it is. */
    void note(PublisherClient& client, const PublisherClient::Sent& sent);

    void remove(const PublisherClient& client);

private:
    const PublisherTopics& m_topics;
    mutable std::mutex m_mutex; // guards all below, and in each client what it says
    std::condition_variable m_changed;
    std::map<std::uint64_t, PublisherClient*> m_subscribers;
    Statistics m_statistics;
};

} // namespace VornNet

#endif
