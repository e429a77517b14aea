// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Any sequence of operations on a buffer connection, beside a model of a text that is written at its end and
// read from its front.

#include "Input.h"

#include <VornBufferConnection.h>
#include <VornException.h>

#include <vector>

using VornNet::VornBufferConnection;
using VornSupport::VornException;

namespace {

class Probe : public VornBufferConnection {
public:
    int capacity() const { return m_nBufferSize; }
};

class Model {
public:
    explicit Model(VornBufferConnection& connection) : m_connection(connection) {}

    void wrote(const std::string& bytes) {
        require(m_connection.size() == static_cast<int>(m_text.size() + bytes.size()),
                "size() counts what was written");
        const char* block = static_cast<const char*>(m_connection.buf());
        require(bytes.compare(0, bytes.size(), block + m_text.size(), bytes.size()) == 0,
                "what is written is appended");
        m_text += bytes;
        m_isWritten = true;
    }

    void requireSame() const {
        require(m_text.compare(0, m_text.size(), static_cast<const char*>(m_connection.buf()),
                               m_text.size()) == 0,
                "the block holds all that was written");
    }

    std::string waiting(std::size_t count) const { return m_text.substr(m_read, count); }

    void read(std::size_t count) { m_read += std::min(count, m_text.size() - m_read); }

    bool isWritten() const { return m_isWritten; }

private:
    VornBufferConnection& m_connection;
    std::string m_text;
    std::size_t m_read = 0;
    bool m_isWritten = false;
};

std::string big(std::uint64_t value, int bytes) {
    std::string result;
    for (int i = bytes - 1; i >= 0; --i)
        result += static_cast<char>(value >> (8 * i));
    return result;
}

void write(VornBufferConnection& connection, Model& model, Input& input, int operation) {
    const std::uint64_t value = input.number(8);
    switch (operation) {
    case 0:
        connection.transfer(static_cast<short>(value));
        return model.wrote(big(value, 2));
    case 1:
        connection.transfer(static_cast<int>(value));
        return model.wrote(big(value, 4));
    case 2:
        connection.transfer(static_cast<long>(value));
        return model.wrote(big(value, 4) + std::string(4, '\0'));
    case 3: {
        // Mostly short: long ones only matter where the block grows.
        const std::size_t length = value % 64 == 0 ? value / 64 % 20'000 : value % 40;
        const std::string text(length, static_cast<char>(value >> 32));
        connection.transfer(text);
        return model.wrote(big(text.size(), 4) + text);
    }
    default: {
        const std::string text = input.text(value % 300);
        long error = -1;
        require(connection.VornBufferConnection::transfer(text.data(), static_cast<long>(text.size()),
                                                          &error) == static_cast<long>(text.size()),
                "a raw write takes everything");
        return model.wrote(text);
    }
    }
}

void read(VornBufferConnection& connection, Model& model, Input& input, int operation) {
    const std::size_t count = operation == 0   ? 2
                              : operation == 1 ? 4
                              : operation == 2 ? 8
                                               : input.number(2) % 90;
    const std::string expected = model.waiting(count);
    // Reads past the end are tried now and then only: an exception costs as much as a hundred reads.
    if (operation != 3 && expected.size() < count && input.byte() % 16 != 0)
        return;
    if (operation == 3) {
        std::vector<char> room(count + 1);
        long error = -1;
        const long taken = connection.receive(room.data(), static_cast<long>(count), &error, true);
        require(error == 0 && taken == static_cast<long>(expected.size()), "a raw read takes what is there");
        require(expected.compare(0, expected.size(), room.data(), expected.size()) == 0,
                "it takes the right bytes");
        return model.read(count);
    }
    try {
        const long value = operation == 0   ? connection.receiveShort()
                           : operation == 1 ? connection.receiveInt()
                                            : connection.receiveLong();
        require(expected.size() == count, "a read past the end fails");
        const std::string wire = operation == 2 ? expected.substr(0, 4) : expected;
        require(big(static_cast<std::uint64_t>(value), static_cast<int>(wire.size())) == wire,
                "the value is right");
    } catch (const VornException& e) {
        require(expected.size() < count && e.getCode() == 0, "only a read past the end fails");
    }
    model.read(count);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    Probe connection;
    Model model(connection);
    for (int step = 0; step < 64 && !input.empty(); ++step) {
        const int operation = input.byte() % 11;
        const int capacity = connection.capacity();
        if (operation < 5)
            write(connection, model, input, operation);
        else if (operation < 9)
            read(connection, model, input, operation - 5);
        else if (operation == 9)
            connection.disconnect();
        else
            connection.setRaw(false);
        require(connection.capacity() % 8192 == 0, "the capacity grows in steps of 8192");
        require(connection.capacity() >= capacity, "the capacity never shrinks");
        require((connection.size() == -1) == !model.isWritten(), "size() is -1 until something is written");
    }
    if (model.isWritten())
        model.requireSame();
    return 0;
}
