// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"
#include "PosixServer.h"

#include <VornUDPServerSocket.h>

#include <array>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

#include <Poco/Net/DatagramSocket.h>
#include <asio.hpp>

/** Datagrams of 64 bytes that have arrived already, taken one by one into a buffer that has room for 16 MiB.
 */
namespace Bench {

namespace {

constexpr int cPort = 5907;
constexpr int cDatagrams = 64;
constexpr std::size_t cDatagram = 64;
constexpr std::size_t cBuffer = 16'777'215;

/** @tparam Receiver receives at cPort: receive() takes one datagram */
template <typename Receiver>
class Reception : public Contender {
public:
    Reception() : m_sender(static_cast<int>(checked(::socket(AF_INET, SOCK_DGRAM, 0), "socket"))) {
        const Address address(Road::udp, "", cPort);
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
    PosixReceiver() : m_server(Road::udp, "", cPort), m_buffer(std::malloc(cBuffer), &std::free) {
        m_server.open();
    }

    ~PosixReceiver() { m_server.close(); }

    void receive() { m_server.receiveDatagram(m_buffer.get(), cBuffer); }

private:
    PosixServer m_server;
    std::unique_ptr<void, decltype(&std::free)> m_buffer;
};

/** A buffer per datagram, and a copy of what has come. */
class CopyingReceiver {
public:
    CopyingReceiver() : m_server(Road::udp, "", cPort) { m_server.open(); }

    ~CopyingReceiver() { m_server.close(); }

    void receive() {
        const std::unique_ptr<void, decltype(&std::free)> buffer(std::malloc(cBuffer), &std::free);
        const auto size = static_cast<std::size_t>(m_server.receiveDatagram(buffer.get(), cBuffer));
        const std::unique_ptr<void, decltype(&std::free)> copy(std::malloc(size), &std::free);
        std::memcpy(copy.get(), buffer.get(), size);
        benchmark::DoNotOptimize(copy.get());
    }

private:
    PosixServer m_server;
};

class VornnetReceiver {
public:
    VornnetReceiver() : m_server(cPort, "127.0.0.1", cBuffer) { m_server.init(); }

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
        : m_socket(Poco::Net::SocketAddress("127.0.0.1", cPort)), m_buffer(std::malloc(cBuffer), &std::free) {
    }

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
        : m_socket(m_context, asio::ip::udp::endpoint(asio::ip::address_v4::loopback(), cPort)),
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

} // namespace

void addUdpReceive() {
    addContender<Reception<PosixReceiver>>("udp-receive", "limit", cDatagrams);
    addContender<Reception<CopyingReceiver>>("udp-receive", "limit-with-copy", cDatagrams);
    addContender<Reception<VornnetReceiver>>("udp-receive", "vornnet", cDatagrams);
    addContender<Reception<PocoReceiver>>("udp-receive", "poco", cDatagrams);
    addContender<Reception<AsioReceiver>>("udp-receive", "asio", cDatagrams);
}

} // namespace Bench
