// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornString.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace VornSupport {

namespace {

constexpr std::uint32_t cFirstEscape = 0xDC80;
constexpr std::uint32_t cLastEscape = 0xDCFF;
constexpr std::uint32_t cReplacement = 0xFFFD;

struct Decoded {
    std::uint32_t character;
    std::size_t length; // 0: no valid sequence starts here
};

std::uint32_t byteAt(const VornString& s, std::size_t position) {
    return static_cast<unsigned char>(s[position]);
}

Decoded decodeSequence(const VornString& s, std::size_t start) {
    const std::uint32_t lead = byteAt(s, start);
    if (lead < 0x80)
        return {lead, 1};
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || s.size() - start < length)
        return {0, 0};
    std::uint32_t character = lead & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        const std::uint32_t next = byteAt(s, start + i);
        if ((next & 0xC0) != 0x80)
            return {0, 0};
        character = (character << 6) | (next & 0x3F);
    }
    const bool overlong = (length == 3 && character < 0x800) || (length == 4 && character < 0x10000);
    const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
    if (overlong || surrogate || character > 0x10FFFF)
        return {0, 0};
    return {character, length};
}

void appendSequence(VornString& result, std::uint32_t character) {
    if (character < 0x80) {
        result += static_cast<char>(character);
        return;
    }
    if (character < 0x800) {
        result += static_cast<char>(0xC0 | (character >> 6));
    } else {
        if (character < 0x10000) {
            result += static_cast<char>(0xE0 | (character >> 12));
        } else {
            result += static_cast<char>(0xF0 | (character >> 18));
            result += static_cast<char>(0x80 | ((character >> 12) & 0x3F));
        }
        result += static_cast<char>(0x80 | ((character >> 6) & 0x3F));
    }
    result += static_cast<char>(0x80 | (character & 0x3F));
}

} // namespace

void VornStringToChar(const VornString& s, char* buffer, int size) {
    if (size <= 0)
        return;
    const std::size_t count = std::min(s.size(), static_cast<std::size_t>(size) - 1);
    std::memcpy(buffer, s.data(), count);
    buffer[count] = '\0';
}

VornString VornStringFromChar(const char* text) {
    if (text == nullptr)
        return {};
    return text;
}

VornUString VornStringToWide(const VornString& s) {
    VornUString result;
    result.reserve(s.size());
    for (std::size_t position = 0; position < s.size();) {
        const Decoded decoded = decodeSequence(s, position);
        // A lone byte is parked in the low surrogates, which no valid UTF-8 decodes to.
        result += decoded.length == 0 ? static_cast<wchar_t>(0xDC00 + byteAt(s, position))
                                      : static_cast<wchar_t>(decoded.character);
        position += std::max<std::size_t>(decoded.length, 1);
    }
    return result;
}

VornString VornStringToNarrow(const VornUString& s) {
    VornString result;
    result.reserve(s.size());
    for (const wchar_t wide : s) {
        const auto character = static_cast<std::uint32_t>(wide);
        const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
        if (character >= cFirstEscape && character <= cLastEscape)
            result += static_cast<char>(character - 0xDC00);
        else
            appendSequence(result, surrogate || character > 0x10FFFF ? cReplacement : character);
    }
    return result;
}

} // namespace VornSupport
