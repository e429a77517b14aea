// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "GdbRun.h"

#include "Process.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <stdexcept>

#include <gmock/gmock.h>

namespace VornTest {

namespace {

/** gdb has much to read, and the machine may be busy. */
constexpr std::chrono::seconds cPatience(100);

const char cStart[] = "@<";
const char cEnd[] = ">@";

/** The commands that show the expressions, each between marks. */
Lines showing(const Lines& expressions) {
    Lines commands;
    for (const std::string& expression : expressions) {
        if (expression.rfind("set ", 0) == 0) {
            commands.push_back(expression);
            continue;
        }
        commands.push_back(std::string("echo ") + cStart);
        commands.push_back("output " + expression);
        commands.push_back(std::string("echo ") + cEnd);
    }
    return commands;
}

Lines shownTexts(const GdbOutput& run) {
    EXPECT_THAT(run.errors, testing::Not(testing::HasSubstr("Traceback")));
    EXPECT_THAT(run.errors, testing::Not(testing::HasSubstr("Python")));
    EXPECT_THAT(run.output, testing::Not(testing::HasSubstr("Python")));
    Lines texts;
    const std::string output = withoutAddresses(run.output);
    for (std::size_t at = output.find(cStart); at != std::string::npos; at = output.find(cStart, at)) {
        at += sizeof cStart - 1;
        texts.push_back(output.substr(at, output.find(cEnd, at) - at));
    }
    if (texts.empty())
        ADD_FAILURE() << run.output << run.errors;
    return texts;
}

/** The commands that lead to where the objects are. */
Lines stopping(const std::string& scene) {
    return {"break stopHere", "run " + scene, "up"};
}

void append(Lines& lines, const Lines& more) {
    lines.insert(lines.end(), more.begin(), more.end());
}

} // namespace

TemporaryDirectory::TemporaryDirectory() {
    std::string path = (std::filesystem::temp_directory_path() / "vornnet-gdb.XXXXXX").string();
    if (::mkdtemp(path.data()) == nullptr)
        throw std::runtime_error("no temporary directory");
    m_path = path;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

Lines executing(const Lines& commands) {
    Lines arguments;
    for (const std::string& command : commands)
        append(arguments, {"-ex", command});
    return arguments;
}

GdbOutput runGdb(const Lines& arguments, const Lines& environment) {
    Lines all = {"gdb", "-nx", "-q", "-batch"};
    // The standard library's printers, a settings file or a server of debug symbols would make it depend on
    // what else is on the machine.
    append(all, {"-iex", "set auto-load python-scripts off", "-iex", "set debuginfod enabled off"});
    append(all, executing({"source " VORNTEST_PRINTERS, "set width 0", "set confirm off",
                           "set disable-randomization off"}));
    append(all, arguments);
    Lines variables = {"LC_ALL=C.UTF-8", "DEBUGINFOD_URLS"};
    append(variables, environment);
    ChildProcess gdb = ChildProcess::spawn(all, variables);
    gdb.closeInput();
    GdbOutput result;
    result.output = gdb.readAllOutput(cPatience);
    result.errors = gdb.readAllErrors(cPatience);
    gdb.wait();
    return result;
}

std::string withoutAddresses(const std::string& text) {
    static const std::regex address("0x(0000)?(5[0-9a-f]|7[ef])[0-9a-f]{10}\\b");
    return std::regex_replace(text, address, "ADDRESS");
}

Lines show(const std::string& scene, const Lines& expressions, const Lines& environment) {
    Lines commands = stopping(scene);
    append(commands, showing(expressions));
    Lines arguments = executing(commands);
    append(arguments, {"--args", VORNTEST_DEBUGGEE});
    return shownTexts(runGdb(arguments, environment));
}

Lines showInCore(const std::string& scene, const Lines& expressions) {
    const TemporaryDirectory directory;
    const std::string core = directory.path() + "/core";
    Lines commands = stopping(scene);
    commands.push_back("generate-core-file " + core);
    Lines arguments = executing(commands);
    append(arguments, {"--args", VORNTEST_DEBUGGEE});
    const GdbOutput made = runGdb(arguments);
    EXPECT_TRUE(std::filesystem::exists(core)) << made.output << made.errors;
    commands = {"up"};
    append(commands, showing(expressions));
    arguments = executing(commands);
    append(arguments, {VORNTEST_DEBUGGEE, core});
    return shownTexts(runGdb(arguments));
}

} // namespace VornTest
