// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"
#include "Sockets.h"

#include <unistd.h>

/** What each sort of value costs the one who writes it straight on a connection, over a pipe. */
namespace Bench {

namespace {

/** One value written; what was written before is taken unmeasured. */
class Sending : public Contender {
public:
    /** Writes on a connection, or by hand on its descriptor. */
    using Write = std::function<void(VornNet::VornConnection&, int)>;

    explicit Sending(Write write)
        : m_write(std::move(write)), m_ends(connectedPair(Road::pipe)),
          m_connection(makeConnection(Road::pipe, m_ends.client)) {}

    ~Sending() override { ::close(m_ends.server); }

    void prepare() override { drain(m_ends.server); }

    Clock::time_point operate() override {
        m_write(*m_connection, m_ends.client);
        return Clock::now();
    }

private:
    const Write m_write;
    const Ends m_ends;
    const std::unique_ptr<VornNet::VornConnection> m_connection;
};

void add(const char* contender, const Sending::Write& write) {
    addContender<Sending>("values-pipe", contender, 1, write);
}

} // namespace

void addSentValues() {
    using VornNet::VornConnection;
    add("limit", [](VornConnection&, int fd) {
        unsigned char bytes[4];
        storeInt(bytes, 7);
        sendAll(fd, bytes, sizeof bytes);
    });
    add("vornnet-int", [](VornConnection& connection, int) { connection.transfer(7); });
    add("vornnet-long", [](VornConnection& connection, int) { connection.transfer(7L); });
    add("vornnet-string", [text = VornNet::VornString(100, 'x')](VornConnection& connection, int) {
        connection.transfer(text);
    });
    add("vornnet-acknowledgement", [](VornConnection& connection, int) { connection.transferACK(); });
    add("vornnet-error", [](VornConnection& connection, int) { connection.transferError(); });
}

} // namespace Bench
