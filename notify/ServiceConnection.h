// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_SERVICECONNECTION_H
#define VORNNOTIFY_SERVICECONNECTION_H

#include "CallbackEndpoint.h"
#include "FrameBuffer.h"
#include "OwnedDescriptor.h"
#include "TimedPoll.h"

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace VornNet {

/**
 * A subscriber's connection to its service, which does not block: the poll is told what is awaited of it,
 * what the socket does not take yet is kept, and so is what has come. It can be opened again after close().
 * For whoever drives.
 */
class ServiceConnection {
public:
    explicit ServiceConnection(TimedPoll& poll) : m_poll(poll) {}

    /** @return 0 when it is connected, EINPROGRESS when finish() is to be called, or why it cannot be */
    int open(const CallbackEndpoint& service);

    /** @return 0 when it is connected now, or why it is not. */
    int finish();

    /** @return whether one of these users is at the other end, if it is a pipe; anybody is when there are
     * none. */
    bool isOfOne(const std::vector<unsigned int>& users) const;

    /** Sends @p bytes after what is left. */
    void say(std::string_view bytes);

    /** Goes on sending. */
    void send();

    /** Takes in what has come. @return as FrameBuffer::fill() */
    int receive() { return m_input.fill(m_socket.number()); }

    FrameBuffer& input() { return m_input; }

    void close();

private:
    TimedPoll& m_poll;
    std::optional<CallbackEndpoint::Address> m_address;
    OwnedDescriptor m_socket;
    bool m_isWatched = false;
    std::uint32_t m_nAwaited = 0;
    VornString m_sOutput;
    FrameBuffer m_input;
};

} // namespace VornNet

#endif
