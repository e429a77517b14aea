// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include <VornException.h>
#include <VornPosition.h>

#include <cerrno>
#include <limits>

#include <gtest/gtest.h>

using namespace VornNet;

namespace {

constexpr std::uint64_t highest = std::numeric_limits<std::uint64_t>::max();

/** A position and the text that it has. */
struct Example {
    VornPosition position;
    const char* text;
};

const Example examples[] = {
    {{0, 0}, "0000000000000000-00000000000000000000"},
    {{0x1f, 42}, "000000000000001f-00000000000000000042"},
    {{0x203339fad6944e25, 500}, "203339fad6944e25-00000000000000000500"},
    {{highest, highest}, "ffffffffffffffff-18446744073709551615"},
};

TEST(VornPosition, WhenDefault_IsNowhere) {
    const VornPosition position;
    EXPECT_EQ(position.nHistory, 0U);
    EXPECT_EQ(position.nNumber, 0U);
}

TEST(VornPosition, Text_HasSixteenHexadecimalDigitsAndTheNumberInDecimalOnes) {
    for (const Example& example : examples)
        EXPECT_EQ(example.position.text(), example.text);
}

TEST(VornPosition, FromText_ReadsWhatTextMakes) {
    for (const Example& example : examples)
        EXPECT_EQ(VornPosition::fromText(example.text).text(), example.text);
}

TEST(VornPosition, FromText_TakesANumberWithoutLeadingZeros) {
    EXPECT_EQ(VornPosition::fromText("000000000000001f-42"), (VornPosition{0x1f, 42}));
}

TEST(VornPosition, FromText_RefusesEverythingElse) {
    const std::string zero("000000000000001f-4\0", 19);
    for (const std::string& text :
         {std::string(), std::string("-"), std::string("1f-42"), std::string("000000000000001f"),
          std::string("000000000000001f-"), std::string("000000000000001f-x"),
          std::string("000000000000001f-42 "), std::string(" 000000000000001f-42"),
          std::string("000000000000001f-42\n"), std::string("000000000000001f--1"),
          std::string("000000000000001f-+1"), std::string("000000000000001F-42"),
          std::string("00000000000000x1-42"), std::string("-00000000000001f-42"),
          std::string("0x0000000000001f-42"), std::string("0000000000000001f-42"),
          std::string("000000000000001f-18446744073709551616"), zero}) {
        try {
            VornPosition::fromText(text);
            ADD_FAILURE() << "taken for a position: " << text;
        } catch (const VornSupport::VornException& e) {
            EXPECT_EQ(e.getText(), "VornPosition::fromText: no position.") << text;
            EXPECT_EQ(e.getCode(), EINVAL) << text;
        }
    }
}

TEST(VornPosition, ComparesHistoryAndNumber) {
    const VornPosition position{1, 2};
    EXPECT_TRUE(position == (VornPosition{1, 2}));
    EXPECT_FALSE(position != (VornPosition{1, 2}));
    EXPECT_TRUE(position != (VornPosition{1, 3}));
    EXPECT_TRUE(position != (VornPosition{2, 2}));
    EXPECT_FALSE(position == (VornPosition{2, 1}));
}

} // namespace
