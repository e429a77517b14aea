// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFICATIONCALLBACK_H
#define VORNNOTIFICATIONCALLBACK_H

#include "VornConnection.h"
#include "VornNetExport.h"

#include <VornEvent.h>
#include <VornObjectBase.h>
#include <VornSmartPointer.h>

namespace VornNet {

/**
 * What a client wants done with a notification. A program derives from it and supplies doCallback().
 *
 * The client takes an id from its sink's VornCallbackContainer, makes the callback with it, adds it, and
 * sends the id to the service. Each notification for that id calls callback() on the sink's thread;
 * afterwards the callback's event is set. The client removes the callback when it wants no more.
 *
 * Over TCP, read on to the end of the stream before doCallback() returns (one read that fails is enough): the
 * sender then closes first, and the sink keeps its port.
 *
 * Thread-safety: doCallback() runs on the sink's thread with the container locked: it must not wait for
 * another thread that adds, removes or looks up callbacks, and must not destroy the sink. The event may be
 * used from any thread. Blocking: while doCallback() runs, no other notification is received. Ownership:
 * created with `new` and owned through VornSmartPointer; the connection is lent for the call. Signals: none
 * raised. Errors: what doCallback() throws leaves the event as it is and goes to the sink, which decides by a
 * VornException's code, see VornLibraryCallbackSink; any other exception ends the sink's thread.
 */
class VORNNET_API VornNotificationCallback : public VornEvent, public VornObjectBase {
public:
    /** @param nId the id, from VornCallbackContainer::getNewId() */
    explicit VornNotificationCallback(int nId);
    ~VornNotificationCallback() override;

    /** Runs doCallback() and then sets the event. */
    virtual void callback(VornSmartPointer<VornConnection>& spConnection);

    /** @return the id given at construction. */
    int getId();

protected:
    /** Handles one notification: reads its content from the connection, of which the handle has been read. */
    virtual void doCallback(VornSmartPointer<VornConnection>& spConnection) = 0;

    int m_nId; ///< as given at construction

private:
    VornNotificationCallback() = delete;
    VornNotificationCallback(const VornNotificationCallback&) = delete;
    VornNotificationCallback& operator=(const VornNotificationCallback&) = delete;
};

} // namespace VornNet

#endif
