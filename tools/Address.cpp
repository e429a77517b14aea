// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Address.h"

#include "ExitStatus.h"
#include "Output.h"

#include <VornPipeConnection.h>
#include <VornPipeServer.h>
#include <VornSocketConnection.h>
#include <VornUDPSocketConnection.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <limits>
#include <memory>
#include <utility>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace VornTool {

using VornNet::VornConnection;
using VornSupport::VornSmartPointer;

const char* const addressHelp =
    "pipe:NAME, socket:HOST:PORT or udp:HOST:PORT (ssl:HOST:PORT carries nothing)";

namespace {

[[noreturn]] void refuse(const std::string& text, const std::string& why) {
    throw ToolError(exitUsage, "address " + quoted(text) + ": " + why);
}

Address::Kind parseKind(const std::string& text, const std::string& word) {
    constexpr std::array<std::pair<const char*, Address::Kind>, 3> cKinds = {
        {{"pipe", Address::Kind::Pipe}, {"socket", Address::Kind::Socket}, {"udp", Address::Kind::Udp}}};
    if (word == "ssl")
        refuse(text, "ssl carries nothing, for the library has no encryption; use socket");
    const auto* found =
        std::find_if(cKinds.begin(), cKinds.end(), [&](const auto& kind) { return word == kind.first; });
    if (found == cKinds.end())
        refuse(text, std::string("it must be ") + addressHelp);
    return found->second;
}

void checkPipeName(const std::string& text, const std::string& name) {
    if (name.empty())
        refuse(text, "the pipe's name is missing");
    if (name.find('/') != std::string::npos)
        refuse(text, "a pipe's name with a slash would leave the pipe directory");
    if (name.size() > longestPipeName())
        refuse(text, "the pipe's name is longer than " + std::to_string(longestPipeName()) + " bytes");
}

/** @return whether the text after "socket:" has a host such as "[::1]" or "::1". */
bool hasIPv6Host(const std::string& rest) {
    const std::size_t last = std::min(rest.rfind(':'), rest.size());
    return (!rest.empty() && rest[0] == '[') || isIPv6(rest.substr(0, last)) || isIPv6(rest);
}

int parsePort(const std::string& text, const std::string& digits) {
    int port = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, port);
    // A sink that has moved beyond port 32767 publishes a negative one, of which the low 16 bits count.
    if (error != std::errc() || stop != end || port == 0 || port > 65535 ||
        port < std::numeric_limits<short>::min())
        refuse(text, "the port must be a number from 1 to 65535");
    return port;
}

} // namespace

Address parseAddress(const std::string& text) {
    Address address;
    address.text = text;
    const std::size_t colon = std::min(text.find(':'), text.size());
    address.kind = parseKind(text, text.substr(0, colon));
    const std::string rest = text.substr(std::min(colon + 1, text.size()));
    if (address.kind == Address::Kind::Pipe) {
        checkPipeName(text, rest);
        address.name = rest;
        return address;
    }
    if (hasIPv6Host(rest))
        refuse(text, "IPv6 does not work here: the library has IPv4 only");
    const std::size_t second = rest.find(':');
    if (second == std::string::npos)
        refuse(text, "the port is missing");
    address.name = rest.substr(0, second);
    address.port = parsePort(text, rest.substr(second + 1));
    if (address.name.empty())
        refuse(text,
               "the host is missing; a sink publishes such an address where localhost does not resolve");
    if (address.name != "*" && !isName(address.name) && !isDotted(address.name))
        refuse(text, "the host is neither a name nor a dotted IPv4 address");
    return address;
}

Address parseServerAddress(const std::string& text) {
    Address address = parseAddress(text);
    if (address.kind == Address::Kind::Pipe)
        return address;
    if (address.port < 0)
        refuse(text, "the port must be a number from 1 to 65535");
    if (address.name != "*") {
        requireKnownHost(address);
        address.name = addressesOf(address.name).at(0);
    }
    return address;
}

void requireKnownHost(const Address& address) {
    if (address.kind == Address::Kind::Pipe)
        return;
    if (address.name == "*")
        refuse(address.text, "* is an address to serve at, not one to reach");
    if (isName(address.name) && addressesOf(address.name).empty())
        throw ToolError(exitUnreachable, "there is no host called " + quoted(address.name));
}

VornSmartPointer<VornConnection> makeConnection(const Address& address) {
    switch (address.kind) {
    case Address::Kind::Pipe:
        return new VornNet::VornPipeConnection(address.name);
    case Address::Kind::Socket:
        return new VornNet::VornSocketConnection(address.name, address.port, true, false);
    case Address::Kind::Udp:
        break;
    }
    return new VornNet::VornUDPSocketConnection(address.name, address.port, false);
}

bool isName(const std::string& host) {
    return std::any_of(host.begin(), host.end(), [](char character) {
        return std::isalpha(static_cast<unsigned char>(character)) != 0;
    });
}

bool isDotted(const std::string& host) {
    in_addr address{};
    return ::inet_pton(AF_INET, host.c_str(), &address) == 1;
}

bool isIPv6(const std::string& text) {
    in6_addr address{};
    return ::inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

std::vector<std::string> addressesOf(const std::string& host) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &list) != 0)
        return {};
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(list, &::freeaddrinfo);
    std::vector<std::string> result;
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        std::array<char, INET_ADDRSTRLEN> text{};
        const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ai_addr);
        ::inet_ntop(AF_INET, &address->sin_addr, text.data(), text.size());
        result.emplace_back(text.data());
    }
    return result;
}

std::string pipeDirectory() {
    return VornNet::VornPipeServer::getFullPipeName("");
}

std::size_t longestPipeName() {
    return sizeof(sockaddr_un::sun_path) - 1 - pipeDirectory().size();
}

} // namespace VornTool
