// Where the application keeps its own files for the user.
#pragma once

#include <filesystem>
#include <string_view>

namespace quelm {

/// The display name, also the name of the Application Support folder.
inline constexpr std::string_view kDisplayName = "Quelm";

/// The user's data folder plus the display name: $XDG_DATA_HOME/Quelm, else
/// ~/.local/share/Quelm (on macOS ~/Library/Application Support/Quelm).
std::filesystem::path applicationSupportFolder();

} // namespace quelm
