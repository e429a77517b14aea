// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ServiceAddress.h"

#include "DottedAddress.h"

#include <charconv>
#include <system_error>

#include <arpa/inet.h>

namespace VornNet {

namespace {

constexpr const char* cTcp = "socket:";
constexpr std::size_t cTcpLength = 7;

std::optional<std::uint16_t> portOf(const VornString& sText) {
    std::uint16_t port = 0;
    const char* const end = sText.data() + sText.size();
    const auto [stop, error] = std::from_chars(sText.data(), end, port);
    if (error != std::errc() || stop != end)
        return std::nullopt;
    return port;
}

std::optional<in_addr> hostOf(const VornString& sText) {
    return sText == "*" ? in_addr{htonl(INADDR_ANY)} : parseDottedAddress(sText);
}

} // namespace

std::optional<CallbackEndpoint> ServiceAddress::ofClient(const VornString& sText) {
    const auto endpoint = CallbackEndpoint::parse(sText);
    if (!endpoint || endpoint->kind() == CallbackEndpoint::Kind::pipe)
        return endpoint;
    // A callback address may have a port that a short has made negative, and notes after it; a service's not.
    if (endpoint->kind() != CallbackEndpoint::Kind::tcp || !portOf(sText.substr(sText.rfind(':') + 1)))
        return std::nullopt;
    return endpoint;
}

std::optional<ServiceAddress> ServiceAddress::ofService(const VornString& sText) {
    ServiceAddress address;
    if (sText.compare(0, cTcpLength, cTcp) != 0) {
        const auto endpoint = CallbackEndpoint::parse(sText);
        if (!endpoint || endpoint->kind() != CallbackEndpoint::Kind::pipe)
            return std::nullopt;
        address.m_sPipe = endpoint->host();
        return address;
    }
    const std::size_t colon = sText.find(':', cTcpLength);
    if (colon == VornString::npos)
        return std::nullopt;
    const auto host = hostOf(sText.substr(cTcpLength, colon - cTcpLength));
    const auto port = portOf(sText.substr(colon + 1));
    if (!host || !port)
        return std::nullopt;
    address.m_host = *host;
    address.m_port = *port;
    return address;
}

} // namespace VornNet
