// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornPosition.h"

#include <VornException.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <string_view>
#include <system_error>

namespace VornNet {

namespace {

constexpr const char* cNoPosition = "VornPosition::fromText: no position.";
constexpr std::size_t cHistoryDigits = 16;

/** @return the number that all of @p digits are. @throws VornException unless they are one */
std::uint64_t numberOf(std::string_view digits, int base) {
    std::uint64_t value = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value, base);
    if (error != std::errc() || stop != end)
        throw VornException(cNoPosition, EINVAL);
    return value;
}

} // namespace

VornString VornPosition::text() const {
    // Every number has its leading zeros, so that a file which holds a position never changes its size.
    std::array<char, 38> text;
    std::snprintf(text.data(), text.size(), "%016" PRIx64 "-%020" PRIu64, nHistory, nNumber);
    return text.data();
}

VornPosition VornPosition::fromText(const VornString& sText) {
    const std::string_view text = sText;
    // Capitals are refused: one place has one text.
    if (text.size() <= cHistoryDigits || text[cHistoryDigits] != '-' ||
        text.find_first_of("ABCDEF") != std::string_view::npos)
        throw VornException(cNoPosition, EINVAL);
    VornPosition position;
    position.nHistory = numberOf(text.substr(0, cHistoryDigits), 16);
    position.nNumber = numberOf(text.substr(cHistoryDigits + 1), 10);
    return position;
}

} // namespace VornNet
