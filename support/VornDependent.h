// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNDEPENDENT_H
#define VORNDEPENDENT_H

#include "VornSupportExport.h"

namespace VornSupport {

class VornCollaborator;
class VornNotification;

/**
 * An observer: an object that wants to know what happens to a VornCollaborator.
 *
 * Thread-safety: decided by the derived class; it is called on the thread that notifies.
 * Blocking: as the derived class.
 * Ownership: a collaborator refers to its dependents and owns none.
 * Signals: none.
 * Errors: none.
 */
class VORNSUPT_API VornDependent {
public:
    virtual ~VornDependent();

    /** Told of @p notification by @p collaborator; both are lent for the call. Here it does nothing. */
    virtual void handleNotification(VornCollaborator& collaborator, const VornNotification& notification);
};

} // namespace VornSupport

#endif
