// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_PUBLISHERCONNECTIONS_H
#define VORNNOTIFY_PUBLISHERCONNECTIONS_H

#include "ClientList.h"
#include "EventPoll.h"

#include <cstddef>
#include <cstdint>

namespace VornNet {

/**
 * What all parts of a publisher do with its connections: the poll is told what is awaited of each, each is
 * put from list to list, and closed in the end. Who has had the last word is given a moment to read it:
 * closing at once might take it away. A closed one is kept while events of this round may name it.
 *
 * For whoever has the sending thread's turn.
 */
class PublisherConnections {
public:
    using TimePoint = ClientList::TimePoint;

    /** @param nClosingLimit most that are given a moment, until endLimit() */
    PublisherConnections(EventPoll& poll, std::size_t nClosingLimit);

    /** Looks at the clock, for all that follows. */
    void beginRound() { m_now = EventPoll::Clock::now(); }

    void endRound() { m_gone.clear(); }

    TimePoint now() const { return m_now; }

    /** Has the poll look at a client. @return 0 or an errno value */
    int watch(PublisherClient& client);

    /** For a client of which nothing is to be heard: the end of its connection is told without a pause. */
    void unwatch(PublisherClient& client) { m_poll.remove(client.socket.number()); }

    /** Changes what the poll looks for. @param isRoom whether it is room for what is to be sent, too */
    void await(PublisherClient& client, bool isRoom);

    void put(PublisherClient& client, ClientList& list) { list.put(client, m_now); }

    /** Sends the last word. */
    void closeLater(PublisherClient& client);

    void close(PublisherClient& client);

    /** Closes all that are in a list. */
    void closeAll(ClientList& list);

    /** Deals with what the poll tells of a client that has had the last word. */
    void hearClosing(PublisherClient& client, std::uint32_t events);

    /** Closes those that have had their moment. */
    void closeLate();

    /** Closes all that have not had their moment yet. */
    void closeAll() { closeAll(m_closing); }

    void endLimit() { m_hasLimit = false; }

    bool isClosing() const { return !m_closing.isEmpty(); }

    /** @return when closeLate() has something to do. */
    TimePoint due() const { return m_closing.due(); }

private:
    EventPoll& m_poll;
    const std::size_t m_nClosingLimit;
    bool m_hasLimit = true;
    TimePoint m_now{};
    ClientList m_closing;
    ClientList m_gone;
};

} // namespace VornNet

#endif
