// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Looks for lines in any bytes with a buffer of any size, beside a reader that is written as plainly as
// possible.

#include "Input.h"

#include <VornBufferConnection.h>
#include <VornException.h>

#include <algorithm>
#include <cstring>
#include <vector>

using VornNet::VornBufferConnection;
using VornSupport::VornException;

namespace {

bool isPlain(const std::string& line) {
    return std::all_of(line.begin(), line.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
}

/** What a line reader with room for @p capacity bytes makes of the waiting bytes. */
bool findLine(const std::string& waiting, std::size_t capacity, std::string& line) {
    std::string seen = waiting.substr(0, capacity - 1);
    seen = seen.substr(0, seen.find('\0'));
    const std::size_t end = seen.find("\r\n");
    line = seen.substr(0, end);
    return end != std::string::npos && isPlain(line);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::size_t capacity = 2 + input.byte();
    std::string bytes = input.rest();
    VornBufferConnection connection(bytes.data(), static_cast<int>(bytes.size()), "fuzz");
    std::vector<char> room(capacity + 1, '\x55'); // the last byte stands guard
    for (std::size_t consumed = 0; consumed < bytes.size();) {
        std::string expected;
        const bool isLine = findLine(bytes.substr(consumed), capacity, expected);
        int nSize = static_cast<int>(capacity);
        int nError = -1;
        require(connection.peekLine(room.data(), nSize, nError) == isLine, "peekLine finds the same line");
        require(nError == 0 && nSize == static_cast<int>(capacity) - 1,
                "a buffer looks at all it was asked for");
        const char* line = connection.getLine(room.data(), static_cast<int>(capacity), nError);
        require((line != nullptr) == isLine, "getLine finds the same line");
        require(room.back() == '\x55', "nothing is written after the buffer");
        if (line == nullptr)
            break;
        require(expected == line, "getLine reads the same line");
        consumed += expected.size() + 2;
    }
    return 0;
}
