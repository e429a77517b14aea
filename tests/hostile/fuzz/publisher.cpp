// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Hostile clients at a live publisher, over a pipe or TCP; during and after each input a well-formed client
// must be admitted and get its event, and one that has subscribed before must get a new one. The input's
// first byte chooses the road and how much of a sound exchange comes first; then come pieces, each with a
// byte that says how it is sent and one that gives its length.

#include "Input.h"
#include "Peer.h"

#include <VornException.h>
#include <VornPublisher.h>

#include <chrono>
#include <string>

#include <sys/socket.h>
#include <unistd.h>

using namespace VornNet;

namespace {

const std::string line = "builds\r\n";
const std::string request("\0\0\0\1\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0",
                          40);
constexpr std::size_t answerSize = 1 + 4 + 28;
constexpr std::size_t eventSize = 16;

class Road {
public:
    explicit Road(bool isPipe) : m_publisher(addressFor(isPipe), {"builds"}, options()) {
        publish();
        m_standing = admitted();
    }

    int connect() {
        const int fd = connectTo(m_publisher.getAddress());
        const timeval patience{10, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        return fd;
    }

    void requireAlive() {
        ::close(admitted());
        publish();
        require(receives(m_standing, eventSize), "others get their events");
    }

private:
    static std::string addressFor(bool isPipe) { return isPipe ? "pipe:fuzz" : "socket:127.0.0.1:0"; }

    static VornPublisher::Options options() {
        VornPublisher::Options options;
        options.nHistoryBytes = 4096;
        options.beat = std::chrono::hours(1); // no sign comes between the events
        options.requestLimit = std::chrono::milliseconds(100);
        options.nRequestLimit = 4;
        options.onSubscribe = [](const VornPublisher::Subscriber&) { return VornString(); };
        options.onLeave = [](const VornPublisher::Subscriber&, VornPublisher::Leaving, int) {};
        return options;
    }

    void publish() {
        m_publisher.publish("builds", [](VornConnection&) {});
    }

    /** A connection with a sound request that was answered, and whose event has come. */
    int admitted() {
        // On a busy machine the publisher may cut a client that has not been given the processor in time.
        for (;;) {
            const std::uint64_t cut = m_publisher.statistics().nTimedOut;
            const int fd = connect();
            require(fd != -1, "the publisher can be reached");
            ::send(fd, line.data(), line.size(), MSG_NOSIGNAL);
            ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
            if (receives(fd, answerSize + eventSize))
                return fd;
            ::close(fd);
            require(m_publisher.statistics().nTimedOut > cut,
                    "a sound request is answered, and the event comes");
        }
    }

    static bool receives(int fd, std::size_t size) {
        char bytes[64];
        return ::recv(fd, bytes, size, MSG_WAITALL) == static_cast<ssize_t>(size);
    }

    VornPublisher m_publisher;
    int m_standing = -1;
};

Road& road(bool isPipe) {
    // Never destroyed: the fuzzer ends the process where it stands.
    static Road& pipe = *new Road(true);
    static Road& tcp = *new Road(false);
    return isPipe ? pipe : tcp;
}

void sendSound(int fd, int soundParts) {
    if (soundParts > 0)
        ::send(fd, line.data(), line.size(), MSG_NOSIGNAL);
    if (soundParts > 1)
        ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const int choice = input.byte();
    Road& hit = road(choice % 2 == 0);
    const int peer = hit.connect();
    require(peer != -1, "the publisher listens");
    sendSound(peer, choice / 2 % 3);
    sendPieces(peer, input);
    hit.requireAlive(); // also while the attacker's connection is open
    ::close(peer);
    hit.requireAlive();
    return 0;
}
