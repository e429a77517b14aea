// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_POSIX_H
#define VORNTEST_POSIX_H

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

/**
 * @file
 * Peers made of plain POSIX calls, which share no code with what they test.
 *
 * Every function throws std::system_error if a call fails. Every descriptor is close-on-exec. Every socket
 * made here gives up receiving, accepting and sending after ten seconds, so that no test hangs on a peer.
 * Addresses are numeric, IPv4 or IPv6.
 */
namespace VornTest {

/** Owner of a descriptor. */
class UniqueFd {
public:
    UniqueFd() = default;

    explicit UniqueFd(int fd) : m_fd(fd) {}

    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}

    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }

    ~UniqueFd() { reset(); }

    /** The descriptor, -1 if there is none. */
    int get() const { return m_fd; }

    explicit operator bool() const { return m_fd >= 0; }

    /** Gives the descriptor away without closing it. */
    int release();
    /** Closes the descriptor and takes over @p fd. */
    void reset(int fd = -1);

private:
    int m_fd = -1;
};

/** Bytes written as hexadecimal text, blanks being ignored: bytes("00 01 ff"). */
std::string bytes(std::string_view hexText);

/** As many bytes, of which no two places are alike. */
std::string manyBytes(std::size_t count, unsigned int seed);

/** The inverse of bytes(), in lower case, with one blank between bytes. */
std::string hex(std::string_view data);

/** The whole of a file. */
std::string readTextFile(const std::string& path);

/** A Unix stream socket which listens at @p path, in place of what was left there. */
UniqueFd unixListen(const std::string& path, int backlog = 5);

/** A Unix stream socket connected to @p path. */
UniqueFd unixConnect(const std::string& path);

/** A TCP socket which listens; port 0 lets the system choose, and the choice is written back. */
UniqueFd tcpListen(const std::string& address, int& port, int backlog = 5);

/** A TCP socket connected to the address, from @p sourceAddress if that is not empty. */
UniqueFd tcpConnect(const std::string& address, int port, const std::string& sourceAddress = {});

/** A bound UDP socket; port 0 lets the system choose, and the choice is written back. */
UniqueFd udpSocket(const std::string& address, int& port);

/** Sends one datagram. */
void udpSendTo(int fd, const std::string& address, int port, std::string_view data);

/** The next connection of a listening socket. */
UniqueFd acceptClient(int fd);

/** Sends all of @p data. */
void sendAll(int fd, std::string_view data);

/** Receives @p count bytes; an earlier end is an ENODATA error which tells how many there were. */
std::string receiveExactly(int fd, std::size_t count);

/** Receives until the peer has shut down its side. */
std::string receiveToEnd(int fd);

/** Receives one datagram. */
std::string receiveDatagram(int fd);

/** A datagram and who sent it. */
struct Datagram {
    std::string data;
    std::string address;
    int port = 0;
};

/** Receives one datagram together with its source. */
Datagram receiveDatagramFrom(int fd);

/** Makes close() send a TCP reset. */
void resetOnClose(int fd);

/** The port to which the socket is bound. */
int localPort(int fd);

/** The address to which the socket is bound. */
std::string localAddress(int fd);

/** The address at the other end of the connection. */
std::string peerAddress(int fd);

/** A TCP port at which nobody listens. */
int unusedTcpPort();

/** A UDP port to which nobody is bound. */
int unusedUdpPort();

/** Whether the number is that of an open descriptor. */
bool isOpen(int fd);

/** Whether the descriptor is closed by exec. */
bool isCloseOnExec(int fd);

/** The open descriptors of this process: number and what /proc says it is. */
std::map<int, std::string> descriptorTable();

/** How many descriptors this process has open. */
int openDescriptors();

} // namespace VornTest

#endif
