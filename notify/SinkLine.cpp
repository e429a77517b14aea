// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SinkLine.h"

#include <utility>

namespace VornNet {

namespace {

/** Most datagrams that wait: each takes some memory besides its bytes, and has no connection to be counted
 * by. */
constexpr std::size_t cMostDatagrams = 65'536;

} // namespace

SinkLine::SinkLine(const SinkSettings& settings, EventPoll& poll) : m_settings(settings), m_poll(poll) {}

void SinkLine::countConnection() {
    const std::lock_guard lock(m_lock);
    ++m_statistics.nConnections;
}

void SinkLine::count(Counter counter, bool isConnected) {
    const std::lock_guard lock(m_lock);
    if (counter != nullptr)
        ++(m_statistics.*counter);
    if (isConnected)
        --m_statistics.nConnections;
}

void SinkLine::add(IncomingNotifications& batch, std::size_t nLeft) {
    {
        const std::lock_guard lock(m_lock);
        if (m_isClosed)
            return;
        for (const auto& [nNumber, spNotification] : batch)
            m_nBytes += spNotification->size();
        m_line.merge(batch);
        m_nNotInLine = nLeft;
    }
    m_changed.notify_one();
}

bool SinkLine::isFull(const IncomingNotifications& read, std::size_t nReadBytes) {
    const std::lock_guard lock(m_lock);
    const bool isFull =
        m_settings.kind == VornSteadySink::Kind::udp
            ? m_nBytes + nReadBytes >= m_settings.nByteLimit || m_line.size() + read.size() >= cMostDatagrams
            : m_statistics.nConnections >= m_settings.nConnectionLimit;
    m_isRoomAwaited |= isFull;
    return isFull;
}

std::size_t SinkLine::awaitFewerBytes(bool& isEmpty) {
    const std::lock_guard lock(m_lock);
    isEmpty = m_line.empty() && !m_isCalling;
    m_isRoomAwaited = true;
    return m_nBytes;
}

std::size_t SinkLine::bytes() const {
    const std::lock_guard lock(m_lock);
    return m_nBytes;
}

std::unique_ptr<IncomingNotification> SinkLine::next() {
    std::unique_lock lock(m_lock);
    m_changed.wait(lock, [this] { return m_isClosed || !m_line.empty(); });
    if (m_isClosed)
        return nullptr;
    m_isCalling = true;
    auto spNext = std::move(m_line.begin()->second);
    m_line.erase(m_line.begin());
    return spNext;
}

void SinkLine::finish(const IncomingNotification& notification, std::size_t nBytes, Counter counter) {
    bool isRoomAwaited = false;
    {
        const std::lock_guard lock(m_lock);
        m_isCalling = false;
        m_nBytes -= nBytes;
        if (counter != nullptr)
            ++(m_statistics.*counter);
        if (notification.descriptor() != -1)
            --m_statistics.nConnections;
        isRoomAwaited = std::exchange(m_isRoomAwaited, false);
    }
    if (isRoomAwaited)
        m_poll.wakeUp();
}

void SinkLine::close() {
    IncomingNotifications waiting; // closed when nobody waits for the lock
    {
        const std::lock_guard lock(m_lock);
        m_isClosed = true;
        waiting.swap(m_line);
    }
    m_changed.notify_one();
    m_poll.wakeUp();
}

bool SinkLine::isClosed() const {
    const std::lock_guard lock(m_lock);
    return m_isClosed;
}

SinkLine::Statistics SinkLine::statistics() const {
    const std::lock_guard lock(m_lock);
    Statistics statistics = m_statistics;
    statistics.nWaiting = m_line.size() + m_nNotInLine + (m_isCalling ? 1 : 0);
    return statistics;
}

} // namespace VornNet
