// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "EventSender.h"

#include "Wire.h"

#include <cerrno>

namespace VornNet {

namespace {

VornString signFrame(std::uint64_t newest) {
    VornString sFrame;
    Wire::appendInt(sFrame, Wire::cSign);
    Wire::appendInt(sFrame, Wire::cSignRest);
    Wire::appendNumber(sFrame, newest);
    return sFrame;
}

} // namespace

EventSender::EventSender(PublisherConnections& connections, SubscriberBook& book,
                         std::chrono::milliseconds beat, std::chrono::milliseconds blockedLimit)
    : m_connections(connections), m_book(book), m_idle(beat), m_blocked(blockedLimit) {}

EventSender::End EventSender::endBy(int error) {
    using Leaving = VornPublisher::Leaving;
    const bool isItsOwn = error == 0 || error == ECONNRESET || error == EPIPE;
    // A connection that stands ends with these two only when its time is over: they are the kernel's guess
    // why nothing was acknowledged.
    const int nCode = error == EHOSTUNREACH || error == ENETUNREACH ? ETIMEDOUT : error;
    return {isItsOwn ? Leaving::closed : Leaving::lost, nCode};
}

int EventSender::send(PublisherClient& client) {
    using Outcome = PublisherClient::Sent::Outcome;
    const PublisherClient::Sent sent = client.send();
    m_book.note(client, sent);
    m_hasSent = true;
    m_lastSending = m_connections.now();
    if (sent.nError != 0)
        return sent.nError;
    if (sent.outcome == Outcome::blocked) {
        m_connections.put(client, m_blocked);
        m_connections.await(client, true);
    } else {
        m_connections.put(client, sent.outcome == Outcome::more ? m_sending : m_idle);
    }
    return 0;
}

std::optional<EventSender::End> EventSender::hear(PublisherClient& client, std::uint32_t events) {
    if ((events & ~std::uint32_t{EPOLLOUT}) != 0) {
        char byte = '\0';
        const ssize_t count = System::recv(client.socket.number(), &byte, 1, MSG_DONTWAIT);
        const int error = count == -1 ? errno : 0;
        if (count > 0)
            return End{VornPublisher::Leaving::violated, 0};
        if (error != EAGAIN && error != EINTR)
            return endBy(error);
    }
    if ((events & EPOLLOUT) != 0) {
        m_connections.await(client, false);
        add(client);
    }
    return std::nullopt;
}

void EventSender::giveSign(PublisherClient& client) {
    client.say(signFrame(client.topic->history.newest()));
    add(client);
}

PublisherClient* EventSender::any() {
    for (ClientList* list : {&m_sending, &m_idle, &m_blocked}) {
        if (!list->isEmpty())
            return &list->first();
    }
    return nullptr;
}

} // namespace VornNet
