// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_EVENTSENDER_H
#define VORNNOTIFY_EVENTSENDER_H

#include "PublisherConnections.h"
#include "SubscriberBook.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

namespace VornNet {

/**
 * Sends to the subscribers over their connections: the events to most, and gaps and signs of life also to
 * those whose events go to callback addresses. Each has its turn, and waits in one of three lists.
 *
 * For whoever has the sending thread's turn.
 */
class EventSender {
public:
    using TimePoint = ClientList::TimePoint;

    /** Why a subscriber is no more. */
    struct End {
        VornPublisher::Leaving leaving;
        int nCode;
    };

    /** @param blockedLimit for a subscriber that takes nothing */
    EventSender(PublisherConnections& connections, SubscriberBook& book, std::chrono::milliseconds beat,
                std::chrono::milliseconds blockedLimit);

    /** There is something to send to a subscriber, who may be new. */
    void add(PublisherClient& client) { m_connections.put(client, m_sending); }

    /** There may be something to send to a subscriber who is waiting for it. */
    void wakeUp(PublisherClient& client) {
        if (client.list == &m_idle)
            add(client);
    }

    /** @return whose turn it is, or null. */
    PublisherClient* next() { return m_sending.isEmpty() ? nullptr : &m_sending.first(); }

    /** @return what it means for a subscriber that its connection has failed with @p error. */
    static End endBy(int error);

    /** Sends, once. @return 0, or with which error the connection has failed */
    int send(PublisherClient& client);

    /** Deals with what the poll tells of a subscriber. @return the end, if it is one */
    std::optional<End> hear(PublisherClient& client, std::uint32_t events);

    /** @return a subscriber that has taken nothing for too long, or null. */
    PublisherClient* late() { return m_connections.now() >= m_blocked.due() ? &m_blocked.first() : nullptr; }

    /** @return a subscriber that needs a sign of life, or null. */
    PublisherClient* silent() { return m_connections.now() >= m_idle.due() ? &m_idle.first() : nullptr; }

    void giveSign(PublisherClient& client);

    /** @return when there is one that is late or silent. */
    TimePoint due() const { return std::min(m_idle.due(), m_blocked.due()); }

    /** @return any subscriber, or null. */
    PublisherClient* any();

    bool isBlocked(const PublisherClient& client) const { return client.list == &m_blocked; }

    /** @return whether everybody has everything. */
    bool isDone() const { return m_sending.isEmpty() && m_blocked.isEmpty(); }

    /** @return how many subscribers wait. */
    std::size_t waiting() const { return m_idle.size() + m_blocked.size(); }

    /** @return whether something has been sent since this was asked. */
    bool hasSent() { return std::exchange(m_hasSent, false); }

    TimePoint lastSending() const { return m_lastSending; }

private:
    PublisherConnections& m_connections;
    SubscriberBook& m_book;
    ClientList m_sending; // there is something to send, and the socket takes it; in turn
    ClientList m_idle;    // everything is sent
    ClientList m_blocked; // the socket takes no more
    bool m_hasSent = false;
    TimePoint m_lastSending{};
};

} // namespace VornNet

#endif
