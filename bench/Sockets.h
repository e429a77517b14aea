// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNBENCH_SOCKETS_H
#define VORNBENCH_SOCKETS_H

#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <netinet/in.h>
#include <sys/un.h>

#include <VornConnection.h>

/** @file
 *  Plain POSIX calls, for the limits and for the ends that all contenders share.
 */
namespace Bench {

enum class Road { pipe, tcp, udp };

/** @return "pipe", "tcp" or "udp". */
const char* nameOf(Road road);

/** Ends the program when a call has failed. @return @p result */
long checked(long result, const char* what);

/** The local end of a call that has to send or receive exactly what it is told. @{ */
void sendAll(int fd, const void* bytes, std::size_t size);

/** @return false at the end of the stream */
bool receiveAll(int fd, void* bytes, std::size_t size);

/** @} */

/** The two bytes orders' meeting point: 4 bytes, most significant first. @{ */
inline void storeInt(unsigned char* bytes, unsigned int value) {
    bytes[0] = static_cast<unsigned char>(value >> 24);
    bytes[1] = static_cast<unsigned char>(value >> 16);
    bytes[2] = static_cast<unsigned char>(value >> 8);
    bytes[3] = static_cast<unsigned char>(value);
}

inline unsigned int loadInt(const unsigned char* bytes) {
    return static_cast<unsigned int>(bytes[0]) << 24 | static_cast<unsigned int>(bytes[1]) << 16 |
           static_cast<unsigned int>(bytes[2]) << 8 | static_cast<unsigned int>(bytes[3]);
}

/** @} */

/** Every descriptor of the library is close-on-exec by a call of its own, and so are the limit's. */
int closeOnExec(int fd);

/** An address of the road, on the loopback interface or in the directory of the pipes. */
class Address {
public:
    /** @param pipeName for Road::pipe @param port for the others */
    Address(Road road, const std::string& pipeName, int port);

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&m_storage); }

    socklen_t length() const { return m_length; }

    int family() const { return m_storage.internet.sin_family; }

    const char* path() const { return m_storage.local.sun_path; }

private:
    union {
        sockaddr_in internet;
        sockaddr_un local;
    } m_storage;

    socklen_t m_length;
};

/** The same for the message queues, which bring their own listeners. */
std::string queueAddress(Road road, const std::string& pipeName, int port);

/** The address family of the road. */
int familyOf(Road road);

/** @return a stream socket that listens there; a pipe that somebody has left is replaced */
int listenAt(const Address& address, int backlog);

/** @return a stream socket that is connected with it */
int connectTo(const Address& address);

/** Takes the messages that have come, but waits for none. By a call that no contender uses: it is not
 * counted. */
void drain(int fd);

/** A stream connection's two descriptors. */
struct Ends {
    int client;
    int server;
};

Ends connectedPair(Road road);

/** One of the library's connections around a connected descriptor, which it takes over. */
std::unique_ptr<VornNet::VornConnection> makeConnection(Road road, int fd);

/** A thread whose end is waited for. */
class Joined {
public:
    template <typename Function>
    explicit Joined(Function function) : m_thread(std::move(function)) {}

    ~Joined() { m_thread.join(); }

    Joined(const Joined&) = delete;
    Joined& operator=(const Joined&) = delete;

private:
    std::thread m_thread;
};

} // namespace Bench

#endif
