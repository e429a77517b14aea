// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_INCOMINGNOTIFICATION_H
#define VORNNOTIFY_INCOMINGNOTIFICATION_H

#include "OwnedDescriptor.h"
#include "ReceivedContent.h"

#include <VornSmartPointer.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

namespace VornNet {

/**
 * One notification, from the acceptance of its connection until its callback has returned.
 *
 * It owns the connection. Until confirm() its end, also that of the whole process, is a reset for the sender.
 */
class IncomingNotification {
public:
    /** What reading has come to. */
    enum class Progress {
        open,     ///< the sender has not sent everything yet
        heldBack, ///< more has arrived than there is room or memory for
        complete, ///< everything has been read
        tooLong,  ///< it is longer than allowed
        broken    ///< it has ended before its handle, or by a reset
    };

    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t cHandleSize = 8;

    /** @param nAccessRights what the callback's connection reports. @param nLimit most bytes, handle included
     */
    IncomingNotification(unsigned int nAccessRights, std::size_t nLimit);
    virtual ~IncomingNotification() = default;

    IncomingNotification(const IncomingNotification&) = delete;
    IncomingNotification& operator=(const IncomingNotification&) = delete;

    /** Takes over an accepted connection. */
    void attach(OwnedDescriptor&& connection) { m_connection = std::move(connection); }

    /** Closes the connection of a sender who may not send. */
    void detach() { m_connection.reset(); }

    /** Reads what has arrived. @param nRoom most bytes of content to read; the handle is always read */
    virtual Progress read(std::size_t nRoom) = 0;

    /** Closes the connection so that the sender sees the end of its stream. */
    virtual void confirm() = 0;

    /** @return whether the sender may not send, which has been counted; it only waits for its reset. */
    virtual bool isRefused() const { return false; }

    /** @return the connection; -1 when there is none. */
    int descriptor() const { return m_connection.number(); }

    /** @return the id of the callback that is called for. */
    int callbackId() const;

    /** @return the content; let go of it once the callback has it. */
    VornSmartPointer<ReceivedContent>& content() { return m_spContent; }

    /** @return the bytes read, handle included. */
    std::size_t size() const { return m_nSize; }

    // What the reading thread notes of it.
    Clock::time_point deadline;  ///< when it is cut
    Clock::time_point heldSince; ///< while it is held back, since when; its time stands still
    bool isHeldBack = false;     ///< more has arrived than could be read
    bool isWatched = false;      ///< its events are told

protected:
    /** Takes bytes that have arrived. @return open when all of them have been taken */
    Progress receive(std::size_t nBytes, std::size_t& nRoom);

    /** Adds bytes to handle and content. @return false when there is no memory for them */
    bool add(const char* bytes, std::size_t nBytes);

    /** @return how many bytes have arrived and are not taken; -1 after an error. */
    long arrived() const;

    OwnedDescriptor m_connection;
    std::size_t m_nSize;
    const std::size_t m_nLimit;
    std::array<char, cHandleSize> m_handle;
    VornSmartPointer<ReceivedContent> m_spContent;
};

/** Notifications in the order of their acceptance, by its number. */
using IncomingNotifications = std::map<std::uint64_t, std::unique_ptr<IncomingNotification>>;

} // namespace VornNet

#endif
