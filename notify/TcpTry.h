// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_TCPTRY_H
#define VORNNOTIFY_TCPTRY_H

#include "StreamTry.h"

namespace VornNet {

/**
 * A try over TCP, whose acknowledgements are the kernel's: whether a sink accepted the connection cannot be
 * seen, so a reset leaves it open whether the callback was called.
 *
 * Content and end leave in one segment. Else the sink could read, call back and close before the end arrives;
 * its side would then have closed first, its port be held for a minute, and a sink that opens its server
 * again for each notification moves to the next one. For the same reason the socket is left alone after that
 * until its next event: while a call holds it, the sink's end is not acknowledged, and the port not free.
 */
class TcpTry : public StreamTry {
public:
    using StreamTry::StreamTry;

    Progress start(std::string_view bytes) override;
    Progress advance(std::uint32_t nEvents) override;

    bool isConnecting() const override { return m_step == Step::sending && sent() == 0; }

private:
    enum class Step { sending, ending };

    Progress send();
    Progress awaitEnd();
    Progress confirm();

    Step m_step = Step::sending;
};

} // namespace VornNet

#endif
