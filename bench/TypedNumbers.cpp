// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"
#include "Rewind.h"
#include "Sockets.h"

#include <Poco/BinaryReader.h>
#include <Poco/BinaryWriter.h>
#include <Poco/MemoryStream.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

/** Ints written to a block of memory that has room for them, and read from it into an array. */
namespace Bench {

namespace {

constexpr int cNumbers = 2000;
constexpr int cBytes = 4 * cNumbers;

using Block = std::vector<unsigned char>;
using Numbers = std::vector<int>;

void addLimit() {
    addFunction("numbers-write", "limit", cNumbers, [] {
        return [block = Block(cBytes)]() mutable {
            unsigned char* cursor = block.data();
            const unsigned char* end = cursor + block.size();
            for (int number = 0; number < cNumbers && end - cursor >= 4; ++number, cursor += 4)
                storeInt(cursor, static_cast<unsigned int>(number));
            benchmark::DoNotOptimize(cursor);
            benchmark::ClobberMemory();
        };
    });
    addFunction("numbers-read", "limit", cNumbers, [] {
        return [block = Block(cBytes), numbers = Numbers(cNumbers)]() mutable {
            const unsigned char* cursor = block.data();
            const unsigned char* end = cursor + block.size();
            for (int& number : numbers) {
                if (end - cursor < 4)
                    break;
                number = static_cast<int>(loadInt(cursor));
                cursor += 4;
            }
            benchmark::DoNotOptimize(numbers.data());
            benchmark::ClobberMemory();
        };
    });
}

/** Appends a number to a block by nothing but the steps that this takes. */
class Writer {
public:
    virtual ~Writer() = default;

    virtual void write(int number) {
        if (m_block.size() - m_position < 4)
            return;
        storeInt(m_block.data() + m_position, static_cast<unsigned int>(number));
        m_position += 4;
    }

    void rewind() { m_position = 0; }

private:
    Block m_block = Block(cBytes);
    std::size_t m_position = 0;
};

/**
 * The limit of anything that is called through an interface once per number: a virtual call, and a position
 * that is in memory between two calls, where the loop above keeps it in a register.
 */
void addCallLimit() {
    addFunction("numbers-write", "virtual-call", cNumbers, [] {
        return [writer = std::make_shared<Writer>()] {
            Writer* target = writer.get();
            target->rewind();
            // The compiler must not guess the function and inline it.
            void (Writer::*write)(int) = &Writer::write;
            benchmark::DoNotOptimize(write);
            for (int number = 0; number < cNumbers; ++number)
                (target->*write)(number);
        };
    });
}

/** The limit of this library's interface: a virtual call into it that returns a field. */
void addLibraryCall() {
    addFunction("numbers-write", "library-call", cNumbers, [] {
        return [buffer = std::make_shared<VornNet::VornBufferConnection>()] {
            VornNet::VornConnection& connection = *buffer;
            for (int number = 0; number < cNumbers; ++number)
                benchmark::DoNotOptimize(connection.getLocalAccess());
        };
    });
}

/** Composes a message as programs mostly do, in an object of their own: its class is known, so the call is
 * direct. */
class DirectWrites : public Contender {
public:
    Clock::time_point operate() override {
        BufferRewind::writing(m_buffer);
        for (int number = 0; number < cNumbers; ++number)
            m_buffer.transfer(number);
        return Clock::now();
    }

private:
    VornNet::VornBufferConnection m_buffer;
};

class DirectReads : public Contender {
public:
    Clock::time_point operate() override {
        BufferRewind::reading(m_buffer);
        for (int& number : m_numbers)
            number = m_buffer.receiveInt();
        benchmark::ClobberMemory();
        return Clock::now();
    }

private:
    Block m_block = Block(cBytes);
    VornNet::VornBufferConnection m_buffer = VornNet::VornBufferConnection(m_block.data(), cBytes, "");
    Numbers m_numbers = Numbers(cNumbers);
};

/** Might have overridden any operation that a typed write consists of, so each of them is called. */
class Derived : public VornNet::VornBufferConnection {};

/** Writes through a reference to the base class, as code does that serves any connection. */
template <typename Connection>
void addVirtualWrites(const char* contender) {
    addFunction("numbers-write", contender, cNumbers, [] {
        return [buffer = std::make_shared<Connection>()] {
            BufferRewind::writing(*buffer);
            VornNet::VornConnection& connection = *buffer;
            for (int number = 0; number < cNumbers; ++number)
                connection.transfer(number);
        };
    });
}

void addVornnet() {
    addVirtualWrites<VornNet::VornBufferConnection>("vornnet");
    addContender<DirectWrites>("numbers-write", "vornnet-direct", cNumbers);
    addVirtualWrites<Derived>("vornnet-derived");
    addContender<DirectReads>("numbers-read", "vornnet-direct", cNumbers);
    addFunction("numbers-read", "vornnet", cNumbers, [] {
        Block block(cBytes);
        return [buffer = std::make_shared<VornNet::VornBufferConnection>(block.data(), cBytes, ""),
                numbers = Numbers(cNumbers)]() mutable {
            BufferRewind::reading(*buffer);
            VornNet::VornConnection& connection = *buffer;
            for (int& number : numbers)
                number = connection.receiveInt();
            benchmark::ClobberMemory();
        };
    });
}

/**
 * @tparam Access  what the program calls: TProtocol, all calls of which are virtual, or the protocol's own
 * class
 * @tparam Protocol the protocol over virtual calls of TTransport or over direct ones of TMemoryBuffer
 */
template <typename Access, typename Protocol>
void addThrift(const char* contender) {
    addFunction("numbers-write", contender, cNumbers, [] {
        auto memory = std::make_shared<ThriftMemory>();
        std::shared_ptr<Access> protocol = std::make_shared<Protocol>(memory);
        return [memory, protocol] {
            memory->resetBuffer();
            for (int number = 0; number < cNumbers; ++number)
                protocol->writeI32(number);
        };
    });
    addFunction("numbers-read", contender, cNumbers, [] {
        auto block = std::make_shared<Block>(cBytes);
        auto memory = std::make_shared<ThriftMemory>();
        std::shared_ptr<Access> protocol = std::make_shared<Protocol>(memory);
        return [block, memory, protocol, numbers = Numbers(cNumbers)]() mutable {
            memory->rewind(block->data(), block->size());
            for (int& number : numbers)
                protocol->readI32(number);
            benchmark::ClobberMemory();
        };
    });
}

void addPoco() {
    addFunction("numbers-write", "poco", cNumbers, [] {
        return [block = Block(cBytes)]() mutable {
            Poco::MemoryOutputStream stream(reinterpret_cast<char*>(block.data()), cBytes);
            Poco::BinaryWriter writer(stream, Poco::BinaryWriter::NETWORK_BYTE_ORDER);
            for (int number = 0; number < cNumbers; ++number)
                writer << number;
        };
    });
    addFunction("numbers-read", "poco", cNumbers, [] {
        return [block = Block(cBytes), numbers = Numbers(cNumbers)]() mutable {
            Poco::MemoryInputStream stream(reinterpret_cast<const char*>(block.data()), cBytes);
            Poco::BinaryReader reader(stream, Poco::BinaryReader::NETWORK_BYTE_ORDER);
            for (int& number : numbers)
                reader >> number;
            benchmark::ClobberMemory();
        };
    });
}

} // namespace

void addTypedNumbers() {
    addLimit();
    addCallLimit();
    addLibraryCall();
    addVornnet();
    addThrift<ThriftProtocol, VirtualThrift>("thrift-virtual");
    addThrift<DirectThrift, DirectThrift>("thrift-template");
    addPoco();
}

} // namespace Bench
