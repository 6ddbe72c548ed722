// One macOS installation: its mount point and the versions read from its system-version file;
// from macOS 10.15 on, its system volume and the data volume that firmlinks join to it.
#pragma once

#include "support/Firmlinks.h"
#include "support/FolderTrees.h"
#include "support/KeyedArchive.h"

#include <cstddef>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

/// What a folder holds, told by its content: a whole macOS (up to 10.14), the system or the
/// data volume of a macOS of 10.15 or later, or none of these.
enum class VolumeKind { none, single, system, data };

/// Where a path of the joined volume lies: the mount point of the volume that holds it and the
/// path beneath that mount point.
struct VolumePlace {
    std::string root;
    std::string path;
    bool onDataVolume = false;

    /// The path as this host reaches it: "/mnt/Macintosh HD - Data/Library/Extensions".
    std::string hostPath() const { return (root == "/" ? "" : root) + path; }
};

class Volume {
public:
    static constexpr std::string_view className = "QVOSVolume";
    static constexpr std::string_view systemVersionPath =
        "/System/Library/CoreServices/SystemVersion.plist";
    static constexpr std::string_view firmlinksPath = "/usr/share/firmlinks";

    /// What the folder holds, read without following links.
    static VolumeKind kindOf(const std::string& folder);

    /// The volume at mountPoint (one trailing "/" dropped unless it is "/"), or nothing when
    /// its system-version file lacks "ProductVersion" or "ProductBuildVersion".
    static std::optional<Volume> initWithMountPoint(std::string mountPoint);
    /// Rebuilds a volume from its archive; only its firmlinks are read again, from its disk,
    /// since they decide where each path lies.
    [[nodiscard]] static std::expected<Volume, Error> initWithCoder(const KeyedUnarchiver& coder);
    /// Writes the four keys, and "dataMountPoint" for a joined pair; a volume without a major
    /// version must never be archived.
    void encodeWithCoder(KeyedArchiver& coder) const;

    const std::string& mountPoint() const { return mountPoint_; }
    void setMountPoint(std::string mountPoint) { mountPoint_ = std::move(mountPoint); }
    const std::optional<std::string>& version() const { return version_; }
    void setVersion(std::optional<std::string> version) { version_ = std::move(version); }
    const std::optional<std::string>& buildVersion() const { return buildVersion_; }
    void setBuildVersion(std::optional<std::string> build) { buildVersion_ = std::move(build); }
    std::optional<std::int64_t> majorVersion() const { return majorVersion_; }

    /// The system volume of a macOS of 10.15 or later: it has firmlinks to a data volume.
    bool isSystemVolume() const { return !firmlinks_.empty(); }
    const std::vector<Firmlink>& firmlinks() const { return firmlinks_; }
    /// The data volume joined to this system volume, when it is known.
    const std::optional<std::string>& dataMountPoint() const { return dataMountPoint_; }
    void setDataMountPoint(std::optional<std::string> folder);
    /// From macOS 11 the system volume is a sealed snapshot that Quelm never writes.
    bool isSealed() const { return isSystemVolume() && majorVersion_.value_or(0) >= 20; }
    /// Where path, clean and absolute, lies: through the firmlinks on the data volume when it
    /// is joined, otherwise beneath the mount point.
    VolumePlace placeOf(std::string_view path) const;

    /// The hash of the mount point. Equality stays object identity: no operator==.
    std::size_t hash() const;

    /// "macOS Sierra 10.12.6 (16G29)".
    std::string getFullNameVersionString() const;
    /// True when the volume has /System/Installation, or when the running system (hostRoot)
    /// has /com.apple.recovery.boot, whichever volume is asked.
    bool isRecovery(std::string_view hostRoot = "") const;
    bool hasExtraFolder() const;

protected:
    /// The marketing name chosen by the first two characters of the build.
    std::string getOSNameString() const;

private:
    explicit Volume(std::string mountPoint) : mountPoint_(std::move(mountPoint)) {}

    std::string mountPoint_;
    std::optional<std::string> version_;
    std::optional<std::string> buildVersion_;
    std::optional<std::int64_t> majorVersion_;
    std::optional<std::string> dataMountPoint_;
    std::vector<Firmlink> firmlinks_;
};

/// The folder path of the volume, opened through the firmlinks on the half that holds it and
/// without following links; with attributes, missing folders are made with them.
UniqueFd openFolderOn(const Volume& volume, std::string_view path,
                      const std::optional<ItemAttributes>& makeWith = std::nullopt);

/// The folder holding path's last component, on the half that holds it, and that component.
std::optional<std::pair<UniqueFd, std::string>> openParentOn(const Volume& volume,
                                                             std::string_view path);

} // namespace quelm
