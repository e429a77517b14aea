// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNUNABLETORESOLVENAMEEXCEPTION_H
#define VORNUNABLETORESOLVENAMEEXCEPTION_H

#include "VornNetExport.h"

#include <VornException.h>
#include <VornString.h>

namespace VornNet {

/**
 * Says that a name could not be resolved. The library never throws it; it is there for programs.
 *
 * Thread-safety: as VornException.
 * Blocking: none.
 * Ownership: as VornException.
 * Signals: none.
 * Errors: as VornException.
 */
class VORNNET_API VornUnableToResolveNameException : public VornException {
public:
    /** The text becomes "VornUnableToResolveNameException - " and @p sMessageName, the code 0. */
    VornUnableToResolveNameException(const VornString& sMessageName);
    /** Copies member by member. */
    VornUnableToResolveNameException(const VornUnableToResolveNameException& source);
    /** Assigns member by member. */
    VornUnableToResolveNameException& operator=(const VornUnableToResolveNameException& source);
    ~VornUnableToResolveNameException() override;
};

} // namespace VornNet

#endif
