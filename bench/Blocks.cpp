// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Blocks.h"

#include <asio.hpp>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TSocket.h>

/** A block or a text of 64 KiB over a standing connection, acknowledged by an int. */
namespace Bench {

namespace {

class ThriftBlock {
public:
    ThriftBlock(Road /*road*/, int fd, std::size_t size)
        : m_socket(std::make_shared<apache::thrift::transport::TSocket>(fd)), m_protocol(m_socket),
          m_block(size, 'x') {}

    ~ThriftBlock() { m_socket->close(); }

    void ask() {
        m_socket->write(m_block.data(), static_cast<std::uint32_t>(m_block.size()));
        std::int32_t reply = 0;
        m_protocol.readI32(reply);
    }

    void answer() {
        m_socket->readAll(m_block.data(), static_cast<std::uint32_t>(m_block.size()));
        m_protocol.writeI32(1);
    }

private:
    std::shared_ptr<apache::thrift::transport::TSocket> m_socket;
    apache::thrift::protocol::TBinaryProtocolT<apache::thrift::transport::TSocket> m_protocol;
    std::vector<std::uint8_t> m_block;
};

class PocoBlock {
public:
    PocoBlock(Road /*road*/, int fd, std::size_t size) : m_socket(fd), m_block(size, 'x') {}

    ~PocoBlock() { m_socket.close(); }

    void ask() {
        m_socket.sendWhole(m_block.data(), static_cast<int>(m_block.size()));
        m_socket.receiveWhole(m_number, sizeof m_number);
    }

    void answer() {
        m_socket.receiveWhole(m_block.data(), static_cast<int>(m_block.size()));
        m_socket.sendWhole(m_number, sizeof m_number);
    }

private:
    PocoSocket m_socket;
    unsigned char m_number[4] = {0, 0, 0, 1};
    std::vector<char> m_block;
};

class AsioBlock {
public:
    AsioBlock(Road road, int fd, std::size_t size)
        : m_socket(m_context,
                   asio::generic::stream_protocol(familyOf(road), road == Road::pipe ? 0 : IPPROTO_TCP), fd),
          m_block(size, 'x') {}

    void ask() {
        asio::write(m_socket, asio::buffer(m_block));
        asio::read(m_socket, asio::buffer(m_number));
    }

    void answer() {
        asio::read(m_socket, asio::buffer(m_block));
        asio::write(m_socket, asio::buffer(m_number));
    }

private:
    asio::io_context m_context;
    asio::generic::stream_protocol::socket m_socket;
    unsigned char m_number[4] = {0, 0, 0, 1};
    std::vector<char> m_block;
};

class ThriftString {
public:
    ThriftString(Road /*road*/, int fd, std::size_t size)
        : m_socket(std::make_shared<apache::thrift::transport::TSocket>(fd)), m_protocol(m_socket),
          m_text(size, 'x') {}

    ~ThriftString() { m_socket->close(); }

    void ask() {
        m_protocol.writeString(m_text);
        std::int32_t reply = 0;
        m_protocol.readI32(reply);
    }

    void answer() {
        std::string text;
        m_protocol.readString(text);
        benchmark::DoNotOptimize(text);
        m_protocol.writeI32(1);
    }

private:
    std::shared_ptr<apache::thrift::transport::TSocket> m_socket;
    apache::thrift::protocol::TBinaryProtocolT<apache::thrift::transport::TSocket> m_protocol;
    const std::string m_text;
};

} // namespace

void addBlocks() {
    constexpr std::size_t cSize = 65'536;
    for (const Road road : {Road::pipe, Road::tcp}) {
        const std::string blocks = std::string("blocks-") + nameOf(road);
        addContender<Dialogue<PosixBlock>>(blocks, "limit", 1, road, cSize);
        addContender<Dialogue<VornnetBlock>>(blocks, "vornnet", 1, road, cSize);
        addContender<Dialogue<ThriftBlock>>(blocks, "thrift", 1, road, cSize);
        addContender<Dialogue<PocoBlock>>(blocks, "poco", 1, road, cSize);
        addContender<Dialogue<AsioBlock>>(blocks, "asio", 1, road, cSize);
        const std::string strings = std::string("big-strings-") + nameOf(road);
        addContender<Dialogue<PosixString>>(strings, "limit", 1, road, cSize);
        addContender<Dialogue<VornnetString>>(strings, "vornnet", 1, road, cSize);
        addContender<Dialogue<ThriftString>>(strings, "thrift", 1, road, cSize);
    }
}

} // namespace Bench
