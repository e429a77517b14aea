// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_PORTLISTENER_H
#define VORNNOTIFY_PORTLISTENER_H

#include "OwnedDescriptor.h"

#include <optional>

#include <netinet/in.h>

namespace VornNet {

/** The socket of a sink over TCP, which listens, or over UDP, which receives. */
class PortListener {
public:
    /**
     * Opens a listening socket whose connections are reset when they are closed (SO_LINGER of 0 seconds).
     * @param address none: the one that the name "localhost" has
     * @param nPort   in host order; 0: any
     * @throws std::system_error, 99 (EADDRNOTAVAIL) also when "localhost" has no address
     */
    static PortListener openTcp(std::optional<in_addr> address, in_port_t nPort);

    /** Opens a socket that receives datagrams, with a buffer for many of them. Otherwise as openTcp(). */
    static PortListener openUdp(std::optional<in_addr> address, in_port_t nPort);

    int descriptor() const { return m_socket.number(); }

    /** @return the address that it is bound to. */
    in_addr address() const { return m_bound.sin_addr; }

    /** @return the port, in host order. */
    in_port_t port() const;

private:
    explicit PortListener(int nType);

    void bindTo(std::optional<in_addr> address, in_port_t nPort);

    template <typename Value>
    void set(int nOption, const Value& value);

    OwnedDescriptor m_socket;
    sockaddr_in m_bound{};
};

} // namespace VornNet

#endif
