// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_TCPNOTIFICATION_H
#define VORNNOTIFY_TCPNOTIFICATION_H

#include "IncomingNotification.h"

namespace VornNet {

/**
 * A notification over TCP.
 *
 * The connection comes from a listener whose SO_LINGER of 0 seconds it has inherited, so that its closing is
 * a reset until confirm() takes that back. No byte is left in the kernel instead: it would hold a whole
 * segment's memory, and the window would stay shut for the rest of a large notification.
 */
class TcpNotification : public IncomingNotification {
public:
    using IncomingNotification::IncomingNotification;

    Progress read(std::size_t nRoom) override;
    void confirm() override;

private:
    Progress lookForEnd();
};

} // namespace VornNet

#endif
