// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_PUBLISHERDOOR_H
#define VORNNOTIFY_PUBLISHERDOOR_H

#include "PublisherConnections.h"
#include "PublisherListener.h"
#include "SenderRules.h"
#include "SubscriberBook.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace VornNet {

/**
 * Where a publisher's clients come in. It accepts them, hears what each wants, and refuses those that the
 * publisher does not want; whom the handler is asked about waits here until it has decided.
 *
 * There are only so many places. Whoever asks when all are taken has the oldest one cut, after a grace; the
 * others wait in the kernel's queue. For whoever has the sending thread's turn.
 */
class PublisherDoor {
public:
    using TimePoint = ClientList::TimePoint;

    PublisherDoor(const VornPublisher::Options& options, const SenderRules& rules,
                  const PublisherTopics& topics, PublisherListener& listener, EventPoll& poll,
                  PublisherConnections& connections, SubscriberBook& book);

    /** Cuts those who have had time enough, makes the pipe's file again, and goes on accepting. */
    void checkTimes();

    /** @return when checkTimes() has something to do. */
    TimePoint due() const;

    /** Accepts those who have come; the poll tells of them with this object's address. */
    void acceptClients();

    /** Hears a client. @return whether it has asked for something that may be admitted */
    bool hear(PublisherClient& client);

    /** Keeps a client that the handler is asked about. */
    void keep(PublisherClient& client);

    /** @return the client of that id that is kept, or null. */
    PublisherClient* kept(std::uint64_t nId) { return m_checking.find(nId); }

    /** The handler has decided about a client. @return 0, or an errno value: the poll does not look at it */
    int letGo(PublisherClient& client);

    void refuse(PublisherClient& client, std::string_view reason);

    /** Lets nobody in any more. @param isUndecided whether nobody decides about those who are kept, either */
    void close(bool isUndecided);

    /** @return whether the handler is to decide about somebody. */
    bool isDeciding() const { return !m_checking.isEmpty(); }

private:
    void cutOldest();
    void checkFile();
    void acceptAgain();
    void stopAccepting();
    void pauseAccepting(TimePoint until);
    bool hasPlace() const;
    void add(OwnedDescriptor socket, const sockaddr_in& peer);
    void hearLine(PublisherClient& client);
    void sayKnown(PublisherClient& client);
    bool hearRequest(PublisherClient& client);
    VornString objectionTo(const PublisherClient& client) const;
    void describe(PublisherClient& client);
    void turnAway(PublisherClient& client, std::string_view answer);

    const VornPublisher::Options& m_options;
    const std::size_t m_nSubscriberLimit;
    const SenderRules& m_rules;
    const PublisherTopics& m_topics;
    PublisherListener& m_listener;
    EventPoll& m_poll;
    PublisherConnections& m_connections;
    SubscriberBook& m_book;
    ClientList m_asking;       // their request is awaited
    ClientList m_checking;     // the handler is asked
    TimePoint m_acceptAgain{}; // when the listener is looked at again, if it is not now
    bool m_isAccepting = false;
    bool m_isFull = false; // it is not looked at because all places are taken
    TimePoint m_checkFile{};
    std::uint64_t m_nLastId = 0;
};

} // namespace VornNet

#endif
