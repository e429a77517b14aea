// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_REDIRECTPORT_H
#define VORNRELAY_REDIRECTPORT_H

#include "AcceptingSocket.h"

#include <cstdint>
#include <functional>

#include <netinet/in.h>

namespace VornRelay {

/**
 * The port to which connections of services to addresses of other hosts are redirected.
 *
 * A rule of the kernel's packet filter redirects them, see `vornnet relay redirect`; the kernel still knows
 * where they were meant to go. It listens at 127.0.0.1, so nobody comes here from outside.
 *
 * Thread-safety: none, all on the loop's thread. Blocking: none. Ownership: the loop must outlive it.
 * Signals: none raised. Errors: std::system_error from open().
 */
class RedirectPort {
public:
    using AcceptHandler =
        std::function<void(VornNet::OwnedDescriptor&& connection, const sockaddr_in& meant)>;

    RedirectPort(RelayLoop& loop, std::uint16_t nPort, AcceptHandler onAccept);

    RedirectPort(const RedirectPort&) = delete;
    RedirectPort& operator=(const RedirectPort&) = delete;

    /** Begins to listen, unless it does so already. @throws std::system_error */
    void open();

    /** Accepts those who came before, and ends listening: services are refused with 111. */
    void close();

private:
    const std::uint16_t m_nPort;
    VornNet::OwnedDescriptor m_listener;
    AcceptingSocket m_socket; // after the listener, which it uses
};

} // namespace VornRelay

#endif
