// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Request.h"

#include <Poco/BinaryReader.h>
#include <Poco/BinaryWriter.h>
#include <Poco/Net/SocketStream.h>
#include <asio.hpp>
#include <nng/nng.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>
#include <zmq.h>

/** A request of an int and a text of 100 bytes, sent in one piece over a standing connection, and an int in
 * reply. */
namespace Bench {

namespace {

class ThriftRequest {
public:
    ThriftRequest(Road /*road*/, int fd)
        : m_transport(std::make_shared<Buffered>(std::make_shared<apache::thrift::transport::TSocket>(fd))),
          m_protocol(m_transport), m_text(cText, 'x') {}

    ~ThriftRequest() { m_transport->close(); }

    void ask() {
        m_protocol.writeI32(7);
        m_protocol.writeString(m_text);
        m_transport->flush();
        std::int32_t reply = 0;
        m_protocol.readI32(reply);
        benchmark::DoNotOptimize(reply);
    }

    void answer() {
        std::int32_t number = 0;
        std::string text;
        m_protocol.readI32(number);
        m_protocol.readString(text);
        m_protocol.writeI32(number + 1);
        m_transport->flush();
    }

private:
    using Buffered = apache::thrift::transport::TBufferedTransport;

    std::shared_ptr<Buffered> m_transport;
    apache::thrift::protocol::TBinaryProtocolT<Buffered> m_protocol;
    const std::string m_text;
};

class PocoRequest {
public:
    PocoRequest(Road /*road*/, int fd)
        : m_stream(PocoSocket(fd)), m_reader(m_stream, Poco::BinaryReader::NETWORK_BYTE_ORDER),
          m_writer(m_stream, Poco::BinaryWriter::NETWORK_BYTE_ORDER), m_text(cText, 'x') {}

    void ask() {
        m_writer << Poco::Int32(7) << m_text;
        m_stream.flush();
        benchmark::DoNotOptimize(read());
    }

    void answer() {
        const Poco::Int32 number = read();
        std::string text;
        m_reader >> text;
        m_writer << number + 1;
        m_stream.flush();
    }

private:
    Poco::Int32 read() {
        Poco::Int32 value = 0;
        m_reader >> value;
        if (!m_stream)
            throw Poco::Exception("closed");
        return value;
    }

    Poco::Net::SocketStream m_stream;
    Poco::BinaryReader m_reader;
    Poco::BinaryWriter m_writer;
    const std::string m_text;
};

class AsioRequest {
public:
    AsioRequest(Road road, int fd)
        : m_socket(m_context,
                   asio::generic::stream_protocol(familyOf(road), road == Road::pipe ? 0 : IPPROTO_TCP), fd) {
    }

    void ask() {
        asio::write(m_socket, asio::buffer(encoded()));
        benchmark::DoNotOptimize(readNumber());
    }

    void answer() {
        const unsigned int number = readNumber();
        std::string text(readNumber(), ' ');
        asio::read(m_socket, asio::buffer(text));
        std::array<unsigned char, 4> bytes;
        storeInt(bytes.data(), number + 1);
        asio::write(m_socket, asio::buffer(bytes));
    }

private:
    unsigned int readNumber() {
        std::array<unsigned char, 4> bytes;
        asio::read(m_socket, asio::buffer(bytes));
        return loadInt(bytes.data());
    }

    asio::io_context m_context;
    asio::generic::stream_protocol::socket m_socket;
};

class ZeromqRequest : public Contender {
public:
    explicit ZeromqRequest(Road road)
        : m_context(zmq_ctx_new()), m_reply(zmq_socket(m_context, ZMQ_REP)),
          m_request(zmq_socket(m_context, ZMQ_REQ)) {
        const std::string address = queueAddress(road, "bench-zeromq-request", 5905);
        checked(zmq_bind(m_reply, address.c_str()), "zmq_bind");
        checked(zmq_connect(m_request, address.c_str()), "zmq_connect");
        m_server = std::make_unique<Joined>([this] { serve(); });
    }

    ~ZeromqRequest() override {
        zmq_close(m_request);
        zmq_ctx_shutdown(m_context);
        m_server.reset();
        zmq_ctx_term(m_context);
    }

    Clock::time_point operate() override {
        const RequestBytes request = encoded();
        checked(zmq_send(m_request, request.data(), request.size(), 0), "zmq_send");
        unsigned char reply[4];
        checked(zmq_recv(m_request, reply, sizeof reply, 0), "zmq_recv");
        return Clock::now();
    }

private:
    void serve() {
        RequestBytes request;
        while (zmq_recv(m_reply, request.data(), request.size(), 0) > 0)
            zmq_send(m_reply, request.data(), 4, 0);
        zmq_close(m_reply);
    }

    void* m_context;
    void* m_reply;
    void* m_request;
    std::unique_ptr<Joined> m_server;
};

class NngRequest : public Contender {
public:
    explicit NngRequest(Road road) : m_reply(), m_request() {
        const std::string address = queueAddress(road, "bench-nng-request", 5906);
        checked(-nng_rep0_open(&m_reply), "nng_rep0_open");
        checked(-nng_req0_open(&m_request), "nng_req0_open");
        checked(-nng_listen(m_reply, address.c_str(), nullptr, 0), "nng_listen");
        checked(-nng_dial(m_request, address.c_str(), nullptr, 0), "nng_dial");
        m_server = std::make_unique<Joined>([this] { serve(); });
    }

    ~NngRequest() override {
        nng_close(m_request);
        nng_close(m_reply);
    }

    Clock::time_point operate() override {
        RequestBytes request = encoded();
        checked(-nng_send(m_request, request.data(), request.size(), 0), "nng_send");
        unsigned char reply[4];
        std::size_t size = sizeof reply;
        checked(-nng_recv(m_request, reply, &size, 0), "nng_recv");
        return Clock::now();
    }

private:
    void serve() {
        RequestBytes request;
        std::size_t size = request.size();
        while (nng_recv(m_reply, request.data(), &size, 0) == 0) {
            nng_send(m_reply, request.data(), 4, 0);
            size = request.size();
        }
    }

    nng_socket m_reply;
    nng_socket m_request;
    std::unique_ptr<Joined> m_server;
};

} // namespace

void addRequest() {
    for (const Road road : {Road::pipe, Road::tcp}) {
        const std::string workload = std::string("request-") + nameOf(road);
        addContender<Dialogue<PosixRequest>>(workload, "limit", 1, road);
        addContender<Dialogue<VornnetRequest>>(workload, "vornnet", 1, road);
        addContender<Dialogue<ThriftRequest>>(workload, "thrift", 1, road);
        addContender<Dialogue<PocoRequest>>(workload, "poco", 1, road);
        addContender<Dialogue<AsioRequest>>(workload, "asio", 1, road);
        addContender<ZeromqRequest>(workload, "zeromq", 1, road);
        addContender<NngRequest>(workload, "nng", 1, road);
    }
}

} // namespace Bench
