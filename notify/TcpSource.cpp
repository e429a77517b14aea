// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "TcpSource.h"

#include "DottedAddress.h"
#include "TcpNotification.h"

#include <arpa/inet.h>

namespace VornNet {

namespace {

constexpr unsigned int cAccessRights = 1; // what every connection but a pipe's reports

} // namespace

TcpSource::TcpSource(const SinkSettings& settings)
    : m_settings(settings), m_listener(PortListener::openTcp(settings.bindAddress, settings.nPort)) {}

std::unique_ptr<IncomingNotification> TcpSource::prepare() const {
    return std::make_unique<TcpNotification>(cAccessRights, m_settings.nMessageLimit);
}

NotificationSource::Arrival TcpSource::accept(IncomingNotification& next) {
    sockaddr_in peer{};
    const Arrival arrival = acceptFrom(m_listener.descriptor(), next, &peer);
    if (arrival != Arrival::accepted)
        return arrival;
    if (!m_settings.senders.admits(peer.sin_addr))
        return Arrival::refused;
    // As servers tell it: other loopback addresses than this one are not local.
    next.content()->setSender(dottedAddress(peer.sin_addr), peer.sin_addr.s_addr == htonl(INADDR_LOOPBACK));
    return Arrival::accepted;
}

VornString TcpSource::address() const {
    return "socket:" + dottedAddress(m_settings.publishedHost.value_or(m_listener.address())) + ":" +
           std::to_string(m_listener.port());
}

} // namespace VornNet
