// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "CallbackEndpoint.h"

#include "DottedAddress.h"
#include "PipeListener.h"

#include <SystemCalls.h>
#include <VornPipeServer.h>

#include <charconv>
#include <cstddef>
#include <cstring>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/un.h>

namespace VornNet {

namespace {

bool takePrefix(VornString& sText, const char* prefix) {
    const std::size_t length = std::strlen(prefix);
    if (sText.compare(0, length, prefix) != 0)
        return false;
    sText.erase(0, length);
    return true;
}

/** Ports above 32767 are written by some as the negative number that a short makes of them. */
bool parsePort(const VornString& sText, in_port_t& port) {
    constexpr int cLowest = -32768;
    constexpr int cHighest = 65535;
    int number = 0;
    const char* end = sText.data() + sText.size();
    const auto [stop, error] = std::from_chars(sText.data(), end, number);
    if (error != std::errc() || stop != end || number < cLowest || number > cHighest)
        return false;
    port = htons(static_cast<std::uint16_t>(number));
    return port != 0;
}

} // namespace

CallbackEndpoint::Address::Address(const CallbackEndpoint& endpoint) : m_storage(), m_length(0) {
    if (endpoint.m_kind == Kind::pipe) {
        auto* address = reinterpret_cast<sockaddr_un*>(&m_storage);
        const VornString sPath = VornPipeServer::getFullPipeName(endpoint.host());
        address->sun_family = AF_UNIX;
        std::memcpy(address->sun_path, sPath.data(), sPath.size());
        m_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sPath.size() + 1);
    } else {
        auto* address = reinterpret_cast<sockaddr_in*>(&m_storage);
        const char* place = endpoint.m_sKey.data() + 1;
        address->sin_family = AF_INET;
        std::memcpy(&address->sin_addr, place, sizeof address->sin_addr);
        std::memcpy(&address->sin_port, place + sizeof address->sin_addr, sizeof address->sin_port);
        m_length = sizeof *address;
    }
}

bool CallbackEndpoint::Address::isOwnOf(int fd) const {
    sockaddr_storage own{};
    socklen_t length = sizeof own;
    if (m_storage.ss_family != AF_INET ||
        System::getsockname(fd, reinterpret_cast<sockaddr*>(&own), &length) == -1)
        return false;
    const auto& here = reinterpret_cast<const sockaddr_in&>(own);
    const auto& there = reinterpret_cast<const sockaddr_in&>(m_storage);
    return here.sin_addr.s_addr == there.sin_addr.s_addr && here.sin_port == there.sin_port;
}

std::optional<CallbackEndpoint> CallbackEndpoint::parse(const VornString& sText) {
    VornString sPart = sText;
    if (takePrefix(sPart, "pipe:"))
        return parsePipe(sPart);
    if (takePrefix(sPart, "socket:"))
        return parseHostAndPort(Kind::tcp, sPart);
    if (takePrefix(sPart, "udp:"))
        return parseHostAndPort(Kind::udp, sPart);
    return std::nullopt;
}

VornString CallbackEndpoint::host() const {
    if (m_kind == Kind::pipe)
        return m_sKey.substr(1);
    char text[INET_ADDRSTRLEN];
    return ::inet_ntop(AF_INET, m_sKey.data() + 1, text, sizeof text);
}

CallbackEndpoint::CallbackEndpoint(Kind kind, VornString sPlace) : m_kind(kind), m_sKey(std::move(sPlace)) {
    m_sKey.insert(m_sKey.begin(), static_cast<char>('0' + static_cast<int>(kind)));
}

std::optional<CallbackEndpoint> CallbackEndpoint::parsePipe(const VornString& sName) {
    if (!PipeListener::isName(sName))
        return std::nullopt;
    return CallbackEndpoint(Kind::pipe, sName);
}

std::optional<CallbackEndpoint> CallbackEndpoint::parseHostAndPort(Kind kind, const VornString& sPart) {
    const std::size_t colon = sPart.find(':');
    if (colon == VornString::npos)
        return std::nullopt;
    const std::optional<in_addr> address = parseDottedAddress(sPart.substr(0, colon));
    const VornString sPort = sPart.substr(colon + 1, sPart.find(';', colon) - colon - 1);
    in_port_t port = 0;
    if (!address || address->s_addr == htonl(INADDR_ANY) || !parsePort(sPort, port))
        return std::nullopt;
    VornString sPlace(reinterpret_cast<const char*>(&*address), sizeof *address);
    sPlace.append(reinterpret_cast<const char*>(&port), sizeof port);
    return CallbackEndpoint(kind, sPlace);
}

} // namespace VornNet
