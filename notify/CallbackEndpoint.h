// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_CALLBACKENDPOINT_H
#define VORNNOTIFY_CALLBACKENDPOINT_H

#include <VornNetExport.h>
#include <VornString.h>

#include <cstdint>
#include <optional>

#include <sys/socket.h>

namespace VornNet {

/**
 * Where a callback address leads: a pipe's name, or an IPv4 address and a port. Texts that lead to the same
 * place are equal endpoints.
 *
 * A service may pass on what a stranger sent, so the text is taken strictly: no name is looked up, and
 * nothing is guessed. A proxy takes more (see VornProxyDependent).
 */
class CallbackEndpoint {
public:
    enum class Kind : char { pipe, tcp, udp };

    /** A socket address of either family. */
    class Address {
    public:
        explicit Address(const CallbackEndpoint& endpoint);

        const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&m_storage); }

        socklen_t length() const { return m_length; }

        /**
         * @return whether a TCP socket that has connected to this address has it for its own as well: a
         * client that tries a free port of its own host may be given that very port, and is then connected
         * with itself
         */
        bool isOwnOf(int fd) const;

    private:
        sockaddr_storage m_storage;
        socklen_t m_length;
    };

    /** @return what the text means; nothing for a text that is no callback address. */
    static std::optional<CallbackEndpoint> parse(const VornString& sText);

    Kind kind() const { return m_kind; }

    /** @return the pipe's name or the dotted address, which a connection has for a remote name. */
    VornString host() const;

    /** @return bytes that are equal for equal endpoints, and for no others. */
    const VornString& key() const { return m_sKey; }

private:
    CallbackEndpoint(Kind kind, VornString sPlace);

    static std::optional<CallbackEndpoint> parsePipe(const VornString& sName);
    static std::optional<CallbackEndpoint> parseHostAndPort(Kind kind, const VornString& sPart);

    Kind m_kind;
    VornString m_sKey; // the kind, then the pipe's name, or address and port in network order
};

} // namespace VornNet

#endif
