// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Reads any bytes as any sequence of typed values. The input's first byte tells how many of the next ones
// name a type each (s short, i int, l long, t text, by remainder of 4); the rest is what is decoded. With the
// environment variable VORNFUZZ_PRINT set, the result is printed the way tests/hostile/fuzz/decode.py prints
// its own.

#include "Input.h"

#include <VornBufferConnection.h>
#include <VornException.h>

#include <string>
#include <type_traits>
#include <vector>

using VornNet::VornBufferConnection;
using VornNet::VornString;
using VornSupport::VornException;

namespace {

std::string inHex(const std::string& text) {
    static const char* digits = "0123456789abcdef";
    std::string result;
    for (const char character : text) {
        result += digits[static_cast<unsigned char>(character) >> 4];
        result += digits[static_cast<unsigned char>(character) & 15];
    }
    return result;
}

// Nothing is made of a value that nobody looks at: the texts would cost more than the reading.
template <typename Value>
void report(bool isPrinting, const char* type, const Value& value) {
    if (!isPrinting)
        return;
    if constexpr (std::is_integral_v<Value>)
        std::printf("%s %lld\n", type, static_cast<long long>(value));
    else
        std::printf("%s %s\n", type, inHex(value).c_str());
}

void decodeOne(VornBufferConnection& connection, int type, bool isPrinting) {
    switch (type) {
    case 0:
        return report(isPrinting, "short", connection.receiveShort());
    case 1:
        return report(isPrinting, "int", connection.receiveInt());
    case 2:
        return report(isPrinting, "long", connection.receiveLong());
    default:
        return report(isPrinting, "text", connection.receiveString());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool isPrinting = std::getenv("VORNFUZZ_PRINT") != nullptr;
    Input input(data, size);
    std::vector<int> types(input.byte() % 16);
    for (int& type : types)
        type = input.byte() % 4;
    std::string bytes = input.rest();
    VornBufferConnection connection(bytes.data(), static_cast<int>(bytes.size()), "fuzz");
    for (const int type : types) {
        try {
            decodeOne(connection, type, isPrinting);
        } catch (const VornException& e) {
            require(e.getText() == "VornConnection::get: failed read", "the one text of a failed read");
            require(e.getCode() == 0, "a buffer has no error number");
            if (isPrinting)
                std::printf("failed\n");
            break;
        }
    }
    require(connection.size() == static_cast<int>(bytes.size()), "reading does not write");
    return 0;
}
