// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNCRITICALSECTION_H
#define VORNCRITICALSECTION_H

#include "VornSupportExport.h"

namespace VornSupport {

/**
 * A mutex that the thread which holds it may take again.
 *
 * It is created unlocked, taken for a block through a VornCriticalSection, and destroyed when no thread holds
 * it.
 *
 * Thread-safety: that is its purpose; only the destructor must run alone.
 * Blocking: taking it blocks until the holder releases it, see pthread_mutex_lock(3).
 * Ownership: it belongs to the object that it guards.
 * Signals: none raised.
 * Errors: the constructor throws std::bad_alloc; taking it throws std::system_error if it is taken too many
 * times.
 */
class VORNSUPT_API VornCriticalSectionObject {
public:
    /** Creates an unlocked mutex. */
    VornCriticalSectionObject();
    ~VornCriticalSectionObject();

    VornCriticalSectionObject(const VornCriticalSectionObject&) = delete;
    VornCriticalSectionObject& operator=(const VornCriticalSectionObject&) = delete;

private:
    friend class VornCriticalSection;

    VORNSUPT_LOCAL void acquire();
    VORNSUPT_LOCAL void releaseHold();

    void* m_pCriticalSection;
    bool m_bFast;
};

/**
 * Holds a VornCriticalSectionObject for the enclosing block.
 *
 * Thread-safety: a holder belongs to the thread that created it.
 * Blocking: the constructor, until the mutex is free.
 * Ownership: refers to the mutex, which must live longer.
 * Signals: none raised.
 * Errors: as the mutex.
 */
class VORNSUPT_API VornCriticalSection {
public:
    /**
     * Takes the mutex.
     * @param object  the mutex
     * @param bLock   true to take it now; with false this holder does nothing at all
     */
    VornCriticalSection(VornCriticalSectionObject& object, bool bLock);

    /** Lets go of the mutex when it was taken. */
    ~VornCriticalSection();

    VornCriticalSection(const VornCriticalSection&) = delete;
    VornCriticalSection& operator=(const VornCriticalSection&) = delete;

private:
    VornCriticalSectionObject& m_CriticalSection;
    bool m_bIsLocked;
};

} // namespace VornSupport

#endif
