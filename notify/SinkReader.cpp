// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SinkReader.h"

#include "Deadline.h"
#include "SystemError.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <limits>
#include <utility>

namespace VornNet {

namespace {

using Arrival = NotificationSource::Arrival;
using Progress = IncomingNotification::Progress;
using Statistics = SinkLine::Statistics;

constexpr std::chrono::milliseconds cRetryPause{100};
constexpr std::chrono::seconds cLookPause{1};
constexpr int cMostAccepted = 256; // before those that are open are read again

// Notifications are told by their numbers, which are above this one. Pointers would not do: an event may
// still be told of one that is gone.
constexpr std::uint64_t cSourceNumber = 1;

void* dataOf(std::uint64_t nNumber) {
    return reinterpret_cast<void*>(nNumber);
}

std::uint64_t numberOf(const epoll_event& event) {
    return reinterpret_cast<std::uint64_t>(event.data.ptr);
}

} // namespace

SinkReader::SinkReader(const SinkSettings& settings, NotificationSource& source, EventPoll& poll,
                       SinkLine& line)
    : m_settings(settings), m_source(source), m_poll(poll), m_line(line), m_nNumber(cSourceNumber),
      m_now(Clock::now()), m_acceptTime(m_now), m_lookTime(m_now + cLookPause) {
    if (const int nError = m_poll.add(m_source.descriptor(), EPOLLIN, dataOf(cSourceNumber)); nError != 0)
        throwSystemError(nError);
    m_watched = m_source.descriptor();
}

void SinkReader::run() {
    while (!m_line.isClosed()) {
        const Events events = m_poll.wait(nextTime());
        m_now = Clock::now();
        if (readWhatIsTold(events) || m_source.hasBacklog())
            acceptThoseWaiting();
        readHeldBack();
        readOlderOnes();
        handOver();
        cutLateOnes();
        lookAtSource();
        watchSource();
    }
    m_open.clear();
    m_complete.clear();
}

/** @return whether somebody waits at the source. */
bool SinkReader::readWhatIsTold(Events events) {
    bool isSourceTold = false;
    for (const epoll_event& event : events) {
        if (numberOf(event) == cSourceNumber) {
            isSourceTold = true;
            continue;
        }
        if (const Place place = m_open.find(numberOf(event)); place != m_open.end())
            read(place);
    }
    return isSourceTold;
}

void SinkReader::acceptThoseWaiting() {
    for (int nAccepted = 0; nAccepted < cMostAccepted; ++nAccepted) {
        if (m_now < m_acceptTime || isFull() || !acceptOne())
            return;
    }
}

/** @return whether there may be more. */
bool SinkReader::acceptOne() {
    Arrival arrival = Arrival::failed;
    try {
        if (m_next.empty())
            m_next = m_open.extract(m_open.emplace_hint(m_open.end(), m_nNumber + 1, m_source.prepare()));
        arrival = m_source.accept(*m_next.mapped());
    } catch (const std::bad_alloc&) { // as without descriptors
    }
    switch (arrival) { // GCOVR_EXCL_BR_LINE: there is no way past all arrivals
    case Arrival::accepted:
        break;
    case Arrival::refused:
        m_line.count(&Statistics::nRefused, false);
        m_next.mapped()->detach();
        return true;
    case Arrival::nothing:
        return false;
    case Arrival::failed:
        // The source stays readable. It is left alone for a while, instead of failing without a pause.
        m_acceptTime = m_now + cRetryPause;
        return false;
    }
    m_next.key() = ++m_nNumber;
    const Place place = m_open.insert(m_open.end(), std::move(m_next));
    IncomingNotification& accepted = *place->second;
    m_nBytes += accepted.size(); // of a datagram, all
    accepted.deadline = Deadline(m_settings.readLimit, m_now).end();
    m_cutTime = std::min(m_cutTime, accepted.deadline);
    if (accepted.descriptor() != -1)
        m_line.countConnection();
    if (accepted.isRefused())
        m_line.count(&Statistics::nRefused, false);
    read(place);
    return true;
}

void SinkReader::read(Place place) {
    IncomingNotification& notification = *place->second;
    const std::size_t nBefore = notification.size();
    const Progress progress = notification.read(roomFor(place->first, m_line.bytes()));
    m_nBytes += notification.size() - nBefore;
    switch (progress) { // GCOVR_EXCL_BR_LINE: there is no way past all steps
    case Progress::open:
        setOpen(place);
        break;
    case Progress::heldBack:
        setHeldBack(place);
        break;
    case Progress::complete:
        setComplete(place);
        break;
    case Progress::tooLong:
        drop(place, &Statistics::nTooLong);
        break;
    case Progress::broken:
        drop(place, notification.isRefused() ? nullptr : &Statistics::nIncomplete);
        break;
    }
}

/**
 * Reads on where there was no room. If there is none now, and no callback is going to give any back, one
 * notification is read above the limit: else each would wait for the others until the read limit.
 */
void SinkReader::readHeldBack() {
    m_retryTime = Clock::time_point::max();
    if (m_nHeldBack == 0)
        return;
    bool isLineEmpty = false;
    const std::size_t nWaitingBytes = m_line.awaitFewerBytes(isLineEmpty);
    const std::uint64_t nFirst = firstHeldBack();
    const bool isCallExpected = !isLineEmpty || (!m_complete.empty() && m_complete.begin()->first < nFirst);
    if (!isCallExpected && m_open.find(m_nAboveLimit) == m_open.end())
        m_nAboveLimit = nFirst;
    for (Place place = m_open.find(nFirst); place != m_open.end();) {
        const Place current = place++;
        const std::uint64_t nNumber = current->first;
        if (!current->second->isHeldBack || roomFor(nNumber, nWaitingBytes) == 0)
            continue;
        read(current);
        const Place after = m_open.find(nNumber);
        if (after != m_open.end() && after->second->isHeldBack)
            m_retryTime = std::min(m_retryTime, m_now + cRetryPause); // perhaps it is memory that is wanting
    }
}

/**
 * Reads those that were accepted before one that is complete. A thread that notifies twice has closed its
 * first connection before it opens the second, so that the first is complete by now if the second is. It is
 * done again until nothing else is complete: each of these may have others before it.
 */
void SinkReader::readOlderOnes() {
    constexpr std::size_t cManyEvents = 32; // there may be more than could be told at once
    while (!m_complete.empty() && !m_open.empty() && m_open.begin()->first < m_complete.rbegin()->first) {
        const std::size_t nComplete = m_complete.size();
        const Events events = m_poll.wait(m_now);
        readWhatIsTold(events); // of the source it is told again
        if (m_complete.size() == nComplete && events.size() < cManyEvents)
            return;
    }
}

/** Puts what is complete into the line, but what may have to wait for an older one that is held back. */
void SinkReader::handOver() {
    if (m_complete.empty())
        return;
    IncomingNotifications batch;
    const std::uint64_t nFirstHeldBack = firstHeldBack();
    while (!m_complete.empty() && m_complete.begin()->first < nFirstHeldBack) {
        m_nBytes -= m_complete.begin()->second->size();
        batch.insert(batch.end(), m_complete.extract(m_complete.begin()));
    }
    m_line.add(batch, m_complete.size());
}

void SinkReader::cutLateOnes() {
    if (m_now < m_cutTime)
        return;
    m_cutTime = Clock::time_point::max();
    for (Place place = m_open.begin(); place != m_open.end();) {
        const Place current = place++;
        const IncomingNotification& notification = *current->second;
        if (notification.isHeldBack)
            continue;
        if (notification.deadline <= m_now)
            drop(current, notification.isRefused() ? nullptr : &Statistics::nTimedOut);
        else
            m_cutTime = std::min(m_cutTime, notification.deadline);
    }
}

void SinkReader::lookAtSource() {
    if (!m_source.isToBeLookedAt() || m_now < m_lookTime)
        return;
    m_lookTime = m_now + cLookPause;
    m_source.look();
}

/** Watches the source while something may be accepted. */
void SinkReader::watchSource() {
    const bool isWanted = m_now >= m_acceptTime && !isFull();
    const int wanted = isWanted ? m_source.descriptor() : -1;
    if (wanted == m_watched)
        return;
    if (m_watched != -1)
        m_poll.remove(m_watched);
    m_watched = -1;
    if (wanted != -1 && m_poll.add(wanted, EPOLLIN, dataOf(cSourceNumber)) == 0)
        m_watched = wanted;
    else if (wanted != -1)
        m_acceptTime = m_now + cRetryPause;
}

void SinkReader::setOpen(Place place) {
    IncomingNotification& notification = *place->second;
    if (!notification.isWatched) {
        if (m_poll.add(notification.descriptor(), EPOLLIN | EPOLLRDHUP | EPOLLET, dataOf(place->first)) !=
            0) {
            setHeldBack(place); // the system has no memory for it now
            return;
        }
        notification.isWatched = true;
    }
    if (!std::exchange(notification.isHeldBack, false))
        return;
    --m_nHeldBack;
    notification.deadline += m_now - notification.heldSince;
    m_cutTime = std::min(m_cutTime, notification.deadline);
}

void SinkReader::setHeldBack(Place place) {
    IncomingNotification& notification = *place->second;
    if (std::exchange(notification.isHeldBack, true))
        return;
    ++m_nHeldBack;
    notification.heldSince = m_now;
    m_retryTime = m_now; // unless it is tried again in this round
}

void SinkReader::setComplete(Place place) {
    if (place->second->isHeldBack)
        --m_nHeldBack;
    m_complete.insert(m_open.extract(place));
}

void SinkReader::drop(Place place, SinkLine::Counter counter) {
    const IncomingNotification& notification = *place->second;
    if (notification.isHeldBack)
        --m_nHeldBack;
    m_nBytes -= notification.size();
    if (m_nHeldBack > 0)
        m_retryTime = m_now; // there may be room now
    m_line.count(counter, notification.descriptor() != -1);
    m_open.erase(place);
}

bool SinkReader::isFull() const {
    return m_line.isFull(m_complete, m_nBytes);
}

/** @return the number of the oldest one that is held back; above all numbers when there is none. */
std::uint64_t SinkReader::firstHeldBack() const {
    const auto isHeldBack = [](const auto& entry) { return entry.second->isHeldBack; };
    return m_nHeldBack == 0 ? std::numeric_limits<std::uint64_t>::max()
                            : std::find_if(m_open.begin(), m_open.end(), isHeldBack)->first;
}

/** @return how many bytes of that one may be read. */
std::size_t SinkReader::roomFor(std::uint64_t nNumber, std::size_t nWaitingBytes) const {
    const std::size_t nUsed = m_nBytes + nWaitingBytes;
    if (nNumber == m_nAboveLimit)
        return std::numeric_limits<std::size_t>::max();
    return nUsed < m_settings.nByteLimit ? m_settings.nByteLimit - nUsed : 0;
}

SinkReader::Clock::time_point SinkReader::nextTime() const {
    Clock::time_point time = std::min(m_cutTime, m_retryTime);
    if (m_now < m_acceptTime)
        time = std::min(time, m_acceptTime);
    if (m_source.isToBeLookedAt())
        time = std::min(time, m_lookTime);
    const bool isAccepting = m_now >= m_acceptTime && !isFull();
    return m_source.hasBacklog() && isAccepting ? m_now : time;
}

} // namespace VornNet
