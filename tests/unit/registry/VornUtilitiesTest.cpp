// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"
#include "Sandbox.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <VornLogging.h>
#include <VornUtilities.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using VornNet::VornAddressToNameImpl;
using VornNet::VornNameToAddressImpl;
using VornSupport::VornLogging;
using VornSupport::VornString;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const char nameFailure[] = "VornUtilities::VornNameToAddress: gethostbyname failed";
const char addressFailure[] = "VornUtilities::VornAddressToName: gethostbyaddr failed";

class VornUtilitiesTest : public LeakCheckedTest {
protected:
    std::vector<VornString> addressesOf(const VornString& name) {
        std::vector<VornString> result;
        EXPECT_EQ(VornNameToAddressImpl(name, result, m_message), 1);
        EXPECT_EQ(m_message, "untouched");
        return result;
    }

    /** The name found, or what was there before when none is. */
    VornString nameOf(const VornString& address, const VornString& before = "before") {
        VornString result = before;
        EXPECT_EQ(VornAddressToNameImpl(address, result, m_message), 1);
        EXPECT_EQ(m_message, "untouched");
        return result;
    }

    VornString m_message = "untouched";
};

} // namespace

TEST_F(VornUtilitiesTest, ANameAndAnAlias_GiveTheirAddressDotted) {
    useHostsFile("10.1.2.3 alpha alpha.example\n");
    EXPECT_THAT(addressesOf("alpha"), ElementsAre("10.1.2.3"));
    EXPECT_THAT(addressesOf("alpha.example"), ElementsAre("10.1.2.3"));
}

TEST_F(VornUtilitiesTest, AnAddressWithAZeroByte_HasOnlyZerosBehindIt) {
    useHostsFile("10.0.5.1 second\n10.2.0.9 third\n10.2.3.0 fourth\n0.1.2.3 first\n");
    EXPECT_THAT(addressesOf("second"), ElementsAre("10.0.0.0"));
    EXPECT_THAT(addressesOf("third"), ElementsAre("10.2.0.0"));
    EXPECT_THAT(addressesOf("fourth"), ElementsAre("10.2.3.0"));
    EXPECT_THAT(addressesOf("first"), ElementsAre("0.0.0.0"));
}

TEST_F(VornUtilitiesTest, ANameWithTwoAddresses_AddsBothInTheResolversOrder) {
    useHostsFile("10.0.5.1 alpha\n10.1.2.3 alpha\n");
    EXPECT_THAT(addressesOf("alpha"), ElementsAre("10.0.0.0", "10.1.2.3"));
    useHostsFile("10.1.2.3 alpha\n10.0.5.1 alpha\n");
    EXPECT_THAT(addressesOf("alpha"), ElementsAre("10.1.2.3", "10.0.0.0"));
}

TEST_F(VornUtilitiesTest, TheAddresses_AreAddedBehindWhatIsThere) {
    useHostsFile("10.1.2.3 alpha\n10.1.2.4 alpha\n");
    std::vector<VornString> addresses = {"kept", "10.1.2.3"};
    EXPECT_EQ(VornNameToAddressImpl("alpha", addresses, m_message), 1);
    EXPECT_THAT(addresses, ElementsAre("kept", "10.1.2.3", "10.1.2.3", "10.1.2.4"));
    EXPECT_EQ(m_message, "untouched");
}

TEST_F(VornUtilitiesTest, ANameWithManyAddresses_GivesThemAll) {
    std::string hosts;
    std::vector<VornString> expected;
    for (int i = 1; i <= 100; ++i) {
        expected.push_back("10.1.2." + std::to_string(i));
        hosts += expected.back() + " alpha a-rather-long-alias-of-the-host-" + std::to_string(i) + "\n";
    }
    useHostsFile(hosts);
    EXPECT_EQ(addressesOf("alpha"), expected);
}

TEST_F(VornUtilitiesTest, ADottedAddressAsName_GivesItself) {
    EXPECT_THAT(addressesOf("10.1.2.3"), ElementsAre("10.1.2.3"));
    EXPECT_THAT(addressesOf("10.0.5.1"), ElementsAre("10.0.0.0"));
}

TEST_F(VornUtilitiesTest, AnUnresolvableName_LeavesTheAddressesAndLogsAtLevelOne) {
    for (const char* name : {"no-such-host", ""}) {
        LogCapture log(1);
        std::vector<VornString> addresses = {"kept"};
        EXPECT_EQ(VornNameToAddressImpl(name, addresses, m_message), 1);
        EXPECT_THAT(addresses, ElementsAre("kept"));
        EXPECT_EQ(m_message, "untouched");
        EXPECT_THAT(log.records(), ElementsAre(LogCapture::Record{1, nameFailure}));
    }
}

TEST_F(VornUtilitiesTest, AnAddress_GivesTheOfficialNameInThePlaceOfWhatWasThere) {
    useHostsFile("10.1.2.3 alpha beta gamma\n");
    EXPECT_EQ(nameOf("10.1.2.3", "a longer text than the name"), "alpha");
}

TEST_F(VornUtilitiesTest, AnAddressWithAZeroByte_IsLookedUpInFull) {
    useHostsFile("10.0.0.0 wrong\n10.0.5.1 right\n");
    EXPECT_EQ(nameOf("10.0.5.1"), "right");
}

TEST_F(VornUtilitiesTest, AShortAddressText_IsCompletedAsTheSystemDoesIt) {
    useHostsFile("1.0.0.2 short\n");
    EXPECT_EQ(nameOf("1.2"), "short");
}

TEST_F(VornUtilitiesTest, AnInvalidAddressText_IsLookedUpAsTheBroadcastAddress) {
    useHostsFile("255.255.255.255 everybody\n");
    EXPECT_EQ(nameOf("no address"), "everybody");
    EXPECT_EQ(nameOf(""), "everybody");
    EXPECT_EQ(nameOf("10.1.2.256"), "everybody");
}

TEST_F(VornUtilitiesTest, AnAddressWithoutAName_LeavesTheNameAndLogsAtLevelOne) {
    LogCapture log(1);
    EXPECT_EQ(nameOf("10.9.9.9", "kept"), "kept");
    EXPECT_EQ(nameOf("no address", "kept"), "kept");
    EXPECT_THAT(log.records(),
                ElementsAre(LogCapture::Record{1, addressFailure}, LogCapture::Record{1, addressFailure}));
}

TEST_F(VornUtilitiesTest, WhatIsResolved_IsNotLogged) {
    LogCapture log(9);
    addressesOf("localhost");
    nameOf("127.0.0.1");
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(VornUtilitiesTest, BelowLevelOneOrWithoutAccess_FailuresAreNotLogged) {
    LogCapture log(0);
    addressesOf("no-such-host");
    nameOf("10.9.9.9");
    VornLogging::getInstance().setLogLevel(9);
    VornLogging::setAccessAllowed(false);
    addressesOf("no-such-host");
    nameOf("10.9.9.9");
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(VornUtilitiesTest, ManyThreads_GetTheirOwnAnswers) {
    useHostsFile("10.1.1.1 host1\n10.1.1.2 host2\n10.1.1.3 host3\n10.1.1.4 host4\n");
    std::vector<std::unique_ptr<WatchedThread>> threads;
    for (int i = 1; i <= 4; ++i) {
        threads.push_back(std::make_unique<WatchedThread>([i] {
            const std::string host = "host" + std::to_string(i);
            const std::string address = "10.1.1." + std::to_string(i);
            for (int round = 0; round < 50; ++round) {
                VornString message;
                VornString name;
                std::vector<VornString> addresses;
                VornNameToAddressImpl(host, addresses, message);
                VornAddressToNameImpl(address, name, message);
                EXPECT_THAT(addresses, ElementsAre(address));
                EXPECT_EQ(name, host);
            }
        }));
    }
    for (const auto& thread : threads)
        EXPECT_TRUE(thread->join(std::chrono::seconds(60)));
}
