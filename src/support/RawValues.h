// Enumerations whose cases carry fixed raw strings.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace quelm {

/// The raw strings of an enumeration's cases, in declaration order.
template <class Enum, std::size_t N> struct RawValueTable {
    std::array<std::string_view, N> values;

    constexpr std::string_view rawValue(Enum value) const {
        return values[static_cast<std::size_t>(value)];
    }
    /// Exactly one of the raw strings makes a case; anything else, letter case too, none.
    constexpr std::optional<Enum> fromRawValue(std::string_view raw) const {
        for (std::size_t i = 0; i < N; ++i)
            if (values[i] == raw)
                return static_cast<Enum>(i);
        return std::nullopt;
    }
};

} // namespace quelm
