// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_PACKETCAPTURE_H
#define VORNTEST_PACKETCAPTURE_H

#include "Posix.h"

#include <cstddef>
#include <string>
#include <vector>

/**
 * @file
 * Records what travels over the loopback interface of the test's own network.
 */
namespace VornTest {

/**
 * Captures from its construction on. The sandbox gives the right to it, also to an ordinary user; so no
 * capture program is needed, and none has to be waited for: what has been sent has been captured.
 */
class PacketCapture {
public:
    PacketCapture();

    /** Waits until as many sides of TCP connections have ended. */
    void awaitEnds(int count);

    /** Keeps only the first @p size bytes of each packet from now on, as `tcpdump -s` does. */
    void cutPackets(std::size_t size);

    /**
     * Appends what has been captured once more, @p seconds later, as other connections between the same
     * ports.
     */
    void repeatLater(int seconds);

    /** Writes what has been captured as a pcap file. */
    void write(const std::string& path);

    /** How many packets carry bytes of a TCP stream. */
    int segments();

private:
    struct Packet {
        std::string bytes; ///< an Ethernet frame, perhaps cut
        std::size_t size = 0;
        unsigned seconds = 0;
    };

    void drain();

    UniqueFd m_socket;
    std::vector<Packet> m_packets;
    std::size_t m_limit = 65535;
};

} // namespace VornTest

#endif
