// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Blocks.h"

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TSocket.h>

/** A text of 64 KiB over a standing connection, acknowledged by an int. */
namespace Bench {

namespace {

constexpr std::size_t cSize = 65'536;

class ThriftString {
public:
    ThriftString(Road /*road*/, int fd)
        : m_socket(std::make_shared<apache::thrift::transport::TSocket>(fd)), m_protocol(m_socket),
          m_text(cSize, 'x') {}

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

void addBigStrings() {
    for (const Road road : {Road::pipe, Road::tcp}) {
        const std::string workload = std::string("big-strings-") + nameOf(road);
        addContender<Dialogue<PosixString<cSize>>>(workload, "limit", 1, road);
        addContender<Dialogue<VornnetString<cSize>>>(workload, "vornnet", 1, road);
        addContender<Dialogue<ThriftString>>(workload, "thrift", 1, road);
    }
}

} // namespace Bench
