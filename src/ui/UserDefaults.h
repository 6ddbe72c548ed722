// The user's settings, where the platform keeps them: the counterpart of the user defaults.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quelm {

/// The string stored under key in the settings of organisation "org.quelm", application
/// "Quelm" (QSettings; on macOS the defaults database), or none.
std::optional<std::string> userDefaultString(std::string_view key);
/// Stores the string under key and writes the settings out at once.
void setUserDefaultString(std::string_view key, std::string_view value);

} // namespace quelm
