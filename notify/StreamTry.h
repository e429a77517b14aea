// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_STREAMTRY_H
#define VORNNOTIFY_STREAMTRY_H

#include "CallbackEndpoint.h"
#include "DeliveryTry.h"
#include "EventPoll.h"
#include "OwnedDescriptor.h"

#include <cstddef>

namespace VornNet {

/** What tries over pipes and over TCP have in common: a stream socket that is watched by epoll. */
class StreamTry : public DeliveryTry {
public:
    /** @param data is what the poll tells events of the socket with */
    StreamTry(const CallbackEndpoint& endpoint, EventPoll& poll, void* data)
        : m_address(endpoint), m_poll(poll), m_data(data) {}

    void abandon() override;

    bool mayHaveArrived() const override { return m_nSent >= cHandleSize; }

    bool isOpen() const override { return m_socket.isOpen(); }

protected:
    static constexpr std::size_t cHandleSize = 8;
    static constexpr std::uint32_t cEndEvents = EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR;

    enum class Peer { open, ended, failed };

    const CallbackEndpoint::Address& address() const { return m_address; }

    int descriptor() const { return m_socket.number(); }

    std::size_t sent() const { return m_nSent; }

    std::size_t size() const { return m_bytes.size(); }

    bool isSent() const { return m_nSent == m_bytes.size(); }

    /** Opens a socket and connects it. @return 0, EINPROGRESS, or why not */
    int open(int nFamily, std::string_view bytes);

    bool isWatchedForRoom() const { return (m_nWatched & EPOLLOUT) != 0; }

    /** Has the socket watched for its end, and for room to write when @p bForRoom. @return 0 or an errno
     * value */
    int watch(bool bForRoom);

    /**
     * Sends the first @p nEnd bytes of all, as far as there is room; when there is not, an event will tell.
     * @return 0 or an errno value
     */
    int sendUpTo(std::size_t nEnd, int nFlags);

    /** Ends the sending side; from then on only the peer's end is told. @return 0 or an errno value */
    int endSending();

    /** Throws away what the peer has written, which nobody asked for. @param nError why, when it has failed
     */
    Peer drain(int& nError);

    /** @param nBytes how much of what was sent has not been taken, in the kernel's units.
     * @return 0 or an errno value */
    int countUntaken(int& nBytes) const;

    bool hasHeard() const { return m_bHeard; }

    /** Closes the socket. @return @p progress, which is its last */
    Progress end(const Progress& progress);

    /** Abandons the try. @return that it has failed */
    Progress failed(int nCode);

private:
    CallbackEndpoint::Address m_address;
    EventPoll& m_poll;
    void* m_data;
    OwnedDescriptor m_socket;
    std::string_view m_bytes;
    std::size_t m_nSent = 0;
    std::uint32_t m_nWatched = 0;
    bool m_bHeard = false;
};

} // namespace VornNet

#endif
