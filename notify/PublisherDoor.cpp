// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PublisherDoor.h"

#include "DescriptorLimit.h"
#include "Wire.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include <netinet/tcp.h>

namespace VornNet {

namespace {

using std::chrono::milliseconds;
using Statistics = VornPublisher::Statistics;
using State = PublisherClient::State;

constexpr const char* cNotAllowed = "not allowed";
constexpr const char* cTooMany = "too many subscribers";

/** Clients that are accepted at a time, so that those who have asked are heard in between. */
constexpr int cAcceptedAtATime = 16;

/** So long a client that has just connected is not cut for another one: it has had no time to say anything.
 */
constexpr milliseconds cGrace{3};

constexpr milliseconds cAcceptPause{100};
constexpr milliseconds cFilePause{500};

} // namespace

PublisherDoor::PublisherDoor(const VornPublisher::Options& options, const SenderRules& rules,
                             const PublisherTopics& topics, PublisherListener& listener, EventPoll& poll,
                             PublisherConnections& connections, SubscriberBook& book)
    : m_options(options),
      m_nSubscriberLimit(options.nSubscriberLimit != 0
                             ? options.nSubscriberLimit
                             : halfOfDescriptors(std::numeric_limits<std::size_t>::max())),
      m_rules(rules), m_topics(topics), m_listener(listener), m_poll(poll), m_connections(connections),
      m_book(book), m_asking(options.requestLimit) {}

void PublisherDoor::checkTimes() {
    while (m_connections.now() >= m_asking.due())
        cutOldest();
    checkFile();
    acceptAgain();
}

PublisherDoor::TimePoint PublisherDoor::due() const {
    TimePoint next = m_asking.due();
    if (!m_isAccepting)
        next = std::min(next, m_acceptAgain);
    return m_listener.isPipe() ? std::min(next, m_checkFile) : next;
}

void PublisherDoor::acceptClients() {
    for (int count = 0; count < cAcceptedAtATime && m_isAccepting; ++count) {
        m_isFull = !hasPlace();
        // The client waits in the kernel's queue until the handler has decided, or the grace is over.
        if (m_isFull && m_asking.isEmpty())
            return pauseAccepting(m_connections.now() + cAcceptPause);
        if (m_isFull && m_connections.now() < m_asking.first().since + cGrace)
            return pauseAccepting(m_asking.first().since + cGrace);
        sockaddr_storage storage{};
        socklen_t length = sizeof storage;
        OwnedDescriptor socket(System::accept4(m_listener.number(), reinterpret_cast<sockaddr*>(&storage),
                                               &length, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket.isOpen()) {
            const int error = errno;
            // Without descriptors the listener stays readable; to look all the time would cost a processor.
            if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM)
                pauseAccepting(m_connections.now() + cAcceptPause);
            if (error != ECONNABORTED && error != EINTR)
                return;
            continue;
        }
        if (m_isFull)
            cutOldest();
        add(std::move(socket), reinterpret_cast<const sockaddr_in&>(storage));
    }
}

bool PublisherDoor::hear(PublisherClient& client) {
    // Whoever leaves before it has subscribed needs no answer.
    if (client.receive() != 0) {
        m_connections.close(client);
        return false;
    }
    if (client.state == State::request && client.hasOutput())
        sayKnown(client);
    if (client.state == State::line)
        hearLine(client);
    return client.state == State::request && hearRequest(client);
}

void PublisherDoor::keep(PublisherClient& client) {
    m_connections.unwatch(client);
    client.state = State::checking;
    m_connections.put(client, m_checking);
}

int PublisherDoor::letGo(PublisherClient& client) {
    m_acceptAgain = m_connections.now();
    client.state = State::request;
    return m_connections.watch(client);
}

void PublisherDoor::refuse(PublisherClient& client, std::string_view reason) {
    VornString sAnswer;
    Wire::appendInt(sAnswer, Wire::cRefused);
    Wire::appendText(sAnswer, reason.substr(0, Wire::cLongestReason));
    turnAway(client, sAnswer);
}

void PublisherDoor::close(bool isUndecided) {
    stopAccepting();
    m_listener.close();
    m_connections.closeAll(m_asking);
    if (isUndecided)
        m_connections.closeAll(m_checking);
}

/** Cuts the client that has been asking, or silent, for the longest time. */
void PublisherDoor::cutOldest() {
    m_book.count(&Statistics::nTimedOut);
    m_connections.close(m_asking.first());
}

void PublisherDoor::checkFile() {
    if (!m_listener.isPipe() || m_connections.now() < m_checkFile)
        return;
    m_checkFile = m_connections.now() + cFilePause;
    std::optional<PipeListener> pipe = m_listener.remake();
    if (!pipe)
        return;
    // Those who have found the old file still wait at the old socket.
    acceptClients();
    stopAccepting();
    m_listener.replace(std::move(*pipe));
}

void PublisherDoor::acceptAgain() {
    // Who leaves without having subscribed gives a place back before the time.
    if (m_isAccepting || (m_connections.now() < m_acceptAgain && !(m_isFull && hasPlace())))
        return;
    if (m_checking.size() < m_options.nRequestLimit)
        m_isAccepting = m_poll.add(m_listener.number(), EPOLLIN, this) == 0;
    if (!m_isAccepting)
        m_acceptAgain = m_connections.now() + cAcceptPause;
}

void PublisherDoor::stopAccepting() {
    if (std::exchange(m_isAccepting, false))
        m_poll.remove(m_listener.number());
}

void PublisherDoor::pauseAccepting(TimePoint until) {
    stopAccepting();
    m_acceptAgain = until;
}

/** @return whether one more client may ask without another one being cut. */
bool PublisherDoor::hasPlace() const {
    return m_asking.size() + m_checking.size() < m_options.nRequestLimit;
}

void PublisherDoor::add(OwnedDescriptor socket, const sockaddr_in& peer) {
    m_book.count(&Statistics::nConnections);
    if (!m_listener.isPipe()) {
        const int on = 1;
        const milliseconds beat = std::min(m_options.beat, milliseconds(std::numeric_limits<int>::max() / 3));
        const auto limit = static_cast<unsigned int>(3 * beat.count());
        System::setsockopt(socket.number(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        System::setsockopt(socket.number(), IPPROTO_TCP, TCP_USER_TIMEOUT, &limit, sizeof limit);
    }
    PublisherClient* client = nullptr;
    try {
        client = &m_asking.add(std::move(socket), m_listener.isPipe() ? nullptr : &peer, m_connections.now());
    } catch (const std::bad_alloc&) {
        return; // it is closed, and may come back
    }
    if (m_connections.watch(*client) != 0)
        m_connections.close(*client);
}

void PublisherDoor::hearLine(PublisherClient& client) {
    const auto line = client.takeLine();
    client.topic = line ? m_topics.find(*line) : nullptr;
    if (client.topic != nullptr) {
        client.state = State::request;
        client.say({&Wire::cKnown, 1});
        sayKnown(client);
    } else if (line || client.isLineTooLong()) {
        turnAway(client, {&Wire::cUnknown, 1});
    }
}

/** A socket of which nothing has been sent yet takes no byte when the kernel is short of memory. */
void PublisherDoor::sayKnown(PublisherClient& client) {
    const PublisherClient::Sent sent = client.sendLast();
    if (sent.nError != 0)
        return m_connections.close(client);
    m_connections.await(client, client.hasOutput());
}

bool PublisherDoor::hearRequest(PublisherClient& client) {
    if (!client.readRequest(m_options.bCallbackAddresses))
        return false;
    VornString sReason = client.request->reason();
    if (sReason.empty())
        sReason = objectionTo(client);
    if (sReason.empty())
        describe(client);
    else
        refuse(client, sReason);
    return sReason.empty();
}

/** @return why the publisher itself does not want it, or nothing. */
VornString PublisherDoor::objectionTo(const PublisherClient& client) const {
    const bool isAllowed =
        m_listener.isPipe() ? m_rules.admitsPeer(client.socket.number()) : m_rules.admits(client.address);
    if (!isAllowed)
        return cNotAllowed;
    return m_book.size() + m_checking.size() < m_nSubscriberLimit ? "" : cTooMany;
}

/** Says who it is that asks, and for what. */
void PublisherDoor::describe(PublisherClient& client) {
    VornPublisher::Subscriber& who = client.who;
    who.nId = ++m_nLastId;
    who.sTopic = client.topic->sName;
    who.sWords = client.request->words();
    who.sCallback = client.request->callback();
    who.hCallback = client.request->handle();
    who.position = client.request->position();
    if (client.isCalledBack())
        client.spSink =
            std::make_shared<PublisherClient::Sink>(PublisherClient::Sink{client.request->callbackKey(), {}});
}

void PublisherDoor::turnAway(PublisherClient& client, std::string_view answer) {
    m_book.count(&Statistics::nRefused);
    client.say(answer);
    m_connections.closeLater(client);
}

} // namespace VornNet
