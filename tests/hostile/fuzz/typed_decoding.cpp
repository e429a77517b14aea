// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Reads any bytes as any sequence of typed values, beside a decoder that is written as plainly as possible.
// The input's first byte tells how many of the next ones name a type each (short, int, long, text, by
// remainder of 4); the rest is what is decoded.

#include "Input.h"

#include <VornBufferConnection.h>
#include <VornException.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

using VornNet::VornBufferConnection;
using VornSupport::VornException;

namespace {

enum Type { shortNumber, intNumber, longNumber, text, types };

constexpr std::size_t sizes[types] = {2, 4, 8, 4};

/** The first @p size bytes, which are taken away; nothing if there are fewer. */
std::optional<std::string> take(std::string& bytes, std::size_t size) {
    if (bytes.size() < size)
        return std::nullopt;
    const std::string taken = bytes.substr(0, size);
    bytes.erase(0, size);
    return taken;
}

/** The value at the front of the bytes, a number in decimal digits; nothing if it is not all there. */
std::optional<std::string> decode(std::string& bytes, int type) {
    const std::optional<std::string> front = take(bytes, sizes[type]);
    if (!front)
        return std::nullopt;
    std::uint32_t number = 0;
    for (const char byte : front->substr(0, 4))
        number = number << 8 | static_cast<unsigned char>(byte);
    if (type == shortNumber)
        return std::to_string(static_cast<std::int16_t>(number));
    if (type == intNumber)
        return std::to_string(static_cast<std::int32_t>(number));
    if (type == longNumber)
        return std::to_string(number);
    const std::optional<std::string> content = take(bytes, number);
    return content ? content->substr(0, content->find('\0')) : content;
}

std::string receive(VornBufferConnection& connection, int type) {
    switch (type) {
    case shortNumber:
        return std::to_string(connection.receiveShort());
    case intNumber:
        return std::to_string(connection.receiveInt());
    case longNumber:
        return std::to_string(connection.receiveLong());
    default:
        return connection.receiveString();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    std::vector<int> sequence(input.byte() % 16);
    for (int& type : sequence)
        type = input.byte() % types;
    std::string bytes = input.rest();
    const int length = static_cast<int>(bytes.size());
    VornBufferConnection connection(bytes.data(), length, "fuzz");
    std::optional<std::string> expected = "";
    for (auto type = sequence.begin(); expected && type != sequence.end(); ++type) {
        expected = decode(bytes, *type);
        try {
            require(receive(connection, *type) == expected, "the value is right");
        } catch (const VornException& e) {
            require(!expected, "only what is not all there fails");
            require(e.getText() == "VornConnection::get: failed read", "the one text of a failed read");
            require(e.getCode() == 0, "a buffer has no error number");
        }
    }
    require(connection.size() == length, "reading does not write");
    return 0;
}
