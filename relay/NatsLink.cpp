// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "NatsLink.h"

#include <cerrno>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <utility>

namespace VornRelay {

namespace {

constexpr std::chrono::milliseconds cConnectLimit{5000}; // many hosts may come back at once
constexpr std::uint32_t cReadEvents = EPOLLIN | EPOLLRDHUP;
constexpr int cMostReads = 16; // a busy server must not keep the loop from all others
constexpr int cMostBuffered = 65'536;

} // namespace

NatsLink::NatsLink(RelayLoop& loop, const std::string& sPrefix, MessageHandler onMessage,
                   ErrorHandler onError)
    : m_loop(loop), m_sInbox(sPrefix + "." + std::to_string(std::random_device()()) +
                             std::to_string(std::random_device()())),
      m_onMessage(std::move(onMessage)), m_onError(std::move(onError)) {}

NatsLink::~NatsLink() = default;

void NatsLink::connect(const EngineAccess& access, const std::string& sSubject) {
    const NatsPointer<natsOptions> options = optionsFor(access, cConnectLimit);
    natsOptions_SetPingInterval(options.get(), 0);
    natsOptions_SetEventLoop(options.get(), this, &onAttach, &onWatchReading, &onWatchWriting, &onDetach);
    natsOptions_SetClosedCB(options.get(), &onClosed, this);
    natsOptions_SetErrorHandler(options.get(), &onError, this);
    natsConnection* created = nullptr;
    if (const natsStatus status = natsConnection_Connect(&created, options.get()); status != NATS_OK)
        throw std::runtime_error(textOf(status));
    m_spConnection.reset(created);
    m_bClosed = false;
    if (const natsStatus status = subscribe(sSubject); status != NATS_OK) {
        const std::string sWhy = sSubject + ": " + textOf(status);
        close();
        awaitClosed();
        throw std::runtime_error(sWhy);
    }
}

void NatsLink::ping(std::chrono::milliseconds limit) {
    if (natsConnection_FlushTimeout(m_spConnection.get(), limit.count()) == NATS_OK)
        return;
    // The client library then finds that the connection has ended, on the loop's thread.
    const std::lock_guard lock(m_mutex);
    if (m_socket != -1)
        System::shutdown(m_socket, SHUT_RDWR);
}

void NatsLink::awaitClosed() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_bClosed; });
}

std::string NatsLink::whyClosed() const {
    const char* szError = nullptr;
    natsConnection_GetLastError(m_spConnection.get(), &szError);
    return szError != nullptr && *szError != '\0' ? szError : "the connection was closed";
}

std::size_t NatsLink::mostContent() const {
    return static_cast<std::size_t>(natsConnection_GetMaxPayload(m_spConnection.get()));
}

std::size_t NatsLink::placeFor(const std::string& sAddressee, const std::string& sPrefix) {
    const auto [place, bIsNew] = m_places.try_emplace(sAddressee, m_subscriptions.size());
    if (bIsNew)
        subscribe(sPrefix + "." + std::to_string(place->second) + ".*");
    return place->second;
}

void NatsLink::listenTo(const std::string& sSubject) {
    if (m_listenedTo.try_emplace(sSubject, m_subscriptions.size()).second)
        subscribe(sSubject);
}

void NatsLink::ignore(const std::string& sSubject) {
    if (const auto place = m_listenedTo.extract(sSubject))
        m_subscriptions[place.mapped()].reset();
}

void NatsLink::begin() {
    if (m_socket == -1)
        return;
    m_loop.watch(m_socket, cReadEvents, *this);
    m_bBegun = true;
    flush();
}

bool NatsLink::send(const std::function<natsStatus(natsConnection* connection)>& send) {
    const natsStatus status = send(m_spConnection.get());
    if (natsConnection_Buffered(m_spConnection.get()) > cMostBuffered)
        flush();
    return status == NATS_OK;
}

void NatsLink::serve(std::chrono::milliseconds limit) {
    if (m_bWriting)
        natsConnection_ProcessWriteEvent(m_spConnection.get());
    pollfd entry{m_socket, static_cast<short>(m_bWriting ? POLLIN | POLLOUT : POLLIN), 0};
    const timespec time{0, std::chrono::nanoseconds(limit).count()};
    if (System::ppoll(&entry, 1, time) == 1 && (entry.revents & ~POLLOUT) != 0)
        natsConnection_ProcessReadEvent(m_spConnection.get());
}

natsStatus NatsLink::onAttach(void** object, void* link, natsConnection*, natsSock socket) {
    *object = link;
    static_cast<NatsLink*>(link)->m_socket = socket;
    return NATS_OK;
}

natsStatus NatsLink::onWatchReading(void* object, bool bOn) {
    if (!bOn)
        static_cast<NatsLink*>(object)->forget();
    return NATS_OK;
}

/** Comes from any thread that publishes or asks for a sign of life. */
natsStatus NatsLink::onWatchWriting(void* object, bool bOn) {
    auto* pLink = static_cast<NatsLink*>(object);
    pLink->m_bWriting = bOn;
    if (bOn)
        pLink->m_loop.post([wpSelf = pLink->weak_from_this()] {
            if (const std::shared_ptr<NatsLink> spSelf = wpSelf.lock(); spSelf && spSelf->m_bBegun)
                spSelf->flush();
        });
    return NATS_OK;
}

natsStatus NatsLink::onDetach(void*) {
    return NATS_OK;
}

void NatsLink::onClosed(natsConnection*, void* closure) {
    auto* pLink = static_cast<NatsLink*>(closure);
    const std::lock_guard lock(pLink->m_mutex);
    pLink->m_bClosed = true;
    pLink->m_changed.notify_all();
}

void NatsLink::onError(natsConnection* connection, natsSubscription*, natsStatus status, void* closure) {
    const char* szError = nullptr;
    natsConnection_GetLastError(connection, &szError);
    static_cast<NatsLink*>(closure)->m_onError(
        szError != nullptr && *szError != '\0' ? szError : natsStatus_GetText(status));
}

natsStatus NatsLink::subscribe(const std::string& sSubject) {
    natsSubscription* created = nullptr;
    const natsStatus status = natsConnection_SubscribeSync(&created, m_spConnection.get(), sSubject.c_str());
    m_subscriptions.emplace_back(created);
    return status;
}

void NatsLink::ready(std::uint32_t nEvents) {
    const std::shared_ptr<NatsLink> spSelf = shared_from_this(); // until all is done, whoever lets it go
    if ((nEvents & EPOLLOUT) != 0)
        flush();
    if ((nEvents & ~EPOLLOUT) == 0)
        return;
    int nThere = 1;
    for (int nReads = 0; nReads < cMostReads && nThere > 0 && m_socket != -1; ++nReads) {
        natsConnection_ProcessReadEvent(m_spConnection.get());
        handOn();
        if (m_socket == -1 || System::ioctl(m_socket, FIONREAD, &nThere) == -1)
            break;
    }
}

void NatsLink::handOn() {
    for (std::size_t nPlace = 0; nPlace < m_subscriptions.size(); ++nPlace) {
        natsSubscription* const subscription = m_subscriptions[nPlace].get();
        std::uint64_t nQueued = 0;
        natsSubscription_QueuedMsgs(subscription, &nQueued);
        for (; nQueued > 0; --nQueued) {
            natsMsg* message = nullptr;
            const natsStatus status = natsSubscription_NextMsg(&message, subscription, 1);
            if (status == NATS_OK || status == NATS_NO_RESPONDERS)
                m_onMessage(nPlace, NatsPointer<natsMsg>(message));
        }
    }
}

/** With nothing to be written, the client library would take the connection for closed. */
void NatsLink::flush() {
    if (m_socket == -1 || !m_bWriting)
        return;
    natsConnection_ProcessWriteEvent(m_spConnection.get());
    if (m_socket == -1 || m_bForRoom == m_bWriting)
        return;
    m_bForRoom = m_bWriting;
    m_loop.poll().change(m_socket, cReadEvents | (m_bForRoom ? EPOLLOUT : 0U),
                         static_cast<RelayLoop::Handler*>(this));
}

void NatsLink::forget() {
    if (std::exchange(m_bBegun, false)) {
        m_loop.unwatch(m_socket);
        m_loop.discard(shared_from_this());
    }
    const std::lock_guard lock(m_mutex);
    m_socket = -1;
}

} // namespace VornRelay
