// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_DISPATCHBOOK_H
#define VORNNOTIFY_DISPATCHBOOK_H

#include "AddressQueue.h"
#include "PostedNotification.h"
#include "TimerHeap.h"
#include "VornDispatcher.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace VornNet {

/**
 * What a dispatcher's threads share: which notifications there are, and where each has got to.
 *
 * Everything but the two waits is used with the lock held. It is held for moments only, never over a system
 * call on a socket or a call of the program's code. Whoever has held it lets go by release(), which tells
 * those who wait for what has changed.
 */
class DispatchBook {
public:
    using Lock = std::unique_lock<std::mutex>;
    using Clock = Timer::Clock;

    /** Waits, in a list of those who do, until all that was posted before has been settled. */
    class FlushWait {
    public:
        explicit FlushWait(DispatchBook& book);
        ~FlushWait();

        FlushWait(const FlushWait&) = delete;
        FlushWait& operator=(const FlushWait&) = delete;

        bool isOver() const { return m_nLeft == 0; }

    private:
        friend class DispatchBook;

        DispatchBook& m_book;
        std::uint64_t m_nLastTicket;
        std::uint64_t m_nLeft;
        FlushWait* m_next;
    };

    explicit DispatchBook(const VornDispatcher::Options& options);

    Lock lock() { return Lock(m_mutex); }

    void release(Lock& lock);

    /** Waits until something has changed, or until @p until. @return false when the time has come */
    bool awaitChange(Lock& lock, Clock::time_point until);

    /** Waits until there are results to tell, or endResults() was called. @return false in the latter case */
    bool awaitResults(Lock& lock, PostedNotifications& results);

    void endResults();

    /** Has those told who wait for a change. */
    void noteChange() { m_bChanged = true; }

    /** @return the queue of that address; null when it has none. */
    AddressQueue* find(const CallbackEndpoint& endpoint) const;

    /** @return the queue of that address, made when it has none. Setting its timer, and that of one more
     * notification, will not fail. @throws std::bad_alloc */
    AddressQueue& queueOf(const CallbackEndpoint& endpoint, EventPoll& poll);

    /** Forgets a queue in which nothing waits. */
    void remove(AddressQueue& queue);

    /** @return a queue, until there is none. */
    AddressQueue* anyQueue() const { return m_queues.empty() ? nullptr : m_queues.begin()->second.get(); }

    /** @return whether one more notification of that size may wait in the queue, which may be null. */
    bool hasRoom(const AddressQueue* queue, std::size_t nBytes) const;

    /** Drops the oldest until there is room. @return false when that does not help, and nothing was dropped
     */
    bool dropOldest(AddressQueue* queue, std::size_t nBytes);

    /** Queues the one notification of the list. @throws std::bad_alloc, having changed nothing */
    void enter(PostedNotifications& one, const CallbackEndpoint& endpoint, EventPoll& poll);

    /** Gives a notification its outcome, and hands it on. */
    void finish(PostedNotification& notification, VornDispatcher::Outcome outcome);

    /** Takes what waits in one queue to another one, before what waits there. */
    void move(AddressQueue& from, AddressQueue& to);

    /** The result of that number has been told. */
    void settle(std::uint64_t nTicket);

    TimerHeap timers;
    AddressLine ready;     ///< addresses that need a connection for their next try
    AddressLine readyOpen; ///< addresses that have one
    VornDispatcher::Statistics statistics;
    std::size_t nWaitingForRoom = 0; ///< threads in post()
    bool bStopping = false;          ///< nothing more is accepted

private:
    std::uint64_t& countOf(VornDispatcher::Outcome outcome);

    const std::size_t m_nQueueLimit;
    const std::size_t m_nByteLimit;
    const bool m_bTellsResults;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::condition_variable m_resultsReady;
    bool m_bChanged = false;
    bool m_bHasResults = false;
    bool m_bResultsEnd = false;
    std::unordered_map<std::string, std::unique_ptr<AddressQueue>> m_queues;
    PostedNotifications m_finished; // in the order of the outcomes
    std::uint64_t m_nUnsettled = 0;
    FlushWait* m_firstFlush = nullptr;
};

} // namespace VornNet

#endif
