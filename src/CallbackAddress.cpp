// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "CallbackAddress.h"

#include <cstdlib>

namespace VornNet {

namespace {

bool startsWith(const VornString& sText, const VornString& sPrefix) {
    return sText.compare(0, sPrefix.size(), sPrefix) == 0;
}

} // namespace

CallbackAddress::CallbackAddress(const VornString& sText) {
    if (startsWith(sText, "udp")) {
        kind = Kind::udp;
        splitHostAndPort(sText.substr(4));
    } else if (startsWith(sText, "pipe")) {
        kind = Kind::pipe;
        host = sText.substr(5);
    } else if (startsWith(sText, "socket")) {
        kind = Kind::tcp;
        splitHostAndPort(sText.substr(7));
    } else if (startsWith(sText, "ssl")) {
        kind = Kind::ssl;
        splitHostAndPort(sText.substr(4));
    }
}

void CallbackAddress::splitHostAndPort(const VornString& sPart) {
    const VornString::size_type colon = sPart.find(':');
    // Kept: without a colon the whole part is host and port text at once ("10.0.0.5" is port 10 there).
    const VornString sPort = colon == VornString::npos ? sPart : sPart.substr(colon + 1);
    host = sPart.substr(0, colon);
    port = static_cast<int>(std::strtol(sPort.c_str(), nullptr, 10));
}

} // namespace VornNet
