// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_PORTOWNERS_H
#define VORNRELAY_PORTOWNERS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <netinet/in.h>
#include <sys/types.h>

namespace VornRelay {

/** A TCP socket of this host that listens. */
struct ListeningPort {
    std::uint16_t nPort = 0;
    std::uint32_t nSocket = 0; ///< the kernel's number of it
    uid_t user = 0;
};

/** @return those that listen at an address, or at all addresses; the kernel tells anybody. */
std::vector<ListeningPort> listeningPorts(in_addr address);

/**
 * Knows which process is meant by a port that a sink has published, and where that process listens now.
 *
 * A TCP sink opens its port anew after each notification, and takes the next one when it cannot have it. The
 * process that listened when the port was first heard of is the one that is meant, as long as it lives; its
 * other port is looked for when it moves, until its notifications have been given up. A process that may not
 * be looked into, for want of CAP_SYS_PTRACE, is known by its user alone and not followed.
 *
 * Thread-safety: none. Blocking: reads of /proc. Ownership: nothing. Signals: none raised. Errors: what
 * cannot be read counts as not there; std::system_error for want of descriptors or memory, which tells
 * nothing.
 */
class PortOwners {
public:
    /** Where a sink can be reached now. */
    struct Place {
        std::uint16_t nPort = 0; ///< 0: nowhere at this moment
        bool bHasMoved = false;  ///< to another port than at the last look
        bool bHasEnded = false;  ///< the process is there no more
    };

    /** Notes who listens where, so that it is known before the first notification. */
    void look(in_addr address);

    /** @return where the sink is that has published that port. */
    Place find(in_addr address, std::uint16_t nPublished);

    /** Forgets who was meant by a port; the next one who is found there is. */
    void forget(std::uint16_t nPublished) { m_owners.erase(nPublished); }

    /** @return whether the sink's process, and nobody else, listens at that port now. */
    bool isOwn(in_addr address, std::uint16_t nPublished, std::uint16_t nPort) const;

private:
    struct Owner {
        pid_t process = 0; // 0: it may not be looked into
        std::uint64_t nStart = 0;
        uid_t user = 0;
        std::uint16_t nPort = 0; // where it was last
    };

    static Owner ownerOf(const ListeningPort& port);
    static bool holds(const Owner& owner, const ListeningPort& port);
    static bool hasEnded(const Owner& owner);
    bool mayHaveMoved(const Owner& owner, const std::vector<ListeningPort>& ports) const;
    bool isTaken(const Owner& owner, std::uint16_t nPort) const;
    void move(const Owner& owner, std::uint16_t nPort);

    std::map<std::uint16_t, Owner> m_owners; // by the port that was published
};

} // namespace VornRelay

#endif
