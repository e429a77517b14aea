// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "FrameBuffer.h"

#include <SystemCalls.h>
#include <VornNetExport.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace VornNet {

namespace {

constexpr std::size_t cMostAtATime = 65'536;

} // namespace

int FrameBuffer::fill(int fd) {
    try {
        makeRoom();
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    const std::size_t room = std::min(m_capacity - m_end, cMostAtATime);
    const ssize_t count = System::recv(fd, m_bytes.get() + m_end, room, MSG_DONTWAIT);
    if (count == -1)
        return errno == EAGAIN || errno == EINTR ? 0 : errno;
    m_end += static_cast<std::size_t>(count);
    skip(0);
    return count == 0 ? ENOTCONN : 0;
}

void FrameBuffer::skip(std::size_t count) {
    m_nToSkip += count;
    const std::size_t skipped = std::min(m_nToSkip, m_end - m_begin);
    m_nToSkip -= skipped;
    m_begin += skipped;
}

void FrameBuffer::clear() {
    m_begin = 0;
    m_end = 0;
    m_nToSkip = 0;
}

/** Makes room for something to be received. */
void FrameBuffer::makeRoom() {
    const std::size_t size = m_end - m_begin;
    std::size_t capacity = std::max(m_capacity, cMostAtATime);
    if (size == 0)
        capacity = cMostAtATime;
    else if (size == m_capacity)
        capacity = 2 * m_capacity;
    if (capacity != m_capacity) {
        std::unique_ptr<char[]> bytes(new char[capacity]);
        if (size != 0)
            std::memcpy(bytes.get(), m_bytes.get() + m_begin, size);
        m_bytes = std::move(bytes);
        m_capacity = capacity;
    } else if (m_begin != 0 && size != 0) {
        std::memmove(m_bytes.get(), m_bytes.get() + m_begin, size);
    }
    m_begin = 0;
    m_end = size;
}

} // namespace VornNet
