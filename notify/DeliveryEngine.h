// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_DELIVERYENGINE_H
#define VORNNOTIFY_DELIVERYENGINE_H

#include "DispatchBook.h"
#include "EventPoll.h"
#include "QuietThread.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <optional>

namespace VornNet {

/**
 * Delivers what is in the book, on a thread of its own, which sleeps while there is nothing to do.
 *
 * It alone touches sockets. What other threads want of a try in progress they ask for, and wait until it is
 * done, which takes no longer than the step that the thread is at.
 */
class DeliveryEngine {
public:
    /** Starts the thread. @throws std::system_error, std::bad_alloc */
    DeliveryEngine(const VornDispatcher::Options& options, DispatchBook& book);

    /** As end(). */
    ~DeliveryEngine();

    DeliveryEngine(const DeliveryEngine&) = delete;
    DeliveryEngine& operator=(const DeliveryEngine&) = delete;

    /** What a new queue's sockets are watched by. */
    EventPoll& poll() { return *m_poll; }

    /**
     * To be asked with the book's lock held, after something was queued.
     * @return whether the thread has to be woken by wakeUp(), once the lock is free
     */
    bool mustBeWoken();

    void wakeUp();

    /** Gives up everything for that address. @return how many */
    std::size_t cancel(const CallbackEndpoint& endpoint);

    /** Takes everything for one address to another one, called @p sTo. @return how many
     * @throws std::bad_alloc, having changed nothing */
    std::size_t redirect(const CallbackEndpoint& from, const CallbackEndpoint& to, const VornString& sTo);

    /** Ends the thread; what has no outcome is `stopped`. */
    void end();

private:
    /** Something that another thread wants done, and waits for on its stack. */
    struct Request {
        std::function<void()> work;
        std::exception_ptr failure;
        bool bDone = false;
        Request* next = nullptr;
    };

    using Clock = DispatchBook::Clock;
    using Progress = DeliveryTry::Progress;

    void perform(Request& request);

    void run();
    void serveRequests();
    void endTimers(Clock::time_point now);
    void expire(PostedNotification& notification);
    void tryNext(DispatchBook::Lock& lock);
    void tryFirst(AddressQueue& queue, DispatchBook::Lock& lock);
    bool hasWork() const;

    bool hasFreeConnection() const { return m_book.statistics.nConnections < m_nConnectionLimit; }

    /** @return whether another thread waits for this one. */
    bool isCalled() const { return m_firstRequest != nullptr || m_bEnd; }

    void awaitEvents(DispatchBook::Lock& lock);
    void stopAll();

    void apply(AddressQueue& queue, const Progress& progress);
    void applyWaiting(AddressQueue& queue);
    void applyFailure(AddressQueue& queue, const Progress& progress);
    void finishFirst(AddressQueue& queue, VornDispatcher::Outcome outcome);
    void noteFailure(AddressQueue& queue, int nCode, bool bDoubtful);
    void cut(AddressQueue& queue, int nCode);
    void rest(AddressQueue& queue);
    void closeKept(AddressQueue& queue);
    void lineUp(AddressQueue& queue);
    void pauseFor(AddressQueue& queue, std::chrono::nanoseconds span);
    std::chrono::nanoseconds nextPause(AddressQueue& queue, bool bIsAlive);

    std::size_t cancelNow(const CallbackEndpoint& endpoint);
    std::size_t redirectNow(const CallbackEndpoint& from, const CallbackEndpoint& to, const VornString& sTo);
    void resetTry(AddressQueue& queue);

    const VornDispatcher::Options& m_options;
    const std::size_t m_nConnectionLimit;
    DispatchBook& m_book;
    std::optional<EventPoll> m_poll;
    std::uint64_t m_nRandom; // used by the thread only
    Request* m_firstRequest = nullptr;
    Request** m_requestsEnd = &m_firstRequest;
    bool m_bEnd = false;
    bool m_bEnded = false;
    Clock::time_point m_sleepsUntil;
    std::atomic<bool> m_bSleeps = false; // set with the lock held
    std::atomic<int> m_nWakers = 0;      // threads on their way from mustBeWoken() to the end of wakeUp()
    QuietThread m_thread;
};

} // namespace VornNet

#endif
