// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Sandbox.h"
#include "ToolRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using testing::_;
using testing::HasSubstr;

namespace {

class VornnetResolve : public ToolNetworkTest {};

} // namespace

TEST_F(VornnetResolve, WithName_PrintsItsAddresses) {
    useHostsFile("10.1.2.3 host1\n");
    EXPECT_THAT(runTool({"resolve", "host1"}), ended(0, "addresses  10.1.2.3\n"));
}

TEST_F(VornnetResolve, WithZeroByteInTheAddress_ShowsWhatTheLibraryMakesOfIt) {
    EXPECT_THAT(runTool({"resolve", "localhost"}),
                ended(0, HasSubstr("addresses  127.0.0.1\nlibrary    127.0.0.0  (")));
}

TEST_F(VornnetResolve, WithAddress_PrintsItsName) {
    useHostsFile("10.1.2.3 host1\n");
    EXPECT_THAT(runTool({"resolve", "10.1.2.3"}), ended(0, "name       host1\n"));
}

TEST_F(VornnetResolve, WithJson_PrintsOneObject) {
    const Json name = runTool({"resolve", "--json", "localhost"}).json();
    EXPECT_EQ(name, Json::parse(R"({"query":"localhost","kind":"name","addresses":["127.0.0.1"],
                                    "library":["127.0.0.0"],"differs":true})"));
    const Json address = runTool({"resolve", "--json", "127.0.0.1"}).json();
    EXPECT_EQ(address, Json::parse(R"({"query":"127.0.0.1","kind":"address","name":"localhost"})"));
}

TEST_F(VornnetResolve, WithUnknownName_IsUnreachable) {
    EXPECT_THAT(runTool({"resolve", "no-such-host"}),
                ended(4, _, "vornnet resolve: there is no host called \"no-such-host\"\n"));
}

TEST_F(VornnetResolve, WithUnknownNameAndJson_PrintsNoAddresses) {
    const ToolResult result = runTool({"resolve", "--json", "no-such-host"});
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.json().at("addresses"), Json::array());
}

TEST_F(VornnetResolve, WithAddressWithoutName_IsUnreachable) {
    EXPECT_THAT(runTool({"resolve", "10.9.9.9"}),
                ended(4, _, "vornnet resolve: the address 10.9.9.9 has no name\n"));
}
