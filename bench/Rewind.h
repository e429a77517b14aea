// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNBENCH_REWIND_H
#define VORNBENCH_REWIND_H

#include <VornBufferConnection.h>

#include <cstddef>
#include <cstdint>

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

namespace Bench {

/**
 * Sets a buffer connection's positions back, so that one block serves a whole measurement and neither its
 * allocation nor the filling is measured. It reaches into an object of exactly the library's class: one of a
 * derived class would be served in another way.
 */
class BufferRewind : public VornNet::VornBufferConnection {
public:
    static void writing(VornNet::VornBufferConnection& connection) {
        connection.*(&BufferRewind::m_nInIndex) = 0;
        connection.*(&BufferRewind::m_nOutIndex) = 0;
    }

    static void reading(VornNet::VornBufferConnection& connection) {
        connection.*(&BufferRewind::m_nInIndex) = 0;
    }
};

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
