// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Hostile senders at a live steady sink over each kind of connection, with small limits; after each input a
// well-formed notification must be confirmed, or over UDP arrive. The input's first byte chooses the kind;
// then come pieces, each with a byte that says how it is sent and one that gives its length.

#include "Input.h"
#include "Peer.h"
#include "Reader.h"

#include <VornSteadySink.h>

#include <chrono>
#include <string>

#include <sys/socket.h>
#include <unistd.h>

using namespace VornNet;

namespace {

using Kind = VornSteadySink::Kind;

class Road {
public:
    explicit Road(Kind kind) : m_kind(kind), m_sink("fuzz", optionsFor(kind)), m_spCallback(new Reader(0)) {
        m_sink.getCallbackContainer().add(static_cast<VornNotificationCallback*>(m_spCallback));
    }

    int connect() { return connectTo(m_sink.getCallbackAddress()); }

    bool isStream() const { return m_kind != Kind::udp; }

    void requireAlive() {
        // On a busy machine the sink may cut a sender that has not been given the processor in time.
        for (;;) {
            const VornSteadySink::Statistics before = m_sink.statistics();
            const bool isConfirmed = notify();
            if (isConfirmed &&
                (m_sink.statistics().nDelivered > before.nDelivered || awaitMore(before.nDelivered)))
                return;
            require(m_sink.statistics().nTimedOut > before.nTimedOut, "the sink calls and confirms");
        }
    }

private:
    static VornSteadySink::Options optionsFor(Kind kind) {
        VornSteadySink::Options options;
        options.kind = kind;
        options.nMessageLimit = 300;
        options.nByteLimit = 100;
        options.readLimit = std::chrono::milliseconds(100); // a silent one may be all that there is room for
        return options;
    }

    bool notify() {
        const unsigned char notification[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x12, 0x67};
        const int fd = connect();
        require(fd != -1, "the sink can be reached");
        ::send(fd, notification, sizeof notification, MSG_NOSIGNAL);
        char byte = 0;
        const bool isConfirmed =
            !isStream() || (::shutdown(fd, SHUT_WR) == 0 && ::recv(fd, &byte, 1, 0) == 0);
        ::close(fd);
        return isConfirmed;
    }

    bool awaitMore(std::uint64_t before) {
        for (int tries = 0; tries < (isStream() ? 1 : 10'000) && m_sink.statistics().nDelivered == before;
             ++tries) {
            m_spCallback->reset();
            m_spCallback->wait(1);
        }
        return m_sink.statistics().nDelivered > before;
    }

    const Kind m_kind;
    VornSteadySink m_sink;
    const VornSmartPointer<Reader> m_spCallback;
};

Road& road(int choice) {
    // Never destroyed: the fuzzer ends the process where it stands.
    static Road& pipe = *new Road(Kind::pipe);
    static Road& tcp = *new Road(Kind::tcp);
    static Road& udp = *new Road(Kind::udp);
    return choice < 4 ? pipe : choice < 7 ? tcp : udp;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    Road& hit = road(input.byte() % 8);
    const int peer = hit.connect();
    require(peer != -1, "the sink listens");
    sendPieces(peer, input);
    hit.requireAlive(); // also while the attacker's connection is open
    ::close(peer);
    hit.requireAlive();
    return 0;
}
