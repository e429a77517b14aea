// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_RELAYSETTINGS_H
#define VORNRELAY_RELAYSETTINGS_H

#include "NatsConnection.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <netinet/in.h>

namespace VornRelay {

/** What is wrong with a configuration file, with its name and line. */
class SettingsError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** What `relay.conf` says. */
struct RelaySettings {
    /** What becomes of a notification whose sink's queue is full. */
    enum class OnSlow { dead, block };

    EngineAccess access;
    std::vector<std::string> sendTo; ///< hosts that services of this host may notify
    bool bSendToAll = false;         ///< whoever has a stream
    bool bReceive = true;            ///< whether this host has sinks that others may notify
    std::size_t nWindow = 2048;      ///< most unanswered messages of one stream
    std::chrono::milliseconds publishTimeout{5000};
    std::size_t nHeld = 8192; ///< most messages in memory on their way to sinks
    std::chrono::milliseconds patience{60'000};
    OnSlow onSlow = OnSlow::dead;
    std::chrono::milliseconds slowAfter{10'000};
    std::uint16_t nRedirectPort = 0; ///< where services' connections are redirected to; 0: none
    std::map<std::string, std::string> redirectAddresses; ///< by host, also the own one
    std::map<std::string, std::string> topics; ///< of this host's services: by name the publisher's address
    std::vector<std::pair<std::string, std::string>> followed; ///< topic and host
    std::map<std::string, std::string> offered;                ///< services of this host: by name the address
    std::vector<std::pair<std::string, std::string>> reached;  ///< service and host
    std::size_t nHoldBytes = 64UL * 1024 * 1024;               ///< most bytes that wait for the engine
    std::string sStateDirectory = "/var/lib/vornnet-relay";
    std::string sMetrics; ///< socket file, empty for none
    int nLogLevel = 2;

    /**
     * Reads a file, then in the order of their names all "*.conf" of the directory of the same name with ".d"
     * in place of ".conf"; what comes later holds.
     * @throws SettingsError
     */
    static RelaySettings read(const std::string& sPath);

    /** Takes one line. @throws std::invalid_argument with what is wrong */
    void take(const std::string& sKey, const std::string& sValue);

    /** @return the address of a host's TCP sinks, 0 when it has none. */
    in_addr redirectAddress(const std::string& sHost) const;

    /** @throws SettingsError when something is missing */
    void check() const;
};

/**
 * @return the host's name as it stands in subjects, pipe names and streams: letters, digits, '-', and '_' in
 * place of '.'
 * @throws std::invalid_argument for any other character, and a name of more than 190
 */
std::string hostToken(const std::string& sHost);

/** @return the name and the host's token of NAME@HOST. @throws std::invalid_argument for any other text */
std::pair<std::string, std::string> serviceAtHost(const std::string& sText);

} // namespace VornRelay

#endif
