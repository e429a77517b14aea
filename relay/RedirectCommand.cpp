// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Commands.h"

#include <cerrno>
#include <system_error>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace VornRelay {

namespace {

/** Runs a program of the system. @throws std::system_error when it cannot be started */
bool runProgram(const std::vector<std::string>& words) {
    std::vector<char*> arguments;
    for (const std::string& sWord : words)
        arguments.push_back(const_cast<char*>(sWord.c_str()));
    arguments.push_back(nullptr);
    pid_t process = 0;
    if (const int nError =
            ::posix_spawnp(&process, arguments[0], nullptr, nullptr, arguments.data(), environ);
        nError != 0)
        throw std::system_error(nError, std::generic_category(), words[0]);
    int nStatus = 0;
    while (::waitpid(process, &nStatus, 0) == -1 && errno == EINTR) {
    }
    return WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0;
}

/** Empty and declared first, so that it may be there or not; all of it happens at once. */
std::string ruleFor(const RelaySettings& settings, const std::string& sOthers, bool bOn) {
    const std::string sTable = "table ip vornnet_relay";
    std::string sRules = sTable + "\ndelete " + sTable + "\n";
    if (bOn && !sOthers.empty())
        sRules += sTable + " {\n chain output {\n  type nat hook output priority -100; policy accept;\n" +
                  "  ip daddr { " + sOthers +
                  " } meta l4proto tcp redirect to :" + std::to_string(settings.nRedirectPort) + "\n }\n}\n";
    return sRules;
}

} // namespace

int redirect(const RelaySettings& settings, bool bOn) {
    if (settings.redirectAddresses.empty())
        throw SettingsError("redirect-address is missing");
    const char* szAction = bOn ? "replace" : "delete";
    bool bAll = true;
    std::string sOthers;
    for (const auto& [sHost, sAddress] : settings.redirectAddresses) {
        if (sHost == settings.access.sHost) {
            bAll &= runProgram({"ip", "address", szAction, sAddress + "/32", "dev", "lo"});
            continue;
        }
        // Without a route of its own the address might not even get as far as the rule.
        bAll &= runProgram({"ip", "route", szAction, "local", sAddress + "/32", "dev", "lo"});
        sOthers += (sOthers.empty() ? "" : ", ") + sAddress;
    }
    if (!sOthers.empty() && settings.nRedirectPort == 0)
        throw SettingsError("redirect-port is missing");
    bAll &= runProgram({"nft", ruleFor(settings, sOthers, bOn)});
    return bAll ? exitDone : exitFailed;
}

} // namespace VornRelay
