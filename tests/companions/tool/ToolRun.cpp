// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ToolRun.h"

#include "Await.h"
#include "Posix.h"
#include "Sandbox.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <ostream>

#include <gtest/gtest.h>
#include <unistd.h>

namespace VornTest {

namespace {

constexpr std::chrono::seconds cPatience(60);

/** Whether the process has taken every signal, or has ended. */
bool hasTakenSignals(pid_t pid) {
    const std::string status = readTextFile("/proc/" + std::to_string(pid) + "/status");
    return status.find("ShdPnd:\t0000000000000000\n") != std::string::npos ||
           status.find("State:\tZ") != std::string::npos;
}

} // namespace

void ToolTest::SetUp() {
    for (const auto& file : std::filesystem::directory_iterator(pipeDirectory()))
        std::filesystem::remove_all(file.path());
}

void ToolNetworkTest::SetUp() {
    enterFreshNetwork(); // where ports have been used, they stay in TIME_WAIT for a minute
    ToolTest::SetUp();
}

void PrintTo(const ToolResult& result, std::ostream* out) {
    *out << "status " << result.status << "\noutput:\n" << result.output << "errors:\n" << result.errors;
}

testing::Matcher<const ToolResult&> ended(int status, const Text& output, const Text& errors) {
    return testing::AllOf(testing::Field("status", &ToolResult::status, status),
                          testing::Field("output", &ToolResult::output, output),
                          testing::Field("errors", &ToolResult::errors, errors));
}

std::string toolPath() {
    return VORNTEST_TOOL;
}

std::string toolFile(const std::string& name) {
    return std::string(VORNTEST_TOOL_SOURCE) + "/" + name;
}

const std::vector<std::string>& subcommands() {
    static const std::vector<std::string> names = {
        "sink",  "notify",  "publish", "subscribe", "connect", "serve", "encode",  "decode",
        "pipes", "resolve", "follow",  "ping",      "bench",   "top",   "metrics", "doctor"};
    return names;
}

ToolResult finish(ChildProcess& tool) {
    ToolResult result;
    result.output = tool.readAllOutput(cPatience);
    result.errors = tool.readAllErrors(cPatience);
    result.status = tool.wait(cPatience);
    return result;
}

std::vector<std::string> with(std::vector<std::string> arguments, const std::vector<std::string>& more) {
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
}

ToolResult runTool(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
    ChildProcess tool = startTool(arguments, environment);
    tool.closeInput();
    return finish(tool);
}

ToolResult runToolWithoutPipeDirectory(const std::vector<std::string>& arguments) {
    const std::filesystem::path directory = std::filesystem::path(pipeDirectory()).parent_path();
    std::filesystem::rename(directory, directory.string() + ".aside");
    ToolResult result = runTool(arguments);
    std::filesystem::rename(directory.string() + ".aside", directory);
    return result;
}

ToolResult runShell(const std::string& command) {
    ChildProcess shell = ChildProcess::spawn({"/bin/sh", "-c", command}, {"TOOL=" + toolPath()});
    shell.closeInput();
    return finish(shell);
}

ChildProcess startTool(const std::vector<std::string>& arguments,
                       const std::vector<std::string>& environment) {
    return ChildProcess::spawn(with({toolPath()}, arguments), environment);
}

ChildProcess startService(const std::string& address, const std::vector<std::string>& arguments) {
    ChildProcess server = startTool(with({"serve", address}, arguments));
    EXPECT_EQ(nextLine(server), "listening at " + address);
    return server;
}

std::string nextLine(ChildProcess& tool) {
    return tool.readLine(cPatience);
}

Json nextJson(ChildProcess& tool) {
    return Json::parse(nextLine(tool));
}

void interruptSeveralTimes(ChildProcess& tool) {
    // Two that come before the program has taken the first are one to it.
    for (int i = 0; i < 3; ++i) {
        tool.kill(SIGINT);
        awaitCondition([&tool] { return hasTakenSignals(tool.pid()); });
    }
}

std::string addressOf(ChildProcess& sink) {
    const std::string prefix = "address ";
    const std::string line = nextLine(sink);
    EXPECT_EQ(line.substr(0, prefix.size()), prefix);
    return line.substr(prefix.size());
}

bool exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

UniqueFd connectTo(const std::string& address) {
    const std::size_t colon = address.find(':');
    if (address.substr(0, colon) == "pipe")
        return unixConnect(pipePath(address.substr(colon + 1)));
    return tcpConnect("127.0.0.1", std::stoi(address.substr(address.rfind(':') + 1)));
}

} // namespace VornTest
