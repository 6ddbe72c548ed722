// The user's settings, where the platform keeps them: the counterpart of the user defaults.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace quelm {

/// The string stored under key in the settings of organisation "org.quelm", application
/// "Quelm" (QSettings; on macOS the defaults database), or none.
std::optional<std::string> userDefaultString(std::string_view key);
/// Stores the string under key and writes the settings out at once.
void setUserDefaultString(std::string_view key, std::string_view value);
/// Forgets what is stored under key and writes the settings out at once.
void removeUserDefault(std::string_view key);

/// The setting that names the folder where backups of replaced and removed kexts go.
inline constexpr std::string_view kBackupFolderKey = "QVBackupFolder";
/// The folder of that setting, else Backups in the user's data folder, made when missing and
/// with its links resolved (the helper reaches nothing through a link); none when it cannot be
/// made.
std::optional<std::filesystem::path> backupFolderSetting();

} // namespace quelm
