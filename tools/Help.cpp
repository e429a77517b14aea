// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Command.h"
#include "ExitStatus.h"
#include "Output.h"
#include "Usage.h"

namespace VornTool {

namespace {

std::string helpOf(const CLI::App& app, const std::string& name) {
    // The program's own help() would be that of the command that has been chosen.
    if (name.empty())
        return app.get_formatter()->make_help(&app, app.get_name(), CLI::AppFormatMode::Normal);
    const auto commands =
        app.get_subcommands([&name](const CLI::App* command) { return command->get_name() == name; });
    if (commands.empty())
        throw ToolError(exitUsage, describeUnknownCommand(app, name));
    return commands[0]->help(app.get_name());
}

} // namespace

void addHelp(CLI::App& app, Runner& runner) {
    auto name = std::make_shared<std::string>();
    CLI::App* command = app.add_subcommand("help", "Print the help text of a command");
    command->add_option("COMMAND", *name, "Name of the command; without it the program's own text");
    command->callback([&app, &runner, name] {
        runner = [&app, name] {
            Output::bytes(helpOf(app, *name));
            return static_cast<int>(exitDone);
        };
    });
}

} // namespace VornTool
