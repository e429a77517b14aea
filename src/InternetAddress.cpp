// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "InternetAddress.h"

#include <array>
#include <cstdint>

#include <arpa/inet.h>

namespace VornNet {

sockaddr_in makeSocketAddress(in_addr address, int nPort) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(static_cast<std::uint16_t>(nPort & 0xFFFF));
    result.sin_addr = address;
    return result;
}

VornString dottedText(in_addr address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    return ::inet_ntop(AF_INET, &address, text.data(), text.size());
}

} // namespace VornNet
