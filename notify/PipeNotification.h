// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_PIPENOTIFICATION_H
#define VORNNOTIFY_PIPENOTIFICATION_H

#include "IncomingNotification.h"

namespace VornNet {

/**
 * A notification over a local pipe.
 *
 * Closing a Unix-domain socket is a reset for the peer only while something of what it sent has not been
 * taken out of the kernel. So the last byte stays there until the callback has returned: it is looked at, and
 * the end of the stream is asked for, not read. The first 7 bytes, which are no notification yet, are taken
 * as they come: a dispatcher waits for that before it sends the rest.
 */
class PipeNotification : public IncomingNotification {
public:
    using IncomingNotification::IncomingNotification;

    /** Marks the sender as one who may not send. It is read no further, and closed as soon as it has sent
     * something, which makes that a reset. */
    void refuse() { m_isRefused = true; }

    bool isRefused() const override { return m_isRefused; }

    Progress read(std::size_t nRoom) override;
    void confirm() override;

private:
    Progress lookAtLastByte(std::size_t nRoom);

    bool m_isRefused = false;
};

} // namespace VornNet

#endif
