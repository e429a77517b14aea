// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "History.h"

#include "Random.h"
#include "Wire.h"

#include <algorithm>

namespace VornNet {

namespace {

/** Tells a reader that nothing more comes before the block's end. */
constexpr std::uint32_t cSkip = 0;

std::size_t indexSize(std::size_t capacity, std::size_t step) {
    return capacity / (Wire::cEventHead * step) + 2;
}

/** @return the size of the frame that begins there. */
std::size_t sizeAt(const char* frame) {
    return Wire::cFrameHead + Wire::intAt(frame + 4);
}

} // namespace

History::History(std::size_t capacity)
    : m_block(capacity), m_bytes(m_block.frames()), m_capacity(capacity),
      m_index(indexSize(capacity, cIndexStep)) {
    m_block.begin(randomNumber());
    m_id = m_block.header().history;
}

History::History(const VornString& sPath, std::size_t capacity)
    : m_block(sPath, capacity), m_bytes(m_block.frames()), m_capacity(capacity),
      m_index(indexSize(capacity, cIndexStep)) {
    if (!recover())
        m_block.begin(randomNumber());
    m_block.own();
    m_id = m_block.header().history;
}

History::History(const VornString& sPath, std::size_t capacity, const VornPosition& start)
    : m_block(sPath, capacity), m_bytes(m_block.frames()), m_capacity(capacity), m_id(start.nHistory),
      m_index(indexSize(capacity, cIndexStep)), m_newest(start.nNumber) {
    m_block.begin(start.nHistory);
    m_block.own();
}

std::uint64_t History::append(std::string_view content) {
    const std::size_t size = Wire::cEventHead + content.size();
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_isEnded)
        return 0;
    std::uint64_t offset = m_end.load(std::memory_order_relaxed);
    const std::uint64_t left = m_capacity - offset % m_capacity;
    const bool isSkipping = left < size;
    makeRoom(offset + size + (isSkipping ? left : 0));
    if (isSkipping) {
        if (left >= Wire::cEventHead)
            Wire::putInt(m_bytes + offset % m_capacity, cSkip);
        offset += left;
    }
    const std::uint64_t number = m_newest.load(std::memory_order_relaxed) + 1;
    char* frame = m_bytes + offset % m_capacity;
    Wire::putInt(frame, Wire::cEvent);
    Wire::putInt(frame + 4, static_cast<std::uint32_t>(size - Wire::cFrameHead));
    Wire::putNumber(frame + Wire::cFrameHead, number);
    if (!content.empty())
        std::memcpy(frame + Wire::cEventHead, content.data(), content.size());
    note(number, offset);
    __atomic_store_n(&m_block.header().end, offset + size, __ATOMIC_RELEASE);
    m_newest.store(number, std::memory_order_release);
    m_end.store(offset + size, std::memory_order_seq_cst);
    return number;
}

void History::end() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isEnded = true;
}

void History::close() {
    m_block.close();
}

History::Range History::range() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return rangeNow();
}

History::Place History::placeBefore(std::uint64_t number) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const Range range = rangeNow();
    if (number <= range.oldest.number + 1)
        return range.oldest;
    if (number > range.newest.number)
        return range.newest;
    Frame frame = frameAt(range.oldest.offset);
    const std::uint64_t indexed = number - number % cIndexStep;
    if (indexed > frame.number)
        frame = frameAt(m_index[indexed / cIndexStep % m_index.size()]);
    while (frame.number < number)
        frame = frameAt(frame.offset + frame.size);
    return {frame.offset, frame.number - 1};
}

bool History::pin(std::uint64_t offset) {
    // Whoever appends moves the oldest place on and then looks for the pin; here it is the other way round,
    // so one of the two sees the other.
    m_pinned.store(offset, std::memory_order_seq_cst);
    if (m_oldest.load(std::memory_order_seq_cst) <= offset)
        return true;
    unpin();
    return false;
}

void History::unpin() {
    m_pinned.store(cUnpinned, std::memory_order_release);
    m_pinned.notify_all();
}

History::Batch History::batchAt(std::uint64_t offset, std::size_t limit) const {
    const std::uint64_t end = m_end.load(std::memory_order_acquire);
    offset += skipped(offset);
    const std::uint64_t start = offset % m_capacity;
    const std::size_t room = std::min(end - offset, m_capacity - start);
    const char* const bytes = m_bytes + start;
    if (room == end - offset && room <= limit)
        return {offset, bytes, room};
    std::size_t size = sizeAt(bytes);
    while (size + Wire::cEventHead <= room && Wire::intAt(bytes + size) != cSkip) {
        const std::size_t longer = size + sizeAt(bytes + size);
        if (longer > limit)
            break;
        size = longer;
    }
    return {offset, bytes, size};
}

History::Place History::after(const Batch& batch, std::uint64_t number, std::size_t size) {
    Place place{batch.offset, number};
    std::size_t passed = 0;
    while (passed < batch.size) {
        const std::size_t longer = passed + sizeAt(batch.bytes + passed);
        if (longer > size)
            break;
        passed = longer;
        ++place.number;
    }
    place.offset += passed;
    return place;
}

/** @return whether the block holds a sound history: every frame has the number after the one before. */
bool History::recover() {
    if (!m_block.isUsable())
        return false;
    const HistoryHeader& header = m_block.header();
    std::uint64_t offset = header.oldest;
    std::uint64_t number = 0;
    while (offset < header.end) {
        if (header.end - offset < Wire::cEventHead)
            return false;
        offset += skipped(offset);
        const Frame frame = offset < header.end ? frameAt(offset) : Frame{offset, 0, 0};
        if (!isFrame(frame, header.end) || (number != 0 && frame.number != number + 1))
            return false;
        number = frame.number;
        note(number, offset);
        offset += frame.size;
    }
    // A history that has lost all its frames has lost its numbers too.
    if (number == 0 && header.end != 0)
        return false;
    m_newest = number;
    m_oldest = header.oldest;
    m_end = header.end;
    return true;
}

bool History::isFrame(const Frame& frame, std::uint64_t end) const {
    return frame.number != 0 && Wire::intAt(m_bytes + frame.offset % m_capacity) == Wire::cEvent &&
           frame.size >= Wire::cEventHead && frame.size <= m_capacity - frame.offset % m_capacity &&
           frame.size <= end - frame.offset;
}

/** @return the range; under the lock. */
History::Range History::rangeNow() const {
    const Place newest{m_end.load(std::memory_order_relaxed), m_newest.load(std::memory_order_relaxed)};
    const std::uint64_t offset = m_oldest.load(std::memory_order_relaxed);
    return {offset == newest.offset ? newest : Place{offset, frameAt(offset).number - 1}, newest};
}

/** @return the frame that is next at that place. */
History::Frame History::frameAt(std::uint64_t offset) const {
    offset += skipped(offset);
    const char* frame = m_bytes + offset % m_capacity;
    return {offset, Wire::numberAt(frame + Wire::cFrameHead), sizeAt(frame)};
}

/** @return how many bytes are skipped at that place, where a frame begins or the round ends. */
std::uint64_t History::skipped(std::uint64_t offset) const {
    const std::uint64_t start = offset % m_capacity;
    const std::uint64_t left = m_capacity - start;
    return left < Wire::cEventHead || Wire::intAt(m_bytes + start) == cSkip ? left : 0;
}

/** Gives up the oldest frames until @p end is less than one round beyond the oldest. */
void History::makeRoom(std::uint64_t end) {
    const std::uint64_t previous = m_oldest.load(std::memory_order_relaxed);
    std::uint64_t oldest = previous;
    while (end - oldest > m_capacity) {
        const Frame frame = frameAt(oldest);
        oldest = frame.offset + frame.size;
    }
    if (oldest == previous)
        return;
    __atomic_store_n(&m_block.header().oldest, oldest, __ATOMIC_RELEASE);
    m_oldest.store(oldest, std::memory_order_seq_cst);
    for (;;) {
        const std::uint64_t pinned = m_pinned.load(std::memory_order_seq_cst);
        if (pinned >= oldest)
            return;
        m_pinned.wait(pinned, std::memory_order_seq_cst);
    }
}

/** Remembers where an event lies, if it is one of those that others are looked for from. */
void History::note(std::uint64_t number, std::uint64_t offset) {
    if (number % cIndexStep == 0)
        m_index[number / cIndexStep % m_index.size()] = offset;
}

} // namespace VornNet
