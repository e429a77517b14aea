// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNBENCH_POSIXSERVER_H
#define VORNBENCH_POSIXSERVER_H

#include "Sockets.h"

#include <string>

namespace Bench {

/**
 * What the library's three servers ask of the system, call by call, without anything around it: the limit of
 * whatever has a server in it.
 */
class PosixServer {
public:
    /** @param pipeName for Road::pipe @param port for the others */
    PosixServer(Road road, const std::string& pipeName, int port);

    PosixServer(const PosixServer&) = delete;
    PosixServer& operator=(const PosixServer&) = delete;

    /** A TCP port that is still taken, because this end was the first to close a connection, is left for the
     * next. */
    void open();
    void close();

    const Address& address() const { return m_address; }

    int descriptor() const { return m_listener; }

    /** Waits for a client. @return its descriptor */
    int acceptClient() const;

    /** Waits for a datagram of at most @p size bytes. @return its size */
    long receiveDatagram(void* bytes, std::size_t size) const;

private:
    void openPipe();
    void openSocket();

    const Road m_road;
    int m_port;
    Address m_address;
    int m_listener = -1;
    int m_wakeUp[2] = {-1, -1};
};

/** The two longs of a notification, as they travel. */
struct NotificationBytes {
    unsigned char handle[8] = {};
    unsigned char id[8] = {0, 0, 0, 42};
};

/** Sends one with the calls that the library makes: over a stream, each long is a write of its own. */
void sendNotification(Road road, const Address& address);

/** Sends one datagram as the library does, with a socket of its own. */
void sendDatagram(const Address& address, const void* bytes, std::size_t size);

} // namespace Bench

#endif
