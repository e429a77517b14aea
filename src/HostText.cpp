// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "HostText.h"

#include <cctype>
#include <cstdint>
#include <cstring>

#include <arpa/inet.h>

namespace VornNet {

HostText::HostText(const VornString& sHost) {
    VornStringToChar(sHost, m_text.data(), static_cast<int>(m_text.size()));
}

bool HostText::isName() const {
    for (const char* next = text(); *next != '\0'; ++next) {
        if (std::isalpha(static_cast<unsigned char>(*next)) != 0)
            return true;
    }
    return false;
}

in_addr HostText::address() const {
    return in_addr{::inet_addr(text())};
}

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
