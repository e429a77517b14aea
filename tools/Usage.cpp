// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Usage.h"

#include "Command.h"
#include "ExitStatus.h"
#include "Output.h"

#include <algorithm>
#include <charconv>
#include <numeric>
#include <vector>

namespace VornTool {

namespace {

using Names = std::vector<std::string>;

/** @return how many letters have to be put in, left out, replaced or swapped with the next. */
std::size_t distance(const std::string& one, const std::string& other) {
    const std::size_t width = other.size() + 1;
    std::vector<std::size_t> beforeLast(width);
    std::vector<std::size_t> last(width);
    std::vector<std::size_t> row(width);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t i = 1; i <= one.size(); ++i) {
        beforeLast.swap(last);
        last.swap(row);
        row[0] = i;
        for (std::size_t j = 1; j < width; ++j) {
            const std::size_t replaced = last[j - 1] + (one[i - 1] == other[j - 1] ? 0 : 1);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, replaced});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
                row[j] = std::min(row[j], beforeLast[j - 2] + 1);
        }
    }
    return row[width - 1];
}

/** @return the name that was probably meant; empty where none is similar. */
std::string nearest(const std::string& typed, const Names& names) {
    std::string result;
    std::size_t least = std::max<std::size_t>(typed.size() / 2, 1) + 1;
    for (const std::string& name : names) {
        const bool isBeginning = !typed.empty() && name.rfind(typed, 0) == 0;
        const std::size_t found = isBeginning ? 0 : distance(typed, name);
        if (found < least) {
            least = found;
            result = name;
        }
    }
    return result;
}

std::string withNearest(const std::string& text, const std::string& found, const std::string& otherwise) {
    return text + (found.empty() ? "; see " + otherwise : "; did you mean " + quoted(found) + "?");
}

std::string describeUnknownCommand(const CLI::App& app, const std::string& name) {
    Names names;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(command->get_name());
    return withNearest("there is no command " + quoted(name), nearest(name, names), "vornnet help");
}

std::string describeUnknownArgument(const CLI::App& command, const std::string& typed) {
    const std::string help = "vornnet " + command.get_name() + " --help";
    if (typed.size() < 2 || typed[0] != '-')
        return "there is no use for " + quoted(typed) + "; see " + help;
    const std::string option = typed.substr(0, typed.find('='));
    Names names;
    for (const CLI::Option* known : command.get_options()) {
        for (const std::string& name : known->get_lnames())
            names.push_back("--" + name);
    }
    return withNearest("there is no option " + quoted(option), nearest(option, names), help);
}

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

std::string describeUsageError(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<CLI::App*> chosen = app.get_subcommands();
    const Names unknown = app.remaining(true);
    if (chosen.empty()) {
        if (unknown.empty())
            return "a command is missing; see vornnet help";
        if (unknown[0][0] != '-')
            return describeUnknownCommand(app, unknown[0]);
        return withNearest("there is no option " + quoted(unknown[0]),
                           nearest(unknown[0], {"--help", "--version"}), "vornnet help");
    }
    // What follows an option that there is not would be told as one argument too many, and first.
    const auto option =
        std::find_if(unknown.begin(), unknown.end(), [](const std::string& text) { return text[0] == '-'; });
    if (option != unknown.end() ||
        (!unknown.empty() && dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr))
        return describeUnknownArgument(*chosen[0], option != unknown.end() ? *option : unknown[0]);
    return std::string(error.what()) + "; see vornnet " + chosen[0]->get_name() + " --help";
}

CLI::Validator atLeastOne() {
    return CLI::Validator(
        [](std::string& text) -> std::string {
            long number = 0;
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
            if (error != std::errc() || end != text.data() + text.size())
                return VornTool::quoted(text) + " is no whole number";
            return number >= 1 ? "" : "it must be at least 1, not " + text;
        },
        "");
}

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
