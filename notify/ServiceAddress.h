// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_SERVICEADDRESS_H
#define VORNNOTIFY_SERVICEADDRESS_H

#include "CallbackEndpoint.h"

#include <cstdint>
#include <optional>

#include <netinet/in.h>

namespace VornNet {

/** Where a service listens, or is to be reached: a pipe, or an IPv4 address and a port. Nothing is looked up.
 */
class ServiceAddress {
public:
    /** @return what a client connects to: "pipe:NAME" or "socket:ADDRESS:PORT"; nothing for another text. */
    static std::optional<CallbackEndpoint> ofClient(const VornString& sText);

    /** @return what a service listens at; there '*' stands for all addresses, and 0 for any free port. */
    static std::optional<ServiceAddress> ofService(const VornString& sText);

    bool isPipe() const { return !m_sPipe.empty(); }

    const VornString& pipe() const { return m_sPipe; }

    in_addr host() const { return m_host; }

    std::uint16_t port() const { return m_port; }

private:
    VornString m_sPipe;
    in_addr m_host{};
    std::uint16_t m_port = 0;
};

} // namespace VornNet

#endif
