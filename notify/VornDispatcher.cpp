// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornDispatcher.h"

#include "CallbackEndpoint.h"
#include "ComposingConnection.h"
#include "Deadline.h"
#include "DeliveryEngine.h"
#include "DispatchBook.h"
#include "HomeProcess.h"
#include "ResultTeller.h"

#include <Cancellation.h>
#include <LogRecord.h>
#include <VornException.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace VornNet {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

constexpr const char* cInvalidOption = "VornDispatcher::VornDispatcher: invalid option.";
constexpr const char* cFailedToStart = "VornDispatcher::VornDispatcher: failed to start.";
constexpr const char* cInvalidAddress = "VornDispatcher::post: invalid callback address.";
constexpr const char* cInvalidTerms = "VornDispatcher::post: invalid terms.";
constexpr const char* cQueueFull = "VornDispatcher::post: queue full.";
constexpr const char* cStopped = "VornDispatcher::post: stopped.";
constexpr const char* cFlushByHandler = "VornDispatcher::flush: called by the result handler.";
constexpr const char* cInvalidTarget = "VornDispatcher::redirect: invalid callback address.";
constexpr const char* cStopByHandler = "VornDispatcher::stop: called by the result handler.";

constexpr std::size_t cLongestDatagram = 65507;

bool isValid(const VornDispatcher::Terms& terms) {
    return terms.timeLimit > 0ms && terms.nDoubtfulTries > 0;
}

bool isValid(const VornDispatcher::Options& options) {
    return isValid(options.terms) && options.nQueueLimit > 0 && options.nByteLimit > 0 &&
           options.connectLimit > 0ms && options.firstPause > 0us && options.longestPause > 0ms &&
           options.datagramPause >= 0us && options.stopLimit >= 0ms;
}

const VornDispatcher::Options& checked(const VornDispatcher::Options& options) {
    if (!isValid(options))
        throw VornException(cInvalidOption, EINVAL);
    return options;
}

} // namespace

/** Puts the parts together: whoever calls enters into the book, the engine delivers, the teller tells. */
class VornDispatcher::State {
public:
    explicit State(const Options& options);

    bool isForked() const { return m_home.isForked(); }

    bool isResultHandler() const { return m_teller.isCaller(); }

    const Options& options() const { return m_options; }

    std::uint64_t post(VornProxyDependent& proxy, const VornNotification& notification, const Terms& terms);
    bool flush(milliseconds timeLimit);
    std::size_t cancel(const VornString& sAddress);
    std::size_t redirect(const VornString& sFrom, const VornString& sTo);
    std::size_t queued(const VornString& sAddress);
    Statistics statistics();
    void stop(milliseconds timeLimit);

private:
    void checkAccepting() const;
    void compose(PostedNotification& posted, const CallbackEndpoint& endpoint, VornProxyDependent& proxy,
                 const VornNotification& notification) const;
    void awaitRoom(DispatchBook::Lock& lock, const CallbackEndpoint& endpoint, std::size_t nBytes,
                   DispatchBook::Clock::time_point deadline);
    [[noreturn]] void refuse(int nCode);

    const Options m_options;
    const HomeProcess m_home;
    DispatchBook m_book;
    bool m_bStopped = false; // guarded by the book's lock
    ResultTeller m_teller;
    DeliveryEngine m_engine;
};

VornDispatcher::State::State(const Options& options)
    : m_options(checked(options)), m_book(m_options), m_teller(m_options, m_book),
      m_engine(m_options, m_book) {}

std::uint64_t VornDispatcher::State::post(VornProxyDependent& proxy, const VornNotification& notification,
                                          const Terms& terms) {
    const auto now = DispatchBook::Clock::now();
    if (!isValid(terms))
        throw VornException(cInvalidTerms, EINVAL);
    const auto endpoint = CallbackEndpoint::parse(proxy.getRemoteName());
    if (!endpoint.has_value())
        throw VornException(cInvalidAddress, EINVAL);
    DispatchBook::Lock lock = m_book.lock();
    checkAccepting();
    lock.unlock();

    PostedNotifications one(1);
    PostedNotification& posted = one.front();
    posted.posted = now;
    posted.deadline = Deadline(terms.timeLimit, now).end();
    posted.nDoubtfulLimit = terms.nDoubtfulTries;
    compose(posted, *endpoint, proxy, notification);

    lock.lock();
    awaitRoom(lock, *endpoint, posted.sBytes.size(), posted.deadline);
    m_book.enter(one, *endpoint, m_engine.poll());
    const std::uint64_t nTicket = posted.result.nTicket;
    const bool bMustWake = m_engine.mustBeWoken();
    m_book.release(lock);
    if (bMustWake)
        m_engine.wakeUp();
    return nTicket;
}

bool VornDispatcher::State::flush(milliseconds timeLimit) {
    if (isResultHandler())
        throw VornException(cFlushByHandler, EDEADLK);
    const auto until = Deadline::ofWait(timeLimit).end();
    DispatchBook::Lock lock = m_book.lock();
    const DispatchBook::FlushWait wait(m_book);
    while (!wait.isOver() && timeLimit != 0ms && m_book.awaitChange(lock, until)) {
    }
    return wait.isOver();
}

std::size_t VornDispatcher::State::cancel(const VornString& sAddress) {
    const auto endpoint = CallbackEndpoint::parse(sAddress);
    return endpoint.has_value() ? m_engine.cancel(*endpoint) : 0;
}

std::size_t VornDispatcher::State::redirect(const VornString& sFrom, const VornString& sTo) {
    const auto to = CallbackEndpoint::parse(sTo);
    if (!to.has_value())
        throw VornException(cInvalidTarget, EINVAL);
    const auto from = CallbackEndpoint::parse(sFrom);
    return from.has_value() ? m_engine.redirect(*from, *to, sTo) : 0;
}

std::size_t VornDispatcher::State::queued(const VornString& sAddress) {
    const auto endpoint = CallbackEndpoint::parse(sAddress);
    if (!endpoint.has_value())
        return 0;
    const DispatchBook::Lock lock = m_book.lock();
    const AddressQueue* queue = m_book.find(*endpoint);
    return queue == nullptr ? 0 : queue->waiting.size();
}

VornDispatcher::Statistics VornDispatcher::State::statistics() {
    const DispatchBook::Lock lock = m_book.lock();
    return m_book.statistics;
}

void VornDispatcher::State::stop(milliseconds timeLimit) {
    if (isResultHandler())
        throw VornException(cStopByHandler, EDEADLK);
    const CancellationOff off; // who began it has to end it: others wait for that
    const auto until = Deadline::ofWait(timeLimit).end();
    DispatchBook::Lock lock = m_book.lock();
    if (std::exchange(m_book.bStopping, true)) {
        while (!m_bStopped)
            m_book.awaitChange(lock, DispatchBook::Clock::time_point::max());
        return;
    }
    m_book.noteChange(); // for those who wait in post()
    m_book.release(lock);
    lock.lock();
    while (m_book.statistics.nQueued > 0 && m_book.awaitChange(lock, until)) {
    }
    m_book.release(lock);
    m_engine.end();
    m_teller.end();
    lock.lock();
    m_bStopped = true;
    m_book.noteChange();
    m_book.release(lock);
}

void VornDispatcher::State::checkAccepting() const {
    if (m_book.bStopping)
        throw VornException(cStopped, ESHUTDOWN);
}

void VornDispatcher::State::compose(PostedNotification& posted, const CallbackEndpoint& endpoint,
                                    VornProxyDependent& proxy, const VornNotification& notification) const {
    const std::size_t nLimit = endpoint.kind() == CallbackEndpoint::Kind::udp
                                   ? std::min(cLongestDatagram, m_options.nByteLimit)
                                   : m_options.nByteLimit;
    posted.result.sAddress = proxy.getRemoteName();
    posted.result.nHandle = proxy.getDependentHandle();
    ComposingConnection connection(endpoint.host(), nLimit);
    connection.transfer(static_cast<long>(posted.result.nHandle));
    proxy.addContent(connection, notification);
    posted.sBytes = connection.content();
}

void VornDispatcher::State::awaitRoom(DispatchBook::Lock& lock, const CallbackEndpoint& endpoint,
                                      std::size_t nBytes, DispatchBook::Clock::time_point deadline) {
    struct Waiting {
        explicit Waiting(std::size_t& count) : m_count(++count) {}

        ~Waiting() { --m_count; }

        std::size_t& m_count;
    } const waiting(m_book.nWaitingForRoom);

    const bool bWaits = m_options.overflow == Overflow::wait && !isResultHandler();
    for (bool bInTime = true;; bInTime = m_book.awaitChange(lock, deadline)) {
        checkAccepting();
        AddressQueue* queue = m_book.find(endpoint);
        if (m_book.hasRoom(queue, nBytes))
            return;
        if (m_options.overflow == Overflow::dropOldest && m_book.dropOldest(queue, nBytes))
            return;
        if (!bWaits)
            refuse(ENOBUFS);
        if (!bInTime)
            refuse(ETIMEDOUT);
    }
}

void VornDispatcher::State::refuse(int nCode) {
    ++m_book.statistics.nRefused;
    throw VornException(cQueueFull, nCode);
}

VornDispatcher::VornDispatcher() : VornDispatcher(Options()) {}

VornDispatcher::VornDispatcher(const Options& options) {
    try {
        m_spState = std::make_unique<State>(options);
    } catch (const std::system_error& e) {
        throw VornException(cFailedToStart, e.code().value());
    } catch (const std::bad_alloc&) {
        throw VornException(cFailedToStart, ENOMEM);
    }
}

VornDispatcher::~VornDispatcher() {
    const bool bIsHandler = m_spState->isResultHandler();
    if (m_spState->isForked() || (bIsHandler && QuietThread::isExiting())) {
        // In a child its threads are the parent's, and so may be its lock. And a handler that has called
        // exit() cannot be waited for. The process ends, and is not held up by either.
        [[maybe_unused]] const State* left = m_spState.release();
        return;
    }
    if (bIsHandler) {
        logRecord(VornLogging::cError,
                  "VornDispatcher::~VornDispatcher: destroyed by its own result handler");
        std::terminate(); // the thread would have to end before its own call returns
    }
    m_spState->stop(m_spState->options().stopLimit);
}

std::uint64_t VornDispatcher::post(VornProxyDependent& proxy, const VornNotification& notification) {
    return m_spState->post(proxy, notification, m_spState->options().terms);
}

std::uint64_t VornDispatcher::post(VornProxyDependent& proxy, const VornNotification& notification,
                                   const Terms& terms) {
    return m_spState->post(proxy, notification, terms);
}

bool VornDispatcher::flush(milliseconds timeLimit) {
    return m_spState->flush(timeLimit);
}

std::size_t VornDispatcher::cancel(const VornString& sAddress) {
    return m_spState->cancel(sAddress);
}

std::size_t VornDispatcher::redirect(const VornString& sFrom, const VornString& sTo) {
    return m_spState->redirect(sFrom, sTo);
}

std::size_t VornDispatcher::queued(const VornString& sAddress) const {
    return m_spState->queued(sAddress);
}

VornDispatcher::Statistics VornDispatcher::statistics() const {
    return m_spState->statistics();
}

void VornDispatcher::stop(milliseconds timeLimit) {
    m_spState->stop(timeLimit);
}

const char* VornDispatcher::nameOf(Outcome outcome) {
    switch (outcome) {
    case Outcome::delivered:
        return "delivered";
    case Outcome::sent:
        return "sent";
    case Outcome::unread:
        return "unread";
    case Outcome::expired:
        return "expired";
    case Outcome::dropped:
        return "dropped";
    case Outcome::cancelled:
        return "cancelled";
    case Outcome::stopped:
        return "stopped";
    }
    return "unknown";
}

} // namespace VornNet
