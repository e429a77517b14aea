// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_HISTORY_H
#define VORNNOTIFY_HISTORY_H

#include "HistoryBlock.h"
#include "VornPosition.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <mutex>
#include <string_view>
#include <vector>

namespace VornNet {

/**
 * The newest events of a topic, as the frames that go over the wire, in a block that is written round and
 * round.
 *
 * A place is the count of all bytes ever passed, so that places of different rounds differ. A frame never
 * lies across the end of the block; what is left there is skipped. Many threads append, under a lock. One
 * thread reads, without it: it pins the place where it reads, and whoever is about to write over a pinned
 * place waits, which is for as long as one send() that does not block.
 *
 * The order of the writes makes the file sound at each moment: the oldest place moves on, then the frame is
 * written, then the end moves on.
 */
class History {
public:
    /** Where a reader goes on. */
    struct Place {
        std::uint64_t offset = 0; ///< place of the next frame
        std::uint64_t number = 0; ///< number of the event before it
    };

    /** Frames that lie one after the other. */
    struct Batch {
        std::uint64_t offset = 0; ///< place of the first one
        const char* bytes = nullptr;
        std::size_t size = 0;
    };

    /** Both ends, of one moment. */
    struct Range {
        Place oldest; ///< before the oldest event that is kept
        Place newest; ///< after the newest one
    };

    /** A history in memory. @throws std::system_error */
    explicit History(std::size_t capacity);

    /** Goes on with the history in the file when it is sound, else begins one. @throws std::system_error */
    History(const VornString& sPath, std::size_t capacity);

    /** Begins somebody else's history in the file, after the event where @p start is; until the first
     * append() the file does not know that number. @throws std::system_error */
    History(const VornString& sPath, std::size_t capacity, const VornPosition& start);

    /** @return the history's own number. */
    std::uint64_t id() const { return m_id; }

    /** Appends an event. @return its number, or 0 after end() */
    std::uint64_t append(std::string_view content);

    /** Lets nothing be appended any more. */
    void end();

    /** Brings a history in a file to the disk and marks it closed there. */
    void close();

    /** @return the number of the newest event; 0: none yet. */
    std::uint64_t newest() const { return m_newest.load(std::memory_order_acquire); }

    /** @return the place after the newest event. */
    std::uint64_t endPlace() const { return m_end.load(std::memory_order_seq_cst); }

    Range range() const;

    /** @return the place before the event of that number, or the nearest one that there is. */
    Place placeBefore(std::uint64_t number) const;

    /** @return the place before the oldest event, for a reader that has fallen out. */
    Place oldest() const { return range().oldest; }

    // For the one thread that reads.

    /** Keeps what lies from @p offset on from being written over. @return false when it has been already */
    bool pin(std::uint64_t offset);
    void unpin();

    /** @return the frames at the pinned place, of at most @p limit bytes, but always one. */
    Batch batchAt(std::uint64_t offset, std::size_t limit) const;

    /** @return the place after the frames of @p batch that lie within its first @p size bytes.
     * @param number of the event before the batch */
    static Place after(const Batch& batch, std::uint64_t number, std::size_t size);

private:
    static constexpr std::uint64_t cUnpinned = std::numeric_limits<std::uint64_t>::max();
    static constexpr std::uint64_t cIndexStep = 64;

    struct Frame {
        std::uint64_t offset;
        std::uint64_t number;
        std::size_t size;
    };

    bool recover();
    bool isFrame(const Frame& frame, std::uint64_t end) const;
    Range rangeNow() const;
    Frame frameAt(std::uint64_t offset) const;
    std::uint64_t skipped(std::uint64_t offset) const;
    void makeRoom(std::uint64_t end);
    void note(std::uint64_t number, std::uint64_t offset);

    HistoryBlock m_block;
    char* const m_bytes;
    const std::uint64_t m_capacity;
    std::uint64_t m_id = 0;

    mutable std::mutex m_mutex;         // held by whoever appends, and for looks at both ends
    std::vector<std::uint64_t> m_index; // places of the events whose numbers are multiples of cIndexStep
    bool m_isEnded = false;

    std::atomic<std::uint64_t> m_newest{0};
    std::atomic<std::uint64_t> m_oldest{0}; // as in the header, where no reader has to look for it
    std::atomic<std::uint64_t> m_end{0};
    std::atomic<std::uint64_t> m_pinned{cUnpinned};
};

} // namespace VornNet

#endif
