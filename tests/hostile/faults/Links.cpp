// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Links.h"

#include "Peers.h"
#include "Sandbox.h"

#include <VornPipeConnection.h>
#include <VornSSLSocketConnection.h>
#include <VornSocketConnection.h>
#include <VornUDPSocketConnection.h>

using namespace VornNet;

namespace VornTest {

namespace {

constexpr int cBlock = 8192;

struct Texts {
    const char* name;
    const char* ofClass;
};

Texts textsOf(Link::Kind kind) {
    static constexpr Texts texts[] = {
        {"buffer", "VornBufferConnection"},       {"full buffer", "VornBufferConnection"},
        {"datagram", "VornBufferConnection"},     {"pipe client", "VornPipeConnection"},
        {"accepted pipe", "VornPipeConnection"},  {"TCP client", "VornSocketConnection"},
        {"accepted TCP", "VornSocketConnection"}, {"SSL", "VornSSLSocketConnection"},
    };
    return texts[static_cast<int>(kind)];
}

} // namespace

std::string Link::nameOf(Kind kind) {
    return textsOf(kind).name;
}

std::string Link::classOf(Kind kind) {
    return textsOf(kind).ofClass;
}

std::string Link::onWire(int number) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(number >> shift & 0xFF);
    return bytes;
}

Link::Link(Kind kind, const std::string& waiting) {
    if (kind == Kind::ssl)
        m_connection = std::make_unique<VornSSLSocketConnection>("127.0.0.1", 9, true);
    else if (kind == Kind::buffer || kind == Kind::fullBuffer || kind == Kind::datagram)
        makeBuffer(kind, waiting);
    else
        makeStream(kind);
    m_connection->establish();
    if (m_peer)
        sendAll(m_peer.get(), waiting);
}

void Link::makeBuffer(Kind kind, const std::string& waiting) {
    std::string bytes = waiting + '.'; // the block exists from the first byte on
    if (kind == Kind::fullBuffer)      // as long as the block that is made for it
        bytes.append(cBlock - bytes.size() % cBlock, 'z');
    if (kind == Kind::datagram) {
        auto datagram = std::make_unique<VornUDPSocketConnection>("127.0.0.1", 9, false);
        long error = 0;
        datagram->transfer(bytes.data(), static_cast<long>(bytes.size()), &error);
        m_connection = std::move(datagram);
    } else {
        m_connection =
            std::make_unique<VornBufferConnection>(bytes.data(), static_cast<int>(bytes.size()), "somebody");
    }
}

void Link::makeStream(Kind kind) {
    const bool isPipe = kind == Kind::pipeClient || kind == Kind::acceptedPipe;
    int port = 0;
    const UniqueFd listener = isPipe ? listenAtPipe() : tcpListen("127.0.0.1", port);
    if (kind == Kind::acceptedPipe || kind == Kind::acceptedTcp) {
        m_peer = isPipe ? unixConnect(pipePath("faults")) : tcpConnect("127.0.0.1", port);
        int accepted = acceptClient(listener.get()).release();
        if (isPipe)
            m_connection = std::make_unique<VornPipeConnection>(&accepted, 7);
        else
            m_connection = std::make_unique<VornSocketConnection>(accepted, "somebody", nullptr, false);
        return;
    }
    if (isPipe)
        m_connection = std::make_unique<VornPipeConnection>("faults");
    else
        m_connection = std::make_unique<VornSocketConnection>("127.0.0.1", port, false, false);
    m_connection->establish();
    m_peer = acceptClient(listener.get());
}

} // namespace VornTest
