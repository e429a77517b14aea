// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_NOTIFICATIONSOURCE_H
#define VORNNOTIFY_NOTIFICATIONSOURCE_H

#include "IncomingNotification.h"

#include <VornString.h>

#include <cstddef>
#include <memory>

#include <netinet/in.h>

namespace VornNet {

/** Where a sink's notifications come in: the listening pipe, the listening TCP socket, the UDP socket. */
class NotificationSource {
public:
    /** What accepting has come to. */
    enum class Arrival {
        accepted, ///< there is a notification, perhaps of a sender who is refused
        refused,  ///< there is one of a sender who may not send, to be detached
        nothing,  ///< nobody is waiting
        failed    ///< it cannot be done now
    };

    virtual ~NotificationSource() = default;

    /** @return what the next notification will need, so that nothing is accepted that there is no memory for.
     */
    virtual std::unique_ptr<IncomingNotification> prepare() const = 0;

    /** Accepts the next one into what has been prepared. */
    virtual Arrival accept(IncomingNotification& next) = 0;

    /** @return the descriptor that becomes readable when somebody is waiting. */
    virtual int descriptor() const = 0;

    /** @return whether somebody may be waiting of whom the descriptor does not tell. */
    virtual bool hasBacklog() const { return false; }

    /** @return the callback address. */
    virtual VornString address() const = 0;

    /** @return whether look() has to be called each second. */
    virtual bool isToBeLookedAt() const { return false; }

    /** Looks whether it can still be reached, and opens it anew if not; then it has another descriptor. */
    virtual void look() {} // GCOVR_EXCL_LINE: called where it is overridden

protected:
    /** Accepts from a listening socket. @param peer receives the other end's address, unless null */
    static Arrival acceptFrom(int listener, IncomingNotification& next, sockaddr_in* peer);
};

} // namespace VornNet

#endif
