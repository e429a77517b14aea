// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNBENCH_POSIXNOTIFICATION_H
#define VORNBENCH_POSIXNOTIFICATION_H

#include "PosixServer.h"

#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

namespace Bench {

/** The two longs of a notification, as they travel. */
struct NotificationBytes {
    unsigned char handle[8] = {};
    unsigned char id[8] = {};
};

/** Sends a notification with the calls that the library makes: over a stream, each long is a write of its
 * own. */
inline void sendNotification(Road road, const Address& address) {
    NotificationBytes bytes;
    storeInt(bytes.handle, 0);
    storeInt(bytes.id, 42);
    if (road == Road::udp)
        return sendDatagram(address, &bytes, sizeof bytes);
    const int fd = closeOnExec(::socket(familyOf(road), SOCK_STREAM, 0));
    checked(::connect(fd, address.get(), address.length()), "connect");
    sendAll(fd, bytes.handle, sizeof bytes.handle);
    sendAll(fd, bytes.id, sizeof bytes.id);
    ::close(fd);
}

} // namespace Bench

#endif
