// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeaseTable.h"

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <system_error>

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace VornRelay;
using testing::ElementsAre;

namespace {

class LeaseTableTest : public testing::Test {
protected:
    LeaseTableTest() { std::filesystem::remove(m_sPath); }

    static Lease leaseOf(const std::string& sName, uid_t user = 5, const std::string& sAddress = "pipe:x") {
        Lease lease;
        lease.sName = sName;
        lease.user = user;
        lease.sAddress = sAddress;
        lease.nHandle = 3;
        return lease;
    }

    const std::string m_sPath = "/opt/leases-" + std::to_string(::getpid());
};

} // namespace

TEST_F(LeaseTableTest, AnonymousLeases_HaveDifferentNumbersWithoutTheHighestBit) {
    LeaseTable table(m_sPath);
    std::set<std::uint32_t> numbers;
    for (int i = 0; i < 100; ++i)
        numbers.insert(table.grant(leaseOf("")).nNumber);
    EXPECT_EQ(numbers.size(), 100U);
    EXPECT_FALSE(numbers.contains(0));
    EXPECT_FALSE(LeaseTable::isNamedNumber(*numbers.rbegin()));
}

TEST_F(LeaseTableTest, Name_KeepsItsNumberAndLeadsToTheNewAddress) {
    LeaseTable table(m_sPath);
    const std::uint32_t nNumber = table.grant(leaseOf("n")).nNumber;
    EXPECT_TRUE(LeaseTable::isNamedNumber(nNumber));
    EXPECT_EQ(table.grant(leaseOf("n", 5, "pipe:y")).nNumber, nNumber);
    EXPECT_EQ(table.find(nNumber)->sAddress, "pipe:y");
}

TEST_F(LeaseTableTest, NameOfAnotherUser_IsRefused) {
    LeaseTable table(m_sPath);
    table.grant(leaseOf("n", 5));
    EXPECT_THROW(table.grant(leaseOf("n", 6)), LeaseRefused);
    EXPECT_THROW(table.grant(leaseOf("n", 0)), LeaseRefused) << "root is another user too";
}

TEST_F(LeaseTableTest, LeasesAndTheirEnds_AreOnDisk) {
    std::uint32_t nKept = 0;
    std::uint32_t nEnded = 0;
    {
        LeaseTable table(m_sPath);
        nKept = table.grant(leaseOf("kept")).nNumber;
        nEnded = table.grant(leaseOf("")).nNumber;
        table.end(nEnded);
    }
    const LeaseTable table(m_sPath);
    ASSERT_NE(table.find("kept"), nullptr);
    EXPECT_EQ(table.find("kept")->nNumber, nKept);
    EXPECT_EQ(table.find(nEnded), nullptr);
    EXPECT_EQ(table.damagedLines(), 0U);
}

TEST_F(LeaseTableTest, NumbersOfEndedNames_AreRemembered) {
    std::uint32_t nEnded = 0;
    for (int nStart = 1; nStart <= 3; ++nStart) { // each writes the file anew
        LeaseTable table(m_sPath);
        if (nStart == 1) {
            nEnded = table.grant(leaseOf("n")).nNumber;
            table.end(nEnded);
            table.end(table.grant(leaseOf("")).nNumber);
        }
        EXPECT_THAT(table.endedNames(), ElementsAre(nEnded)) << "start " << nStart;
    }
}

TEST_F(LeaseTableTest, OfManyEndedNames_TheNewestAreRemembered) {
    std::ofstream file(m_sPath);
    for (std::uint32_t n = 1; n <= LeaseTable::cMostEndedNames + 2; ++n)
        file << "{\"end\":" << (0x80000000U | n) << "}\n";
    file.close();
    const LeaseTable table(m_sPath);
    EXPECT_EQ(table.endedNames().size(), LeaseTable::cMostEndedNames);
    EXPECT_EQ(table.endedNames().front(), 0x80000003U);
}

TEST_F(LeaseTableTest, LineCutOffByAPowerCut_CostsNoOther) {
    {
        LeaseTable table(m_sPath);
        table.grant(leaseOf("one"));
        table.grant(leaseOf("two"));
    }
    std::filesystem::resize_file(m_sPath, std::filesystem::file_size(m_sPath) - 10);
    const LeaseTable table(m_sPath);
    EXPECT_EQ(table.damagedLines(), 1U);
    EXPECT_NE(table.find("one"), nullptr);
    EXPECT_EQ(table.find("two"), nullptr);
}

TEST_F(LeaseTableTest, FileThatWasBeingWritten_IsNotRead) {
    {
        LeaseTable table(m_sPath);
        table.grant(leaseOf("one"));
    }
    std::ofstream(m_sPath + ".new") << "{\"lease\":";
    const LeaseTable table(m_sPath);
    EXPECT_NE(table.find("one"), nullptr);
    EXPECT_EQ(table.damagedLines(), 0U);
}

TEST_F(LeaseTableTest, StartOfProcess_IsThatOfALivingOne) {
    EXPECT_NE(startOfProcess(::getpid()), 0U);
    EXPECT_EQ(startOfProcess(::getpid()), startOfProcess(::getpid()));
    EXPECT_EQ(startOfProcess(0x7ffffff0), 0U);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_THROW(startOfProcess(::getpid()), std::system_error) << "it has not ended, as far as one knows";
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
}
