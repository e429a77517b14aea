// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"
#include "Rewind.h"
#include "Sockets.h"

#include <Poco/BinaryReader.h>
#include <Poco/BinaryWriter.h>
#include <Poco/MemoryStream.h>
#include <sstream>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

/** Texts read from a block of memory. */
namespace Bench {

namespace {

constexpr int cStrings = 100;

std::string nameFor(int length) {
    return "strings-read-" + std::to_string(length);
}

/** The texts as they travel. */
std::string encoded(int length) {
    unsigned char prefix[4];
    storeInt(prefix, static_cast<unsigned int>(length));
    std::string block;
    for (int i = 0; i < cStrings; ++i)
        block.append(reinterpret_cast<const char*>(prefix), sizeof prefix)
            .append(static_cast<std::size_t>(length), 'x');
    return block;
}

void addLimit(int length) {
    addFunction(nameFor(length), "limit", cStrings, [length] {
        return [block = encoded(length)] {
            const auto* cursor = reinterpret_cast<const unsigned char*>(block.data());
            const unsigned char* end = cursor + block.size();
            while (end - cursor >= 4) {
                const std::size_t size = loadInt(cursor);
                cursor += 4;
                std::string text(reinterpret_cast<const char*>(cursor), size);
                benchmark::DoNotOptimize(text);
                cursor += size;
            }
        };
    });
}

void addVornnet(int length) {
    addFunction(nameFor(length), "vornnet", cStrings, [length] {
        std::string block = encoded(length);
        return [buffer = std::make_shared<VornNet::VornBufferConnection>(
                    block.data(), static_cast<int>(block.size()), "")] {
            BufferRewind::reading(*buffer);
            VornNet::VornConnection& connection = *buffer;
            for (int i = 0; i < cStrings; ++i) {
                VornNet::VornString text = connection.receiveString();
                benchmark::DoNotOptimize(text);
            }
        };
    });
}

/** @tparam Access, Protocol as for the typed numbers */
template <typename Access, typename Protocol>
void addThrift(int length, const char* contender) {
    addFunction(nameFor(length), contender, cStrings, [length] {
        auto block = std::make_shared<std::string>(encoded(length));
        auto memory = std::make_shared<ThriftMemory>();
        std::shared_ptr<Access> protocol = std::make_shared<Protocol>(memory);
        return [block, memory, protocol] {
            memory->rewind(block->data(), block->size());
            for (int i = 0; i < cStrings; ++i) {
                std::string text;
                protocol->readString(text);
                benchmark::DoNotOptimize(text);
            }
        };
    });
}

void addPoco(int length) {
    addFunction(nameFor(length), "poco", cStrings, [length] {
        std::ostringstream stream;
        Poco::BinaryWriter writer(stream, Poco::BinaryWriter::NETWORK_BYTE_ORDER);
        for (int i = 0; i < cStrings; ++i)
            writer << std::string(static_cast<std::size_t>(length), 'x');
        return [block = stream.str()] {
            Poco::MemoryInputStream input(block.data(), static_cast<std::streamsize>(block.size()));
            Poco::BinaryReader reader(input, Poco::BinaryReader::NETWORK_BYTE_ORDER);
            for (int i = 0; i < cStrings; ++i) {
                std::string text;
                reader >> text;
                benchmark::DoNotOptimize(text);
            }
        };
    });
}

} // namespace

void addStrings() {
    for (const int length : {16, 1024}) {
        addLimit(length);
        addVornnet(length);
        addThrift<ThriftProtocol, VirtualThrift>(length, "thrift-virtual");
        addThrift<DirectThrift, DirectThrift>(length, "thrift-template");
        addPoco(length);
    }
}

} // namespace Bench
