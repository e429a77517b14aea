// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_TOOLRUN_H
#define VORNTEST_TOOLRUN_H

#include "LeakCheckedTest.h"
#include "Posix.h"
#include "Process.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include <gmock/gmock.h>

/**
 * @file
 * Runs the command-line tool itself.
 */
namespace VornTest {

using Json = nlohmann::json;

/** A test that begins with an empty pipe directory. */
class ToolTest : public LeakCheckedTest {
protected:
    void SetUp() override;
};

/** The same in a network of its own, in which no port has been used. */
class ToolNetworkTest : public ToolTest {
protected:
    void SetUp() override;
};

/** How a run of the tool ended and what it wrote. */
struct ToolResult {
    int status = -1;
    std::string output;
    std::string errors;

    /** The output as one JSON value; throws if it is none. */
    Json json() const { return Json::parse(output); }
};

/** For GoogleTest's messages. */
void PrintTo(const ToolResult& result, std::ostream* out);

using Text = testing::Matcher<const std::string&>;

/** Matches a run that has ended with this status and has written this. */
testing::Matcher<const ToolResult&> ended(int status, const Text& output = testing::_,
                                          const Text& errors = testing::_);

/** The tool's path. */
std::string toolPath();

/** A file of the tool's source folder, such as "completion/_vornnet". */
std::string toolFile(const std::string& name);

/** The names of all subcommands. */
const std::vector<std::string>& subcommands();

/** The arguments and more of them. */
std::vector<std::string> with(std::vector<std::string> arguments, const std::vector<std::string>& more);

/** Runs the tool to its end. */
ToolResult runTool(const std::vector<std::string>& arguments,
                   const std::vector<std::string>& environment = {});

/** The same while there is no pipe directory. */
ToolResult runToolWithoutPipeDirectory(const std::vector<std::string>& arguments);

/** Runs a shell command, in which $TOOL is the tool. */
ToolResult runShell(const std::string& command);

/** Starts the tool. */
ChildProcess startTool(const std::vector<std::string>& arguments,
                       const std::vector<std::string>& environment = {});

/** The next line of output, with the patience that a busy machine needs. */
std::string nextLine(ChildProcess& tool);

/** The next line of output as JSON. */
Json nextJson(ChildProcess& tool);

/** Starts `serve` at the address, with more arguments, and waits until it listens. */
ChildProcess startService(const std::string& address, const std::vector<std::string>& arguments = {});

/** Waits for the end of a started tool. */
ToolResult finish(ChildProcess& tool);

/** Sends SIGINT again and again for a moment, as a terminal and a script that both mean the same do. */
void interruptSeveralTimes(ChildProcess& tool);

/** Starts `sink` and returns its address, which is its first line. */
std::string addressOf(ChildProcess& sink);

/** Whether there is a file of any kind. */
bool exists(const std::string& path);

/** A plain client of the server at a pipe or a TCP port. */
UniqueFd connectTo(const std::string& address);

} // namespace VornTest

#endif
