// The installation-folder policy and its settings keys.
#pragma once

#include "volumes/Volume.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quelm {

enum class KextFolder {
    ExtraExtensions,
    LibraryExtensions,
    SystemLibraryExtensions,
    AskMeEveryTime,
    UseSmartTable,
};

inline constexpr std::string_view kDefaultKextInstallationFolderKey =
    "QVDefaultKextInstallationFolder";
inline constexpr std::string_view kDefaultAppearanceModeKey = "QVDefaultAppearanceMode";

/// "/Extra/Extensions/", "/Library/Extensions/", "/System/Library/Extensions/",
/// "QVKextFolderAskMeEveryTime" or "QVKextFolderUseSmartTable".
std::string_view rawValue(KextFolder folder);
std::optional<KextFolder> kernelExtensionFolderFromRawValue(std::string_view raw);
/// True for the three cases that name a folder of the target volume.
bool isConcreteFolder(KextFolder folder);

/// The major version (from the build: 19 for 10.15) from which /System/Library/Extensions
/// lies on a read-only system volume, sealed from macOS 11 on.
inline constexpr std::int64_t kReadOnlySystemFolderMajorVersion = 19;

/// Where a kext that the smart table sends to folder goes on this volume: the system folder
/// becomes /Library/Extensions/ where the volume's macOS keeps it read-only.
std::string folderOnVolume(std::string_view folder, const Volume& volume);

/// Why kexts cannot go into folder on this volume, in one sentence; nothing when they can.
std::optional<Error> folderRefusal(std::string_view folder, const Volume& volume);

} // namespace quelm
