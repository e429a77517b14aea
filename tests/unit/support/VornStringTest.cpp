// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeakCheckedTest.h"

#include <array>
#include <random>
#include <string>

#include <VornString.h>
#include <gtest/gtest.h>

using namespace VornTest;
using namespace VornSupport;

namespace {

class VornStringTest : public LeakCheckedTest {
protected:
    std::array<char, 16> m_buffer{};
};

std::string nul(const char* text, std::size_t length) {
    return std::string(text, length);
}

} // namespace

TEST_F(VornStringTest, ToChar_CopiesCutsAndTerminatesWithinTheBuffer) {
    const struct {
        std::string text;
        int capacity;
        std::string written; ///< with the byte behind it
    } rows[] = {
        {"abc", 10, nul("abc\0#", 5)},
        {"abc", 4, nul("abc\0#", 5)},
        {"abcdef", 4, nul("abc\0#", 5)},
        {"", 4, nul("\0#", 2)},
        {"abc", 1, nul("\0#", 2)},
        {"abc", 0, "#"},
        {"abc", -1, "#"},
        {nul("a\0b", 3), 10, nul("a\0b\0#", 5)},
    };

    for (const auto& row : rows) {
        m_buffer.fill('#');
        VornStringToChar(row.text, m_buffer.data(), row.capacity);
        EXPECT_EQ(std::string(m_buffer.data(), row.written.size()), row.written) << row.capacity;
    }
}

TEST_F(VornStringTest, FromChar_TakesTheTextUpToItsTerminator) {
    EXPECT_EQ(VornStringFromChar("abc\0def"), "abc");
    EXPECT_EQ(VornStringFromChar(""), "");
}

TEST_F(VornStringTest, FromCharOfNull_IsEmpty) {
    EXPECT_EQ(VornStringFromChar(nullptr), "");
}

TEST_F(VornStringTest, ValidUtf8_BecomesTheCharactersItStandsFor) {
    EXPECT_EQ(VornStringToWide("az\x7F"), L"az\x7F");
    EXPECT_EQ(VornStringToWide("\xC3\xA9\xDF\xBF"), L"\u00E9\u07FF");
    EXPECT_EQ(VornStringToWide("\xE2\x82\xAC\xEF\xBF\xBD"), L"\u20AC\uFFFD");
    EXPECT_EQ(VornStringToWide("\xED\x9F\xBF\xEE\x80\x80"), L"\uD7FF\uE000");
    EXPECT_EQ(VornStringToWide("\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF"), L"\U0001F600\U0010FFFF");
}

TEST_F(VornStringTest, WideText_BecomesUtf8) {
    EXPECT_EQ(VornStringToNarrow(L"az\u0080\u07FF\u0800\uFFFF\U00010000\U0010FFFF"),
              "az\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF");
}

TEST_F(VornStringTest, AByteThatIsNoUtf8_BecomesALoneSurrogate) {
    EXPECT_EQ(VornStringToWide("\x80\xFF"), (VornUString{0xDC80, 0xDCFF}));
}

TEST_F(VornStringTest, EveryPairOfBytes_SurvivesTheRoundTrip) {
    for (int value = 0; value < 65536; ++value) {
        const VornString text{static_cast<char>(value >> 8), static_cast<char>(value & 0xFF)};
        ASSERT_EQ(VornStringToNarrow(VornStringToWide(text)), text) << "bytes " << value;
    }
}

TEST_F(VornStringTest, AlmostUtf8_SurvivesTheRoundTripByteForByte) {
    const VornString texts[] = {
        "\xC0\x80",         // overlong zero
        "\xC1\xBF",         // overlong DEL
        "\xE0\x9F\xBF",     // overlong in three bytes
        "\xF0\x8F\xBF\xBF", // overlong in four bytes
        "\xED\xA0\x80",     // a high surrogate
        "\xED\xB2\x80",     // the very surrogate that stands for the byte 0x80
        "\xED\xBF\xBF",     // the last surrogate
        "\xF4\x90\x80\x80", // above the last character
        "\xF5\x80\x80\x80", // a lead byte that leads to nothing
        "\xE2\x82",         // cut off
        "\xE2\x82\x41",     // broken off
        "\xF0\x9F\x98",     // cut off in four bytes
        "a\x80z\xC3",
    };
    for (const VornString& text : texts)
        EXPECT_EQ(VornStringToNarrow(VornStringToWide(text)), text);
    EXPECT_EQ(VornStringToWide("\xED\xB2\x80"), (VornUString{0xDCED, 0xDCB2, 0xDC80}));
}

TEST_F(VornStringTest, RandomBytes_SurviveTheRoundTrip) {
    const unsigned seed = std::random_device()();
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int round = 0; round < 2000; ++round) {
        VornString text(random() % 64, '\0');
        for (char& character : text)
            character = static_cast<char>(byte(random));
        ASSERT_EQ(VornStringToNarrow(VornStringToWide(text)), text) << "seed " << seed << ", round " << round;
    }
}

TEST_F(VornStringTest, ValuesThatAreNoCharacters_BecomeTheReplacementCharacter) {
    const VornUString noCharacters = {0xD800, 0xDC7F, 0xDD00, 0xDFFF, 0x110000};
    EXPECT_EQ(VornStringToNarrow(noCharacters),
              "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}
