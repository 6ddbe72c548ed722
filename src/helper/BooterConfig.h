// The boot configuration variable: its value text and how it reaches the firmware.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quelm {

inline constexpr const char* kBooterConfigGUID = "7C436110-AB2A-4BBB-A880-FE41995C9F82";

/// The low byte first, each byte as "%" and two hex digits: 0x28 gives "%28%00", 0x2a7
/// "%a7%02". Of a longer hex text only its first four characters are used. Nothing for a
/// negative value.
std::optional<std::string> booterConfigValueText(std::int64_t value);

/// Writes the variable with the nvram tool where the host has one, else as an efivarfs file
/// in efivarsFolder (non-volatile, boot-service and runtime access). True when it worked.
bool applyBooterConfig(std::int64_t value, const std::string& efivarsFolder);

} // namespace quelm
