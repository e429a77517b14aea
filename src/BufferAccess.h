// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_BUFFERACCESS_H
#define VORNNET_BUFFERACCESS_H

#include "VornBufferConnection.h"
#include "VornUDPSocketConnection.h"

#include <algorithm>
#include <cstring>
#include <typeinfo>

namespace VornNet {

/**
 * The short way of the typed operations into a buffer connection's block.
 *
 * The long way is a chain of virtual calls, establish, put, raw transfer, each of which a derived class may
 * override. It is left out only for an object whose class is exactly one of the library's own buffer
 * connections, so that nobody's override can be missed, and which is established, so that nothing is left to
 * be called. There the chain ends in a copy to or from the block, and this is that copy. In every other case
 * (no room, not enough data) the long way is taken.
 */
class BufferAccess {
public:
    explicit BufferAccess(VornConnection& connection)
        : m_buffer(isPlain(connection) ? static_cast<VornBufferConnection*>(&connection) : nullptr) {}

    /** @return whether @p count bytes, two or more, were appended. */
    bool append(const void* bytes, int count) const {
        // A block that was never written to has no capacity, and its position of -1 leaves room for one byte
        // at most.
        if (m_buffer == nullptr || !m_buffer->m_bConnected)
            return false;
        const int position = m_buffer->m_nOutIndex; // once: the compiler has to fear that the copy changes it
        if (count > m_buffer->m_nBufferSize - position)
            return false;
        std::memcpy(m_buffer->m_pDataBuffer + position, bytes, static_cast<std::size_t>(count));
        m_buffer->m_nOutIndex = position + count;
        return true;
    }

    /** @return the next @p count bytes, one or more, which are taken; null when they are not all there. */
    const unsigned char* take(int count) const {
        if (m_buffer == nullptr || !m_buffer->m_bConnected)
            return nullptr;
        const int position = m_buffer->m_nInIndex;
        if (count > m_buffer->m_nOutIndex - position)
            return nullptr;
        m_buffer->m_nInIndex = position + count;
        return m_buffer->m_pDataBuffer + position;
    }

    /**
     * For when take() has returned null on an established connection: takes all that is left, as a read that
     * fails does. @return false for a connection that is read the long way
     */
    bool drain() const {
        if (m_buffer == nullptr)
            return false;
        m_buffer->m_nInIndex = m_buffer->m_nOutIndex;
        return true;
    }

    /** @return how many of the @p claimed bytes a peekBytes() has shown that leaves the size as it was. */
    static int shown(VornConnection& connection, int claimed) {
        const auto* buffer = dynamic_cast<const VornBufferConnection*>(&connection);
        return buffer == nullptr ? claimed : std::min(claimed, buffer->m_nOutIndex - buffer->m_nInIndex);
    }

private:
    // The addresses of the type descriptions are compared, which is one load and no call. Should a program
    // hold a second copy of one, the object takes the long way.
    static bool isPlain(VornConnection& connection) {
        const std::type_info* type = &typeid(connection);
        return type == &typeid(VornBufferConnection) || type == &typeid(VornUDPSocketConnection);
    }

    VornBufferConnection* m_buffer;
};

} // namespace VornNet

#endif
