// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"
#include "PosixNotification.h"

#include <VornUDPSocketConnection.h>

#include <Poco/Net/DatagramSocket.h>
#include <asio.hpp>

/** A datagram of two longs composed and sent by a socket of its own. */
namespace Bench {

namespace {

constexpr int cPort = 5908;

/** @tparam Sender send() sends one datagram to cPort, where it is taken unmeasured */
template <typename Sender>
class Sending : public Contender {
public:
    Sending() : m_server(Road::udp, "", cPort) { m_server.open(); }

    ~Sending() override { m_server.close(); }

    void prepare() override {
        // By a call that no contender uses: it is not counted.
        NotificationBytes bytes;
        iovec part{&bytes, sizeof bytes};
        mmsghdr message{};
        message.msg_hdr.msg_iov = &part;
        message.msg_hdr.msg_iovlen = 1;
        if (m_isWaiting)
            checked(::recvmmsg(m_server.descriptor(), &message, 1, 0, nullptr), "recvmmsg");
        m_isWaiting = true;
    }

    Clock::time_point operate() override {
        m_sender.send();
        return Clock::now();
    }

private:
    PosixServer m_server;
    Sender m_sender;
    bool m_isWaiting = false;
};

class PosixSender {
public:
    PosixSender() : m_address(Road::udp, "", cPort) {}

    void send() const { sendNotification(Road::udp, m_address); }

private:
    const Address m_address;
};

class VornnetSender {
public:
    void send() const {
        VornNet::VornUDPSocketConnection connection("127.0.0.1", cPort, false);
        connection.transfer(0L);
        connection.transfer(42L);
        connection.transmit();
    }
};

class PocoSender {
public:
    void send() const {
        const NotificationBytes bytes;
        Poco::Net::DatagramSocket socket(Poco::Net::SocketAddress::IPv4);
        socket.setBroadcast(true);
        socket.sendTo(&bytes, sizeof bytes, Poco::Net::SocketAddress("127.0.0.1", cPort));
    }
};

class AsioSender {
public:
    void send() {
        const NotificationBytes bytes;
        asio::ip::udp::socket socket(m_context, asio::ip::udp::v4());
        socket.set_option(asio::socket_base::broadcast(true));
        socket.send_to(asio::buffer(&bytes, sizeof bytes), {asio::ip::address_v4::loopback(), cPort});
    }

private:
    asio::io_context m_context;
};

} // namespace

void addUdpSend() {
    addContender<Sending<PosixSender>>("udp-send", "limit", 1);
    addContender<Sending<VornnetSender>>("udp-send", "vornnet", 1);
    addContender<Sending<PocoSender>>("udp-send", "poco", 1);
    addContender<Sending<AsioSender>>("udp-send", "asio", 1);
}

} // namespace Bench
