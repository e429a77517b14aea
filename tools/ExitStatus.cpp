// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ExitStatus.h"

#include <cerrno>
#include <cstring>

namespace VornTool {

std::string exitStatusTable() {
    return "Exit status:\n"
           "  0    done\n"
           "  1    failed for another reason than those below\n"
           "  2    usage: an unknown option, a bad value, a malformed address\n"
           "  3    refused: the peer was there and said no\n"
           "  4    unreachable: nobody listens, no such host, or no answer in time\n"
           "  5    problems found\n"
           "  6    incomplete: only a part was sent, received or decoded\n"
           "  130  ended by SIGINT\n"
           "  143  ended by SIGTERM";
}

ExitStatus statusOfFailure(int code, const std::string& text) {
    switch (code) {
    case ECONNREFUSED:
    case ECONNRESET:
    case EPIPE:
    case ENOENT:
    case ETIMEDOUT:
    case EHOSTUNREACH:
    case ENETUNREACH:
    case ENETDOWN:
        return exitUnreachable;
    case 0:
        return isServiceRefused(code, text) ? exitRefused : exitFailed;
    default:
        return exitFailed;
    }
}

bool isServiceRefused(int code, const std::string& text) {
    return code == 0 && text.find("connectToService") != std::string::npos;
}

std::string describeFailure(int code, const std::string& text) {
    if (code == 0)
        return text;
    return text + " (" + std::to_string(code) + ", " + std::strerror(code) + ")";
}

} // namespace VornTool
