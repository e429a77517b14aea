// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNBENCH_THRIFTMEMORY_H
#define VORNBENCH_THRIFTMEMORY_H

#include <cstddef>
#include <cstdint>

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

namespace Bench {

using ThriftProtocol = apache::thrift::protocol::TProtocol;

/** The protocol over any transport, by virtual calls. */
using VirtualThrift = apache::thrift::protocol::TBinaryProtocol;

/** The protocol over memory, by direct calls. */
using DirectThrift = apache::thrift::protocol::TBinaryProtocolT<apache::thrift::transport::TMemoryBuffer>;

/** Thrift's block of memory, read from its start as often as one likes; the limit of a message's size starts
 * anew. */
class ThriftMemory : public apache::thrift::transport::TMemoryBuffer {
public:
    void rewind(const void* bytes, std::size_t size) {
        resetBuffer(static_cast<std::uint8_t*>(const_cast<void*>(bytes)), static_cast<std::uint32_t>(size));
        resetConsumedMessageSize();
    }
};

} // namespace Bench

#endif
