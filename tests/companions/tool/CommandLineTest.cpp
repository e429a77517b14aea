// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ToolRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using testing::_;
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
    EXPECT_THAT(runTool({}), ended(2, _, "vornnet: a command is missing; see vornnet help\n"));
}

struct Mistake {
    std::vector<std::string> arguments;
    std::string message; ///< without "vornnet"
};

void PrintTo(const Mistake& mistake, std::ostream* out) {
    for (const std::string& argument : mistake.arguments)
        *out << argument << " ";
}

class VornnetMistake : public ToolTest, public testing::WithParamInterface<Mistake> {};

TEST_P(VornnetMistake, IsNamedWithTheCommandAndTheNearestThatThereIs) {
    EXPECT_THAT(runTool(GetParam().arguments), ended(2, "", "vornnet" + GetParam().message + "\n"));
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

/** A command line that cannot be meant, and a piece of what its error says after the name of the command. */
using Refusal = Mistake;

class VornnetRefusal : public VornnetMistake {};

TEST_P(VornnetRefusal, EndsWithUsageAndSaysWhy) {
    EXPECT_THAT(
        runTool(GetParam().arguments),
        ended(2, "",
              AllOf(StartsWith("vornnet " + GetParam().arguments[0] + ": "), HasSubstr(GetParam().message))));
}

INSTANTIATE_TEST_SUITE_P(
    Options, VornnetRefusal,
    testing::Values(
        Refusal{{"sink", "--type", "tcp"}, "--type"}, Refusal{{"sink", "--content", "float"}, "float"},
        Refusal{{"notify", "pipe:x", "4294967296", "1"}, "HANDLE"},
        Refusal{{"notify", "pipe:x", "a", "1"}, "HANDLE"},
        Refusal{{"notify", "pipe:x", "0", "2147483648"}, "ID"}, Refusal{{"notify", "pipe:x", "0"}, "ID"},
        Refusal{{"notify", "udp:127.0.0.1:9", "1", "2", "string:" + std::string(65500, 'x')},
                "a datagram takes 65507"},
        Refusal{{"notify", "--confirm", "socket:localhost:5023", "0", "12"}, "dotted address"},
        Refusal{{"connect", "udp:127.0.0.1:9", "--expect", "int"}, "nothing comes back over udp"},
        Refusal{{"connect", "udp:127.0.0.1:9", "--service", "svc"}, "nothing comes back over udp"},
        Refusal{{"connect", "pipe:x", "--service", "a\nb"}, "one line"},
        Refusal{{"serve", "pipe:x", "--ack", "--error"}, "exclude each other"},
        Refusal{{"serve", "pipe:x", "--lines", "--expect", "int"}, "exclude each other"},
        Refusal{{"serve", "udp:127.0.0.1:1", "--ack"}, "nothing goes back over udp"},
        Refusal{{"serve", "udp:127.0.0.1:1", "--service", "svc"}, "nothing goes back over udp"},
        Refusal{{"serve", "udp:127.0.0.1:1", "--reply", "int:1"}, "nothing goes back over udp"},
        Refusal{{"serve", "socket:127.0.0.1:1", "--group", "vorn"}, "--group is for pipes"},
        Refusal{{"serve", "socket:127.0.0.1:-5"}, "address "}, Refusal{{"serve", "ssl:127.0.0.1:1"}, "ssl"},
        Refusal{{"serve", "pipe:x", "--reply", "nothing"}, "nothing"}, Refusal{{"serve"}, "ADDRESS"},
        Refusal{{"encode", "--raw", "--json", "int:1"}, "--json"}, Refusal{{"decode"}, "--types"},
        Refusal{{"decode", "--types", "float"}, "float"}, Refusal{{"decode", "--types", "int,"}, "type"},
        Refusal{{"decode", "--types", ",int"}, "type"}, Refusal{{"decode", "--types", "int,,int"}, "type"},
        Refusal{{"resolve", "10.1.2.300"}, "10.1.2.300"}, Refusal{{"resolve", "1.2"}, "1.2"},
        Refusal{{"resolve", "12"}, "12"}, Refusal{{"resolve", ""}, ""},
        Refusal{{"resolve", "::1"}, "\"::1\" is an IPv6 address: the library has IPv4 only\n"},
        Refusal{{"bench"}, "ADDRESS"}, Refusal{{"bench", "pipe:x", "--local"}, "ADDRESS"}));

/** The same with one word of the command line of several kinds. */
std::vector<Refusal> refusalsOf(const std::vector<std::string>& before, const std::vector<std::string>& words,
                                const std::vector<std::string>& after, const std::string& piece) {
    std::vector<Refusal> refusals;
    for (const std::string& word : words)
        refusals.push_back({with(with(before, {word}), after), piece});
    return refusals;
}

INSTANTIATE_TEST_SUITE_P(
    Addresses, VornnetRefusal,
    testing::ValuesIn(refusalsOf({"notify"},
                                 {"", "pipe", "pipe:", "pipe:../x", "pipeline:x",
                                  "pipe:" + std::string(100, 'x'), "tcp:127.0.0.1:1", "socket:127.0.0.1",
                                  "socket::5023", "socket:127.0.0.1:0", "socket:127.0.0.1:70000",
                                  "socket:127.0.0.1:5x", "socket:1.2:5023", "udp:*:5023"},
                                 {"0", "1"}, "address ")));
INSTANTIATE_TEST_SUITE_P(Ssl, VornnetRefusal,
                         testing::ValuesIn(refusalsOf({"notify"}, {"ssl:127.0.0.1:5023"}, {"0", "1"},
                                                      "ssl carries nothing")));
INSTANTIATE_TEST_SUITE_P(IPv6, VornnetRefusal,
                         testing::ValuesIn(refusalsOf({"notify"},
                                                      {"socket:[::1]:5023", "udp:::1:5023", "socket:fe80::1"},
                                                      {"0", "1"}, "the library has IPv4 only")));
INSTANTIATE_TEST_SUITE_P(Values, VornnetRefusal,
                         testing::ValuesIn(refusalsOf({"encode"},
                                                      {"5", "int", "int:", "int:x", "int:5x",
                                                       "int:2147483648", "short:32768", "long:4294967296",
                                                       "long:-2147483649", "bool:yes", "float:1",
                                                       "ack:", "line:a\nb", ""},
                                                      {}, "")));

TEST_F(VornnetTool, Help_IsTheHelpTextOfTheProgramOrOfTheCommand) {
    EXPECT_EQ(runTool({"help"}).output, runTool({"--help"}).output);
    EXPECT_THAT(runTool({"help", "sink"}), ended(0, runTool({"sink", "--help"}).output));
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
    EXPECT_THAT(runTool({"--version"}), ended(0, StartsWith("vornnet 1.")));
}

TEST_P(VornnetSubcommand, WithHelp_PrintsTheTableOfExitStatusesAndIsDone) {
    EXPECT_THAT(runTool({GetParam(), "--help"}), ended(0, HasSubstr(statusTable()), ""));
}

TEST_P(VornnetSubcommand, WithLogLevelThatThereIsNot_EndsWithUsage) {
    EXPECT_THAT(runTool({GetParam(), "--log-level", "10"}), ended(2, _, HasSubstr("--log-level")));
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
    EXPECT_THAT(runShell("\"$TOOL\" encode int:5 >/dev/full"),
                ended(1, _, HasSubstr("standard output has gone away")));
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
    EXPECT_THAT(runShell("mkdir -p /opt/relay && printf '#!/bin/sh\\necho \"$@\"\\nexit 5\\n' > "
                         "/opt/relay/vornnet-relay && "
                         "chmod +x /opt/relay/vornnet-relay && cp $TOOL /opt/relay/vornnet && "
                         "/opt/relay/vornnet relay status --json"),
                ended(5, "status --json\n"));
}

TEST_F(VornnetTool, WhenTheRelayIsNotInstalled_SaysSo) {
    EXPECT_THAT(runTool({"relay", "status"}, {"PATH=/nowhere"}),
                ended(1, _, "vornnet relay: vornnet-relay is not installed\n"));
}
