// Kext version strings ("1.2.3", "2.0b4", "1.0fc2") and their order.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string_view>

namespace quelm {

/// A kext version: one to three dot-separated numbers (the first up to four digits, the others
/// up to two), then optionally a stage, d (development), a (alpha), b (beta) or fc (final
/// candidate), with a number of up to three digits no greater than 255. A release (no stage)
/// comes after every stage of the same numbers; missing numbers count as zero.
class KextVersion {
public:
    /// Nothing when the text is not such a version.
    static std::optional<KextVersion> parse(std::string_view text);

    std::strong_ordering operator<=>(const KextVersion&) const = default;
    bool operator==(const KextVersion&) const = default;

private:
    enum class Stage : std::uint8_t { development, alpha, beta, candidate, release };

    std::array<std::uint16_t, 3> numbers_{};
    Stage stage_ = Stage::release;
    std::uint16_t stageNumber_ = 0;
};

} // namespace quelm
