// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_COMMAND_H
#define VORNTOOL_COMMAND_H

#include <functional>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

namespace VornTool {

/** What the subcommand that was asked for does; returns the exit status. */
using Runner = std::function<int()>;

/** Options that several subcommands have. */
struct CommonOptions {
    bool json = false;
    int logLevel = -1;
};

/** Makes a subcommand with --log-level and the table of exit statuses in its help. */
CLI::App* addCommand(CLI::App& app, const std::string& name, const std::string& description,
                     CommonOptions& options);

/** Adds --json. */
void addJsonOption(CLI::App& command, CommonOptions& options);

/** Makes @p run what the program does when @p command is chosen; the options live as long as it. */
template <typename Options>
void setRunner(CLI::App* command, Runner& runner, const std::shared_ptr<Options>& options,
               int (*run)(Options&)) {
    command->callback([options, &runner, run] { runner = [options, run] { return run(*options); }; });
}

/** Each adds its subcommand, which sets @p runner when it is chosen. @{ */
void addSink(CLI::App& app, Runner& runner);
void addNotify(CLI::App& app, Runner& runner);
void addPublish(CLI::App& app, Runner& runner);
void addSubscribe(CLI::App& app, Runner& runner);
void addConnect(CLI::App& app, Runner& runner);
void addServe(CLI::App& app, Runner& runner);
void addEncode(CLI::App& app, Runner& runner);
void addDecode(CLI::App& app, Runner& runner);
void addPipes(CLI::App& app, Runner& runner);
void addResolve(CLI::App& app, Runner& runner);
void addFollow(CLI::App& app, Runner& runner);
void addPing(CLI::App& app, Runner& runner);
void addBench(CLI::App& app, Runner& runner);
void addTop(CLI::App& app, Runner& runner);
void addMetrics(CLI::App& app, Runner& runner);
void addDoctor(CLI::App& app, Runner& runner);
void addHelp(CLI::App& app, Runner& runner);
/** @} */

} // namespace VornTool

#endif
