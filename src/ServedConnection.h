// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_SERVEDCONNECTION_H
#define VORNNET_SERVEDCONNECTION_H

#include "SocketCell.h"
#include "VornConnection.h"

namespace VornNet {

/**
 * Marks the connection that a sink is serving, so that the sink's destructor can end a read that would block
 * forever.
 */
class ServedConnection {
public:
    /** @param connection the client; a callback may let go of it while this exists */
    ServedConnection(const void* sink, VornConnection& connection);

    /**
     * Ends the reading side of the client that the sink is serving, if there is one: a blocked read returns
     * as if the client had closed. What has arrived can still be read.
     */
    static void endRead(const void* sink);

private:
    static void** cellOf(VornConnection& connection);

    SocketCell::Watch m_watch;
};

} // namespace VornNet

#endif
