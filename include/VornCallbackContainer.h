// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNCALLBACKCONTAINER_H
#define VORNCALLBACKCONTAINER_H

#include "VornNetExport.h"
#include "VornNotificationCallback.h"

#include <VornCriticalSection.h>
#include <VornSmartPointer.h>

#include <map>

namespace VornNet {

/** Callbacks by id. */
typedef std::map<int, VornSmartPointer<VornNotificationCallback>> NotificationCallbackMap;

/**
 * A sink's registry of callbacks by id.
 *
 * It starts empty. A client gets an id, creates its callback with it and adds the callback. The sink looks
 * the callback up for each notification. The client removes it in the end.
 *
 * Thread-safety: all operations may be called from any thread, under the lock mutex(). A callback that is
 * removed while it runs lives until it returns.
 * Blocking: on mutex(), which the sink holds while a callback runs.
 * Ownership: holds one reference to each callback.
 * Signals: none raised.
 * Errors: std::bad_alloc from add() only.
 */
class VORNNET_API VornCallbackContainer {
public:
    VornCallbackContainer();

    /** Lets go of every callback. */
    virtual ~VornCallbackContainer();

    /** @return 0, then 1, 2, ...; ids are not used again. */
    int getNewId();

    /**
     * Registers a callback under its id in the place of one that is there, which is let go of first; it must
     * not be empty.
     */
    void add(VornSmartPointer<VornNotificationCallback> spCallback);

    /** @return the callback of that id, or an empty pointer. */
    VornSmartPointer<VornNotificationCallback> lookup(int nId);

    /** Removes the callback of that id; nothing happens when there is none. */
    void remove(int nId);

    /** @return the lock, for callers that need several operations as one; re-entrant for its holder. */
    VornCriticalSectionObject& mutex();

protected:
    VornCriticalSectionObject m_lock;      ///< guards everything below
    NotificationCallbackMap m_callbackMap; ///< one reference to each callback
    int m_nIdCounter;                      ///< the next id

private:
    VornCallbackContainer(const VornCallbackContainer&) = delete;
    VornCallbackContainer& operator=(const VornCallbackContainer&) = delete;
};

} // namespace VornNet

#endif
