// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNBENCH_DIALOGUE_H
#define VORNBENCH_DIALOGUE_H

#include "Bench.h"
#include "Sockets.h"

#include <unistd.h>

#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StreamSocketImpl.h>

namespace Bench {

/**
 * Questions and answers over one stream connection, the other end of which has a thread of its own.
 *
 * @tparam End an end of the connection, made from road, descriptor, which it owns, and arguments: ask() is an
 * operation of the client's, and answer() is what the server does for it; it throws when the client has
 * closed
 */
template <typename End>
class Dialogue : public Contender {
public:
    template <typename... Arguments>
    explicit Dialogue(Road road, Arguments... arguments)
        : Dialogue(connectedPair(road), road, arguments...) {}

    Clock::time_point operate() override {
        m_client.ask();
        return Clock::now();
    }

private:
    template <typename... Arguments>
    Dialogue(Ends ends, Road road, Arguments... arguments)
        : m_server([=] { serve(road, ends.server, arguments...); }),
          m_client(road, ends.client, arguments...) {}

    template <typename... Arguments>
    static void serve(Road road, int fd, Arguments... arguments) {
        End end(road, fd, arguments...);
        try {
            for (;;)
                end.answer();
        } catch (...) {
            // The client has closed.
        }
    }

    // In this order: the thread ends because the client does.
    Joined m_server;
    End m_client;
};

/** The end of a plain descriptor. */
class PlainEnd {
public:
    PlainEnd(Road /*road*/, int fd) : m_fd(fd) {}

    ~PlainEnd() { ::close(m_fd); }

    PlainEnd(const PlainEnd&) = delete;
    PlainEnd& operator=(const PlainEnd&) = delete;

protected:
    struct Closed {};

    void send(const void* bytes, std::size_t size) const { sendAll(m_fd, bytes, size); }

    void receive(void* bytes, std::size_t size) const {
        if (!receiveAll(m_fd, bytes, size))
            throw Closed();
    }

    void sendNumber(unsigned int value) const {
        unsigned char bytes[4];
        storeInt(bytes, value);
        send(bytes, sizeof bytes);
    }

    unsigned int receiveNumber() const {
        unsigned char bytes[4];
        receive(bytes, sizeof bytes);
        return loadInt(bytes);
    }

private:
    int m_fd;
};

/** POCO's stream socket around a connected descriptor; its constructor for that is not public. */
class PocoSocket : public Poco::Net::StreamSocket {
public:
    explicit PocoSocket(int fd) : StreamSocket(new Poco::Net::StreamSocketImpl(fd)) {}

    void sendWhole(const void* bytes, int size) {
        const char* cursor = static_cast<const char*>(bytes);
        while (size > 0) {
            const int count = sendBytes(cursor, size);
            cursor += count;
            size -= count;
        }
    }

    void receiveWhole(void* bytes, int size) {
        char* cursor = static_cast<char*>(bytes);
        while (size > 0) {
            const int count = receiveBytes(cursor, size);
            if (count <= 0)
                throw Poco::Exception("closed");
            cursor += count;
            size -= count;
        }
    }
};

} // namespace Bench

#endif
