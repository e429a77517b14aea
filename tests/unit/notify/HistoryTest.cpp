// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include <History.h>

#include <filesystem>

#include <gtest/gtest.h>

using namespace VornNet;

namespace {

constexpr const char* cFile = "/opt/builds.history";
constexpr std::size_t cCapacity = 65'536;

} // namespace

TEST(History, BegunAfterAnEventThatItDoesNotHave_CountsOnFromThere) {
    std::filesystem::remove(cFile);
    {
        History history(cFile, cCapacity, {0xab, 41});
        EXPECT_EQ(history.newest(), 41U);
        EXPECT_EQ(history.append("a"), 42U);
    }
    const History again(cFile, cCapacity);
    EXPECT_EQ(again.id(), 0xabU);
    EXPECT_EQ(again.newest(), 42U);
}
