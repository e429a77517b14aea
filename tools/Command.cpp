// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Command.h"

#include "ExitStatus.h"

namespace VornTool {

CLI::App* addCommand(CLI::App& app, const std::string& name, const std::string& description,
                     CommonOptions& options) {
    CLI::App* command = app.add_subcommand(name, description);
    command->footer(exitStatusTable());
    command
        ->add_option("--log-level", options.logLevel,
                     "Write the library's records up to level N to standard error; -1 for none")
        ->type_name("N")
        ->check(CLI::Range(-1, 9));
    return command;
}

void addJsonOption(CLI::App& command, CommonOptions& options) {
    command.add_flag("--json", options.json, "Print JSON, one object per line");
}

} // namespace VornTool
