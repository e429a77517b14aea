// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_CALLBACKADDRESS_H
#define VORNNET_CALLBACKADDRESS_H

#include "VornNetExport.h"

#include <VornString.h>

namespace VornNet {

/** A callback address taken apart. Its kind is a prefix: what stands between it and the rest is not looked
 * at. */
struct CallbackAddress {
    enum class Kind { unknown, pipe, tcp, udp, ssl };

    /** @throws std::out_of_range for a text that ends within its kind */
    explicit CallbackAddress(const VornString& sText);

    Kind kind = Kind::unknown;
    VornString host; ///< the host, or the pipe's name
    int port = 0;    ///< 0 for a text without digits

private:
    void splitHostAndPort(const VornString& sPart);
};

} // namespace VornNet

#endif
