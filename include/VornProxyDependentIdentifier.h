// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNPROXYDEPENDENTIDENTIFIER_H
#define VORNPROXYDEPENDENTIDENTIFIER_H

#include "VornNetExport.h"

#include <VornString.h>

/**
 * The key of VornNet::VornProxyDependentContainer: a callback address and a callback id.
 *
 * Thread-safety: as any value.
 * Blocking: none.
 * Ownership: holds a copy of the address.
 * Signals: none.
 * Errors: std::bad_alloc only.
 */
class VORNNET_API VornProxyDependentIdentifier {
public:
    /** Creates the key of an empty address and id 0. */
    VornProxyDependentIdentifier();

    /** Creates the key of one callback. @param sRemoteName callback address. @param hDependent callback id */
    VornProxyDependentIdentifier(const VornSupport::VornString& sRemoteName, long hDependent);
    /** Copies member by member. */
    VornProxyDependentIdentifier(const VornProxyDependentIdentifier& source);
    /** Assigns member by member. */
    VornProxyDependentIdentifier& operator=(const VornProxyDependentIdentifier& source);
    ~VornProxyDependentIdentifier();

    VornSupport::VornString m_sRemoteName; ///< callback address
    long m_hDependent;                     ///< callback id
};

/** @return whether @p a comes before @p b: by the address as unsigned bytes, then by the id as a signed
 * number. */
VORNNET_API bool operator<(const VornProxyDependentIdentifier& a, const VornProxyDependentIdentifier& b);

#endif
