// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "StreamReader.h"

#include "RelayLog.h"

#include <algorithm>
#include <utility>

namespace VornRelay {

namespace {

using std::chrono::milliseconds;

constexpr std::size_t cBatch = 512;
constexpr milliseconds cLookInterval{1000};
constexpr milliseconds cRedeliveryMargin{5000};
constexpr int cPullsUntilLost = 3; // that end silently: a consumer that is there tells of the end of most

} // namespace

StreamReader::StreamReader(RelayLoop& loop, Engine& engine, MessageHandler onMessage)
    : m_loop(loop), m_engine(engine), m_onMessage(std::move(onMessage)) {
    look();
}

StreamReader::~StreamReader() {
    m_loop.cancel(m_look);
}

void StreamReader::add(const std::string& sConsumer, const std::string& sFilter, std::size_t nMost) {
    Consumer& consumer = m_consumers[sConsumer];
    consumer.sFilter = sFilter;
    consumer.nMost = nMost;
    consumer.bEnding = false;
    if (m_bConnected)
        open(sConsumer);
}

void StreamReader::remove(const std::string& sConsumer) {
    const auto found = m_consumers.find(sConsumer);
    if (found != m_consumers.end())
        found->second.bEnding = true;
}

void StreamReader::setConnected(bool bConnected) {
    m_bConnected = bConnected;
    ++m_nConnections;
    for (auto& [sConsumer, consumer] : m_consumers) {
        consumer.bOpen = false;
        consumer.bOpening = false;
        consumer.pulls.clear();
        if (bConnected)
            open(sConsumer);
    }
}

void StreamReader::arrived(Engine::Arrival&& arrival) {
    const auto found = m_consumers.find(arrival.sConsumer);
    if (found == m_consumers.end())
        return;
    Consumer& consumer = found->second;
    consumer.heard = RelayLoop::Clock::now();
    if (consumer.bOpen && arrival.nDelivery != consumer.nDelivery + 1) {
        logLine(LogLevel::warning,
                "consumer " + arrival.sConsumer +
                    " has handed out something that did not come here; it is opened again");
        consumerLost(arrival.sConsumer);
    }
    consumer.nDelivery = arrival.nDelivery;
    if (!consumer.pulls.empty() && --consumer.pulls.front().nLeft == 0)
        consumer.pulls.pop_front();
    const auto [held, bIsNew] = m_held.try_emplace(arrival.nPosition);
    held->second = {arrival.sConsumer, std::move(arrival.sReceipt)};
    if (bIsNew)
        ++consumer.nHeld;
    if (bIsNew && (!consumer.bOpen || consumer.nAwaited > 0)) {
        consumer.keptBack.emplace(arrival.nPosition, std::move(arrival.message));
        if (consumer.bOpen && arrival.nPosition <= consumer.nHandedOut && --consumer.nAwaited == 0)
            handOn(consumer);
    } else if (bIsNew) {
        m_onMessage(arrival.nPosition, std::move(arrival.message));
    }
    ask(arrival.sConsumer, consumer);
}

void StreamReader::pullEnded(const std::string& sConsumer) {
    const auto found = m_consumers.find(sConsumer);
    if (found == m_consumers.end())
        return;
    Consumer& consumer = found->second;
    consumer.heard = RelayLoop::Clock::now();
    if (!consumer.pulls.empty())
        consumer.pulls.pop_front();
    if (consumer.bEnding && consumer.pulls.empty() && consumer.nHeld == 0) {
        m_engine.close(sConsumer);
        m_consumers.erase(found);
        return;
    }
    ask(sConsumer, consumer);
}

void StreamReader::consumerLost(const std::string& sConsumer) {
    const auto found = m_consumers.find(sConsumer);
    if (found == m_consumers.end() || !found->second.bOpen)
        return;
    found->second.bOpen = false;
    found->second.pulls.clear(); // it is opened again at the next look
}

void StreamReader::acknowledge(std::uint64_t nPosition) {
    const auto held = m_held.extract(nPosition);
    if (held.empty())
        return;
    m_engine.acknowledge(held.mapped().sReceipt);
    const auto found = m_consumers.find(held.mapped().sConsumer);
    if (found == m_consumers.end())
        return;
    --found->second.nHeld;
    ask(found->first, found->second);
}

bool StreamReader::isReading() const {
    return std::all_of(m_consumers.begin(), m_consumers.end(),
                       [](const auto& entry) { return entry.second.bOpen; });
}

void StreamReader::open(const std::string& sConsumer) {
    Consumer& consumer = m_consumers[sConsumer];
    if (consumer.bOpening)
        return;
    consumer.bOpening = true;
    consumer.nDelivery = 0;
    m_engine.open(sConsumer, consumer.sFilter,
                  [this, sConsumer, nConnection = m_nConnections](const Engine::Opened& result) {
                      const auto found = m_consumers.find(sConsumer);
                      if (found == m_consumers.end() || nConnection != m_nConnections)
                          return;
                      found->second.bOpening = false;
                      found->second.bOpen = result.sError.empty();
                      found->second.pulls.clear();
                      if (!result.sError.empty()) {
                          logLine(LogLevel::warning,
                                  "consumer " + sConsumer + " cannot be opened: " + result.sError);
                          return;
                      }
                      opened(found->second, result);
                      ask(sConsumer, found->second);
                  });
}

/** What is still held from before needs not be waited for. */
void StreamReader::opened(Consumer& consumer, const Engine::Opened& opened) {
    if (opened.comesAgain == milliseconds(0)) {
        consumer.nDelivery = 0;
        for (const auto& [nPosition, message] : std::exchange(consumer.keptBack, {})) {
            m_held.erase(nPosition);
            --consumer.nHeld;
        }
    }
    const auto nKept =
        static_cast<std::uint64_t>(std::count_if(m_held.begin(), m_held.end(), [&](const auto& entry) {
            return &m_consumers.at(entry.second.sConsumer) == &consumer && entry.first <= opened.nHandedOut;
        }));
    consumer.nDelivery = std::max(consumer.nDelivery, opened.nDeliveries);
    consumer.nHandedOut = opened.nHandedOut;
    consumer.nAwaited = opened.nUnanswered - std::min(opened.nUnanswered, nKept);
    consumer.awaitedUntil = RelayLoop::Clock::now() + opened.comesAgain + cRedeliveryMargin;
    if (consumer.nAwaited == 0)
        handOn(consumer);
}

void StreamReader::handOn(Consumer& consumer) {
    consumer.nAwaited = 0;
    const auto keptBack = std::exchange(consumer.keptBack, {});
    for (const auto& [nPosition, message] : keptBack)
        m_onMessage(nPosition, Engine::Message(message));
}

void StreamReader::ask(const std::string& sConsumer, Consumer& consumer) {
    const auto now = RelayLoop::Clock::now();
    const bool bIsFresh = !consumer.pulls.empty() &&
                          (consumer.bEnding || now - consumer.pulls.back().asked < m_engine.pullLife() / 2);
    std::size_t nAsked = 0; // one that is to be replaced may bring something yet, and is not counted
    for (const Pull& pull : consumer.pulls)
        nAsked += bIsFresh ? pull.nLeft : 0;
    std::size_t nTaken = consumer.nHeld + nAsked;
    // Until the time has come, newer ones must not take the room of those that are awaited.
    if (consumer.nAwaited > 0 && now < consumer.awaitedUntil - cRedeliveryMargin)
        nTaken += consumer.nAwaited;
    if (m_bStopped || !consumer.bOpen || nAsked > cBatch / 2 || nTaken >= consumer.nMost)
        return;
    const std::size_t nCount = std::min(cBatch, consumer.nMost - nTaken);
    if (nAsked > 0 && nCount < cBatch / 2)
        return;
    if (consumer.pulls.empty())
        consumer.heard = now;
    consumer.pulls.push_back({nCount, now});
    m_engine.pull(sConsumer, nCount);
}

void StreamReader::look() {
    const auto now = RelayLoop::Clock::now();
    for (auto& [sConsumer, consumer] : m_consumers) {
        if (m_bConnected && !consumer.bOpen)
            open(sConsumer);
        if (!consumer.pulls.empty() && now - consumer.heard > cPullsUntilLost * m_engine.pullLife())
            consumerLost(sConsumer);
        if (consumer.bOpen && consumer.nAwaited > 0 && now > consumer.awaitedUntil)
            handOn(consumer); // they were acknowledged just before
        while (!consumer.pulls.empty() &&
               now - consumer.pulls.front().asked > m_engine.pullLife() + cLookInterval)
            consumer.pulls.pop_front(); // it has ended silently
        ask(sConsumer, consumer);
    }
    m_look = m_loop.after(cLookInterval, [this] { look(); });
}

} // namespace VornRelay
