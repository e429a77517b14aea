// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_DOTTEDADDRESS_H
#define VORNNOTIFY_DOTTEDADDRESS_H

#include <VornNetExport.h>
#include <VornString.h>

#include <optional>

#include <netinet/in.h>

namespace VornNet {

/** @return the address that four decimal numbers with dots between them and nothing else stand for. */
std::optional<in_addr> parseDottedAddress(const VornString& sText);

/** @return the address as four decimal numbers. */
VornString dottedAddress(in_addr address);

} // namespace VornNet

#endif
