// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "NotificationNumber.h"

#include "StateFile.h"

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

using namespace VornRelay;

TEST(NotificationNumberTest, Id_IsReadAsItIsWritten) {
    const NotificationNumber number{1700000000000, 42};
    EXPECT_EQ(idOf("north_example", number), "north_example.1700000000000.42");
    EXPECT_EQ(numberIn("north_example.1700000000000.42", "north_example"), number);
}

TEST(NotificationNumberTest, IdOfAnotherHostOrAnotherForm_IsNone) {
    for (const char* szId : {"", "a", "a.", "a.1", "a.1.", "a.1.2x", "a.x.2", "b.1.2", "ab.1.2", "a.1.2.3"})
        EXPECT_FALSE(numberIn(szId, "a").has_value()) << szId;
}

TEST(NotificationNumberTest, NumbersGrowWithBootsAndThenWithCounts) {
    EXPECT_LT((NotificationNumber{1, 9}), (NotificationNumber{2, 1}));
    EXPECT_LT((NotificationNumber{2, 1}), (NotificationNumber{2, 2}));
}

TEST(NotificationNumberTest, BootNumber_NeverGoesBack) {
    const std::string sPath = "/opt/boot-" + std::to_string(::getpid());
    const std::uint64_t nFirst = nextBootNumber(sPath);
    EXPECT_GT(nFirst, 1'700'000'000'000U);
    EXPECT_GT(nextBootNumber(sPath), nFirst);
    std::ofstream(sPath) << "9000000000000\n"; // the clock was put back since
    EXPECT_EQ(nextBootNumber(sPath), 9'000'000'000'001U);
    std::filesystem::remove(sPath);
}
