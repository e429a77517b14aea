// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PublisherConnections.h"

#include <utility>

namespace VornNet {

namespace {

constexpr std::chrono::milliseconds cClosingLimit{1'000};

constexpr std::uint32_t cHearing = EPOLLIN | EPOLLRDHUP;

} // namespace

PublisherConnections::PublisherConnections(EventPoll& poll, std::size_t nClosingLimit)
    : m_poll(poll), m_nClosingLimit(nClosingLimit), m_closing(cClosingLimit) {}

int PublisherConnections::watch(PublisherClient& client) {
    client.nAwaited = cHearing;
    return m_poll.add(client.socket.number(), cHearing, &client);
}

void PublisherConnections::await(PublisherClient& client, bool isRoom) {
    const std::uint32_t events = isRoom ? cHearing | EPOLLOUT : cHearing;
    if (std::exchange(client.nAwaited, events) != events)
        m_poll.change(client.socket.number(), events, &client);
}

void PublisherConnections::closeLater(PublisherClient& client) {
    client.state = PublisherClient::State::closing;
    const PublisherClient::Sent sent = client.sendLast();
    if (sent.nError != 0)
        return close(client);
    if (!client.hasOutput())
        client.endSending();
    await(client, client.hasOutput());
    put(client, m_closing);
    // Strangers have no more places here than they have for asking.
    if (m_hasLimit && m_closing.size() > m_nClosingLimit)
        close(m_closing.first());
}

void PublisherConnections::close(PublisherClient& client) {
    if (client.state != PublisherClient::State::checking)
        unwatch(client);
    client.state = PublisherClient::State::gone;
    client.socket.reset();
    put(client, m_gone);
}

void PublisherConnections::closeAll(ClientList& list) {
    while (!list.isEmpty())
        close(list.first());
}

void PublisherConnections::hearClosing(PublisherClient& client, std::uint32_t events) {
    if ((events & EPOLLOUT) != 0) {
        const PublisherClient::Sent sent = client.sendLast();
        if (sent.nError != 0)
            return close(client);
        if (!client.hasOutput()) {
            client.endSending();
            await(client, false);
        }
    }
    if ((events & ~std::uint32_t{EPOLLOUT}) != 0 && client.discard() != 0)
        close(client);
}

void PublisherConnections::closeLate() {
    while (m_now >= m_closing.due())
        close(m_closing.first());
}

} // namespace VornNet
