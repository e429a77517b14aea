// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Journal.h"

#include "Posix.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace VornRelay;
using testing::ElementsAre;

namespace {

class JournalTest : public testing::Test {
protected:
    JournalTest() { std::filesystem::remove(m_sPath); }

    void change(std::streamoff nOffset, const std::string& sBytes) const {
        std::fstream file(m_sPath, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(nOffset);
        file << sBytes;
    }

    const std::string m_sPath = "/opt/journal-" + std::to_string(::getpid());
};

constexpr std::streamoff cFirstRecord = 256;
constexpr std::streamoff cFirstPlace = cFirstRecord + 208;
constexpr std::streamoff cSecondPlace = cFirstPlace + 24;

} // namespace

TEST_F(JournalTest, WhatWasNoted_IsThereWhenItIsOpenedAgain) {
    {
        Journal journal(m_sPath);
        EXPECT_TRUE(journal.note(7, "a", {100, 1}));
        EXPECT_TRUE(journal.note(7, "a", {100, 2}));
        EXPECT_TRUE(journal.note(7, "b", {50, 9}));
    }
    const Journal journal(m_sPath);
    EXPECT_FALSE(journal.wasDamaged());
    EXPECT_EQ(journal.last(7, "a"), (NotificationNumber{100, 2}));
    EXPECT_EQ(journal.last(7, "b"), (NotificationNumber{50, 9}));
    EXPECT_EQ(journal.last(8, "a"), NotificationNumber());
}

TEST_F(JournalTest, WhatWasForgotten_GivesItsPlaceToOthers) {
    {
        Journal journal(m_sPath);
        journal.note(7, "a", {1, 1});
        journal.note(8, "a", {1, 2});
        journal.forget(7);
        journal.note(9, "a", {1, 3});
    }
    EXPECT_EQ(std::filesystem::file_size(m_sPath), 3 * 256U);
    const Journal journal(m_sPath);
    EXPECT_EQ(journal.last(7, "a"), NotificationNumber());
    EXPECT_EQ(journal.last(8, "a"), (NotificationNumber{1, 2}));
    EXPECT_EQ(journal.last(9, "a"), (NotificationNumber{1, 3}));
}

TEST_F(JournalTest, NumberCutOffInTheMiddle_LeavesTheOneBefore) {
    for (const std::streamoff nPlace : {cFirstPlace, cSecondPlace}) {
        std::filesystem::remove(m_sPath);
        NotificationNumber before;
        {
            Journal journal(m_sPath);
            journal.note(7, "a", {1, 1});
            journal.note(7, "a", {1, 2});
            before = journal.last(7, "a");
        }
        change(nPlace, "\xff\xff");
        const Journal journal(m_sPath);
        EXPECT_FALSE(journal.wasDamaged());
        EXPECT_GE(journal.last(7, "a"), (NotificationNumber{1, 1}));
        EXPECT_LE(journal.last(7, "a"), before);
    }
}

TEST_F(JournalTest, FileOfAnotherVersion_IsPutAside) {
    std::ofstream(m_sPath) << "vornnet relay journal 9\n" << std::string(1000, 'x');
    const Journal journal(m_sPath);
    EXPECT_TRUE(journal.wasDamaged());
    EXPECT_EQ(journal.size(), 0U);
    EXPECT_EQ(VornTest::readTextFile(m_sPath + ".damaged").substr(0, 7), "vornnet");
}

TEST_F(JournalTest, TruncatedFile_IsPutAside) {
    {
        Journal journal(m_sPath);
        journal.note(7, "a", {1, 1});
    }
    std::filesystem::resize_file(m_sPath, 300);
    const Journal journal(m_sPath);
    EXPECT_TRUE(journal.wasDamaged());
    EXPECT_EQ(journal.last(7, "a"), NotificationNumber());
}

TEST_F(JournalTest, DamageOfBothPlaces_IsFound) {
    {
        Journal journal(m_sPath);
        journal.note(7, "a", {1, 1});
    }
    change(cFirstPlace, "\xff");
    change(cSecondPlace, "\xff");
    EXPECT_TRUE(Journal(m_sPath).wasDamaged());
}

TEST_F(JournalTest, WhatCouldNotBeWrittenAtFirst_IsWrittenWithTheNextNumber) {
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    {
        Journal journal(m_sPath);
        const rlimit full{cFirstRecord, before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &full);
        EXPECT_FALSE(journal.note(7, "a", {1, 1})) << "as on a full disk";
        ::setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_EQ(journal.last(7, "a"), (NotificationNumber{1, 1}));
        EXPECT_TRUE(journal.note(7, "a", {1, 2}));
    }
    const Journal journal(m_sPath);
    EXPECT_FALSE(journal.wasDamaged());
    EXPECT_EQ(journal.last(7, "a"), (NotificationNumber{1, 2}));
}

TEST_F(JournalTest, Leases_AreThoseOfWhichSomethingIsNoted) {
    Journal journal(m_sPath);
    journal.note(7, "a", {1, 1});
    journal.note(7, "b", {1, 1});
    journal.note(8, "a", {1, 1});
    journal.forget(8);
    EXPECT_THAT(journal.leases(), ElementsAre(7));
}
