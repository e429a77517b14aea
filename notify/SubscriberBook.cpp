// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SubscriberBook.h"

#include "Deadline.h"

#include <Probe.h>

#include <algorithm>
#include <utility>

namespace VornNet {

std::vector<VornPublisher::Subscriber> SubscriberBook::subscribers() const {
    std::vector<VornPublisher::Subscriber> result;
    const std::lock_guard<std::mutex> lock(m_mutex);
    result.reserve(m_subscribers.size());
    for (const auto& [nId, client] : m_subscribers) {
        result.push_back(client->who);
        result.back().nBehind = client->topic->history.newest() - client->who.position.nNumber;
    }
    return result;
}

VornPublisher::Statistics SubscriberBook::statistics() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    Statistics result = m_statistics;
    result.nSubscribers = m_subscribers.size();
    for (const PublisherTopic* topic : m_topics.all())
        result.nPublished += topic->history.newest() - topic->nFirst;
    for (const auto& [nId, client] : m_subscribers)
        result.nBehind += client->who.position.nNumber != client->topic->history.newest() ? 1 : 0;
    return result;
}

bool SubscriberBook::flush(std::chrono::milliseconds timeLimit) {
    const Deadline deadline = Deadline::ofWait(timeLimit);
    std::unique_lock<std::mutex> lock(m_mutex);
    std::vector<std::pair<std::uint64_t, std::uint64_t>>
        wanted; // ids, and the events that they are to be sent
    for (const auto& [nId, client] : m_subscribers)
        wanted.emplace_back(nId, client->topic->history.newest());
    const auto isDone = [&] {
        wanted.erase(std::remove_if(wanted.begin(), wanted.end(),
                                    [this](const auto& one) {
                                        const auto found = m_subscribers.find(one.first);
                                        return found == m_subscribers.end() ||
                                               found->second->who.position.nNumber >= one.second;
                                    }),
                     wanted.end());
        return wanted.empty();
    };
    if (deadline.end() != Deadline::none().end())
        return m_changed.wait_until(lock, deadline.end(), isDone);
    m_changed.wait(lock, isDone);
    return true;
}

bool SubscriberBook::noteDrop(std::uint64_t nId) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_subscribers.find(nId);
    return found != m_subscribers.end() && !std::exchange(found->second->isDropped, true);
}

PublisherClient* SubscriberBook::find(std::uint64_t nId) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_subscribers.find(nId);
    return found != m_subscribers.end() ? found->second : nullptr;
}

std::size_t SubscriberBook::size() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_subscribers.size();
}

void SubscriberBook::count(std::uint64_t Statistics::*sum) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++(m_statistics.*sum);
}

void SubscriberBook::enter(PublisherClient& client, const PublisherClient::Sent& gap) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    client.who.position = {client.topic->history.id(), client.place.number};
    m_subscribers.emplace(client.who.nId, &client);
    ++m_statistics.nSubscribed;
    m_statistics.nGaps += gap.nGaps;
    m_statistics.nMissed += gap.nMissed;
}

void SubscriberBook::note(PublisherClient& client, const PublisherClient::Sent& sent) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    client.who.position.nNumber = client.nSent;
    VORN_PROBE(event__sent, client.who.nId, client.who.sTopic.c_str(), client.nSent, sent.nEvents);
    m_statistics.nSent += sent.nEvents;
    m_statistics.nSentBytes += sent.nBytes;
    m_statistics.nGaps += sent.nGaps;
    m_statistics.nMissed += sent.nMissed;
    m_changed.notify_all();
}

void SubscriberBook::remove(const PublisherClient& client) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_subscribers.erase(client.who.nId);
    ++m_statistics.nLeft;
    m_changed.notify_all();
}

} // namespace VornNet
