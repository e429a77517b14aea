// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"

#include <VornBufferConnection.h>

#ifdef BENCH_WITH_THRIFT
#    include <thrift/protocol/TBinaryProtocol.h>
#    include <thrift/transport/TBufferTransports.h>
#endif

/**
 * One message of 4 MiB composed of ints, its memory included. It is compared with this library's own messages
 * of 4 KiB: what is asked is whether a value costs more in a large message than in a small one.
 */
namespace Bench {

namespace {

constexpr int cSmall = 1024;
constexpr int cBig = 1024 * cSmall;

void compose(int count) {
    VornNet::VornBufferConnection message;
    VornNet::VornConnection& connection = message;
    for (int i = 0; i < count; ++i)
        connection.transfer(i);
    benchmark::DoNotOptimize(message.buf());
}

} // namespace

void addBigMessage() {
    addFunction("big-message", "limit", cSmall, [] { return [] { compose(cSmall); }; });
    addFunction("big-message", "vornnet", cBig, [] { return [] { compose(cBig); }; });
#ifdef BENCH_WITH_THRIFT
    addFunction("big-message", "thrift-template", cBig, [] {
        return [] {
            using apache::thrift::transport::TMemoryBuffer;
            const auto memory = std::make_shared<TMemoryBuffer>();
            apache::thrift::protocol::TBinaryProtocolT<TMemoryBuffer> protocol(memory);
            for (int i = 0; i < cBig; ++i)
                protocol.writeI32(i);
        };
    });
#endif
}

} // namespace Bench
