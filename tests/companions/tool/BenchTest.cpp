// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "Sandbox.h"
#include "ToolRun.h"

#include <filesystem>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using testing::_;

namespace {

class VornnetBench : public ToolNetworkTest {};

} // namespace

TEST_F(VornnetBench, OfThisHost_HasARateForEachTransportAndLeavesNothing) {
    const ToolResult result = runTool({"bench", "--local", "--seconds", "0.5", "--json"});
    EXPECT_EQ(result.status, 0) << result.errors;
    std::istringstream lines(result.output);
    std::vector<std::string> jobs;
    for (std::string line; std::getline(lines, line);) {
        const Json rate = Json::parse(line);
        jobs.push_back(rate.at("job").get<std::string>() + " " + rate.at("transport").get<std::string>());
        EXPECT_GT(rate.at("count"), 0) << line;
        EXPECT_GE(rate.at("seconds"), 0.5) << line;
        EXPECT_NEAR(rate.at("per_second").get<double>(),
                    rate.at("count").get<double>() / rate.at("seconds").get<double>(), 0.01);
    }
    EXPECT_THAT(jobs, testing::ElementsAre("notifications pipe", "notifications socket", "notifications udp",
                                           "events pipe", "events socket"));
    EXPECT_TRUE(std::filesystem::is_empty(pipeDirectory()));
}

TEST_F(VornnetBench, OfASink_CountsWhatItsCallbackWasCalledFor) {
    ChildProcess sink = startTool({"sink", "--steady", "--callbacks", "2"});
    const std::string address = addressOf(sink);
    const ToolResult result = runTool({"bench", address, "1", "--seconds", "0.5", "--json"});
    EXPECT_EQ(result.status, 0) << result.errors;
    const long count = result.json().at("count");
    EXPECT_GT(count, 0);
    for (long i = 1; i <= count; ++i)
        EXPECT_EQ(nextLine(sink), "notification " + std::to_string(i) + ": handle 1, id 0");
}

TEST_F(VornnetBench, WhereNothingIsDelivered_IsUnreachable) {
    EXPECT_THAT(runTool({"bench", "pipe:nobody", "--seconds", "0.05"}),
                ended(4, _,
                      "vornnet bench: pipe:nobody: nothing was delivered; vornnet ping tells whether "
                      "it accepts\n"));
}

TEST_F(VornnetBench, WhenInterrupted_EndsAtOnce) {
    ChildProcess bench = startTool({"bench", "--local", "--seconds", "3600"});
    EXPECT_TRUE(awaitCondition([] { return !std::filesystem::is_empty(pipeDirectory()); }));
    bench.kill(SIGINT);
    EXPECT_EQ(finish(bench).status, 130);
    EXPECT_TRUE(std::filesystem::is_empty(pipeDirectory()));
}
