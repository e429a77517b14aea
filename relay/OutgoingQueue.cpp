// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "OutgoingQueue.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace VornRelay {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds cFirstPause{20};
constexpr milliseconds cLongestPause{2000};
constexpr std::size_t cStoredUntilMore = 64;

} // namespace

void OutgoingQueue::add(Engine::Message&& message, DoneHandler onDone) {
    m_nBytes += message.sContent.size();
    m_waiting.push_back({std::move(message), std::move(onDone)});
    pump();
}

void OutgoingQueue::setConnected(bool bConnected) {
    m_bConnected = bConnected;
    m_absentSince.reset();
    m_sFailure.clear();
    m_loop.cancel(std::exchange(m_pauseTimer, 0));
    m_pause = milliseconds(0);
    pump();
}

void OutgoingQueue::pump() {
    while (m_bConnected && !m_bFailing && m_pauseTimer == 0 && !m_waiting.empty() &&
           m_published.size() < m_nWindowNow) {
        Item& item = m_published.emplace_back(std::move(m_waiting.front()));
        m_waiting.pop_front();
        if (!item.bStamped && m_stamp)
            m_stamp(item.message);
        item.bStamped = true;
        item.state = State::undecided;
        ++m_nUndecided;
        ++m_nUnstored;
        const std::uint64_t nSerial = m_nFirstSerial + m_published.size() - 1;
        m_engine.publish(item.message, [this, nSerial](Engine::Answer answer, const std::string& sText) {
            answered(nSerial, answer, sText);
        });
    }
}

void OutgoingQueue::answered(std::uint64_t nSerial, Engine::Answer answer, const std::string& sText) {
    Item& item = m_published[nSerial - m_nFirstSerial];
    DoneHandler onDone;
    --m_nUndecided;
    m_sFailure = answer == Engine::Answer::stored ? "" : sText;
    m_bFull = answer == Engine::Answer::full;
    fitWindow(answer);
    if (isSettledBy(answer)) {
        item.state = State::settled;
        m_nBytes -= item.message.sContent.size();
        item.message = {};
        onDone = std::move(item.onDone);
        --m_nUnstored;
        m_pause = milliseconds(0);
    } else {
        item.state = State::failed;
        m_bFailing = true;
    }
    while (!m_published.empty() && m_published.front().state == State::settled) {
        m_published.pop_front();
        ++m_nFirstSerial;
    }
    if (m_bFailing && m_nUndecided == 0)
        repeat();
    if (m_published.empty() && m_waiting.empty())
        m_nWindowNow = m_terms.nWindow;
    pump();
    if (onDone)
        onDone(answer == Engine::Answer::stored); // last, for it may add
}

bool OutgoingQueue::isSettledBy(Engine::Answer answer) {
    const auto now = RelayLoop::Clock::now();
    m_bHasStored = m_bHasStored || answer == Engine::Answer::stored;
    if (answer != Engine::Answer::absent)
        m_absentSince.reset();
    else if (!m_absentSince)
        m_absentSince = now;
    const bool bMayBeAbsent = m_bHasStored || !m_terms.absentLimit;
    return answer == Engine::Answer::stored || answer == Engine::Answer::refused ||
           (m_absentSince && !bMayBeAbsent && now - *m_absentSince >= *m_terms.absentLimit);
}

void OutgoingQueue::fitWindow(Engine::Answer answer) {
    const auto now = RelayLoop::Clock::now();
    m_nStoredInARow = answer == Engine::Answer::stored ? m_nStoredInARow + 1 : 0;
    if (answer == Engine::Answer::full || answer == Engine::Answer::absent) {
        m_nWindowNow = 1;
        m_lastNarrowed = now;
    } else if (m_nStoredInARow >= cStoredUntilMore && now - m_lastNarrowed >= m_terms.calmTime) {
        m_nStoredInARow = 0;
        m_nWindowNow = std::min(m_terms.nWindow, 2 * m_nWindowNow);
    }
}

void OutgoingQueue::repeat() {
    const auto isSettled = [](const Item& item) { return item.state == State::settled; };
    const auto lastSettled = std::find_if(m_published.rbegin(), m_published.rend(), isSettled).base();
    std::vector<Item> again;
    std::vector<Item> anew;
    for (auto item = lastSettled; item != m_published.end(); ++item)
        again.push_back(std::move(*item));
    for (auto item = m_published.begin(); item != lastSettled; ++item) {
        if (isSettled(*item))
            continue;
        item->bStamped = false;
        anew.push_back(std::move(*item));
    }
    // A new number is higher than all that were given before, so those go first.
    std::size_t nStamped = 0;
    while (nStamped < m_waiting.size() && m_waiting[nStamped].bStamped)
        ++nStamped;
    putAt(nStamped, std::move(anew));
    putAt(0, std::move(again));
    m_nRepeated += m_nUnstored;
    m_nUnstored = 0;
    m_nFirstSerial += m_published.size();
    m_published.clear();
    m_bFailing = false;
    pause();
}

/** Nothing is not inserted: the deque would then move its elements onto themselves, which empties them. */
void OutgoingQueue::putAt(std::size_t nPlace, std::vector<Item>&& items) {
    if (!items.empty())
        m_waiting.insert(m_waiting.begin() + static_cast<std::ptrdiff_t>(nPlace),
                         std::move_iterator(items.begin()), std::move_iterator(items.end()));
}

void OutgoingQueue::pause() {
    m_pause = std::clamp(m_pause * 2, cFirstPause, cLongestPause);
    m_loop.cancel(m_pauseTimer);
    m_pauseTimer = m_loop.after(m_pause, [this] {
        m_pauseTimer = 0;
        pump();
    });
}

} // namespace VornRelay
