// String helpers: character ranges by code point, and the timestamps of reports and backups.
#include "support/Strings.h"

#include <ctime>
#include <gtest/gtest.h>
#include <iomanip>
#include <sstream>

namespace quelm {
namespace {

TEST(StringsTest, CharacterRangeCountsCodePoints) {
    for (const auto& [text, from, to, range] : {std::tuple{"16G29", 0, 1, "16"},
                                                {"1", 0, 1, ""},
                                                {"", 0, 0, ""},
                                                {"ab", 1, 1, "b"},
                                                {"ébc", 0, 1, "éb"},
                                                {"a€", 1, 1, "€"},
                                                {"a€", 0, 2, ""}})
        EXPECT_EQ(characterRange(text, from, to), range) << text << " " << from << " " << to;
    EXPECT_EQ(decimalText(INT64_MIN), "-9223372036854775808");
}

TEST(StringsTest, TimestampsInLocalTime) {
    std::tm local{};
    std::istringstream("2017-03-01 09:05:07") >> std::get_time(&local, "%Y-%m-%d %H:%M:%S");
    local.tm_isdst = -1;
    const auto date = std::chrono::system_clock::from_time_t(std::mktime(&local));
    EXPECT_EQ(formattedTimestamp(date) + " " + compactTimestamp(date),
              "2017.03.01 09:05:07 20170301_090507");
}

} // namespace
} // namespace quelm
