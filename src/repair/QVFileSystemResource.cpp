// One path of the target volume with the owner, group and permissions its receipt prescribes.
#include "repair/QVFileSystemResource.h"

#include "support/Log.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

using Type = QVFileSystemResourceAttributeMismatchedType;
using Status = QVFileSystemResourceAttributeStatus;

enum class StatOutcome { read, missing, failed };

StatOutcome statAt(VolumeWalker& walker, std::string_view volumePath, QVFileAttributes& out) {
    const auto parent = walker.parentOf(volumePath);
    if (!parent)
        return StatOutcome::missing;
    struct stat info {};
    const std::string name(parent->second);
    if (::fstatat(parent->first, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT || errno == ENOTDIR ? StatOutcome::missing : StatOutcome::failed;
    out = {info.st_uid, info.st_gid, permissionsFromMode(info.st_mode), S_ISLNK(info.st_mode)};
    return StatOutcome::read;
}

bool setAttribute(VolumeWalker& walker, std::string_view volumePath, Type type,
                  std::int64_t value) {
    const auto parent = walker.parentOf(volumePath);
    if (!parent)
        return false;
    const std::string name(parent->second);
    const auto id = static_cast<uid_t>(value);
    switch (type) {
    case Type::ownerIDMismatched:
        return ::fchownat(parent->first, name.c_str(), id, static_cast<gid_t>(-1),
                          AT_SYMLINK_NOFOLLOW) == 0;
    case Type::groupIDMismatched:
        return ::fchownat(parent->first, name.c_str(), static_cast<uid_t>(-1), id,
                          AT_SYMLINK_NOFOLLOW) == 0;
    case Type::posixPermissionsMismatched:
        return ::fchmodat(parent->first, name.c_str(), modeFromPermissions(value),
                          AT_SYMLINK_NOFOLLOW) == 0;
    }
    return false;
}

std::int64_t attributeOf(const QVFileAttributes& attributes, Type type) {
    switch (type) {
    case Type::ownerIDMismatched:
        return attributes.ownerID;
    case Type::groupIDMismatched:
        return attributes.groupID;
    case Type::posixPermissionsMismatched:
        return attributes.posixPermissions;
    }
    return 0;
}

} // namespace

std::int64_t permissionsFromMode(std::uint32_t mode) {
    std::int64_t decimal = 0;
    for (std::int64_t place = 1; mode != 0; mode >>= 3, place *= 10)
        decimal += (mode & 7) * place;
    return decimal % 10000;
}

std::uint32_t modeFromPermissions(std::int64_t permissions) {
    std::uint32_t mode = 0;
    for (std::uint32_t place = 1; permissions > 0; permissions /= 10, place <<= 3)
        mode += static_cast<std::uint32_t>(permissions % 10) * place;
    return mode;
}

QVFileSystemResource::QVFileSystemResource(std::string path, std::size_t volumePathStart,
                                           std::int64_t uid, std::int64_t gid,
                                           std::int64_t posixpermissions, QVFileAttributes current)
    : path_(std::move(path)), volumePathStart_(volumePathStart), uid_(uid), gid_(gid),
      posixpermissions_(posixpermissions), current_(current) {
}

std::optional<QVFileSystemResource> QVFileSystemResource::init(VolumeWalker& walker,
                                                               const std::string& mountPoint,
                                                               std::string_view volumePath,
                                                               std::int64_t uid, std::int64_t gid,
                                                               std::int64_t posixpermissions) {
    QVFileAttributes current;
    switch (statAt(walker, volumePath, current)) {
    case StatOutcome::missing:
        return std::nullopt;
    case StatOutcome::failed:
        logLine("QVFile::Error: Unable to get attributes of " + mountPoint +
                std::string(volumePath));
        return std::nullopt;
    case StatOutcome::read:
        break;
    }
    return QVFileSystemResource(mountPoint + std::string(volumePath), mountPoint.size(), uid, gid,
                                posixpermissions, current);
}

std::string_view QVFileSystemResource::volumePath() const {
    return std::string_view(path_).substr(volumePathStart_);
}

bool QVFileSystemResource::comparesPermissions() const {
#if defined(__linux__)
    return !current_.isSymbolicLink;
#else
    return true;
#endif
}

std::vector<QVRepairPermissionsResult> QVFileSystemResource::verify() const {
    std::vector<QVRepairPermissionsResult> results;
    const auto check = [&](Type type, std::int64_t correct) {
        const auto current = attributeOf(current_, type);
        if (current != correct)
            results.emplace_back(QVRepairPermissionsJobType::verifyPermissions, path_, type,
                                 current, correct, std::nullopt, Status::verified);
    };
    check(Type::ownerIDMismatched, uid_);
    check(Type::groupIDMismatched, gid_);
    if (comparesPermissions())
        check(Type::posixPermissionsMismatched, posixpermissions_);
    return results;
}

std::vector<QVRepairPermissionsResult> QVFileSystemResource::repair(VolumeWalker& walker) const {
    std::vector<QVRepairPermissionsResult> results;
    QVFileAttributes current = current_;
    const auto fix = [&](Type type, std::int64_t correct) {
        const auto before = attributeOf(current, type);
        if (before == correct)
            return;
        const bool set = setAttribute(walker, volumePath(), type, correct);
        const bool reread = statAt(walker, volumePath(), current) == StatOutcome::read;
        results.emplace_back(QVRepairPermissionsJobType::repairPermissions, path_, type, before,
                             correct,
                             reread ? std::optional(attributeOf(current, type)) : std::nullopt,
                             set ? Status::fixed : Status::failed);
    };
    fix(Type::ownerIDMismatched, uid_);
    fix(Type::groupIDMismatched, gid_);
    // Permissions are compared with the mode read back after the owner and group changes:
    // changing the owner clears setuid and setgid, which must then be restored.
    if (comparesPermissions())
        fix(Type::posixPermissionsMismatched, posixpermissions_);
    return results;
}

} // namespace quelm
