// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Posix.h"
#include "Sandbox.h"
#include "ToolRun.h"

#include <regex>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace VornTest;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::UnorderedElementsAreArray;

namespace {

class VornnetDocuments : public ToolTest, public testing::WithParamInterface<std::string> {
protected:
    static std::string manualOf(const std::string& name) {
        const std::string page = name.empty() ? "vornnet" : "vornnet-" + name;
        return readTextFile(std::string(VORNTEST_TOOL_MANUALS) + "/" + page + ".1");
    }
};

class VornnetCompletion : public ToolTest, public testing::WithParamInterface<std::string> {};

using Words = std::set<std::string>;

Words matches(const std::string& text, const std::string& pattern) {
    const std::regex expression(pattern);
    Words result;
    for (std::sregex_iterator match(text.begin(), text.end(), expression), end; match != end; ++match)
        result.insert((*match)[1]);
    return result;
}

/** The long options of a help text. */
Words optionsOf(const std::string& help) {
    return matches(help, R"((?:^|\n)  (?:-h,)?(--[a-z-]+))");
}

/** The program's own help: its options for an empty name, else those of the subcommand. */
std::string helpOf(const std::string& name) {
    return runTool(name.empty() ? std::vector<std::string>{"--help"}
                                : std::vector<std::string>{name, "--help"})
        .output;
}

/** What a shell prints that has the words of the command line, then the completion script, as its arguments.
 */
std::string outputOf(const std::vector<std::string>& shell, const std::string& script,
                     const std::string& words, const std::string& completion) {
    std::vector<std::string> arguments = shell;
    arguments.insert(arguments.end(), {"-c", "words=(\"$1\" " + words + "); " + script, "shell", toolPath(),
                                       toolFile(completion)});
    ChildProcess child = ChildProcess::spawn(arguments);
    return finish(child).output;
}

/** What bash offers after `vornnet ...` when the last of the words is to be completed. */
Words complete(const std::string& words) {
    return matches(outputOf({"bash", "--norc"},
                            "source \"$2\"; COMP_WORDS=(\"${words[@]}\"); COMP_CWORD=$((${#words[@]} - 1)); "
                            "COMPREPLY=(); _vornnet; printf '%s\\n' \"${COMPREPLY[@]}\"",
                            words, "completion/vornnet.bash"),
                   "([^\n]+)\n");
}

std::vector<std::string> withProgramItself() {
    std::vector<std::string> names = subcommands();
    names.push_back("");
    return names;
}

std::vector<std::string> subcommandsAndHelp() {
    std::vector<std::string> names = subcommands();
    names.push_back("help");
    return names;
}

std::string testName(const testing::TestParamInfo<std::string>& info) {
    return info.param.empty() ? "vornnet" : info.param;
}

} // namespace

TEST_P(VornnetDocuments, Manual_HasEveryOptionAndNoOther) {
    const std::string manual = manualOf(GetParam());
    EXPECT_THAT(matches(manual, R"(\.It (?:Fl h , )?Fl (-[a-z-]+))"),
                UnorderedElementsAreArray(matches(helpOf(GetParam()), R"((?:\n)  (?:-h,)?-(-[a-z-]+))")));
}

TEST_P(VornnetDocuments, Manual_HasTheExitStatusesOfTheHelpText) {
    const std::string help = helpOf(GetParam());
    const std::string manual = manualOf(GetParam());
    const std::string table = help.substr(help.find("Exit status:"));
    const std::regex line(R"(\n  (\d+) +([^\n]+))");
    int count = 0;
    for (std::sregex_iterator match(table.begin(), table.end(), line), end; match != end; ++match, ++count)
        EXPECT_THAT(manual, HasSubstr("\n.It " + (*match)[1].str() + "\n" + (*match)[2].str() + "\n"));
    EXPECT_EQ(count, 9);
}

TEST_P(VornnetDocuments, Manual_HasItsSections) {
    const std::string manual = manualOf(GetParam());
    for (const char* section : {"NAME", "SYNOPSIS", "DESCRIPTION", "EXIT STATUS", "EXAMPLES", "SEE ALSO"})
        EXPECT_THAT(manual, HasSubstr(std::string("\n.Sh ") + section + "\n"));
}

INSTANTIATE_TEST_SUITE_P(All, VornnetDocuments, testing::ValuesIn(withProgramItself()), testName);

TEST_F(VornnetDocuments, ManualOfTheProgram_RefersToEverySubcommand) {
    for (const std::string& name : subcommands())
        EXPECT_THAT(manualOf(""), HasSubstr("\n.It Xr vornnet-" + name + " 1\n"));
}

TEST_F(VornnetDocuments, ListOfSubcommands_IsThatOfTheHelpText) {
    const std::string help = helpOf("");
    EXPECT_THAT(matches(help.substr(help.find("Subcommands:")), R"(\n  ([a-z]+) )"),
                UnorderedElementsAreArray(subcommandsAndHelp()));
}

TEST_P(VornnetCompletion, InBash_OffersEveryOptionAndNoOther) {
    EXPECT_EQ(complete(GetParam() + " -"), optionsOf(helpOf(GetParam())));
}

#ifdef VORNTEST_ZSH
/** What zsh's own functions are called with, when the last of the words is to be completed. */
std::string zshArguments(const std::string& words, const std::string& more = "") {
    return outputOf({VORNTEST_ZSH, "-f"},
                    "_arguments() { print -rl -- \"$@\" }; _describe() { print -rl -- ${(P)4} }; "
                    "_call_program() { shift; \"$@\" }; service=$1; CURRENT=$#words; source \"$2\"; " +
                        more,
                    words, "completion/_vornnet");
}

TEST_P(VornnetCompletion, InZsh_OffersEveryOptionAndNoOther) {
    EXPECT_EQ(matches(zshArguments(GetParam() + " -"), R"((?:^|\n)[^\n\[]*(--[a-z-]+)\[)"),
              optionsOf(helpOf(GetParam())));
}

TEST_F(VornnetCompletion, InZsh_OffersEverySubcommandAndWhatAnOptionTakes) {
    EXPECT_THAT(matches(zshArguments("''", "_vornnet_subcommands"), R"(\n([a-z]+):)"),
                IsSupersetOf(subcommandsAndHelp()));
    EXPECT_THAT(zshArguments("sink ''"), HasSubstr("]:TRANSPORT:(pipe socket udp)\n"));
    EXPECT_THAT(zshArguments("notify ''"), HasSubstr("1:ADDRESS:_vornnet_addresses\n2:HANDLE:\n3:ID:\n"
                                                     "*:VALUE:_vornnet_values\n"));
}
#endif

INSTANTIATE_TEST_SUITE_P(All, VornnetCompletion, testing::ValuesIn(withProgramItself()), testName);

TEST_F(VornnetCompletion, InBash_OffersEverySubcommand) {
    EXPECT_THAT(complete("''"), UnorderedElementsAreArray(subcommandsAndHelp()));
    EXPECT_THAT(complete("help ''"), UnorderedElementsAreArray(subcommandsAndHelp()));
}

TEST_F(VornnetCompletion, InBash_CompletesTheBeginningOfASubcommand) {
    EXPECT_EQ(complete("reso"), Words{"resolve"});
}

TEST_F(VornnetCompletion, InBash_OffersTheValuesOfAnOption) {
    EXPECT_EQ(complete("sink --type ''"), (Words{"pipe", "socket", "udp"}));
    EXPECT_EQ(complete("decode --types s"), (Words{"short", "string"}));
    EXPECT_EQ(complete("sink --log-level -"), Words{"-1"});
}

TEST_F(VornnetCompletion, InBash_OffersThePipesOfThisHostAsAddresses) {
    const UniqueFd server = unixListen(pipePath("offered"));
    EXPECT_THAT(complete("connect ''"), IsSupersetOf({"pipe:offered", "socket:", "udp:"}));
    EXPECT_EQ(::unlink(pipePath("offered").c_str()), 0);
}

TEST_F(VornnetCompletion, InBash_OffersValuesBehindTheAddress) {
    EXPECT_EQ(complete("notify a 0 1 s"), (Words{"short:", "string:"}));
    EXPECT_EQ(complete("notify --repeat 3 a 0 1 int:5 s"), (Words{"short:", "string:"}));
    EXPECT_EQ(complete("notify a ''"), Words{});
    EXPECT_EQ(complete("ping a ''"), Words{});
}
