// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_INTERNETADDRESS_H
#define VORNNET_INTERNETADDRESS_H

#include "VornNetExport.h"

#include <VornString.h>

#include <netinet/in.h>

namespace VornNet {

/** @return an IPv4 socket address; of @p nPort, in host byte order, the low 16 bits count. */
sockaddr_in makeSocketAddress(in_addr address, int nPort);

/** @return the dotted text of an address. */
VornString dottedText(in_addr address);

} // namespace VornNet

#endif
