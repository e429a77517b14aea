// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_DELIVERYTRY_H
#define VORNNOTIFY_DELIVERYTRY_H

#include <VornNetExport.h>

#include <cstdint>
#include <string_view>

namespace VornNet {

/**
 * Tries to deliver one notification over one transport, as a state machine that never blocks. It is used
 * again for the next one.
 *
 * A try is started, advances with each event of its socket, and ends by telling what it knows. Used by one
 * thread.
 */
class DeliveryTry {
public:
    /** How far the try has come. */
    struct Progress {
        enum class Kind {
            waiting,   ///< goes on with the next event
            delivered, ///< has ended: a sink has read everything, and closed
            sent,      ///< has ended: handed to the network
            unread,    ///< has ended: a sink took it, and did not read everything
            failed     ///< has ended: to be tried again
        };

        Kind kind = Kind::waiting;
        int nCode = 0;          ///< of a failure
        bool bDoubtful = false; ///< it may have reached the callback all the same
        bool bIsAlive = false;  ///< failed by a reset: somebody is there
    };

    virtual ~DeliveryTry() = default;

    DeliveryTry(const DeliveryTry&) = delete;
    DeliveryTry& operator=(const DeliveryTry&) = delete;

    /** Begins with handle and content, which stay there until the end. */
    virtual Progress start(std::string_view bytes) = 0;

    /** Goes on. @param nEvents what epoll has told */
    virtual Progress advance(std::uint32_t nEvents) = 0;

    /** Ends the try without a result, and closes the socket; or closes the one that was kept. */
    virtual void abandon() = 0;

    /** @return whether the notification may have reached the callback by now. */
    virtual bool mayHaveArrived() const = 0;

    /** @return whether it waits to be connected, which has a time limit of its own. */
    virtual bool isConnecting() const = 0;

    /** @return whether it has a socket now. */
    virtual bool isOpen() const = 0;

protected:
    DeliveryTry() = default;
};

} // namespace VornNet

#endif
