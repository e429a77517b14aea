// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_SINKLINE_H
#define VORNNOTIFY_SINKLINE_H

#include "EventPoll.h"
#include "IncomingNotification.h"
#include "SinkSettings.h"
#include "VornSteadySink.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

namespace VornNet {

/**
 * Where notifications that have been read wait for their callbacks, in the order of their acceptance; with
 * the numbers and limits that the reading and the calling thread share.
 */
class SinkLine {
public:
    using Statistics = VornSteadySink::Statistics;
    using Counter = std::uint64_t Statistics::*;

    /** @param poll what the reading thread waits with: it is woken when there is room again */
    SinkLine(const SinkSettings& settings, EventPoll& poll);

    SinkLine(const SinkLine&) = delete;
    SinkLine& operator=(const SinkLine&) = delete;

    // For the reading thread.

    /** Counts a connection that has been accepted. */
    void countConnection();

    /** Counts one that ends without a callback. @param counter where, unless null. @param isConnected whether
     * it had a connection */
    void count(Counter counter, bool isConnected);

    /**
     * Lets notifications wait for their callbacks; @p batch is empty afterwards.
     * @param nLeft how many have been read as well, and have to wait for an older one
     */
    void add(IncomingNotifications& batch, std::size_t nLeft);

    /**
     * Asks whether there is no place for another connection or datagram; then the thread is woken when there
     * is.
     * @param read what has been read and is not in the line yet. @param nReadBytes its bytes
     */
    bool isFull(const IncomingNotifications& read, std::size_t nReadBytes);

    /**
     * Asks how many bytes the waiting notifications have. The thread is woken when they become fewer.
     * @param isEmpty receives whether there is none
     */
    std::size_t awaitFewerBytes(bool& isEmpty);

    /** @return how many bytes the waiting notifications have, the running one included. */
    std::size_t bytes() const;

    // For the calling thread.

    /** Waits for the next notification. @return null when the line has been closed */
    std::unique_ptr<IncomingNotification> next();

    /** Counts the one that next() has given out. @param counter what has become of it, unless null */
    void finish(const IncomingNotification& notification, std::size_t nBytes, Counter counter);

    // For the sink.

    /** Gives back what waits, and ends both threads. */
    void close();

    bool isClosed() const;

    Statistics statistics() const;

private:
    const SinkSettings& m_settings;
    EventPoll& m_poll;
    mutable std::mutex m_lock; // guards what follows
    std::condition_variable m_changed;
    IncomingNotifications m_line;
    Statistics m_statistics; // but for nWaiting
    std::size_t m_nBytes = 0;
    std::size_t m_nNotInLine = 0; // read, and left with the reading thread
    bool m_isCalling = false;     // next() has given one out
    bool m_isRoomAwaited = false; // the reading thread is to be woken
    bool m_isClosed = false;
};

} // namespace VornNet

#endif
