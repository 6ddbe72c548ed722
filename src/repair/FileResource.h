// One path of the target volume with the owner, group and permissions its receipt prescribes.
#pragma once

#include "repair/RepairResult.h"
#include "support/VolumePaths.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace quelm {

/// What the file system reported for a path when its resource was made.
struct FileAttributes {
    std::uint32_t ownerID = 0;
    std::uint32_t groupID = 0;
    /// Permission bits (with setuid, setgid and sticky) as octal digits read as decimal: 4755.
    std::int64_t posixPermissions = 0;
    /// The file-type bits of the mode: S_IFREG, S_IFDIR, S_IFLNK...
    std::uint32_t fileType = 0;
    std::uint64_t size = 0;
};

/// What a receipt records of a file's content: its size (the low 32 bits) and POSIX cksum CRC.
struct ContentDigest {
    std::uint32_t size = 0;
    std::uint32_t checksum = 0;
};

/// The mode's permission digits as a decimal number: octal 0104755 gives 4755.
std::int64_t permissionsFromMode(std::uint32_t mode);
/// The decimal digits read as octal again: 755 gives 0755.
std::uint32_t modeFromPermissions(std::int64_t permissions);

class FileResource {
public:
    /// The resource for volumePath (beginning with "/", relative to the volume root) shown as
    /// mountPoint + volumePath; with onData, volumePath is the data volume's own path and
    /// mountPoint the data volume's. Nothing when the item does not exist or would be reached
    /// through a link or outside the volume. When its attributes cannot be read for another
    /// reason (EMFILE, EACCES, EIO...) that is logged and the resource has no current
    /// attributes: verify and repair then report it as failed, never as missing.
    static std::optional<FileResource> init(VolumeWalker& walker, const std::string& mountPoint,
                                            std::string_view volumePath, std::int64_t uid,
                                            std::int64_t gid, std::int64_t posixpermissions,
                                            std::optional<ContentDigest> content = std::nullopt,
                                            bool onData = false);

    const std::string& path() const { return path_; }
    std::int64_t uid() const { return uid_; }
    std::int64_t gid() const { return gid_; }
    std::int64_t posixpermissions() const { return posixpermissions_; }
    const std::optional<FileAttributes>& currentAttributes() const { return current_; }
    const std::optional<ContentDigest>& content() const { return content_; }
    /// The path below the volume root: "/System/Library".
    std::string_view volumePath() const;

    /// One verified result per attribute that differs: owner, then group, then permissions.
    std::vector<RepairResult> verify() const;
    /// Sets every attribute that differs, without following a link, and reports each attempt
    /// with the value read back afterwards.
    std::vector<RepairResult> repair(VolumeWalker& walker) const;
    /// For a regular file whose receipt records its content: a result when its size differs,
    /// else when the checksum of its bytes (read through buffer) differs, or when it cannot be
    /// read. Content is never changed, so in a repair these results are failed.
    std::vector<RepairResult> verifyContent(VolumeWalker& walker, std::span<char> buffer,
                                            RepairMode jobType) const;

private:
    FileResource(std::string path, std::size_t volumePathStart, std::int64_t uid, std::int64_t gid,
                 std::int64_t posixpermissions, std::optional<FileAttributes> current,
                 std::optional<ContentDigest> content, bool onData);
    /// The failed result of a path whose attributes could not be read.
    std::vector<RepairResult> unreadable(RepairMode jobType) const;
    RepairResult contentResult(RepairMode jobType, Mismatch type, std::int64_t current,
                               std::int64_t correct) const;
    /// Where a link's mode cannot be set (Linux), it is not compared either.
    bool comparesPermissions() const;

    std::string path_;
    std::size_t volumePathStart_;
    std::int64_t uid_;
    std::int64_t gid_;
    std::int64_t posixpermissions_;
    std::optional<FileAttributes> current_;
    std::optional<ContentDigest> content_;
    bool onData_;
};

} // namespace quelm
