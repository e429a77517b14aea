// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_CALLBACKSUBSCRIBERS_H
#define VORNNOTIFY_CALLBACKSUBSCRIBERS_H

#include "EventPoster.h"
#include "EventSender.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace VornNet {

/**
 * The subscribers whose events go to callback addresses, so that their connections are only leases. Each has
 * a few events on their way at a time, and its place moves on when its sink has taken one. A sink that takes
 * nothing for a minute is not there any more.
 *
 * For whoever has the sending thread's turn.
 */
class CallbackSubscribers {
public:
    using TimePoint = ClientList::TimePoint;

    CallbackSubscribers(PublisherConnections& connections, SubscriberBook& book, EventSender& sender)
        : m_connections(connections), m_book(book), m_sender(sender) {}

    /** @param done is told of outcomes, on a thread of the poster's @throws VornException */
    void start(const VornString& sName, const EventPoster::Done& done) { m_poster.emplace(sName, done); }

    /** What has no outcome has none any more when this returns. */
    void stop() { m_poster.reset(); }

    bool isEmpty() const { return m_clients.empty(); }

    /** Does what needs memory before an add(). @throws std::bad_alloc */
    void prepare(PublisherClient& client);

    void add(PublisherClient& client) { m_clients.push_back(&client); }

    /** Takes back what waits for the address of one who leaves, unless others have the same. */
    void remove(PublisherClient& client);

    /** Posts the next events. @throws std::bad_alloc */
    void post(PublisherClient& client);

    /** An event has its outcome. @return whose it was, if it is still a subscriber */
    PublisherClient* noteOutcome(std::uint64_t nTicket);

    /** @return a subscriber whose sink has taken nothing for too long, or null. */
    PublisherClient* late();

    /** @return when there may be room again, or one that is late. */
    TimePoint due() const { return std::min(m_postAgain, m_checkSinks); }

    /** @return whether the sinks have all events. */
    bool isDelivered() const;

    /** Has all post again when there was no room, and may be now. @param step posts, and may remove() */
    template <typename Step>
    void postAgain(Step&& step) {
        if (m_connections.now() < m_postAgain)
            return;
        m_postAgain = TimePoint::max();
        // One that leaves makes the next one take its place, which then waits for its next event.
        for (std::size_t i = m_clients.size(); i-- > 0;)
            step(*m_clients[i]);
    }

private:
    /** An event that a sink has not taken yet. */
    struct OnItsWay {
        PublisherClient* client; ///< null: it has left
        std::shared_ptr<PublisherClient::Sink> spSink;
    };

    bool postOne(PublisherClient& client, const PublisherClient::Event& event, PublisherClient::Sent& sent);

    PublisherConnections& m_connections;
    SubscriberBook& m_book;
    EventSender& m_sender;
    std::vector<PublisherClient*> m_clients;
    std::map<std::uint64_t, OnItsWay> m_posted; // by ticket
    TimePoint m_postAgain = TimePoint::max();   // there was no room for an event
    TimePoint m_checkSinks = TimePoint::max();  // the first one may have had its time by then
    std::optional<EventPoster> m_poster;        // only where callback addresses are taken
};

} // namespace VornNet

#endif
