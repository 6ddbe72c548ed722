// One path of the target volume with the owner, group and permissions its receipt prescribes.
#pragma once

#include "repair/QVRepairPermissionsResult.h"
#include "support/VolumePaths.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quelm {

/// What the file system reported for a path when its resource was made.
struct QVFileAttributes {
    std::uint32_t ownerID = 0;
    std::uint32_t groupID = 0;
    /// Permission bits (with setuid, setgid and sticky) as octal digits read as decimal: 4755.
    std::int64_t posixPermissions = 0;
    /// The file-type bits of the mode: S_IFREG, S_IFDIR, S_IFLNK...
    std::uint32_t fileType = 0;
};

/// The mode's permission digits as a decimal number: octal 0104755 gives 4755.
std::int64_t permissionsFromMode(std::uint32_t mode);
/// The decimal digits read as octal again: 755 gives 0755.
std::uint32_t modeFromPermissions(std::int64_t permissions);

class QVFileSystemResource {
public:
    /// The resource for volumePath (beginning with "/", relative to the volume root) shown as
    /// mountPoint + volumePath. Nothing when the item does not exist, would be reached through a
    /// link or outside the volume, or its attributes cannot be read (that last case is logged).
    static std::optional<QVFileSystemResource>
    init(VolumeWalker& walker, const std::string& mountPoint, std::string_view volumePath,
         std::int64_t uid, std::int64_t gid, std::int64_t posixpermissions);

    const std::string& path() const { return path_; }
    std::int64_t uid() const { return uid_; }
    std::int64_t gid() const { return gid_; }
    std::int64_t posixpermissions() const { return posixpermissions_; }
    const QVFileAttributes& currentAttributes() const { return current_; }

    /// One verified result per attribute that differs: owner, then group, then permissions.
    std::vector<QVRepairPermissionsResult> verify() const;
    /// Sets every attribute that differs, without following a link, and reports each attempt
    /// with the value read back afterwards.
    std::vector<QVRepairPermissionsResult> repair(VolumeWalker& walker) const;

private:
    QVFileSystemResource(std::string path, std::size_t volumePathStart, std::int64_t uid,
                         std::int64_t gid, std::int64_t posixpermissions, QVFileAttributes current);
    std::string_view volumePath() const;
    /// Where a link's mode cannot be set (Linux), it is not compared either.
    bool comparesPermissions() const;

    std::string path_;
    std::size_t volumePathStart_;
    std::int64_t uid_;
    std::int64_t gid_;
    std::int64_t posixpermissions_;
    QVFileAttributes current_;
};

} // namespace quelm
