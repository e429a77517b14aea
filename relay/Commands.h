// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_COMMANDS_H
#define VORNRELAY_COMMANDS_H

#include "NatsAdministration.h"
#include "RelaySettings.h"

#include <cstdint>
#include <string>
#include <vector>

namespace VornRelay {

/** What the program ends with; the same as those of `vornnet`. */
enum ExitStatus : int {
    exitDone = 0,
    exitFailed = 1,
    exitUsage = 2,
    exitRefused = 3,
    exitUnreachable = 4,
    exitProblems = 5
};

/** Each does what the subcommand of that name does, and returns the exit status. @{ */
int runRelay(const std::string& sSettingsFile);
int checkHost(const std::string& sSettingsFile);
int printStatus(bool bJson);
int printLeases(bool bJson);
int takeLease(const std::string& sName, const std::string& sAddress, int nHandle);
int releaseLease(const std::string& sName);
int addHost(const RelaySettings& settings, const std::string& sHost, const std::vector<std::string>& sendTo,
            std::int64_t nMegabytes, std::int64_t nMessages, std::int64_t nHours, int nReplicas,
            bool bFixedConsumer, const HostRights& rights);
int removeHost(const RelaySettings& settings, const std::string& sHost);
int redirect(const RelaySettings& settings, bool bOn);
int listHosts(const RelaySettings& settings, bool bJson);
int listDeadLetters(const RelaySettings& settings, bool bJson);
int showDeadLetter(const RelaySettings& settings, std::uint64_t nPosition);
int resendDeadLetter(const RelaySettings& settings, std::uint64_t nPosition);
int dropDeadLetter(const RelaySettings& settings, std::uint64_t nPosition);
int dropDeadLetters(const RelaySettings& settings);
int notifyLease(const std::string& sHost, std::uint32_t nLease, const std::vector<std::string>& values);
int notifyLeaseOnce(const RelaySettings& settings, const std::string& sHost, std::uint32_t nLease,
                    const std::vector<std::string>& values, const std::string& sId);
/** @} */

} // namespace VornRelay

#endif
