// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"
#include "Sockets.h"

#include <unistd.h>

/** What each sort of value costs the one who writes it straight on a connection, over a pipe. */
namespace Bench {

namespace {

/** A connection from which what was written is taken before the next value. */
class SendingEnd {
public:
    SendingEnd()
        : m_ends(connectedPair(Road::pipe)), m_connection(makeConnection(Road::pipe, m_ends.client)) {}

    ~SendingEnd() { ::close(m_ends.server); }

    SendingEnd(const SendingEnd&) = delete;
    SendingEnd& operator=(const SendingEnd&) = delete;

    VornNet::VornConnection& connection() { return *m_connection; }

    int descriptor() const { return m_ends.client; }

    void takeAll() const { drain(m_ends.server); }

private:
    const Ends m_ends;
    const std::unique_ptr<VornNet::VornConnection> m_connection;
};

/** @tparam Write a function that is given the end and writes one value */
template <typename Write>
class Sending : public Contender {
public:
    explicit Sending(Write write) : m_write(write) {}

    void prepare() override { m_end.takeAll(); }

    Clock::time_point operate() override {
        m_write(m_end);
        return Clock::now();
    }

private:
    const Write m_write;
    SendingEnd m_end;
};

template <typename Write>
void add(const char* contender, Write write) {
    addContender<Sending<Write>>("values-pipe", contender, 1, write);
}

} // namespace

void addSentValues() {
    add("limit", [](SendingEnd& end) {
        unsigned char bytes[4];
        storeInt(bytes, 7);
        sendAll(end.descriptor(), bytes, sizeof bytes);
    });
    add("vornnet-int", [](SendingEnd& end) { end.connection().transfer(7); });
    add("vornnet-long", [](SendingEnd& end) { end.connection().transfer(7L); });
    add("vornnet-string",
        [text = VornNet::VornString(100, 'x')](SendingEnd& end) { end.connection().transfer(text); });
    add("vornnet-acknowledgement", [](SendingEnd& end) { end.connection().transferACK(); });
    add("vornnet-error", [](SendingEnd& end) { end.connection().transferError(); });
}

} // namespace Bench
