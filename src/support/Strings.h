// String helpers shared by the models and the helper side.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace quelm {

/// Characters first through last (both inclusive, counted as UTF-8 code points); the empty
/// string when the text has fewer than last + 1 characters.
std::string characterRange(std::string_view text, std::size_t first, std::size_t last);

/// The signed value in base 10, without grouping or leading zeros.
std::string decimalText(std::int64_t value);

/// The date as "yyyy.MM.dd HH:mm:ss" in local time.
std::string formattedTimestamp(std::chrono::system_clock::time_point date);

/// The same text with " " turned into "_" and "." and ":" removed: 20170301_090507.
std::string compactTimestamp(std::chrono::system_clock::time_point date);

} // namespace quelm
