// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_ACCEPTINGSOCKET_H
#define VORNRELAY_ACCEPTINGSOCKET_H

#include "RelayLoop.h"

#include <OwnedDescriptor.h>

#include <functional>
#include <utility>

namespace VornRelay {

/**
 * Accepts the connections of a listening socket that does not block. When there is no descriptor left it
 * rests for a while: the socket stays ready, and the loop would do nothing else.
 */
class AcceptingSocket : private RelayLoop::Handler {
public:
    using AcceptHandler = std::function<void(VornNet::OwnedDescriptor&& connection)>;

    AcceptingSocket(RelayLoop& loop, AcceptHandler onAccept)
        : m_loop(loop), m_onAccept(std::move(onAccept)) {}

    ~AcceptingSocket() override { end(); }

    AcceptingSocket(const AcceptingSocket&) = delete;
    AcceptingSocket& operator=(const AcceptingSocket&) = delete;

    /** Begins with a socket, which stays the caller's. */
    void begin(int fd);

    /** Accepts those who have connected already. */
    void acceptAll();

    /** Ends; to be called before the socket is closed. */
    void end();

private:
    void ready(std::uint32_t nEvents) override;
    bool acceptOne();
    void watch();
    void rest();

    RelayLoop& m_loop;
    const AcceptHandler m_onAccept;
    int m_fd = -1;
    RelayLoop::Timer m_rest = 0;
};

} // namespace VornRelay

#endif
