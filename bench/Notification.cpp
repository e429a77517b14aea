// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"
#include "PermanentReceiver.h"

#include <VornProxyDependent.h>

#include <Poco/Net/StreamSocket.h>
#include <asio.hpp>
#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TSocket.h>
#include <zmq.h>

/**
 * A notification, over a connection of its own, to a receiver that listens all the time: from the sender's
 * first call until it has been received.
 */
namespace Bench {

namespace {

std::string nameFor(Road road) {
    return std::string("notification-") + nameOf(road);
}

/** @tparam Sender made from the road; send(address) delivers one notification over a new connection */
template <typename Sender>
class Delivery : public Contender {
public:
    explicit Delivery(Road road) : m_receiver(road, 1), m_sender(road) {}

    Clock::time_point operate() override {
        m_sender.send(m_receiver.address());
        return m_receiver.awaitBatch();
    }

private:
    PermanentReceiver m_receiver;
    Sender m_sender;
};

class PosixSender {
public:
    explicit PosixSender(Road road) : m_road(road) {}

    void send(const Address& address) { sendNotification(m_road, address); }

private:
    const Road m_road;
};

class VornnetDelivery : public Contender {
public:
    explicit VornnetDelivery(Road road)
        : m_receiver(road, 1), m_proxy(m_receiver.callbackAddress(), 0), m_notification(42) {}

    Clock::time_point operate() override {
        m_proxy.remoteNotify(m_notification);
        return m_receiver.awaitBatch();
    }

private:
    PermanentReceiver m_receiver;
    VornNet::VornProxyDependent m_proxy;
    const VornSupport::VornNotification m_notification;
};

class ThriftSender {
public:
    explicit ThriftSender(Road road) : m_road(road) {}

    void send(const Address& address) {
        using namespace apache::thrift;
        const auto socket = m_road == Road::pipe
                                ? std::make_shared<transport::TSocket>(std::string(address.path()))
                                : std::make_shared<transport::TSocket>("127.0.0.1", PermanentReceiver::cPort);
        socket->open();
        protocol::TBinaryProtocolT<transport::TSocket> protocol(socket);
        protocol.writeI64(0);
        protocol.writeI64(42);
        socket->close();
    }

private:
    const Road m_road;
};

class PocoSender {
public:
    explicit PocoSender(Road /*road*/) {}

    void send(const Address& address) {
        const NotificationBytes bytes;
        Poco::Net::StreamSocket socket(Poco::Net::SocketAddress(address.get(), address.length()));
        socket.sendBytes(&bytes, sizeof bytes);
        socket.close();
    }
};

class AsioSender {
public:
    explicit AsioSender(Road road) : m_road(road) {}

    void send(const Address& address) {
        const NotificationBytes bytes;
        if (m_road == Road::pipe)
            sendTo<asio::local::stream_protocol>(asio::local::stream_protocol::endpoint(address.path()),
                                                 bytes);
        else
            sendTo<asio::ip::tcp>({asio::ip::address_v4::loopback(), PermanentReceiver::cPort}, bytes);
    }

private:
    template <typename Protocol>
    void sendTo(const typename Protocol::endpoint& endpoint, const NotificationBytes& bytes) {
        typename Protocol::socket socket(m_context);
        socket.connect(endpoint);
        asio::write(socket, asio::buffer(&bytes, sizeof bytes));
        socket.close();
    }

    const Road m_road;
    asio::io_context m_context;
};

class ZeromqDelivery : public Contender {
public:
    explicit ZeromqDelivery(Road road)
        : m_address(queueAddress(road, "bench-zeromq", 5902)), m_context(zmq_ctx_new()),
          m_pull(zmq_socket(m_context, ZMQ_PULL)) {
        checked(zmq_bind(m_pull, m_address.c_str()), "zmq_bind");
    }

    ~ZeromqDelivery() override {
        zmq_close(m_pull);
        zmq_ctx_term(m_context);
    }

    Clock::time_point operate() override {
        NotificationBytes bytes;
        void* push = zmq_socket(m_context, ZMQ_PUSH);
        checked(zmq_connect(push, m_address.c_str()), "zmq_connect");
        checked(zmq_send(push, &bytes, sizeof bytes, 0), "zmq_send");
        zmq_close(push);
        checked(zmq_recv(m_pull, &bytes, sizeof bytes, 0), "zmq_recv");
        return Clock::now();
    }

private:
    const std::string m_address;
    void* m_context;
    void* m_pull;
};

class NngDelivery : public Contender {
public:
    explicit NngDelivery(Road road) : m_address(queueAddress(road, "bench-nng", 5903)), m_pull() {
        checked(-nng_pull0_open(&m_pull), "nng_pull0_open");
        checked(-nng_listen(m_pull, m_address.c_str(), nullptr, 0), "nng_listen");
    }

    ~NngDelivery() override { nng_close(m_pull); }

    Clock::time_point operate() override {
        NotificationBytes bytes;
        std::size_t size = sizeof bytes;
        nng_socket push;
        checked(-nng_push0_open(&push), "nng_push0_open");
        checked(-nng_dial(push, m_address.c_str(), nullptr, 0), "nng_dial");
        checked(-nng_send(push, &bytes, sizeof bytes, 0), "nng_send");
        checked(-nng_recv(m_pull, &bytes, &size, 0), "nng_recv");
        const Clock::time_point end = Clock::now();
        nng_close(push);
        return end;
    }

private:
    const std::string m_address;
    nng_socket m_pull;
};

} // namespace

void addNotification() {
    for (const Road road : {Road::pipe, Road::tcp}) {
        const std::string workload = nameFor(road);
        addContender<Delivery<PosixSender>>(workload, "limit", 1, road);
        addContender<VornnetDelivery>(workload, "vornnet", 1, road);
        addContender<Delivery<ThriftSender>>(workload, "thrift", 1, road);
        addContender<Delivery<PocoSender>>(workload, "poco", 1, road);
        addContender<Delivery<AsioSender>>(workload, "asio", 1, road);
        addContender<ZeromqDelivery>(workload, "zeromq", 1, road);
        addContender<NngDelivery>(workload, "nng", 1, road);
    }
}

} // namespace Bench
