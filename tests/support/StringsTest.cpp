// String helpers: character ranges by code point and the compact timestamp.
#include "support/Strings.h"

#include <ctime>
#include <gtest/gtest.h>

namespace quelm {
namespace {

TEST(StringsTest, CharacterRangeCountsCodePoints) {
    EXPECT_EQ(characterRange("16G29", 0, 1), "16");
    EXPECT_EQ(characterRange("1", 0, 1), "");
    EXPECT_EQ(characterRange("", 0, 0), "");
    EXPECT_EQ(characterRange("ab", 1, 1), "b");
    EXPECT_EQ(characterRange("ébc", 0, 1), "éb");
    EXPECT_EQ(characterRange("a€", 1, 1), "€");
    EXPECT_EQ(characterRange("a€", 0, 2), "");
}

TEST(StringsTest, DecimalText) {
    EXPECT_EQ(decimalText(0), "0");
    EXPECT_EQ(decimalText(4755), "4755");
    EXPECT_EQ(decimalText(-1234567), "-1234567");
    EXPECT_EQ(decimalText(INT64_MIN), "-9223372036854775808");
}

TEST(StringsTest, CompactTimestampDropsSeparators) {
    std::tm local{};
    local.tm_year = 2017 - 1900;
    local.tm_mon = 2;
    local.tm_mday = 1;
    local.tm_hour = 9;
    local.tm_min = 5;
    local.tm_sec = 7;
    local.tm_isdst = -1;
    const auto date = std::chrono::system_clock::from_time_t(std::mktime(&local));
    EXPECT_EQ(formattedTimestamp(date), "2017.03.01 09:05:07");
    EXPECT_EQ(compactTimestamp(date), "20170301_090507");
    const auto now = compactTimestamp(std::chrono::system_clock::now());
    EXPECT_EQ(now.size(), 15u);
    EXPECT_EQ(now.find_first_of(" .:"), std::string::npos);
}

} // namespace
} // namespace quelm
