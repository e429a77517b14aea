// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef SOAK_OBSERVER_H
#define SOAK_OBSERVER_H

/**
 * @file
 * This program's own accept(), bind(), close(), connect(), listen(), recvfrom(), sendto(), shutdown() and
 * socket() stand before the C library's and see what the library under test asks of the kernel. They change
 * nothing. From a client's they know when its sink's server was open and what came into it, from a service's
 * whether and when a connection came about. Without these facts no loss could be told from another.
 */
namespace Soak {

/** Writes the life of every server that this process opens from now on into the history. */
void observeServers();

/** What happened to the sockets of the calling thread since the last reset. */
struct SendFacts {
    long connectedFrom = 0; // before and after the connect() that succeeded; 0: none did
    long connectedTo = 0;
    int socketError = 0; // of the last failed socket(), connect() or sendto()
    int sendError = 0;

    static SendFacts& ofThread();
};

/** How often sendto() has failed in this process. */
int failedSends();

} // namespace Soak

#endif
