// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "DispatchBook.h"

#include <Probe.h>

#include <algorithm>
#include <utility>

namespace VornNet {

DispatchBook::FlushWait::FlushWait(DispatchBook& book)
    : m_book(book), m_nLastTicket(book.statistics.nPosted), m_nLeft(book.m_nUnsettled),
      m_next(book.m_firstFlush) {
    book.m_firstFlush = this;
}

DispatchBook::FlushWait::~FlushWait() {
    FlushWait** link = &m_book.m_firstFlush;
    while (*link != this)
        link = &(*link)->m_next;
    *link = m_next;
}

DispatchBook::DispatchBook(const VornDispatcher::Options& options)
    : m_nQueueLimit(options.nQueueLimit), m_nByteLimit(options.nByteLimit),
      m_bTellsResults(static_cast<bool>(options.onResult)) {}

void DispatchBook::release(Lock& lock) {
    const bool bChanged = std::exchange(m_bChanged, false);
    const bool bHasResults = std::exchange(m_bHasResults, false);
    lock.unlock();
    if (bHasResults)
        m_resultsReady.notify_one();
    if (bChanged)
        m_changed.notify_all();
}

bool DispatchBook::awaitChange(Lock& lock, Clock::time_point until) {
    if (until != Clock::time_point::max())
        return m_changed.wait_until(lock, until) == std::cv_status::no_timeout;
    m_changed.wait(lock);
    return true;
}

bool DispatchBook::awaitResults(Lock& lock, PostedNotifications& results) {
    m_resultsReady.wait(lock, [this] { return !m_finished.empty() || m_bResultsEnd; });
    results.swap(m_finished);
    return !results.empty();
}

void DispatchBook::endResults() {
    m_bResultsEnd = true;
    m_bHasResults = true;
}

AddressQueue* DispatchBook::find(const CallbackEndpoint& endpoint) const {
    const auto found = m_queues.find(endpoint.key());
    return found == m_queues.end() ? nullptr : found->second.get();
}

AddressQueue& DispatchBook::queueOf(const CallbackEndpoint& endpoint, EventPoll& poll) {
    // Each notification and each queue has a timer, and one of each may be new.
    timers.reserve(statistics.nQueued + m_queues.size() + 2);
    if (AddressQueue* queue = find(endpoint))
        return *queue;
    auto spQueue = std::make_unique<AddressQueue>(endpoint, poll);
    return *m_queues.emplace(endpoint.key(), std::move(spQueue)).first->second;
}

void DispatchBook::remove(AddressQueue& queue) {
    m_queues.erase(m_queues.find(queue.endpoint().key()));
}

bool DispatchBook::hasRoom(const AddressQueue* queue, std::size_t nBytes) const {
    return (queue == nullptr || queue->waiting.size() < m_nQueueLimit) &&
           nBytes <= m_nByteLimit - std::min(m_nByteLimit, statistics.nQueuedBytes);
}

bool DispatchBook::dropOldest(AddressQueue* queue, std::size_t nBytes) {
    if (queue == nullptr)
        return false;
    std::size_t nDropped = 0;
    std::size_t nFreed = 0;
    for (auto next = queue->firstUntried(); next != queue->waiting.end(); ++next) {
        ++nDropped;
        nFreed += next->sBytes.size();
        if (queue->waiting.size() - nDropped < m_nQueueLimit &&
            statistics.nQueuedBytes - nFreed + nBytes <= m_nByteLimit) {
            for (; nDropped > 0; --nDropped)
                finish(*queue->firstUntried(), VornDispatcher::Outcome::dropped);
            return true;
        }
    }
    return false;
}

void DispatchBook::enter(PostedNotifications& one, const CallbackEndpoint& endpoint, EventPoll& poll) {
    AddressQueue& queue = queueOf(endpoint, poll);
    PostedNotification& notification = one.front();
    notification.result.nTicket = ++statistics.nPosted;
    notification.queue = &queue;
    notification.position = one.begin();
    timers.set(notification, notification.deadline);
    VORN_PROBE(notification__posted, notification.result.nTicket, notification.result.sAddress.c_str(),
               notification.result.nHandle);
    if (queue.waiting.empty())
        ++statistics.nAddresses;
    ++statistics.nQueued;
    statistics.nQueuedBytes += notification.sBytes.size();
    ++m_nUnsettled;
    queue.waiting.splice(queue.waiting.end(), one);
    if (queue.state == AddressQueue::State::idle) {
        queue.state = AddressQueue::State::ready;
        ready.append(queue);
    }
}

void DispatchBook::finish(PostedNotification& notification, VornDispatcher::Outcome outcome) {
    AddressQueue& queue = *notification.queue;
    VornDispatcher::Result& result = notification.result;
    result.outcome = outcome;
    result.elapsed =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - notification.posted);
    VORN_PROBE(notification__finished, result.nTicket, result.sAddress.c_str(), static_cast<int>(outcome),
               result.nCode);
    timers.clear(notification);
    ++countOf(outcome);
    --statistics.nQueued;
    statistics.nQueuedBytes -= notification.sBytes.size();
    if (m_bTellsResults) {
        m_bHasResults = m_bHasResults || m_finished.empty();
        m_finished.splice(m_finished.end(), queue.waiting, notification.position);
    } else {
        settle(result.nTicket);
        queue.waiting.erase(notification.position);
    }
    if (queue.waiting.empty())
        --statistics.nAddresses;
    if (nWaitingForRoom > 0 || statistics.nQueued == 0)
        noteChange();
}

void DispatchBook::move(AddressQueue& from, AddressQueue& to) {
    if (from.waiting.empty())
        return;
    --statistics.nAddresses;
    if (to.waiting.empty())
        ++statistics.nAddresses;
    for (PostedNotification& notification : from.waiting)
        notification.queue = &to;
    to.waiting.splice(to.firstUntried(), from.waiting);
}

void DispatchBook::settle(std::uint64_t nTicket) {
    --m_nUnsettled;
    for (FlushWait* wait = m_firstFlush; wait != nullptr; wait = wait->m_next) {
        if (nTicket <= wait->m_nLastTicket && --wait->m_nLeft == 0)
            noteChange();
    }
}

std::uint64_t& DispatchBook::countOf(VornDispatcher::Outcome outcome) {
    switch (outcome) { // GCOVR_EXCL_BR_LINE: there is no way past all outcomes
    case VornDispatcher::Outcome::delivered:
        return statistics.nDelivered;
    case VornDispatcher::Outcome::sent:
        return statistics.nSent;
    case VornDispatcher::Outcome::unread:
        return statistics.nUnread;
    case VornDispatcher::Outcome::expired:
        return statistics.nExpired;
    case VornDispatcher::Outcome::dropped:
        return statistics.nDropped;
    case VornDispatcher::Outcome::cancelled:
        return statistics.nCancelled;
    case VornDispatcher::Outcome::stopped:
        break;
    }
    return statistics.nStopped;
}

} // namespace VornNet
