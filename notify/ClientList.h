// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_CLIENTLIST_H
#define VORNNOTIFY_CLIENTLIST_H

#include "Deadline.h"
#include "PublisherClient.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <list>
#include <utility>

namespace VornNet {

/**
 * Connections of a publisher that await the same thing, in the order in which they were put here. That is
 * the order in which they are due as well. A client is in one list at a time, which owns it.
 */
class ClientList {
public:
    using TimePoint = PublisherClient::TimePoint;

    /** @param limit after which a client is due; none: never */
    explicit ClientList(std::chrono::milliseconds limit = std::chrono::milliseconds::max())
        : m_limit(limit) {}

    ClientList(const ClientList&) = delete;
    ClientList& operator=(const ClientList&) = delete;

    bool isEmpty() const { return m_clients.empty(); }

    std::size_t size() const { return m_clients.size(); }

    PublisherClient& first() { return m_clients.front(); }

    /** @return when the first one is due: TimePoint::max() is never. */
    TimePoint due() const {
        return isEmpty() ? TimePoint::max() : Deadline(m_limit, m_clients.front().since).end();
    }

    /** @return the client of that id, or null. */
    PublisherClient* find(std::uint64_t nId) {
        const auto found =
            std::find_if(m_clients.begin(), m_clients.end(),
                         [nId](const PublisherClient& client) { return client.who.nId == nId; });
        return found != m_clients.end() ? &*found : nullptr; // GCOVR_EXCL_BR_LINE: it is there
    }

    /** Takes an accepted socket over. @throws std::bad_alloc */
    PublisherClient& add(OwnedDescriptor socket, const sockaddr_in* peer, TimePoint now) {
        PublisherClient& client = m_clients.emplace_back(std::move(socket), peer);
        client.list = this;
        client.self = std::prev(m_clients.end());
        client.since = now;
        return client;
    }

    /** Takes a client from the list where it is, which may be this one. */
    void put(PublisherClient& client, TimePoint now) {
        m_clients.splice(m_clients.end(), client.list->m_clients, client.self);
        client.list = this;
        client.since = now;
    }

    void clear() { m_clients.clear(); }

private:
    std::chrono::milliseconds m_limit;
    std::list<PublisherClient> m_clients;
};

} // namespace VornNet

#endif
