// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_EXITSTATUS_H
#define VORNTOOL_EXITSTATUS_H

#include <stdexcept>
#include <string>

namespace VornTool {

/** What the program ends with; the same for every subcommand. */
enum ExitStatus : int {
    exitDone = 0,
    exitFailed = 1,
    exitUsage = 2,
    exitRefused = 3,
    exitUnreachable = 4,
    exitProblems = 5,
    exitIncomplete = 6
};

/** @return the table of exit statuses that ends every help text. */
std::string exitStatusTable();

/** Ends the program with a text on standard error and a status. */
class ToolError : public std::runtime_error {
public:
    ToolError(ExitStatus status, const std::string& text) : std::runtime_error(text), m_status(status) {}

    ExitStatus status() const { return m_status; }

private:
    ExitStatus m_status;
};

/** @return the status for a failure of the library, by its error number and text. */
ExitStatus statusOfFailure(int code, const std::string& text);

/** @return whether the failure is that the peer did not accept the name of the service. */
bool isServiceRefused(int code, const std::string& text);

/** @return "text (111, Connection refused)", or the text alone for code 0. */
std::string describeFailure(int code, const std::string& text);

} // namespace VornTool

#endif
