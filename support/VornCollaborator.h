// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNCOLLABORATOR_H
#define VORNCOLLABORATOR_H

#include "VornCriticalSection.h"
#include "VornSupportExport.h"

#include <vector>

namespace VornSupport {

class VornDependent;
class VornNotification;

/**
 * A subject: it tells its dependents what happens to it.
 *
 * Dependents are added and removed at any time; notify() tells each of them in the order in which they were
 * added.
 *
 * Thread-safety: all operations may be called from any thread. Dependents are told under the list's lock, so
 * that none is told after removeDependent() has returned. A dependent may add and remove dependents
 * meanwhile.
 * Blocking: as long as the dependents take.
 * Ownership: dependents are referred to, never owned: remove a dependent before it is destroyed.
 * Signals: none raised.
 * Errors: an exception from a dependent passes through notify(), and the dependents after it are not told.
 */
class VORNSUPT_API VornCollaborator {
public:
    VornCollaborator();
    virtual ~VornCollaborator();

    /** Tells every dependent of @p notification, which is lent for the call. */
    virtual void notify(const VornNotification& notification);

    /** Adds @p dependent after the others; one that is there already is not added twice. */
    void addDependent(VornDependent& dependent);

    /** Removes @p dependent; nothing happens when it is not there. */
    void removeDependent(VornDependent& dependent);

    VornCollaborator(const VornCollaborator&) = delete;
    VornCollaborator& operator=(const VornCollaborator&) = delete;

private:
    VornCriticalSectionObject m_lock;
    std::vector<VornDependent*> m_dependents;
};

} // namespace VornSupport

#endif
