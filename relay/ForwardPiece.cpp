// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ForwardPiece.h"

#include <Wire.h>

namespace VornRelay {

namespace {

namespace Wire = VornNet::Wire;

constexpr char cVersion = 1;
constexpr std::size_t cPositionAt = 2;
constexpr std::size_t cLimitAt = 10;

} // namespace

std::string ForwardPiece::text() const {
    std::string sText(headerSize, '\0');
    sText[0] = cVersion;
    sText[1] = static_cast<char>(nFlags);
    Wire::putNumber(sText.data() + cPositionAt, nPosition);
    Wire::putNumber(sText.data() + cLimitAt, nLimit);
    return sText.append(sBytes);
}

std::optional<ForwardPiece> ForwardPiece::of(std::string_view sText) {
    if (sText.size() < headerSize || sText[0] != cVersion)
        return std::nullopt;
    return ForwardPiece{static_cast<std::uint8_t>(sText[1]), Wire::numberAt(sText.data() + cPositionAt),
                        Wire::numberAt(sText.data() + cLimitAt), sText.substr(headerSize)};
}

} // namespace VornRelay
