// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Command.h"
#include "ExitStatus.h"
#include "Interruption.h"
#include "Output.h"
#include "Usage.h"

#include <VornException.h>

#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

#include <unistd.h>

namespace {

/**
 * Becomes the program `vornnet-relay`, which is installed for itself, since it alone needs the engine's
 * client library: the one beside this program, or the one in PATH.
 * @param arguments the program's; the first gives way to its name
 * @return the exit status when there is no such program
 */
int runRelayProgram(char** arguments) {
    using namespace VornTool;
    std::string name = "vornnet-relay";
    arguments[0] = name.data();
    std::error_code ignored;
    const std::filesystem::path own = std::filesystem::read_symlink("/proc/self/exe", ignored);
    ::execv((own.parent_path() / name).c_str(), arguments);
    ::execvp(name.c_str(), arguments);
    Output::setCommand("relay");
    Output::error("vornnet-relay is not installed");
    return exitFailed;
}

int runCommand(const VornTool::Runner& runner) {
    using namespace VornTool;
    try {
        const int status = runner();
        if (!Output::isLost())
            return status;
        Output::error("standard output has gone away");
        return exitFailed;
    } catch (const ToolError& error) {
        Output::error(error.what());
        return error.status();
    } catch (const VornSupport::VornException& error) {
        Output::error(describeFailure(error.getCode(), error.getText()));
        return statusOfFailure(error.getCode(), error.getText());
    } catch (const std::exception& error) {
        Output::error(error.what());
        return exitFailed;
    }
}

} // namespace

int main(int argc, char** argv) {
    using namespace VornTool;
    if (argc > 1 && std::string_view(argv[1]) == "relay")
        return runRelayProgram(argv + 1);
    Interruption::blockSignals();
    CLI::App app{"Looks into, tries out and repairs the connections and notifications of vornnet", "vornnet"};
    app.set_version_flag("--version", "vornnet " VORNNET_VERSION);
    app.require_subcommand(1);
    app.footer(exitStatusTable());
    app.get_formatter()->column_width(32);
    Runner runner;
    addSink(app, runner);
    addNotify(app, runner);
    addPublish(app, runner);
    addSubscribe(app, runner);
    addConnect(app, runner);
    addServe(app, runner);
    addEncode(app, runner);
    addDecode(app, runner);
    addPipes(app, runner);
    addResolve(app, runner);
    addFollow(app, runner);
    addPing(app, runner);
    addBench(app, runner);
    addTop(app, runner);
    addMetrics(app, runner);
    addDoctor(app, runner);
    addHelp(app, runner);
    app.failure_message([](const CLI::App*, const CLI::Error&) { return std::string(); });
    // Before anything is checked, so that messages about the command line name the command as well.
    for (CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
        command->preparse_callback([command](std::size_t) { Output::setCommand(command->get_name()); });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (app.exit(error) == 0)
            return exitDone;
        Output::error(describeUsageError(app, error));
        return exitUsage;
    }
    return runCommand(runner);
}
