// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ToolRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

class VornnetTool : public ToolTest {};

class VornnetSubcommand : public ToolTest, public testing::WithParamInterface<std::string> {};

/** Runs a command with a terminal for its standard output and error. */
ToolResult runOnTerminal(const std::string& command, const std::string& variables = "TERM=xterm") {
    return runShell(variables + " script -qec \"" + command + "\" /dev/null");
}

std::string statusTable() {
    const std::string help = runTool({"--help"}).output;
    return help.substr(help.find("Exit status:"));
}

} // namespace

TEST_F(VornnetTool, WithoutSubcommand_EndsWithUsage) {
    const ToolResult result = runTool({});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.errors, "vornnet: a command is missing; see vornnet help\n");
}

struct Mistake {
    std::vector<std::string> arguments;
    std::string message; ///< without "vornnet"
};

class VornnetMistake : public ToolTest, public testing::WithParamInterface<Mistake> {};

TEST_P(VornnetMistake, IsNamedWithTheCommandAndTheNearestThatThereIs) {
    const ToolResult result = runTool(GetParam().arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.errors, "vornnet" + GetParam().message + "\n");
    EXPECT_EQ(result.output, "");
}

INSTANTIATE_TEST_SUITE_P(
    All, VornnetMistake,
    testing::Values(
        Mistake{{"doctr"}, ": there is no command \"doctr\"; did you mean \"doctor\"?"},
        Mistake{{"conenct"}, ": there is no command \"conenct\"; did you mean \"connect\"?"},
        Mistake{{"res"}, ": there is no command \"res\"; did you mean \"resolve\"?"},
        Mistake{{"xylophone"}, ": there is no command \"xylophone\"; see vornnet help"},
        Mistake{{"--versoin"}, ": there is no option \"--versoin\"; did you mean \"--version\"?"},
        Mistake{{"help", "sonk"}, " help: there is no command \"sonk\"; did you mean \"sink\"?"},
        Mistake{{"sink", "--tpye", "pipe"}, " sink: there is no option \"--tpye\"; did you mean \"--type\"?"},
        Mistake{{"sink", "--tpye=pipe"}, " sink: there is no option \"--tpye\"; did you mean \"--type\"?"},
        Mistake{{"sink", "--xylophone"},
                " sink: there is no option \"--xylophone\"; see vornnet sink --help"},
        Mistake{{"sink", "extra"}, " sink: there is no use for \"extra\"; see vornnet sink --help"},
        Mistake{{"notify", "pipe:x", "0"}, " notify: ID is required; see vornnet notify --help"},
        Mistake{{"sink", "--count", "0"},
                " sink: --count: it must be at least 1, not 0; see vornnet sink --help"},
        Mistake{{"serve", "pipe:x", "--count", "many"},
                " serve: --count: \"many\" is no whole number; see vornnet serve --help"}));

TEST_F(VornnetTool, Help_IsTheHelpTextOfTheProgramOrOfTheCommand) {
    EXPECT_EQ(runTool({"help"}).output, runTool({"--help"}).output);
    const ToolResult result = runTool({"help", "sink"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, runTool({"sink", "--help"}).output);
}

TEST_F(VornnetTool, EveryHelpTextWithAddresses_SaysThatSslCarriesNothing) {
    for (const std::string& name : subcommands()) {
        if (name == "publish" || name == "subscribe")
            continue; // they know pipes and TCP alone
        const std::string help = runTool({name, "--help"}).output;
        EXPECT_EQ(help.find("socket:") == std::string::npos,
                  help.find("(ssl:HOST:PORT carries nothing)") == std::string::npos)
            << help;
    }
}

TEST_F(VornnetTool, WithVersion_PrintsItAndIsDone) {
    const ToolResult result = runTool({"--version"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, StartsWith("vornnet 1."));
}

TEST_F(VornnetTool, WithHelp_NamesEverySubcommand) {
    const ToolResult result = runTool({"--help"});
    EXPECT_EQ(result.status, 0);
    for (const std::string& name : subcommands())
        EXPECT_THAT(result.output, HasSubstr("  " + name + " "));
}

TEST_P(VornnetSubcommand, WithHelp_PrintsTheTableOfExitStatusesAndIsDone) {
    const ToolResult result = runTool({GetParam(), "--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, HasSubstr(statusTable()));
    EXPECT_EQ(result.errors, "");
}

TEST_P(VornnetSubcommand, WithUnknownOption_EndsWithUsage) {
    const ToolResult result = runTool({GetParam(), "--no-such-option"});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.errors, "");
}

TEST_P(VornnetSubcommand, WithLogLevelThatThereIsNot_EndsWithUsage) {
    const ToolResult result = runTool({GetParam(), "--log-level", "10"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.errors, HasSubstr("--log-level"));
}

INSTANTIATE_TEST_SUITE_P(All, VornnetSubcommand, testing::ValuesIn(subcommands()),
                         [](const auto& instance) { return instance.param; });

TEST_F(VornnetTool, WithLogLevel_WritesTheLibrarysRecordsToStandardError) {
    const ToolResult result = runTool({"connect", "pipe:nobody", "--log-level", "9"});
    EXPECT_THAT(result.errors, HasSubstr("[9] VornPipeServer::getFullPipeName () : sFullPipeName is : "));
    EXPECT_EQ(result.output, "");
}

TEST_F(VornnetTool, WithoutLogLevel_WritesNoRecords) {
    EXPECT_THAT(runTool({"connect", "pipe:nobody"}).errors, Not(HasSubstr("[9]")));
}

TEST_F(VornnetTool, WhenStandardOutputFails_Fails) {
    const ToolResult result = runShell("\"$TOOL\" encode int:5 >/dev/full");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, HasSubstr("standard output has gone away"));
}

TEST_F(VornnetTool, WhenStandardOutputIsNoTerminal_PrintsNoColours) {
    EXPECT_THAT(runTool({"doctor"}, {"TERM=xterm"}).output, Not(HasSubstr("\033")));
}

TEST_F(VornnetTool, WhenStandardOutputIsATerminal_PrintsColours) {
    EXPECT_THAT(runOnTerminal("\\$TOOL doctor").output, HasSubstr("\033[32mok"));
}

TEST_F(VornnetTool, WhenColoursAreRefused_PrintsNoneOnATerminal) {
    EXPECT_THAT(runOnTerminal("\\$TOOL doctor", "TERM=xterm NO_COLOR=1").output, Not(HasSubstr("\033")));
}

TEST_F(VornnetTool, WhenStandardErrorIsATerminal_ShowsProgressOfALongRun) {
    const ToolResult result = runOnTerminal("\\$TOOL notify pipe:nobody 0 1 --repeat 3");
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("\r\033[Ksent 0, refused 3 of 3"), HasSubstr("sent 0, refused 3 (2 ")));
}

TEST_F(VornnetTool, WhenStandardErrorIsNoTerminal_ShowsNoProgress) {
    EXPECT_EQ(runTool({"notify", "pipe:nobody", "0", "1", "--repeat", "3"}).errors, "");
}

TEST_F(VornnetTool, Relay_IsAProgramOfItsOwnThatGetsAllWords) {
    const ToolResult result = runShell(
        "mkdir -p /opt/relay && printf '#!/bin/sh\\necho \"$@\"\\nexit 5\\n' > /opt/relay/vornnet-relay && "
        "chmod +x /opt/relay/vornnet-relay && cp $TOOL /opt/relay/vornnet && "
        "/opt/relay/vornnet relay status --json");
    EXPECT_EQ(result.output, "status --json\n");
    EXPECT_EQ(result.status, 5);
}

TEST_F(VornnetTool, WhenTheRelayIsNotInstalled_SaysSo) {
    const ToolResult result = runTool({"relay", "status"}, {"PATH=/nowhere"});
    EXPECT_EQ(result.errors, "vornnet relay: vornnet-relay is not installed\n");
    EXPECT_EQ(result.status, 1);
}
