// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_SINKREADER_H
#define VORNNOTIFY_SINKREADER_H

#include "EventPoll.h"
#include "IncomingNotification.h"
#include "NotificationSource.h"
#include "SinkLine.h"
#include "SinkSettings.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace VornNet {

/**
 * The reading thread of a sink: accepts, reads to the end, and puts what is complete into the line.
 *
 * It calls nothing that waits but epoll, so that a silent sender costs no time. Events are told once
 * (EPOLLET): what is complete, held back or has its last byte still in the kernel would else be told without
 * end.
 */
class SinkReader {
public:
    /** Watches the source. @throws std::system_error */
    SinkReader(const SinkSettings& settings, NotificationSource& source, EventPoll& poll, SinkLine& line);

    SinkReader(const SinkReader&) = delete;
    SinkReader& operator=(const SinkReader&) = delete;

    /** The thread's body; returns when the line has been closed. What has been read in part is then reset. */
    void run();

private:
    using Clock = IncomingNotification::Clock;
    using Place = IncomingNotifications::iterator;
    using Events = std::span<const epoll_event>;

    bool readWhatIsTold(Events events);
    void acceptThoseWaiting();
    bool acceptOne();
    void read(Place place);
    void readHeldBack();
    void readOlderOnes();
    void handOver();
    void cutLateOnes();
    void lookAtSource();
    void watchSource();

    void setOpen(Place place);
    void setHeldBack(Place place);
    void setComplete(Place place);
    void drop(Place place, SinkLine::Counter counter);
    bool isFull() const;
    std::uint64_t firstHeldBack() const;
    std::size_t roomFor(std::uint64_t nNumber, std::size_t nWaitingBytes) const;
    Clock::time_point nextTime() const;

    const SinkSettings& m_settings;
    NotificationSource& m_source;
    EventPoll& m_poll;
    SinkLine& m_line;
    int m_watched = -1;                                     // the source's descriptor while it is watched
    IncomingNotifications m_open;                           // not complete
    IncomingNotifications m_complete;                       // not handed over
    IncomingNotifications::node_type m_next;                // prepared for the next one
    std::uint64_t m_nNumber = 0;                            // of the last one accepted
    std::uint64_t m_nAboveLimit = 0;                        // number of the one that is read above the limit
    std::size_t m_nBytes = 0;                               // of both maps
    std::size_t m_nHeldBack = 0;                            // how many of the open ones are
    Clock::time_point m_now;                                // when the last wait ended
    Clock::time_point m_acceptTime;                         // before that nothing is accepted
    Clock::time_point m_cutTime = Clock::time_point::max(); // no deadline is earlier
    Clock::time_point m_retryTime = Clock::time_point::max(); // of those held back though there is room
    Clock::time_point m_lookTime;                             // when the source is looked at
};

} // namespace VornNet

#endif
