// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "DottedAddress.h"

#include <array>

#include <arpa/inet.h>

namespace VornNet {

std::optional<in_addr> parseDottedAddress(const VornString& sText) {
    in_addr address{};
    // A zero byte would end the text for inet_pton(3), which otherwise takes nothing but four numbers.
    const bool isText = sText.find('\0') == VornString::npos;
    if (!isText || ::inet_pton(AF_INET, sText.c_str(), &address) != 1)
        return std::nullopt;
    return address;
}

VornString dottedAddress(in_addr address) {
    std::array<char, INET_ADDRSTRLEN> text;
    return ::inet_ntop(AF_INET, &address, text.data(), text.size());
}

} // namespace VornNet
