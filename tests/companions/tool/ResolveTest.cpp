// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Sandbox.h"
#include "ToolRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using testing::HasSubstr;

namespace {

class VornnetResolve : public ToolNetworkTest {};

} // namespace

TEST_F(VornnetResolve, WithName_PrintsItsAddresses) {
    useHostsFile("10.1.2.3 host1\n");
    const ToolResult result = runTool({"resolve", "host1"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "addresses  10.1.2.3\n");
}

TEST_F(VornnetResolve, WithZeroByteInTheAddress_ShowsWhatTheLibraryMakesOfIt) {
    const ToolResult result = runTool({"resolve", "localhost"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, HasSubstr("addresses  127.0.0.1\nlibrary    127.0.0.0  ("));
}

TEST_F(VornnetResolve, WithAddress_PrintsItsName) {
    useHostsFile("10.1.2.3 host1\n");
    const ToolResult result = runTool({"resolve", "10.1.2.3"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "name       host1\n");
}

TEST_F(VornnetResolve, WithJson_PrintsOneObject) {
    const Json name = runTool({"resolve", "--json", "localhost"}).json();
    EXPECT_EQ(name, Json::parse(R"({"query":"localhost","kind":"name","addresses":["127.0.0.1"],
                                    "library":["127.0.0.0"],"differs":true})"));
    const Json address = runTool({"resolve", "--json", "127.0.0.1"}).json();
    EXPECT_EQ(address, Json::parse(R"({"query":"127.0.0.1","kind":"address","name":"localhost"})"));
}

TEST_F(VornnetResolve, WithUnknownName_IsUnreachable) {
    const ToolResult result = runTool({"resolve", "no-such-host"});
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.errors, "vornnet resolve: there is no host called \"no-such-host\"\n");
}

TEST_F(VornnetResolve, WithUnknownNameAndJson_PrintsNoAddresses) {
    const ToolResult result = runTool({"resolve", "--json", "no-such-host"});
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.json().at("addresses"), Json::array());
}

TEST_F(VornnetResolve, WithAddressWithoutName_IsUnreachable) {
    const ToolResult result = runTool({"resolve", "10.9.9.9"});
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.errors, "vornnet resolve: the address 10.9.9.9 has no name\n");
}

TEST_F(VornnetResolve, WithIPv6Address_SaysThatThereIsIPv4Only) {
    const ToolResult result = runTool({"resolve", "::1"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.errors, "vornnet resolve: \"::1\" is an IPv6 address: the library has IPv4 only\n");
}

TEST_F(VornnetResolve, WithNumbersThatAreNoAddress_EndsWithUsage) {
    for (const char* text : {"10.1.2.300", "1.2", "12", ""})
        EXPECT_EQ(runTool({"resolve", text}).status, 2) << text;
}
