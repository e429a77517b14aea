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
 * The function that a client wants to be called for a notification. A program derives from it and implements
 * doCallback().
 *
 * The client gets an id from its sink's VornCallbackContainer, creates the callback with it, adds it, and
 * sends the id to the service. Each notification for that id calls callback() on the sink's thread;
 * afterwards the callback's event is set. In the end the client removes the callback.
 *
 * Over TCP, read to the end of the stream before doCallback() returns (one read that fails is enough): then
 * the sender closes first, and the sink keeps its port.
 *
 * Thread-safety: doCallback() runs on the sink's thread under the container's lock,
 * VornCallbackContainer::mutex(). It must not wait for another thread that adds, removes or looks up
 * callbacks, and must not destroy the sink. The event may be used from any thread.
 * Blocking: while doCallback() runs, no other notification is received.
 * Ownership: created with `new` and owned through VornSmartPointer; the connection is lent for the call.
 * Signals: none raised.
 * Errors: an exception from doCallback() leaves the event as it is and goes to the sink. For a VornException
 * the sink decides by its code, see VornLibraryCallbackSink; any other exception ends the sink's thread.
 */
class VORNNET_API VornNotificationCallback : public VornEvent, public VornObjectBase {
public:
    /** Takes the id for good. @param nId the id, from VornCallbackContainer::getNewId() */
    explicit VornNotificationCallback(int nId);
    ~VornNotificationCallback() override;

    /** Runs doCallback() and then sets the event. */
    virtual void callback(VornSmartPointer<VornConnection>& spConnection);

    /** @return the id given at construction. */
    int getId();

protected:
    /** Handles one notification: reads its content from the connection. The callback id has been read
     * already. */
    virtual void doCallback(VornSmartPointer<VornConnection>& spConnection) = 0;

    int m_nId; ///< as given at construction

private:
    VornNotificationCallback() = delete;
    VornNotificationCallback(const VornNotificationCallback&) = delete;
    VornNotificationCallback& operator=(const VornNotificationCallback&) = delete;
};

} // namespace VornNet

#endif
