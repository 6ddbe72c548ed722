// One path of the target volume with the owner, group and permissions its receipt prescribes.
#include "repair/FileResource.h"

#include "repair/PosixChecksum.h"
#include "support/FolderTrees.h"
#include "support/Log.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

using Type = Mismatch;
using Status = AttributeStatus;

enum class StatOutcome { read, missing, failed };

FileAttributes attributesOf(const struct stat& info) {
    return {info.st_uid, info.st_gid, permissionsFromMode(info.st_mode), info.st_mode & S_IFMT,
            static_cast<std::uint64_t>(info.st_size)};
}

StatOutcome statAt(VolumeWalker& walker, std::string_view volumePath, bool onData,
                   FileAttributes& out) {
    const auto parent = walker.parentOf(volumePath, onData);
    if (!parent)
        return walker.failure() == 0 ? StatOutcome::missing : StatOutcome::failed;
    struct stat info {};
    const std::string name(parent->second);
    if (::fstatat(parent->first, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT || errno == ENOTDIR ? StatOutcome::missing : StatOutcome::failed;
    out = attributesOf(info);
    return StatOutcome::read;
}

/// The item a repair changes. A file or folder is opened without following a link and changed
/// through its descriptor: setting a mode by name without following links goes through
/// /proc/self/fd in glibc, which a rescue system may lack. Links, devices, FIFOs and sockets
/// are never opened (opening a device can act on it) and are changed by name, never through a
/// link; without /proc their mode cannot be set, and that attempt fails.
class RepairTarget {
public:
    RepairTarget(VolumeWalker& walker, std::string_view volumePath, bool onData,
                 std::uint32_t fileType) {
        const auto parent = walker.parentOf(volumePath, onData);
        if (!parent)
            return;
        folder_ = parent->first;
        name_ = parent->second;
        if (fileType != S_IFREG && fileType != S_IFDIR)
            return;
        item_ = UniqueFd(::openat(folder_, name_.c_str(),
                                  O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        struct stat info {};
        // Another kind of item took the path since it was read: it is left alone.
        if (item_ && (::fstat(item_.get(), &info) != 0 || (info.st_mode & S_IFMT) != fileType))
            folder_ = -1;
    }

    bool set(Type type, std::int64_t value, const FileAttributes& now) {
        const auto none = static_cast<std::uint32_t>(-1);
        const auto id = static_cast<std::uint32_t>(value);
        switch (type) {
        case Type::ownerIDMismatched:
            return setOwner(id, none, now);
        case Type::groupIDMismatched:
            return setOwner(none, id, now);
        case Type::posixPermissionsMismatched:
            return setMode(modeFromPermissions(value));
        default:
            return false;
        }
    }

    bool read(FileAttributes& out) const {
        struct stat info {};
        if (folder_ < 0 ||
            (item_ ? ::fstat(item_.get(), &info)
                   : ::fstatat(folder_, name_.c_str(), &info, AT_SYMLINK_NOFOLLOW)) != 0)
            return false;
        out = attributesOf(info);
        return true;
    }

private:
    bool setOwner(uid_t uid, gid_t gid, const FileAttributes& now) {
        if (folder_ < 0)
            return false;
        if (item_)
            return ::fchown(item_.get(), uid, gid) == 0;
        // The new owner would lose setuid and setgid; by name they can only be set back where
        // the mode can be set at all, so the owner waits for that.
        const auto mode = modeFromPermissions(now.posixPermissions);
        if ((mode & (S_ISUID | S_ISGID)) != 0 && !setMode(mode))
            return false;
        return ::fchownat(folder_, name_.c_str(), uid, gid, AT_SYMLINK_NOFOLLOW) == 0;
    }

    bool setMode(mode_t mode) {
        if (folder_ < 0)
            return false;
        if (item_)
            return ::fchmod(item_.get(), mode) == 0;
        return ::fchmodat(folder_, name_.c_str(), mode, AT_SYMLINK_NOFOLLOW) == 0;
    }

    int folder_ = -1;
    std::string name_;
    UniqueFd item_;
};

std::int64_t attributeOf(const FileAttributes& attributes, Type type) {
    switch (type) {
    case Type::ownerIDMismatched:
        return attributes.ownerID;
    case Type::groupIDMismatched:
        return attributes.groupID;
    case Type::posixPermissionsMismatched:
        return attributes.posixPermissions;
    default:
        return 0;
    }
}

/// The regular file at volumePath opened for reading without following a link; -1 with errno
/// when it cannot be (ENOENT when it went missing or is no longer a regular file).
UniqueFd openRegularFile(VolumeWalker& walker, std::string_view volumePath, bool onData) {
    const auto parent = walker.parentOf(volumePath, onData);
    if (!parent) {
        errno = walker.failure() == 0 ? ENOENT : walker.failure();
        return UniqueFd();
    }
    const std::string name(parent->second);
    // Non-blocking, so that a FIFO put in the file's place cannot hang the pass.
    UniqueFd file(::openat(parent->first, name.c_str(),
                           O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat info {};
    if (file && (::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode))) {
        errno = ENOENT;
        return UniqueFd();
    }
    if (file)
        ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return file;
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

FileResource::FileResource(std::string path, std::size_t volumePathStart, std::int64_t uid,
                           std::int64_t gid, std::int64_t posixpermissions,
                           std::optional<FileAttributes> current,
                           std::optional<ContentDigest> content, bool onData)
    : path_(std::move(path)), volumePathStart_(volumePathStart), uid_(uid), gid_(gid),
      posixpermissions_(posixpermissions), current_(current), content_(content), onData_(onData) {
}

std::optional<FileResource> FileResource::init(VolumeWalker& walker, const std::string& mountPoint,
                                               std::string_view volumePath, std::int64_t uid,
                                               std::int64_t gid, std::int64_t posixpermissions,
                                               std::optional<ContentDigest> content, bool onData) {
    FileAttributes current;
    const StatOutcome outcome = statAt(walker, volumePath, onData, current);
    if (outcome == StatOutcome::missing)
        return std::nullopt;
    std::string path = mountPoint + std::string(volumePath);
    if (outcome == StatOutcome::failed)
        logLine("QVFile::Error: Unable to get attributes of " + path);
    return FileResource(std::move(path), mountPoint.size(), uid, gid, posixpermissions,
                        outcome == StatOutcome::read ? std::optional(current) : std::nullopt,
                        content, onData);
}

std::vector<RepairResult> FileResource::unreadable(RepairMode jobType) const {
    std::vector<RepairResult> results;
    results.emplace_back(jobType, path_, Type::attributesUnreadable, 0, 0, std::nullopt,
                         Status::failed);
    return results;
}

std::string_view FileResource::volumePath() const {
    return std::string_view(path_).substr(volumePathStart_);
}

bool FileResource::comparesPermissions() const {
#if defined(__linux__)
    return current_->fileType != S_IFLNK;
#else
    return true;
#endif
}

std::vector<RepairResult> FileResource::verify() const {
    if (!current_)
        return unreadable(RepairMode::verifyPermissions);
    std::vector<RepairResult> results;
    const auto check = [&](Type type, std::int64_t correct) {
        const auto current = attributeOf(*current_, type);
        if (current != correct)
            results.emplace_back(RepairMode::verifyPermissions, path_, type, current, correct,
                                 std::nullopt, Status::verified);
    };
    check(Type::ownerIDMismatched, uid_);
    check(Type::groupIDMismatched, gid_);
    if (comparesPermissions())
        check(Type::posixPermissionsMismatched, posixpermissions_);
    return results;
}

std::vector<RepairResult> FileResource::repair(VolumeWalker& walker) const {
    if (!current_)
        return unreadable(RepairMode::repairPermissions);
    std::vector<RepairResult> results;
    FileAttributes current = *current_;
    // Opened at the first difference: most resources need no change.
    std::optional<RepairTarget> target;
    const auto fix = [&](Type type, std::int64_t correct) {
        const auto before = attributeOf(current, type);
        if (before == correct)
            return;
        if (!target)
            target.emplace(walker, volumePath(), onData_, current_->fileType);
        const bool set = target->set(type, correct, current);
        const bool reread = target->read(current);
        results.emplace_back(RepairMode::repairPermissions, path_, type, before, correct,
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

RepairResult FileResource::contentResult(RepairMode jobType, Type type, std::int64_t current,
                                         std::int64_t correct) const {
    const bool repairs = jobType == RepairMode::repairPermissions;
    const bool unreadable = type == Type::contentUnreadable;
    return RepairResult(jobType, path_, type, current, correct, std::nullopt,
                        repairs || unreadable ? Status::failed : Status::verified);
}

std::vector<RepairResult> FileResource::verifyContent(VolumeWalker& walker, std::span<char> buffer,
                                                      RepairMode jobType) const {
    if (!content_ || !current_ || current_->fileType != S_IFREG)
        return {};
    const auto size = static_cast<std::int64_t>(current_->size);
    // Receipts keep the low 32 bits of the size here; larger sizes live in another tree.
    if (static_cast<std::uint32_t>(current_->size) != content_->size)
        return {contentResult(jobType, Type::sizeMismatched, size, content_->size)};
    const UniqueFd file = openRegularFile(walker, volumePath(), onData_);
    const auto digest = file ? digestOfFile(file.get(), buffer) : std::nullopt;
    if (!digest) {
        logLine("QVFile::Error: Unable to read the content of " + path_ + ": " +
                std::strerror(errno));
        return {contentResult(jobType, Type::contentUnreadable, 0, content_->checksum)};
    }
    if (digest->checksum != content_->checksum)
        return {
            contentResult(jobType, Type::checksumMismatched, digest->checksum, content_->checksum)};
    return {};
}

} // namespace quelm
