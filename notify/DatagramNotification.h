// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_DATAGRAMNOTIFICATION_H
#define VORNNOTIFY_DATAGRAMNOTIFICATION_H

#include "IncomingNotification.h"

#include <netinet/in.h>

namespace VornNet {

/** A notification that comes as one datagram; there is no connection, and nothing to confirm. */
class DatagramNotification : public IncomingNotification {
public:
    /** Makes room for the longest datagram. @throws std::bad_alloc */
    DatagramNotification(unsigned int nAccessRights, std::size_t nLimit);

    /** Receives a datagram. @return false with errno when there is none */
    bool receiveFrom(int fd, sockaddr_in& sender);

    /** Judges what has been received. */
    Progress read(std::size_t nRoom) override;

    void confirm() override {}
};

} // namespace VornNet

#endif
