// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_SINKCALLER_H
#define VORNNOTIFY_SINKCALLER_H

#include "IncomingNotification.h"
#include "SinkLine.h"

#include <VornCallbackContainer.h>

namespace VornNet {

/**
 * The calling thread of a sink: calls the callback of one notification after the other.
 *
 * Callbacks are looked up here and not where they are read: the container is locked while one runs, and
 * reading would have to wait for that.
 */
class SinkCaller {
public:
    SinkCaller(VornCallbackContainer& container, SinkLine& line);

    /** The thread's body; returns when the line has been closed. */
    void run();

private:
    void serve(IncomingNotification& notification);
    SinkLine::Counter call(IncomingNotification& notification);

    VornCallbackContainer& m_container;
    SinkLine& m_line;
};

} // namespace VornNet

#endif
