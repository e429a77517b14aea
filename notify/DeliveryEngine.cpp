// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "DeliveryEngine.h"

#include "Deadline.h"
#include "DescriptorLimit.h"

#include <Cancellation.h>
#include <Probe.h>
#include <SystemCalls.h>

#include <algorithm>
#include <cerrno>
#include <thread>
#include <utility>
#include <vector>

namespace VornNet {

namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using Outcome = VornDispatcher::Outcome;
using State = AddressQueue::State;

/** A sink that resets connections is there, and busy: who stays away for longer is served last. */
constexpr nanoseconds cLongestPauseWhileAlive = 4ms;

constexpr std::size_t cMostConnections = 4096;

} // namespace

DeliveryEngine::DeliveryEngine(const VornDispatcher::Options& options, DispatchBook& book)
    : m_options(options),
      m_nConnectionLimit(options.nConnectionLimit != 0 ? options.nConnectionLimit
                                                       : halfOfDescriptors(cMostConnections)),
      m_book(book), m_poll(std::in_place),
      m_nRandom(static_cast<std::uint64_t>(Clock::now().time_since_epoch().count()) ^
                (static_cast<std::uint64_t>(System::getpid()) << 32)) {
    m_thread.start(options.sName, [this] { run(); });
}

DeliveryEngine::~DeliveryEngine() {
    end();
}

bool DeliveryEngine::mustBeWoken() {
    if (!m_bSleeps.load(std::memory_order_relaxed))
        return false;
    const Timer* first = m_book.timers.first();
    const bool bIsDueEarlier = first != nullptr && first->due() < m_sleepsUntil;
    if (!hasWork() && !bIsDueEarlier && !isCalled())
        return false;
    m_bSleeps.store(false, std::memory_order_relaxed); // one word is enough
    ++m_nWakers;
    return true;
}

void DeliveryEngine::wakeUp() {
    const CancellationOff off;
    m_poll->wakeUp();
    --m_nWakers;
}

std::size_t DeliveryEngine::cancel(const CallbackEndpoint& endpoint) {
    std::size_t nCancelled = 0;
    Request request;
    request.work = [&] { nCancelled = cancelNow(endpoint); };
    perform(request);
    return nCancelled;
}

std::size_t DeliveryEngine::redirect(const CallbackEndpoint& from, const CallbackEndpoint& to,
                                     const VornString& sTo) {
    std::size_t nMoved = 0;
    Request request;
    request.work = [&] { nMoved = redirectNow(from, to, sTo); };
    perform(request);
    return nMoved;
}

void DeliveryEngine::end() {
    DispatchBook::Lock lock = m_book.lock();
    m_bEnd = true;
    const bool bMustBeWoken = mustBeWoken();
    m_book.release(lock);
    if (bMustBeWoken)
        wakeUp();
    m_thread.join();
    while (m_nWakers.load() != 0) // their descriptor must not be closed, and its number given to a stranger
        std::this_thread::yield();
    m_poll.reset();
}

void DeliveryEngine::perform(Request& request) {
    const CancellationOff off; // the thread has the request's address
    DispatchBook::Lock lock = m_book.lock();
    if (m_bEnded)
        return;
    *m_requestsEnd = &request;
    m_requestsEnd = &request.next;
    if (mustBeWoken()) {
        m_book.release(lock);
        wakeUp();
        lock.lock();
    }
    while (!request.bDone)
        m_book.awaitChange(lock, Clock::time_point::max());
    if (request.failure != nullptr)
        std::rethrow_exception(request.failure);
}

void DeliveryEngine::run() {
    DispatchBook::Lock lock = m_book.lock();
    while (!m_bEnd) {
        serveRequests();
        endTimers(Clock::now());
        tryNext(lock);
        awaitEvents(lock);
    }
    stopAll();
    serveRequests();
    m_bEnded = true;
    m_book.release(lock);
}

void DeliveryEngine::serveRequests() {
    for (Request* request = std::exchange(m_firstRequest, nullptr); request != nullptr;) {
        try {
            request->work();
        } catch (...) {
            request->failure = std::current_exception();
        }
        Request* next = request->next;
        request->bDone = true;
        request = next;
        m_book.noteChange();
    }
    m_requestsEnd = &m_firstRequest;
}

void DeliveryEngine::endTimers(Clock::time_point now) {
    for (Timer* timer = m_book.timers.first(); timer != nullptr && timer->due() <= now;
         timer = m_book.timers.first()) {
        m_book.timers.clear(*timer);
        if (timer->owner() == Timer::Owner::notification) {
            expire(static_cast<PostedNotification&>(*timer));
            continue;
        }
        auto& queue = static_cast<AddressQueue&>(*timer);
        if (queue.state == State::trying) { // is not connected yet
            cut(queue, ETIMEDOUT);
            queue.nLastCode = ETIMEDOUT;
            pauseFor(queue, nextPause(queue, false));
        } else {
            lineUp(queue);
        }
    }
}

void DeliveryEngine::expire(PostedNotification& notification) {
    AddressQueue& queue = *notification.queue;
    const bool bWasTried = queue.isTried(notification);
    if (bWasTried)
        cut(queue, ETIMEDOUT);
    else if (notification.result.nTries == 0) // why those before it did not get through either
        notification.result.nCode = queue.nLastCode;
    m_book.finish(notification, Outcome::expired);
    if (bWasTried)
        lineUp(queue);
    else
        rest(queue);
}

void DeliveryEngine::tryNext(DispatchBook::Lock& lock) {
    // Those that get into line meanwhile have to wait, so that events and timers have their turn.
    for (std::size_t n = m_book.readyOpen.length(); n > 0 && !isCalled(); --n)
        tryFirst(m_book.readyOpen.takeFirst(), lock);
    for (std::size_t n = m_book.ready.length(); n > 0 && hasFreeConnection() && !isCalled(); --n)
        tryFirst(m_book.ready.takeFirst(), lock);
}

void DeliveryEngine::tryFirst(AddressQueue& queue, DispatchBook::Lock& lock) {
    if (queue.waiting.empty()) {
        lineUp(queue);
        return;
    }
    PostedNotification& first = queue.waiting.front();
    queue.state = State::trying;
    ++first.result.nTries;
    ++m_book.statistics.nTries;
    VORN_PROBE(notification__tried, first.result.nTicket, first.result.sAddress.c_str(), first.result.nTries);
    if (!queue.spTry->isOpen())
        ++m_book.statistics.nConnections;
    m_book.release(lock);
    const Progress progress = queue.spTry->start(first.sBytes);
    lock.lock();
    apply(queue, progress);
}

bool DeliveryEngine::hasWork() const {
    return !m_book.readyOpen.isEmpty() || (!m_book.ready.isEmpty() && hasFreeConnection());
}

void DeliveryEngine::awaitEvents(DispatchBook::Lock& lock) {
    const Timer* first = m_book.timers.first();
    m_sleepsUntil = first == nullptr ? Clock::time_point::max() : first->due();
    const bool bSleeps = !hasWork() && !isCalled();
    m_bSleeps.store(bSleeps, std::memory_order_relaxed);
    m_book.release(lock);
    const auto events = m_poll->wait(bSleeps ? m_sleepsUntil : Clock::time_point());
    m_bSleeps.store(false, std::memory_order_relaxed);
    for (const epoll_event& event : events) {
        auto& queue = *static_cast<AddressQueue*>(event.data.ptr);
        const Progress progress = queue.spTry->advance(event.events);
        lock.lock();
        apply(queue, progress);
        m_book.release(lock);
    }
    lock.lock();
}

void DeliveryEngine::stopAll() {
    while (AddressQueue* queue = m_book.anyQueue()) {
        if (queue->state == State::trying)
            cut(*queue, ECANCELED);
        m_book.timers.clear(*queue);
        while (!queue->waiting.empty())
            finishFirst(*queue, Outcome::stopped);
        closeKept(*queue);
        m_book.remove(*queue);
    }
}

void DeliveryEngine::apply(AddressQueue& queue, const Progress& progress) {
    if (progress.kind == Progress::Kind::waiting)
        return applyWaiting(queue);
    m_book.timers.clear(queue);
    queue.state = State::idle;
    if (!queue.spTry->isOpen())
        --m_book.statistics.nConnections;
    switch (progress.kind) { // GCOVR_EXCL_BR_LINE: there is no way past all kinds
    case Progress::Kind::delivered:
        finishFirst(queue, Outcome::delivered);
        lineUp(queue);
        break;
    case Progress::Kind::sent:
        finishFirst(queue, Outcome::sent);
        pauseFor(queue, m_options.datagramPause);
        break;
    case Progress::Kind::unread:
        noteFailure(queue, progress.nCode, true);
        finishFirst(queue, Outcome::unread);
        lineUp(queue);
        break;
    case Progress::Kind::failed:
        applyFailure(queue, progress);
        break;
    case Progress::Kind::waiting: // GCOVR_EXCL_LINE: was seen to
        break;                    // GCOVR_EXCL_LINE: as above
    }
}

void DeliveryEngine::applyWaiting(AddressQueue& queue) {
    if (!queue.spTry->isConnecting())
        m_book.timers.clear(queue);
    else if (!queue.isSet())
        m_book.timers.set(queue, Deadline(m_options.connectLimit).end());
}

void DeliveryEngine::applyFailure(AddressQueue& queue, const Progress& progress) {
    noteFailure(queue, progress.nCode, progress.bDoubtful);
    queue.nLastCode = progress.nCode;
    const PostedNotification& first = queue.waiting.front();
    if (progress.bDoubtful && first.result.nDoubtfulTries >= first.nDoubtfulLimit) {
        finishFirst(queue, Outcome::unread);
        lineUp(queue);
    } else {
        pauseFor(queue, nextPause(queue, progress.bIsAlive));
    }
}

void DeliveryEngine::finishFirst(AddressQueue& queue, Outcome outcome) {
    queue.pause = 0ns;
    queue.nLastCode = 0;
    m_book.finish(queue.waiting.front(), outcome);
}

void DeliveryEngine::noteFailure(AddressQueue& queue, int nCode, bool bDoubtful) {
    VornDispatcher::Result& result = queue.waiting.front().result;
    result.nCode = nCode;
    if (bDoubtful) {
        ++result.nDoubtfulTries;
        ++m_book.statistics.nDoubtfulTries;
    }
}

void DeliveryEngine::cut(AddressQueue& queue, int nCode) {
    noteFailure(queue, nCode, queue.spTry->mayHaveArrived());
    queue.spTry->abandon();
    --m_book.statistics.nConnections;
    m_book.timers.clear(queue);
    queue.state = State::idle;
}

/** An address for which nothing waits is forgotten, unless datagrams to it have to keep their distance. */
void DeliveryEngine::rest(AddressQueue& queue) {
    closeKept(queue);
    if (!queue.waiting.empty() || queue.state != State::pausing || queue.isDatagram())
        return;
    m_book.timers.clear(queue);
    m_book.remove(queue);
}

/** A datagram socket is kept while something waits, unless others wait for a connection. */
void DeliveryEngine::closeKept(AddressQueue& queue) {
    const bool bOthersWait = !m_book.ready.isEmpty() && !hasFreeConnection();
    if (queue.state == State::trying || !queue.spTry->isOpen() || (!queue.waiting.empty() && !bOthersWait))
        return;
    queue.spTry->abandon();
    --m_book.statistics.nConnections;
}

void DeliveryEngine::lineUp(AddressQueue& queue) {
    closeKept(queue);
    if (queue.waiting.empty()) {
        m_book.remove(queue);
        return;
    }
    queue.state = State::ready;
    (queue.spTry->isOpen() ? m_book.readyOpen : m_book.ready).append(queue);
}

void DeliveryEngine::pauseFor(AddressQueue& queue, nanoseconds span) {
    if (span == 0ns) {
        lineUp(queue);
        return;
    }
    closeKept(queue);
    queue.state = State::pausing;
    m_book.timers.set(queue, Clock::now() + span);
}

nanoseconds DeliveryEngine::nextPause(AddressQueue& queue, bool bIsAlive) {
    const nanoseconds longest = bIsAlive
                                    ? std::min<nanoseconds>(m_options.longestPause, cLongestPauseWhileAlive)
                                    : m_options.longestPause;
    queue.pause = queue.pause == 0ns ? nanoseconds(m_options.firstPause) : 2 * queue.pause;
    queue.pause = std::min(queue.pause, longest);
    // Varied, so that services that meet at one sink do not march in step.
    const nanoseconds least = queue.pause / 2;
    const nanoseconds most = std::min(queue.pause + queue.pause / 2, longest);
    m_nRandom = m_nRandom * 6364136223846793005U + 1442695040888963407U;
    const double share = static_cast<double>(m_nRandom >> 32) / 4294967296.0;
    const nanoseconds pause =
        least + nanoseconds(static_cast<std::int64_t>(share * static_cast<double>((most - least).count())));
    return queue.isDatagram() ? std::max<nanoseconds>(pause, m_options.datagramPause) : pause;
}

std::size_t DeliveryEngine::cancelNow(const CallbackEndpoint& endpoint) {
    AddressQueue* queue = m_book.find(endpoint);
    if (queue == nullptr)
        return 0;
    const std::size_t nCancelled = queue->waiting.size();
    if (queue->state == State::trying)
        cut(*queue, ECANCELED);
    while (!queue->waiting.empty())
        finishFirst(*queue, Outcome::cancelled);
    if (queue->state == State::idle)
        lineUp(*queue);
    else
        rest(*queue);
    return nCancelled;
}

std::size_t DeliveryEngine::redirectNow(const CallbackEndpoint& from, const CallbackEndpoint& to,
                                        const VornString& sTo) {
    AddressQueue* source = m_book.find(from);
    if (source == nullptr || from.key() == to.key())
        return source == nullptr ? 0 : source->waiting.size();
    // What can fail comes first.
    std::vector<VornString> addresses(source->waiting.size(), sTo);
    AddressQueue& target = m_book.queueOf(to, *m_poll);
    if (source->state == State::trying)
        resetTry(*source);
    const std::size_t nMoved = source->waiting.size();
    for (PostedNotification& notification : source->waiting) {
        notification.result.sAddress.swap(addresses.back());
        addresses.pop_back();
    }
    m_book.move(*source, target);
    if (source->state == State::idle)
        lineUp(*source);
    else
        rest(*source);
    if (target.state == State::idle)
        lineUp(target);
    return nMoved;
}

/** What a reset would have done: over a pipe, what has been taken stays where it is. */
void DeliveryEngine::resetTry(AddressQueue& queue) {
    const bool bDoubtful = queue.spTry->mayHaveArrived();
    cut(queue, ECONNRESET);
    const PostedNotification& first = queue.waiting.front();
    const bool bIsPipe = queue.endpoint().kind() == CallbackEndpoint::Kind::pipe;
    if (bDoubtful && (bIsPipe || first.result.nDoubtfulTries >= first.nDoubtfulLimit))
        finishFirst(queue, Outcome::unread);
}

} // namespace VornNet
