// A macOS of 10.15 or later is two volumes: finding the other half of the one the user names.
#pragma once

#include "support/Error.h"
#include "volumes/MountedFileSystem.h"
#include "volumes/Volume.h"

#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

/// The macOS in the folder path: a whole volume, or a system or data volume of 10.15 or later
/// joined to its other half. That half is dataPath when given, otherwise the one found among
/// mounts; a system volume whose data volume is not found stays alone, and every change to it
/// is refused with the reason. The error is one sentence that says what the folders are not.
std::expected<Volume, Error> openMacOS(const std::string& path,
                                       const std::optional<std::string>& dataPath,
                                       const std::vector<MountedFileSystem>& mounts);

/// The same among the host's mounts.
std::expected<Volume, Error> openMacOS(const std::string& path,
                                       const std::optional<std::string>& dataPath = std::nullopt);

/// The data volume of system among mounts, when one can be told for certain: the only data
/// volume of the same APFS container, else the only mounted data volume.
std::optional<std::string> findDataVolume(const Volume& system,
                                          const std::vector<MountedFileSystem>& mounts);

/// The system volume whose data volume is mounted at dataPath, found the same way.
std::optional<Volume> findSystemVolume(const std::string& dataPath,
                                       const std::vector<MountedFileSystem>& mounts);

} // namespace quelm
