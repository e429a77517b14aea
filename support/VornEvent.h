// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNEVENT_H
#define VORNEVENT_H

#include "VornSupportExport.h"

namespace VornSupport {

class VornNotification;

/**
 * An event that threads wait for: signalled or not.
 *
 * It starts not signalled. set() signals it and wakes every waiter. It stays signalled, also for later
 * waiters, until reset() clears it.
 *
 * Thread-safety: all operations may be called from any thread; the destructor must run alone.
 * Blocking: only wait().
 * Ownership: the descriptor of getHandle() belongs to the event.
 * Signals: none raised; a signal that is handled does not end a wait.
 * Errors: the constructor throws std::bad_alloc.
 */
class VORNSUPT_API VornEvent {
public:
    /** Creates an event that is not signalled. */
    VornEvent();
    virtual ~VornEvent();

    VornEvent(const VornEvent&) = delete;
    VornEvent& operator=(const VornEvent&) = delete;

    /** Signals the event; nothing more happens when it is signalled already. */
    virtual void set();

    /** Clears the event. */
    virtual void reset();

    /**
     * Waits until the event is signalled. It does not clear it.
     * @param nMilliSec the longest time to wait, in milliseconds; 0 only looks, negative waits without limit
     * @return true when the event was signalled, false when the time ran out
     */
    virtual bool wait(int nMilliSec);

    /**
     * @return a descriptor (eventfd(2), close-on-exec) that poll(2) finds readable exactly while the event is
     *         signalled, created by the first call; -1 with errno if that fails. It is for polling
     * only: reading it, writing it and closing it are the event's own.
     */
    virtual int getHandle();

    /** @return a new notification with id 0, to be given back to destroyNotification(). */
    virtual VornNotification* createNotification();

    /** Destroys what createNotification() returned; null is allowed. */
    virtual void destroyNotification(VornNotification* pNotification);

private:
    struct State;
    State* m_pState;
};

} // namespace VornSupport

#endif
