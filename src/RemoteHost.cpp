// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RemoteHost.h"

#include <cctype>

#include <arpa/inet.h>

namespace VornNet {

RemoteHost::RemoteHost(const VornString& sHost) {
    VornStringToChar(sHost, m_text.data(), static_cast<int>(m_text.size()));
}

bool RemoteHost::isName() const {
    for (const char* next = text(); *next != '\0'; ++next) {
        if (std::isalpha(static_cast<unsigned char>(*next)) != 0)
            return true;
    }
    return false;
}

in_addr RemoteHost::address() const {
    return in_addr{::inet_addr(text())};
}

} // namespace VornNet
