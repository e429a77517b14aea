// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "TopicMirror.h"

#include "TopicNames.h"

#include <VornException.h>

#include <exception>
#include <filesystem>
#include <system_error>
#include <utility>

namespace VornRelay {

namespace {

using std::chrono::milliseconds;
using VornNet::History;
using VornNet::VornPosition;
using VornNet::VornPublisher;

constexpr std::size_t cHistoryBytes = 16UL * 1024 * 1024;
constexpr std::size_t cMostBytes = cHistoryBytes / 4; // of an event
constexpr milliseconds cLookInterval{250};
constexpr milliseconds cPollInterval{5000}; // news may get lost
constexpr milliseconds cFlushLook{10};
constexpr milliseconds cFlushLimit{2000};

std::string placeIn(const std::string& sDirectory, const std::string& sTopic) {
    std::filesystem::create_directories(sDirectory);
    const std::string sPath = sDirectory + "/" + sTopic + ".place";
    try {
        VornNet::PositionFile{sPath};
    } catch (const std::system_error& error) {
        if (error.code().value() != EINVAL)
            throw;
        std::filesystem::remove(sPath); // the machine's end has left something else: it is begun anew
    }
    return sPath;
}

} // namespace

TopicMirror::TopicMirror(RelayLoop& loop, Engine& engine, const std::string& sDirectory, std::string sHost,
                         std::string sTopic)
    : m_loop(loop), m_engine(engine), m_sDirectory(sDirectory), m_sHost(std::move(sHost)),
      m_sTopic(std::move(sTopic)), m_place(placeIn(sDirectory, m_sTopic)) {
    openHistory();
    const VornPosition place = m_place.position();
    if (m_spHistory->id() == place.nHistory) {
        m_position = {place.nHistory, m_spHistory->newest()};
        m_nRead = place.nNumber;
        m_nOpenAt = m_nRead;
    }
    look();
}

TopicMirror::~TopicMirror() {
    m_loop.cancel(m_look);
    m_loop.cancel(m_wait);
}

void TopicMirror::setConnected(bool bConnected) {
    m_bConnected = bConnected;
    poll();
}

void TopicMirror::poll() {
    m_bNews = true;
    if (!m_bConnected || m_bReading)
        return;
    m_bNews = false;
    m_bReading = true;
    m_nextPoll = RelayLoop::Clock::now() + cPollInterval;
    m_engine.read(streamOfTopics(m_sHost), subjectOfTopic(m_sHost, m_sTopic), 0,
                  [this, wpAlive = std::weak_ptr(m_spAlive)](const Engine::Stored& newest) {
                      if (!wpAlive.expired())
                          foundNewest(newest);
                  });
}

nlohmann::json TopicMirror::status() const {
    return {{"topic", m_sTopic},
            {"host", m_sHost},
            {"address", address()},
            {"position", m_position.text()},
            {"state", m_spPublisher ? "open" : "closed"},
            {"failure", m_sFailure}};
}

void TopicMirror::look() {
    m_look = m_loop.after(cLookInterval, [this] { look(); });
    if (!m_spPublisher)
        openPublisher();
    if (RelayLoop::Clock::now() >= m_nextPoll)
        poll();
}

void TopicMirror::openHistory() {
    m_spHistory = std::make_unique<History>(m_sDirectory + "/" + m_sTopic + ".history", cHistoryBytes);
}

/** Opens it when the history has all that it has to have. */
void TopicMirror::openPublisher() try {
    if (m_position.nHistory == 0 || !m_nOpenAt || m_nRead < *m_nOpenAt)
        return;
    VornPublisher::Options options;
    options.sName = "topic";
    options.sDirectory = m_sDirectory;
    options.nHistoryBytes = cHistoryBytes;
    options.nEventLimit = cMostBytes;
    options.stopLimit = milliseconds(100);
    m_spHistory.reset(); // its lock
    m_spPublisher = std::make_unique<VornPublisher>(address(), std::vector{m_sTopic}, options);
    m_sFailure.clear();

} catch (const VornSupport::VornException& error) {

    fail(error.getText() + " (" + std::to_string(error.getCode()) + ")");
}

void TopicMirror::foundNewest(const Engine::Stored& newest) {
    m_bReading = false;
    if (!newest.sError.empty()) {
        fail(newest.sError);
        return;
    }
    m_nNewest = newest.nPosition;
    if (m_nNewest != 0 && m_nNewest < m_nRead)
        m_nRead = 0; // the stream was created anew
    if (!m_nOpenAt && m_nNewest != 0)
        m_nOpenAt = m_nNewest;
    if (m_nNewest > m_nRead)
        readNext();
    else
        goOn();
}

void TopicMirror::readNext() {
    m_bReading = true;
    m_engine.read(streamOfTopics(m_sHost), subjectOfTopic(m_sHost, m_sTopic), m_nRead + 1,
                  [this, wpAlive = std::weak_ptr(m_spAlive)](const Engine::Stored& next) {
                      if (!wpAlive.expired())
                          foundNext(next);
                  });
}

void TopicMirror::foundNext(const Engine::Stored& next) {
    m_bReading = false;
    if (!next.sError.empty()) {
        fail(next.sError);
    } else if (next.nPosition == 0) { // the stream has just lost it
        m_nRead = m_nNewest;
        goOn();
    } else {
        take(next);
    }
}

void TopicMirror::take(const Engine::Stored& stored) try {
    m_bReading = true;
    const EventBatch batch = EventBatch::from(stored.message);
    if (mustWait(batch)) {
        m_wait = m_loop.after(cFlushLook, [this, stored] { take(stored); });
        return;
    }
    publish(batch);
    m_nRead = stored.nPosition;
    m_place.note({m_position.nHistory, m_nRead});
    if (!m_spPublisher)
        openPublisher();
    m_bReading = false;
    goOn();

} catch (const std::exception& error) {

    m_bReading = false;
    fail(error.what());

} catch (const VornSupport::VornException& error) {

    m_bReading = false;
    fail(error.getText());
}

/** Before a history is given up, its subscribers get what they can still have. */
bool TopicMirror::mustWait(const EventBatch& batch) {
    const bool bFollows =
        batch.before().nHistory == m_position.nHistory && batch.before().nNumber <= m_position.nNumber;
    const auto now = RelayLoop::Clock::now();
    const auto until = m_waitUntil.value_or(now + cFlushLimit);
    const bool bWaits = !bFollows && m_spPublisher && now < until && !m_spPublisher->flush(milliseconds(0));
    m_waitUntil = bWaits ? std::optional(until) : std::nullopt;
    return bWaits;
}

void TopicMirror::publish(const EventBatch& batch) {
    VornPosition before = batch.before();
    if (batch.events().empty() && before.nHistory != m_position.nHistory)
        beginAfter(before);
    for (const std::string& sEvent : batch.events()) {
        const bool bFits = sEvent.size() <= cMostBytes;
        if (!bFits)
            m_longLine.write(LogLevel::warning, "topic " + m_sTopic + " of " + m_sHost + ": event " +
                                                    std::to_string(before.nNumber + 1) +
                                                    " is too long, and left out");
        else if (before.nHistory != m_position.nHistory || before.nNumber > m_position.nNumber)
            beginAfter(before);
        if (bFits && before == m_position)
            append(sEvent);
        ++before.nNumber;
    }
}

/** The position is not noted in between: a history without an event does not know its number. */
void TopicMirror::beginAfter(const VornPosition& before) {
    m_place.note({});
    m_position = {};
    m_spPublisher.reset();
    m_spHistory.reset();
    m_spHistory =
        std::make_unique<History>(m_sDirectory + "/" + m_sTopic + ".history", cHistoryBytes, before);
    m_position = before;
}

void TopicMirror::append(const std::string& sEvent) {
    if (!m_spPublisher && !m_spHistory)
        openHistory();
    const std::uint64_t nWanted = m_position.nNumber + 1;
    const std::uint64_t nNumber =
        m_spHistory ? m_spHistory->append(sEvent)
                    : m_spPublisher->publish(m_sTopic, [&sEvent](VornNet::VornConnection& content) {
                          long nError = 0;
                          if (!sEvent.empty())
                              content.transfer(sEvent.data(), static_cast<long>(sEvent.size()), &nError);
                      });
    if (nNumber != nWanted) {
        m_position = {}; // begins anew with the next event
        throw std::runtime_error("event " + std::to_string(nWanted) + " got number " +
                                 std::to_string(nNumber));
    }
    m_position.nNumber = nWanted;
}

void TopicMirror::goOn() {
    m_sFailure.clear();
    if (m_nRead < m_nNewest)
        readNext();
    else if (m_bNews)
        poll();
}

void TopicMirror::fail(const std::string& sWhy) {
    m_sFailure = sWhy;
    m_failureLine.write(LogLevel::warning, "topic " + m_sTopic + " of " + m_sHost + ": " + sWhy);
}

} // namespace VornRelay
