// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNUNABLETORESOLVEADDRESSEXCEPTION_H
#define VORNUNABLETORESOLVEADDRESSEXCEPTION_H

#include "VornNetExport.h"

#include <VornException.h>
#include <VornString.h>

namespace VornNet {

/**
 * Says that an address could not be resolved. The library never throws it; it is there for programs.
 *
 * Thread-safety: as VornException.
 * Blocking: none.
 * Ownership: as VornException.
 * Signals: none.
 * Errors: as VornException.
 */
class VORNNET_API VornUnableToResolveAddressException : public VornException {
public:
    /** The text becomes "VornUnableToResolveAddressException - " and @p sMessageName, the code 0. */
    VornUnableToResolveAddressException(const VornString& sMessageName);
    /** Copies member by member. */
    VornUnableToResolveAddressException(const VornUnableToResolveAddressException& source);
    /** Assigns member by member. */
    VornUnableToResolveAddressException& operator=(const VornUnableToResolveAddressException& source);
    ~VornUnableToResolveAddressException() override;
};

} // namespace VornNet

#endif
