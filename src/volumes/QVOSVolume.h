// One macOS installation: its mount point and the versions read from its system-version file.
#pragma once

#include "support/KeyedArchive.h"

#include <cstddef>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

namespace quelm {

class QVOSVolume {
public:
    static constexpr std::string_view className = "QVOSVolume";
    static constexpr std::string_view systemVersionPath =
        "/System/Library/CoreServices/SystemVersion.plist";

    /// The volume at mountPoint (one trailing "/" dropped unless it is "/"), or nothing when
    /// its system-version file lacks "ProductVersion" or "ProductBuildVersion".
    static std::optional<QVOSVolume> initWithMountPoint(std::string mountPoint);
    /// Rebuilds a volume from its archive without reading any file.
    [[nodiscard]] static std::expected<QVOSVolume, ArchiveError>
    initWithCoder(const KeyedUnarchiver& coder);
    /// Writes the four keys; a volume without a major version must never be archived.
    void encodeWithCoder(KeyedArchiver& coder) const;

    const std::string& mountPoint() const { return mountPoint_; }
    void setMountPoint(std::string mountPoint) { mountPoint_ = std::move(mountPoint); }
    const std::optional<std::string>& version() const { return version_; }
    void setVersion(std::optional<std::string> version) { version_ = std::move(version); }
    const std::optional<std::string>& buildVersion() const { return buildVersion_; }
    void setBuildVersion(std::optional<std::string> build) { buildVersion_ = std::move(build); }
    std::optional<std::int64_t> majorVersion() const { return majorVersion_; }

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
    explicit QVOSVolume(std::string mountPoint) : mountPoint_(std::move(mountPoint)) {}

    std::string mountPoint_;
    std::optional<std::string> version_;
    std::optional<std::string> buildVersion_;
    std::optional<std::int64_t> majorVersion_;
};

} // namespace quelm
