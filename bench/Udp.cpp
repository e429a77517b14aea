// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"
#include "PosixServer.h"

#include <VornUDPServerSocket.h>
#include <VornUDPSocketConnection.h>

#include <array>
#include <cstdlib>

#include <sys/socket.h>
#include <unistd.h>

#include <Poco/Net/DatagramSocket.h>
#include <asio.hpp>

namespace Bench {

namespace {

constexpr int cReceivePort = 5907;
constexpr int cSendPort = 5908;
constexpr int cDatagrams = 64;
constexpr std::size_t cDatagram = 64;
constexpr std::size_t cBuffer = 16'777'215;

/**
 * Datagrams of 64 bytes that have arrived already, taken one by one into a buffer that has room for 16 MiB.
 * @tparam Receiver receives at cReceivePort: receive() takes one datagram
 */
template <typename Receiver>
class Reception : public Contender {
public:
    Reception() : m_sender(static_cast<int>(checked(::socket(AF_INET, SOCK_DGRAM, 0), "socket"))) {
        const Address address(Road::udp, "", cReceivePort);
        checked(::connect(m_sender, address.get(), address.length()), "connect");
    }

    ~Reception() override { ::close(m_sender); }

    void prepare() override {
        // All by one call, which no contender uses: it is not counted.
        char datagram[cDatagram] = "datagram";
        iovec part{datagram, sizeof datagram};
        std::array<mmsghdr, cDatagrams> messages{};
        for (mmsghdr& message : messages) {
            message.msg_hdr.msg_iov = &part;
            message.msg_hdr.msg_iovlen = 1;
        }
        checked(::sendmmsg(m_sender, messages.data(), cDatagrams, 0), "sendmmsg");
    }

    Clock::time_point operate() override {
        for (int i = 0; i < cDatagrams; ++i)
            m_receiver.receive();
        return Clock::now();
    }

private:
    Receiver m_receiver; // there before anything is sent to it
    const int m_sender;
};

/** One system call into a buffer that is there. */
class PosixReceiver {
public:
    PosixReceiver() : m_server(Road::udp, "", cReceivePort), m_buffer(std::malloc(cBuffer), &std::free) {
        m_server.open();
    }

    ~PosixReceiver() { m_server.close(); }

    void receive() { m_server.receiveDatagram(m_buffer.get(), cBuffer); }

private:
    PosixServer m_server;
    std::unique_ptr<void, decltype(&std::free)> m_buffer;
};

class VornnetReceiver {
public:
    VornnetReceiver() : m_server(cReceivePort, "127.0.0.1", cBuffer) { m_server.init(); }

    void receive() { benchmark::DoNotOptimize(m_server.waitForClient(false)); }

private:
    class Server : public VornNet::VornUDPServerSocket {
    public:
        using VornUDPServerSocket::init;
        using VornUDPServerSocket::VornUDPServerSocket;
    };

    Server m_server;
};

class PocoReceiver {
public:
    PocoReceiver()
        : m_socket(Poco::Net::SocketAddress("127.0.0.1", cReceivePort)),
          m_buffer(std::malloc(cBuffer), &std::free) {}

    void receive() {
        Poco::Net::SocketAddress sender;
        m_socket.receiveFrom(m_buffer.get(), cBuffer, sender);
    }

private:
    Poco::Net::DatagramSocket m_socket;
    std::unique_ptr<void, decltype(&std::free)> m_buffer;
};

class AsioReceiver {
public:
    AsioReceiver()
        : m_socket(m_context, asio::ip::udp::endpoint(asio::ip::address_v4::loopback(), cReceivePort)),
          m_buffer(std::malloc(cBuffer), &std::free) {}

    void receive() {
        asio::ip::udp::endpoint sender;
        m_socket.receive_from(asio::buffer(m_buffer.get(), cBuffer), sender);
    }

private:
    asio::io_context m_context;
    asio::ip::udp::socket m_socket;
    std::unique_ptr<void, decltype(&std::free)> m_buffer;
};

/**
 * A datagram of two longs composed and sent by a socket of its own.
 * @tparam Sender send() sends one datagram to cSendPort, where it is taken unmeasured
 */
template <typename Sender>
class Sending : public Contender {
public:
    Sending() : m_server(Road::udp, "", cSendPort) { m_server.open(); }

    ~Sending() override { m_server.close(); }

    void prepare() override { drain(m_server.descriptor()); }

    Clock::time_point operate() override {
        m_sender.send();
        return Clock::now();
    }

private:
    PosixServer m_server;
    Sender m_sender;
};

class PosixSender {
public:
    PosixSender() : m_address(Road::udp, "", cSendPort) {}

    void send() const { sendNotification(Road::udp, m_address); }

private:
    const Address m_address;
};

class VornnetSender {
public:
    void send() const {
        VornNet::VornUDPSocketConnection connection("127.0.0.1", cSendPort, false);
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
        socket.sendTo(&bytes, sizeof bytes, Poco::Net::SocketAddress("127.0.0.1", cSendPort));
    }
};

class AsioSender {
public:
    void send() {
        const NotificationBytes bytes;
        asio::ip::udp::socket socket(m_context, asio::ip::udp::v4());
        socket.set_option(asio::socket_base::broadcast(true));
        socket.send_to(asio::buffer(&bytes, sizeof bytes), {asio::ip::address_v4::loopback(), cSendPort});
    }

private:
    asio::io_context m_context;
};

} // namespace

void addUdp() {
    addContender<Reception<PosixReceiver>>("udp-receive", "limit", cDatagrams);
    addContender<Reception<VornnetReceiver>>("udp-receive", "vornnet", cDatagrams);
    addContender<Reception<PocoReceiver>>("udp-receive", "poco", cDatagrams);
    addContender<Reception<AsioReceiver>>("udp-receive", "asio", cDatagrams);
    addContender<Sending<PosixSender>>("udp-send", "limit", 1);
    addContender<Sending<VornnetSender>>("udp-send", "vornnet", 1);
    addContender<Sending<PocoSender>>("udp-send", "poco", 1);
    addContender<Sending<AsioSender>>("udp-send", "asio", 1);
}

} // namespace Bench
