// String helpers shared by the models and the helper side.
#include "support/Strings.h"

#include <ctime>
#include <vector>

namespace quelm {
namespace {

bool isContinuationByte(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

/// Byte offsets where each code point starts, plus the end of the text.
std::vector<std::size_t> codePointStarts(std::string_view text) {
    std::vector<std::size_t> starts;
    for (std::size_t i = 0; i < text.size(); ++i)
        if (!isContinuationByte(static_cast<unsigned char>(text[i])))
            starts.push_back(i);
    starts.push_back(text.size());
    return starts;
}

} // namespace

std::string characterRange(std::string_view text, std::size_t first, std::size_t last) {
    const auto starts = codePointStarts(text);
    const std::size_t count = starts.size() - 1;
    if (first > last || count < last + 1)
        return {};
    return std::string(text.substr(starts[first], starts[last + 1] - starts[first]));
}

std::string decimalText(std::int64_t value) {
    return std::to_string(value);
}

std::string formattedTimestamp(std::chrono::system_clock::time_point date) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(date);
    std::tm local{};
    ::localtime_r(&seconds, &local);
    char text[32];
    const std::size_t length = std::strftime(text, sizeof text, "%Y.%m.%d %H:%M:%S", &local);
    return std::string(text, length);
}

std::string compactTimestamp(std::chrono::system_clock::time_point date) {
    std::string compact;
    for (const char c : formattedTimestamp(date)) {
        if (c == ' ')
            compact += '_';
        else if (c != '.' && c != ':')
            compact += c;
    }
    return compact;
}

} // namespace quelm
