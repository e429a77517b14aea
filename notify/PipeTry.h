// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_PIPETRY_H
#define VORNNOTIFY_PIPETRY_H

#include "StreamTry.h"

namespace VornNet {

/**
 * A try over a pipe: the content is sent only to a sink that is reading at this moment.
 *
 * A Unix-domain socket tells how much of what was sent has not been taken by the peer (SIOCOUTQ), and becomes
 * writable when that changes. So the first 7 bytes of the handle are sent, and when they have been taken a
 * sink sits in the read of this handle: it has accepted the connection, which closing its server no longer
 * touches, and its callback has not been called, because the eighth byte is missing. What happens before that
 * cannot have called a callback, and is tried again; what happens after the rest has left is that sink's
 * doing, and is final.
 */
class PipeTry : public StreamTry {
public:
    using StreamTry::StreamTry;

    Progress start(std::string_view bytes) override;
    Progress advance(std::uint32_t nEvents) override;

    bool isConnecting() const override { return false; }

private:
    enum class Step { probing, sending, ending };

    Progress probe(std::uint32_t nEvents);
    Progress goOnSending();
    Progress sendRest();
    Progress awaitEnd();

    /** Ends a try that has failed after the probe. */
    Progress lost(int nCode);

    Step m_step = Step::probing;
};

} // namespace VornNet

#endif
