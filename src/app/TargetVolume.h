// The target volume as the user names it: a whole macOS, or either volume of a macOS of 10.15
// or later, which is a system and a data volume.
#pragma once

#include "volumes/Volume.h"

#include <QString>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

namespace quelm {

/// The settings that remember the last target volume, and its data volume, where no macOS
/// runs the host.
inline constexpr std::string_view kLastTargetVolumeKey = "QVLastTargetVolume";
inline constexpr std::string_view kLastTargetDataVolumeKey = "QVLastTargetDataVolume";

/// The folders a user named: a volume, and the data volume of its macOS when named too.
struct NamedVolume {
    std::string path;
    std::optional<std::string> dataPath;

    bool operator==(const NamedVolume&) const = default;
};

/// The volume named by path, else by dataPath alone (its system volume is then found among
/// the mounts); none when neither is named.
std::optional<NamedVolume> namedVolume(const std::optional<std::string>& path,
                                       const std::optional<std::string>& dataPath);

/// The macOS in the named folders (made absolute and normal), joined to its other volume as
/// openMacOS joins them. A build without a major version is refused too, since such a volume
/// cannot be sent to the helper. The error is one sentence for the user.
std::expected<Volume, QString> openTargetVolume(const NamedVolume& named);

/// The last target volume remembered, with its data volume; none when there is none.
std::optional<NamedVolume> lastTargetVolume();
/// Remembers the volume, and its data volume or that it has none, for the next start.
void rememberTargetVolume(const Volume& volume);

/// The macOS and the folder of each of its volumes, such as "macOS Catalina 10.15.7 (19H2) —
/// system: /Volumes/Macintosh HD, data: /Volumes/Macintosh HD - Data".
QString volumeDescription(const Volume& volume);

} // namespace quelm
