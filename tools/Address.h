// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_ADDRESS_H
#define VORNTOOL_ADDRESS_H

#include <VornConnection.h>
#include <VornSmartPointer.h>

#include <string>
#include <vector>

namespace VornTool {

/** The address of a server: "pipe:NAME", "socket:HOST:PORT" or "udp:HOST:PORT". */
struct Address {
    enum class Kind { Pipe, Socket, Udp };

    Kind kind = Kind::Pipe;
    std::string text; ///< as given
    std::string name; ///< the pipe's name, or the host
    int port = 0;
};

/** What an address may be, for help texts. */
extern const char* const addressHelp;

/**
 * Reads an address more strictly than the library does, which takes nearly every text for some address and
 * then sends to the wrong place or nowhere.
 * @throws ToolError (usage)
 */
Address parseAddress(const std::string& text);

/**
 * The same for an address to serve at, whose host is this one: a host name becomes its first dotted address,
 * and
 * "*" is every interface.
 * @throws ToolError (usage, unreachable)
 */
Address parseServerAddress(const std::string& text);

/**
 * Sees that the host of the address is known, for the library would send to this host instead.
 * @throws ToolError (unreachable)
 */
void requireKnownHost(const Address& address);

/** @return an unconnected connection to the address. */
VornSupport::VornSmartPointer<VornNet::VornConnection> makeConnection(const Address& address);

/** @return whether the text is a host's name, known or not, or a dotted IPv4 address. @{ */
bool isName(const std::string& host);
bool isDotted(const std::string& host);
/** @} */

/** @return whether the text is an IPv6 address, which the library cannot use. */
bool isIPv6(const std::string& text);

/** @return the IPv4 addresses of a host name in the system's order, none if it is unknown. */
std::vector<std::string> addressesOf(const std::string& host);

/** @return the directory in which the library has its pipes, with the slash at its end. */
std::string pipeDirectory();

/** @return how many bytes a pipe's name may have. */
std::size_t longestPipeName();

} // namespace VornTool

#endif
