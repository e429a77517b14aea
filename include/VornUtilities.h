// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNUTILITIES_H
#define VORNUTILITIES_H

#include "VornNetExport.h"
#include "VornUnableToResolveAddressException.h"
#include "VornUnableToResolveNameException.h"

#include <VornString.h>

#include <vector>

/**
 * @file
 * Translation between dotted IPv4 addresses and host names through the system's resolver.
 *
 * Thread-safety: both functions may be called from any thread.
 * Blocking: as the resolver, which may ask the network.
 * Ownership: results are copies.
 * Signals: none.
 * Errors: a failure is logged at level 1 and leaves the outputs as they were; nothing is thrown except
 * std::bad_alloc.
 */

namespace VornNet {

/**
 * Looks up the name of an address, see gethostbyaddr(3).
 * @param sIPAddress     dotted address; an invalid text is looked up as 255.255.255.255
 * @param sName          replaced by the official name when there is one
 * @param sExcepMessage  never touched
 * @return 1 always
 */
VORNNET_API int VornAddressToNameImpl(const VornString& sIPAddress, VornString& sName,
                                      VornString& sExcepMessage);

/**
 * Looks up the addresses of a name, see gethostbyname(3).
 * @param sName          host name
 * @param addresses      the addresses are appended in the resolver's order, dotted; of each, every byte
 * after its first zero byte is given as zero (10.0.5.1 as 10.0.0.0)
 * @param sExcepMessage  never touched
 * @return 1 always
 */
VORNNET_API int VornNameToAddressImpl(const VornString& sName, std::vector<VornString>& addresses,
                                      VornString& sExcepMessage);

} // namespace VornNet

#endif
