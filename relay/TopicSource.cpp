// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "TopicSource.h"

#include "TopicNames.h"

#include <VornException.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <exception>
#include <limits>
#include <utility>

namespace VornRelay {

namespace {

using VornNet::VornPosition;
using VornNet::VornSubscriber;

constexpr std::chrono::milliseconds cPause{250};
constexpr std::size_t cBatchBytes = 128UL * 1024;
constexpr std::size_t cMostBatches = 4;
constexpr std::size_t cRoomForHeaders = 1024;

/** In a history that nobody has: the service then says at once which one it has, also before any event. */
constexpr VornPosition cBeforeAll{1, 0};

std::string contentOf(VornNet::VornConnection& content) {
    std::string sContent;
    std::array<char, 16384> part;
    long nError = 0;
    for (long nCount = 1; nCount > 0;) {
        nCount = content.receive(part.data(), static_cast<long>(part.size()), &nError, false);
        sContent.append(part.data(), static_cast<std::size_t>(nCount));
    }
    return sContent;
}

} // namespace

TopicSource::TopicSource(RelayLoop& loop, Engine& engine, std::string sHost, std::string sTopic,
                         std::string sAddress)
    : m_loop(loop), m_engine(engine), m_sHost(std::move(sHost)), m_sTopic(std::move(sTopic)),
      m_sAddress(std::move(sAddress)) {
    subscriber(); // what is wrong with the address is to be said at the start
}

TopicSource::~TopicSource() {
    leave();
}

void TopicSource::setConnected(bool bConnected) {
    if (bConnected)
        begin();
    else
        leave();
}

nlohmann::json TopicSource::status() const {
    std::size_t nWaiting = 0;
    for (const EventBatch& batch : m_batches)
        nWaiting += batch.events().size();
    nlohmann::json status{{"topic", m_sTopic},
                          {"waiting", nWaiting},
                          {"address", m_sAddress},
                          {"position", m_stored.text()},
                          {"state", "waiting for the engine"},
                          {"failure", m_sFailure}};
    if (m_spSubscriber) {
        const VornSubscriber::Status service = m_spSubscriber->status();
        status["state"] = VornSubscriber::nameOf(service.state);
        if (m_sFailure.empty())
            status["failure"] = service.sReason;
    }
    return status;
}

void TopicSource::begin() {
    leave();
    m_engine.read(streamOfTopics(m_sHost), subjectOfTopic(m_sHost, m_sTopic), 0,
                  [this, wpRound = std::weak_ptr(m_spRound)](const Engine::Stored& newest) {
                      if (!wpRound.expired())
                          goOn(newest);
                  });
}

void TopicSource::goOn(const Engine::Stored& newest) try {
    if (!newest.sError.empty()) {
        fail(newest.sError);
        return;
    }
    m_nNewest = newest.nPosition;
    if (newest.nPosition != 0) // else the stream has lost it, and what is known here holds
        m_stored = EventBatch::from(newest.message).after();
    tellNews(); // it may have been stored just before a relay was killed
    m_spSubscriber = subscriber();
    m_loop.watch(m_spSubscriber->getHandle(), EPOLLIN, *this);

} catch (const std::exception& error) {

    fail(error.what());

} catch (const VornSupport::VornException& error) {

    fail(error.getText());
}

void TopicSource::leave() {
    m_spRound = std::make_shared<char>();
    m_loop.cancel(m_pause);
    if (m_spSubscriber && !m_bHeld)
        m_loop.unwatch(m_spSubscriber->getHandle());
    m_spSubscriber.reset();
    m_batches.clear();
    m_bUnderWay = false;
    m_bHeld = false;
}

void TopicSource::fail(const std::string& sWhy) {
    m_sFailure = sWhy;
    m_failureLine.write(LogLevel::warning, "topic " + m_sTopic + " is not stored: " + sWhy);
    leave();
    m_pause = m_loop.after(cPause, [this] { begin(); });
}

std::unique_ptr<VornSubscriber> TopicSource::subscriber() {
    VornSubscriber::Options options;
    options.bOwnThread = false;
    options.position = m_stored.nHistory == 0 ? cBeforeAll : m_stored;
    options.sWords = "relay of " + m_sHost;
    options.nEventLimit = std::numeric_limits<int>::max(); // the engine's limit is what counts
    options.onGap = [this](const VornSubscriber::Gap& gap) {
        if (gap.next.nNumber == 0) // after any other gap an event comes at once
            m_batches.emplace_back(gap.next);
    };
    return std::make_unique<VornSubscriber>(
        m_sAddress, m_sTopic,
        [this](VornNet::VornConnection& content, const VornSubscriber::Event& event) {
            take(content, event.position);
        },
        options);
}

void TopicSource::ready(std::uint32_t) {
    if (!m_spSubscriber)
        return;
    m_spSubscriber->dispatch();
    publish();
    hold();
}

void TopicSource::take(VornNet::VornConnection& content, const VornPosition& after) {
    std::string sContent = contentOf(content);
    const std::size_t nMost = std::max(m_engine.mostContent(), cRoomForHeaders) - cRoomForHeaders;
    if (sContent.size() > nMost) {
        m_longLine.write(LogLevel::warning, "topic " + m_sTopic + ": event " + std::to_string(after.nNumber) +
                                                " is longer than the engine takes, and left out");
        return;
    }
    const VornPosition before{after.nHistory, after.nNumber - 1};
    const std::size_t nClosed = m_bUnderWay ? 1 : 0;
    if (m_batches.size() == nClosed || m_batches.back().after() != before ||
        m_batches.back().bytes() + sContent.size() > std::min(cBatchBytes, nMost))
        m_batches.emplace_back(before);
    m_batches.back().add(std::move(sContent));
}

void TopicSource::publish() {
    if (m_bUnderWay || m_batches.empty())
        return;
    m_bUnderWay = true;
    m_engine.publish(
        m_batches.front().message(subjectOfTopic(m_sHost, m_sTopic), m_nNewest),
        [this, wpRound = std::weak_ptr(m_spRound)](Engine::Answer answer, const std::string& sText) {
            if (!wpRound.expired())
                answered(answer, sText);
        });
}

void TopicSource::answered(Engine::Answer answer, const std::string& sText) {
    if (answer != Engine::Answer::stored) {
        fail(sText);
        return;
    }
    std::from_chars(sText.data(), sText.data() + sText.size(), m_nNewest);
    m_stored = m_batches.front().after();
    m_sFailure.clear();
    m_batches.pop_front();
    m_bUnderWay = false;
    tellNews();
    publish();
    hold();
}

/** While the engine is slower than the service, events wait in the service's history. */
void TopicSource::hold() {
    const bool bHeld = m_batches.size() > cMostBatches;
    if (bHeld && !m_bHeld)
        m_loop.unwatch(m_spSubscriber->getHandle());
    else if (!bHeld && m_bHeld)
        m_loop.watch(m_spSubscriber->getHandle(), EPOLLIN, *this);
    m_bHeld = bHeld;
}

void TopicSource::tellNews() {
    m_engine.tell(subjectOfNews(m_sHost, m_sTopic), "");
}

} // namespace VornRelay
