// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// The cable between two hosts: moves frames between the far ends of two veth pairs, which lie in a network of
// their own, and delays and drops some of them when told to. Unlike the kernel's netem it is there on every
// machine, can be seeded, and writes down which datagrams it has dropped.
//
// Each line of the input, "DELAY JITTER LOSS" in microseconds and thousandths, holds until the next.

#include "History.h"
#include "Message.h"
#include "Roles.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <queue>
#include <random>
#include <stdexcept>
#include <system_error>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Soak {

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/** A socket at one end of the cable, which gets all frames with their checksums' state. */
int openEnd(const char* interface) {
    const int fd = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int yes = 1;
    const int room = 16 << 20;
    // What the kernel leaves for the network card to compute must be left so again at the other end.
    if (fd == -1 || ::setsockopt(fd, SOL_PACKET, PACKET_VNET_HDR, &yes, sizeof yes) != 0 ||
        ::setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &yes, sizeof yes) != 0)
        fail("packet socket");
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) != 0)
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    sockaddr_ll place{};
    place.sll_family = AF_PACKET;
    place.sll_protocol = htons(ETH_P_ALL);
    place.sll_ifindex = static_cast<int>(::if_nametoindex(interface));
    if (place.sll_ifindex == 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&place), sizeof place) != 0)
        fail(interface);
    return fd;
}

struct Frame {
    long due;
    int to;
    std::string bytes;
    std::string token; // of a notification in a datagram, empty for any other frame

    bool operator<(const Frame& other) const { return due > other.due; } // the earliest is on top
};

class Cable {
public:
    explicit Cable(unsigned int seed) : m_ends{openEnd("far1"), openEnd("far2")}, m_random(seed) {}

    ~Cable() {
        for (const int end : m_ends)
            ::close(end);
    }

    Cable(const Cable&) = delete;
    Cable& operator=(const Cable&) = delete;

    void run() {
        for (bool goesOn = true; goesOn;) {
            std::array<pollfd, 3> entries{
                {{STDIN_FILENO, POLLIN, 0}, {m_ends[0], POLLIN, 0}, {m_ends[1], POLLIN, 0}}};
            const timespec pause = timeUntilNext();
            ::ppoll(entries.data(), entries.size(), &pause, nullptr);
            if (entries[0].revents != 0)
                goesOn = readOrder();
            for (std::size_t from = 0; from < 2; ++from) {
                if (entries[from + 1].revents != 0)
                    readFrames(from);
                recordOverflow(from);
            }
            while (!m_waiting.empty() && m_waiting.top().due <= now())
                deliverNext();
        }
    }

private:
    timespec timeUntilNext() const {
        constexpr long longest = 50'000'000;
        if (m_waiting.empty())
            return {0, longest};
        return {0, std::clamp(m_waiting.top().due - now(), 0L, longest)};
    }

    bool readOrder() {
        std::string line;
        if (!std::getline(std::cin, line))
            return false;
        if (std::sscanf(line.c_str(), "%ld %ld %d", &m_delay, &m_jitter, &m_loss) != 3)
            throw std::runtime_error("cable: " + line);
        return true;
    }

    void readFrames(std::size_t from) {
        static std::array<char, 70'000> buffer;
        for (;;) {
            const ssize_t size = ::recv(m_ends[from], buffer.data(), buffer.size(), 0);
            if (size <= 0)
                return;
            const auto length = static_cast<std::size_t>(size);
            const std::string token =
                isDatagram(buffer.data(), length) ? findToken(buffer.data(), length).data() : std::string();
            if (!token.empty())
                History::write("in token=%s", token.c_str());
            if (m_loss > 0 && std::uniform_int_distribution<>(0, 999)(m_random) < m_loss) {
                if (!token.empty())
                    History::write("dropped token=%s", token.c_str());
                continue;
            }
            const long jitter = std::uniform_int_distribution<long>(0, m_jitter)(m_random);
            m_waiting.push({now() + 1000 * (m_delay + jitter), m_ends[1 - from],
                            std::string(buffer.data(), length), token});
        }
    }

    static bool isDatagram(const char* frame, std::size_t size) {
        constexpr std::size_t virtioHeader = 10;
        constexpr std::size_t protocol = virtioHeader + sizeof(ether_header) + 9;
        return size > protocol && frame[protocol] == IPPROTO_UDP;
    }

    void deliverNext() {
        const Frame& frame = m_waiting.top();
        const long from = now();
        const bool isSent = ::send(frame.to, frame.bytes.data(), frame.bytes.size(), 0) != -1;
        if (!frame.token.empty())
            History::write(isSent ? "out token=%s from=%ld" : "choked token=%s from=%ld", frame.token.c_str(),
                           from);
        m_waiting.pop();
    }

    /** Frames for which the socket had no room, because this process was not given the processor in time. */
    void recordOverflow(std::size_t end) {
        tpacket_stats counts{};
        socklen_t length = sizeof counts;
        ::getsockopt(m_ends[end], SOL_PACKET, PACKET_STATISTICS, &counts, &length);
        if (counts.tp_drops > 0)
            History::write("overflow frames=%u from=%ld", counts.tp_drops, m_lastLook[end]);
        m_lastLook[end] = now();
    }

    std::array<int, 2> m_ends;
    std::array<long, 2> m_lastLook{now(), now()};
    std::mt19937 m_random;
    std::priority_queue<Frame> m_waiting;
    long m_delay = 0;
    long m_jitter = 0;
    int m_loss = 0;
};

} // namespace

int runCable(const Arguments& arguments) {
    if (::unshare(CLONE_NEWNET) != 0)
        fail("unshare");
    std::setvbuf(stdin, nullptr, _IONBF, 0); // what is not read yet must be seen by poll()
    std::cout << "ready" << std::endl;
    std::string line;
    std::getline(std::cin, line); // the interfaces are here
    Cable(static_cast<unsigned int>(std::stoul(arguments.at(0)))).run();
    return 0;
}

} // namespace Soak
