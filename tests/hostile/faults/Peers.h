// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_PEERS_H
#define VORNTEST_PEERS_H

#include "Await.h"
#include "Posix.h"

#include <atomic>
#include <functional>
#include <string>

/**
 * @file
 * The peers of the scenarios, of plain POSIX calls on threads of their own.
 */
namespace VornTest {

/** Listens at the pipe called "faults". */
UniqueFd listenAtPipe();

/**
 * A port that nothing has used before, outside the range from which the system chooses: so a connection that
 * is still in TIME_WAIT, or one that by chance comes from that port, cannot be in a server's way.
 */
int freshPort();

/** Serves one client after the other until it is destroyed. */
class Service {
public:
    /** @param serve is given each client; what it throws ends the client */
    Service(UniqueFd listener, std::function<void(int client)> serve);
    ~Service();

private:
    void run();

    UniqueFd m_listener;
    std::function<void(int)> m_serve;
    std::atomic<bool> m_ending = false;
    WatchedThread m_thread;
};

/** A service's work: answers the client's int with the same int. */
void echoInt(int client);

/** Does something again and again until it is destroyed, also when it fails. */
class Repeated {
public:
    explicit Repeated(std::function<void()> work);
    ~Repeated();

private:
    std::atomic<bool> m_ending = false;
    WatchedThread m_thread;
};

/** Writes the int 7 to a server and waits for the end. */
void callServer(const UniqueFd& server);

} // namespace VornTest

#endif
