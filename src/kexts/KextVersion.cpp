// Kext version strings ("1.2.3", "2.0b4", "1.0fc2") and their order.
#include "kexts/KextVersion.h"

#include <algorithm>
#include <cctype>
#include <utility>

namespace quelm {
namespace {

/// The digits at the front of text, at least one and at most maxDigits, taken off it.
std::optional<std::uint16_t> takeNumber(std::string_view& text, std::size_t maxDigits) {
    std::size_t length = 0;
    std::uint16_t value = 0;
    while (length < text.size() && std::isdigit(static_cast<unsigned char>(text[length]))) {
        if (++length > maxDigits)
            return std::nullopt;
        value = static_cast<std::uint16_t>(value * 10 + (text[length - 1] - '0'));
    }
    if (length == 0)
        return std::nullopt;
    text.remove_prefix(length);
    return value;
}

} // namespace

std::optional<KextVersion> KextVersion::parse(std::string_view text) {
    KextVersion version;
    for (std::size_t i = 0; i < version.numbers_.size(); ++i) {
        const auto number = takeNumber(text, i == 0 ? 4 : 2);
        if (!number)
            return std::nullopt;
        version.numbers_[i] = *number;
        if (text.empty() || text.front() != '.')
            break;
        text.remove_prefix(1);
        if (i + 1 == version.numbers_.size())
            return std::nullopt;
    }
    if (text.empty())
        return version;
    static constexpr std::array<std::pair<std::string_view, Stage>, 4> kStages{
        {{"fc", Stage::candidate},
         {"d", Stage::development},
         {"a", Stage::alpha},
         {"b", Stage::beta}}};
    const auto* found = std::find_if(kStages.begin(), kStages.end(), [&](const auto& stage) {
        return text.starts_with(stage.first);
    });
    if (found == kStages.end())
        return std::nullopt;
    text.remove_prefix(found->first.size());
    const auto number = takeNumber(text, 3);
    if (!number || *number > 255 || !text.empty())
        return std::nullopt;
    version.stage_ = found->second;
    version.stageNumber_ = *number;
    return version;
}

} // namespace quelm
