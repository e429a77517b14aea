// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Dialogue.h"

#include <VornBufferConnection.h>

#include <algorithm>
#include <array>
#include <cstring>

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

/** A request of an int and a text of 100 bytes over a standing connection, and an int in reply. */
namespace Bench {

namespace {

constexpr unsigned int cText = 100;
constexpr std::size_t cRequest = 4 + 4 + cText;

using RequestBytes = std::array<unsigned char, cRequest>;

RequestBytes encoded() {
    RequestBytes bytes;
    storeInt(bytes.data(), 7);
    storeInt(bytes.data() + 4, cText);
    std::memset(bytes.data() + 8, 'x', cText);
    return bytes;
}

/** The calls of the library's ends: the request in one piece, read value by value. */
class PosixRequest : public PlainEnd {
public:
    using PlainEnd::PlainEnd;

    void ask() const {
        const RequestBytes request = encoded();
        send(request.data(), request.size());
        benchmark::DoNotOptimize(receiveNumber());
    }

    void answer() const {
        const unsigned int number = receiveNumber();
        std::array<char, cText> text;
        receive(text.data(), std::min<std::size_t>(receiveNumber(), text.size()));
        sendNumber(number + 1);
    }
};

/** The request composed in memory and sent by one raw write. */
class VornnetRequest {
public:
    VornnetRequest(Road road, int fd) : m_connection(makeConnection(road, fd)), m_text(cText, 'x') {}

    void ask() {
        VornNet::VornBufferConnection request;
        request.transfer(7);
        request.transfer(m_text);
        long error = 0;
        m_connection->transfer(static_cast<const char*>(request.buf()), request.size(), &error);
        benchmark::DoNotOptimize(m_connection->receiveInt());
    }

    void answer() {
        const int number = m_connection->receiveInt();
        const VornNet::VornString text = m_connection->receiveString();
        m_connection->transfer(number + 1);
    }

protected:
    VornNet::VornConnection& connection() { return *m_connection; }

    const VornNet::VornString& text() const { return m_text; }

private:
    std::unique_ptr<VornNet::VornConnection> m_connection;
    const VornNet::VornString m_text;
};

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

/** Asks a few times first: a young TCP connection acknowledges at once, and only the lasting state counts. */
template <typename End>
class StandingDialogue : public Dialogue<End> {
public:
    explicit StandingDialogue(Road road) : Dialogue<End>(road) {
        constexpr int cFirst = 3;
        for (int i = 0; i < cFirst; ++i)
            this->operate();
    }
};

/**
 * The same request written value by value straight on the connection. Over TCP the second value waits until
 * the first is acknowledged (Nagle's algorithm), and the server, which has nothing to answer yet, delays
 * that.
 */
class PosixPieces : public PosixRequest {
public:
    using PosixRequest::PosixRequest;

    void ask() const {
        const RequestBytes request = encoded();
        send(request.data(), 4);
        send(request.data() + 4, 4);
        send(request.data() + 8, cText);
        benchmark::DoNotOptimize(receiveNumber());
    }
};

class VornnetPieces : public VornnetRequest {
public:
    using VornnetRequest::VornnetRequest;

    void ask() {
        connection().transfer(7);
        connection().transfer(text());
        benchmark::DoNotOptimize(connection().receiveInt());
    }
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

        const std::string pieces = std::string("request-pieces-") + nameOf(road);
        addContender<StandingDialogue<PosixRequest>>(pieces, "limit", 1, road);
        addContender<StandingDialogue<VornnetRequest>>(pieces, "vornnet", 1, road);
        addContender<StandingDialogue<PosixPieces>>(pieces, "pieces-by-hand", 1, road);
        addContender<StandingDialogue<VornnetPieces>>(pieces, "vornnet-pieces", 1, road);
    }
}

} // namespace Bench
