// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Hostile bytes into a live callback sink over each kind of connection; after each input a well-formed
// notification must still arrive. The input's first byte chooses the kind, the rest is sent. Of eight, one
// goes to the UDP sink, whose blocks of 16 MiB cost the address sanitizer ten times what the other kinds
// cost.

#include "Input.h"
#include "Peer.h"
#include "Reader.h"

#include <VornException.h>
#include <VornLibraryCallbackSink.h>
#include <VornProxyDependent.h>

#include <cerrno>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

using namespace VornNet;

namespace {

class Road {
public:
    explicit Road(const char* kind) {
        ::setenv("QUORAX_CALLB_CONN_TYPE", kind, 1);
        m_sink = new VornLibraryCallbackSink("fuzz");
        m_spCallback = new Reader(m_sink->getCallbackContainer().getNewId());
        VornSmartPointer<VornNotificationCallback> spCallback =
            static_cast<VornNotificationCallback*>(m_spCallback);
        m_sink->getCallbackContainer().add(spCallback);
    }

    ~Road() { delete m_sink; }

    Road(const Road&) = delete;
    Road& operator=(const Road&) = delete;

    std::string address() { return m_sink->getCallbackAddress(); }

    int port() { return static_cast<std::uint16_t>(m_sink->getCallbackSocket()); }

    /** Notifies until it arrives: between two deliveries the sink's server is closed for a moment. */
    void requireAlive() {
        for (int tries = 0; tries < 20'000; ++tries) {
            m_spCallback->reset();
            try {
                VornProxyDependent proxy(address(), m_spCallback->getId());
                proxy.remoteNotify(VornNotification(4711));
            } catch (const VornException&) {
                std::this_thread::yield();
                continue;
            }
            if (m_spCallback->wait(1))
                return;
        }
        require(false, "the sink still serves");
    }

private:
    // The last one is never destroyed: the fuzzer ends the process where it stands.
    VornLibraryCallbackSink* m_sink;
    VornSmartPointer<Reader> m_spCallback;
};

Road& road(int kind) {
    static Road& pipe = *new Road("pipe");
    static Road* tcp = new Road("socket");
    static Road& udp = *new Road("udp");
    // A connection that the sink closes first keeps its port for a minute, and the sink moves to the next
    // one. In the end it comes to port 0, where nobody finds it.
    constexpr int cLateInTheRow = 60'000;
    if (kind == 1 && tcp->port() > cLateInTheRow) {
        delete tcp;
        tcp = new Road("socket");
    }
    return kind == 0 ? pipe : kind == 1 ? *tcp : udp;
}

/**
 * Sends the bytes and, over a stream, waits until the sink has closed its end: what is sent before that may
 * queue at a server that is given up.
 * @return whether the sink has surely taken the connection: one that queued at such a server is reset, as is
 * one whose bytes were not all read
 */
bool attack(int kind, Road& hit, const std::string& bytes) {
    int peer = -1;
    for (int tries = 0; tries < 20'000 && peer == -1; ++tries) {
        peer = connectTo(hit.address());
        if (peer == -1)
            std::this_thread::yield();
    }
    require(peer != -1, "the sink listens");
    ::send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    bool isTaken = true;
    if (kind != 2) {
        ::shutdown(peer, SHUT_WR);
        char byte = 0;
        isTaken = ::recv(peer, &byte, 1, 0) == 0;
    }
    ::close(peer);
    return isTaken;
}

} // namespace

// A length of 2 GiB is taken from the address sanitizer a third of a second at a time; refusing it is
// quicker, and what happens when memory is refused is worth trying too. Clearing the shadow of 16 MiB is
// quicker than mapping it anew.
extern "C" const char* __asan_default_options() {
    return "max_allocation_size_mb=64:allocator_may_return_null=1:clear_shadow_mmap_threshold=1073741824";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const int choice = input.byte() % 8;
    const int kind = choice < 4 ? 0 : choice < 7 ? 1 : 2;
    const std::string bytes = input.rest();
    if (kind == 2 && bytes.empty())
        return 0; // an empty datagram ends the sink
    Road& hit = road(kind);
    for (int tries = 0; tries < 2 && !attack(kind, hit, bytes); ++tries)
        continue;
    hit.requireAlive();
    return 0;
}
