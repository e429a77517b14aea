// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "CallbackSubscribers.h"

#include <chrono>
#include <new>

namespace VornNet {

namespace {

using std::chrono::milliseconds;

constexpr std::size_t cMostPosted = 32;
constexpr milliseconds cPostPause{100};
constexpr milliseconds cSinkLimit{60'000};

} // namespace

void CallbackSubscribers::prepare(PublisherClient& client) {
    m_clients.push_back(nullptr);
    m_clients.pop_back();
    client.posted.reserve(cMostPosted);
    for (const PublisherClient* other : m_clients) {
        if (other->spSink->sKey == client.spSink->sKey)
            client.spSink = other->spSink;
    }
}

void CallbackSubscribers::remove(PublisherClient& client) {
    // What was posted for it tells from now on only that the sink takes something.
    for (const PublisherClient::Posted& posted : client.posted)
        m_posted.find(posted.nTicket)->second.client = nullptr;
    client.posted.clear();
    m_clients.erase(std::find(m_clients.begin(), m_clients.end(), &client));
    if (std::any_of(m_clients.begin(), m_clients.end(),
                    [&](const PublisherClient* other) { return other->spSink == client.spSink; }))
        return;
    try {
        m_poster->cancel(client.who.sCallback);
    } catch (const std::bad_alloc&) {
        // Then the sink is sent what was posted already, and no more.
    }
}

void CallbackSubscribers::post(PublisherClient& client) {
    // Whoever does not read its gaps gets no more of them, and no more events.
    while (client.posted.size() < cMostPosted && !client.hasMuchOutput()) {
        PublisherClient::Sent sent;
        const auto event = client.nextEvent(sent);
        const bool isOver = !event || !postOne(client, *event, sent);
        if (sent.nGaps != 0) {
            client.noteSent();
            m_book.note(client, sent);
            m_sender.wakeUp(client);
        }
        if (isOver)
            return;
    }
}

/** It was taken, or cancelled when the last one with that address had left. */
PublisherClient* CallbackSubscribers::noteOutcome(std::uint64_t nTicket) {
    const auto found = m_posted.find(nTicket);
    if (found == m_posted.end()) // GCOVR_EXCL_BR_LINE: there was no memory to note that it was posted
        return nullptr;          // GCOVR_EXCL_LINE: as above
    PublisherClient* client = found->second.client;
    found->second.spSink->hasTakenAt = m_connections.now();
    m_posted.erase(found);
    if (client == nullptr)
        return nullptr;
    PublisherClient::Sent sent;
    sent.nEvents = 1;
    sent.nBytes = client->posted.front().nBytes;
    client->posted.erase(client->posted.begin());
    client->noteSent();
    m_book.note(*client, sent);
    return client;
}

PublisherClient* CallbackSubscribers::late() {
    if (m_connections.now() < m_checkSinks)
        return nullptr;
    m_checkSinks = TimePoint::max();
    for (PublisherClient* client : m_clients) {
        if (client->posted.empty())
            continue;
        // It takes the events of all who named it in one order.
        const TimePoint end = std::max(client->postsSince, client->spSink->hasTakenAt) + cSinkLimit;
        m_checkSinks = std::min(m_checkSinks, end);
        if (m_connections.now() >= end)
            return client;
    }
    return nullptr;
}

bool CallbackSubscribers::isDelivered() const {
    return m_postAgain == TimePoint::max() &&
           std::all_of(m_clients.begin(), m_clients.end(),
                       [](const PublisherClient* client) { return client->posted.empty(); });
}

/** @return false when there is no room for it now */
bool CallbackSubscribers::postOne(PublisherClient& client, const PublisherClient::Event& event,
                                  PublisherClient::Sent& sent) {
    const TimePoint now = m_connections.now();
    const std::uint64_t ticket =
        m_poster->post(client.who.sCallback, client.who.hCallback, event.nNumber, event.sContent);
    if (ticket == EventPoster::cNoRoom) {
        client.goBackTo(event.before);
        m_postAgain = std::min(m_postAgain, now + cPostPause);
        return false;
    }
    if (ticket == EventPoster::cNeverFits) {
        client.skip(event, sent);
        return true;
    }
    m_posted.emplace(ticket, OnItsWay{&client, client.spSink});
    if (client.posted.empty()) {
        client.postsSince = now;
        m_checkSinks = std::min(m_checkSinks, now + cSinkLimit);
    }
    client.posted.push_back({ticket, event.nNumber, sizeof event.nNumber + event.sContent.size()});
    return true;
}

} // namespace VornNet
