// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_FRAMEBUFFER_H
#define VORNNOTIFY_FRAMEBUFFER_H

#include <cstddef>
#include <memory>
#include <string_view>

namespace VornNet {

/**
 * What a subscriber has received and not dealt with yet. It grows with what arrives, not with what is
 * announced, and shrinks when that has been dealt with.
 */
class FrameBuffer {
public:
    /** Receives once, 64 KiB at most. @return 0, an errno value, or 107 (ENOTCONN) at the end */
    int fill(int fd);

    /** @return what is there. */
    std::string_view bytes() const { return {m_bytes.get() + m_begin, m_end - m_begin}; }

    /** Throws the first @p count bytes away, also those that have not arrived. */
    void skip(std::size_t count);

    /** Forgets everything. */
    void clear();

private:
    void makeRoom();

    std::unique_ptr<char[]> m_bytes;
    std::size_t m_capacity = 0;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    std::size_t m_nToSkip = 0;
};

} // namespace VornNet

#endif
