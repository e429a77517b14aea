// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PacketCapture.h"

#include "Await.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <fstream>
#include <system_error>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace VornTest {

namespace {

constexpr std::size_t cIp = 14; // after the Ethernet header

unsigned byteAt(const std::string& packet, std::size_t index) {
    return index < packet.size() ? static_cast<unsigned char>(packet[index]) : 0;
}

bool isTcp(const std::string& packet) {
    return byteAt(packet, 12) == 8 && byteAt(packet, 13) == 0 && byteAt(packet, cIp + 9) == IPPROTO_TCP;
}

std::size_t tcpOf(const std::string& packet) {
    return cIp + (byteAt(packet, cIp) & 15U) * 4;
}

bool endsSide(const std::string& packet) {
    constexpr unsigned cFinOrReset = 5;
    return isTcp(packet) && (byteAt(packet, tcpOf(packet) + 13) & cFinOrReset) != 0;
}

bool hasPayload(const std::string& packet) {
    const std::size_t tcp = tcpOf(packet);
    const std::size_t total = byteAt(packet, cIp + 2) * 256 + byteAt(packet, cIp + 3);
    return isTcp(packet) && total > tcp - cIp + (byteAt(packet, tcp + 12) >> 4U) * 4;
}

/** Moves a number of four bytes, most significant first. */
void shift(std::string& packet, std::size_t index) {
    constexpr std::uint32_t cDistance = 100000000;
    std::uint32_t number = 0;
    for (std::size_t at = 0; at < 4; ++at)
        number = number << 8U | byteAt(packet, index + at);
    number += cDistance;
    for (std::size_t at = 0; at < 4; ++at)
        packet[index + at] = static_cast<char>(number >> (24 - 8 * at) & 255U);
}

void append(std::string& file, std::uint32_t number) {
    file.append(reinterpret_cast<const char*>(&number), sizeof number);
}

[[noreturn]] void fail(const char* call) {
    throw std::system_error(errno, std::generic_category(), call);
}

} // namespace

PacketCapture::PacketCapture() : m_socket(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL))) {
    if (!m_socket)
        fail("socket(AF_PACKET)");
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(::if_nametoindex("lo"));
    if (::bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fail("bind(AF_PACKET)");
    const int size = 1 << 23;
    if (::setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0)
        fail("setsockopt(SO_RCVBUF)");
}

void PacketCapture::drain() {
    std::array<char, 70000> buffer{};
    for (;;) {
        sockaddr_ll from{};
        socklen_t length = sizeof from;
        const ssize_t count = ::recvfrom(m_socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT,
                                         reinterpret_cast<sockaddr*>(&from), &length);
        if (count == -1 && errno != EAGAIN)
            fail("recvfrom(AF_PACKET)");
        if (count <= 0)
            return;
        // Everything passes the loopback interface twice: out and in.
        if (from.sll_pkttype == PACKET_OUTGOING)
            continue;
        const auto size = static_cast<std::size_t>(count);
        m_packets.push_back({std::string(buffer.data(), std::min(size, m_limit)), size, 0});
    }
}

void PacketCapture::awaitEnds(int count) {
    const auto haveEnded = [this, count] {
        drain();
        return std::count_if(m_packets.begin(), m_packets.end(),
                             [](const Packet& packet) { return endsSide(packet.bytes); }) >= count;
    };
    EXPECT_TRUE(awaitCondition(haveEnded)) << "not so many sides have ended: " << count;
}

void PacketCapture::cutPackets(std::size_t size) {
    drain();
    m_limit = size;
}

void PacketCapture::repeatLater(int seconds) {
    drain();
    const std::size_t count = m_packets.size();
    for (std::size_t index = 0; index < count; ++index) {
        Packet packet = m_packets[index];
        packet.seconds += static_cast<unsigned>(seconds);
        if (isTcp(packet.bytes)) {
            shift(packet.bytes, tcpOf(packet.bytes) + 4);
            if (byteAt(packet.bytes, tcpOf(packet.bytes) + 13) & 16U)
                shift(packet.bytes, tcpOf(packet.bytes) + 8);
        }
        m_packets.push_back(packet);
    }
}

int PacketCapture::segments() {
    drain();
    return static_cast<int>(std::count_if(m_packets.begin(), m_packets.end(),
                                          [](const Packet& packet) { return hasPayload(packet.bytes); }));
}

void PacketCapture::write(const std::string& path) {
    drain();
    std::string file;
    for (const std::uint32_t number : {0xa1b2c3d4U, 0x00040002U, 0U, 0U, 65535U, 1U})
        append(file, number);
    std::uint32_t microseconds = 0;
    for (const Packet& packet : m_packets) {
        append(file, packet.seconds);
        append(file, microseconds++);
        append(file, static_cast<std::uint32_t>(packet.bytes.size()));
        append(file, static_cast<std::uint32_t>(packet.size));
        file += packet.bytes;
    }
    std::ofstream stream(path, std::ios::binary);
    stream << file;
    if (!stream.flush())
        fail("write");
}

} // namespace VornTest
