// How a volume is mounted on this host, and whether root can write to it.
#include "volumes/MountedFileSystem.h"

#include "support/Files.h"
#include "support/FolderTrees.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

namespace quelm {
namespace {

constexpr std::size_t kHFSPlusHeaderOffset = 1024;
constexpr std::uint32_t kHFSPlusJournaledBit = 1u << 13;

/// The kernel writes " ", tab, newline and "\" of mount points as octal escapes.
std::string unescapeMountField(std::string_view field) {
    std::string text;
    for (std::size_t i = 0; i < field.size(); ++i) {
        const auto isOctal = [&](std::size_t at) {
            return field[at] >= '0' && field[at] <= '7';
        };
        if (field[i] == '\\' && i + 3 < field.size() && isOctal(i + 1) && isOctal(i + 2) &&
            isOctal(i + 3)) {
            text += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                                      (field[i + 3] - '0'));
            i += 3;
        } else {
            text += field[i];
        }
    }
    return text;
}

/// Whether one of the comma-separated options is wanted, or begins with it when it ends in "=".
bool hasOption(std::string_view options, std::string_view wanted) {
    for (std::size_t start = 0; start <= options.size();) {
        const auto comma = std::min(options.find(',', start), options.size());
        const auto option = options.substr(start, comma - start);
        if (option == wanted || (wanted.ends_with('=') && option.starts_with(wanted)))
            return true;
        start = comma + 1;
    }
    return false;
}

bool holds(const std::string& mountPoint, const std::string& path) {
    return mountPoint == "/" || path == mountPoint || path.starts_with(mountPoint + "/");
}

/// One line of the mount table: "36 35 98:0 / /mnt rw,noatime shared:1 - hfsplus /dev/vda rw",
/// optional fields between the options and the "-". Nothing when it is not well formed.
std::optional<MountedFileSystem> parseMountLine(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> fields;
    for (std::string field; in >> field;)
        fields.push_back(field);
    std::size_t separator = 6;
    while (separator < fields.size() && fields[separator] != "-")
        ++separator;
    if (separator + 2 >= fields.size())
        return std::nullopt;
    MountedFileSystem mount;
    mount.mountPoint = unescapeMountField(fields[4]);
    mount.type = fields[separator + 1];
    mount.source = unescapeMountField(fields[separator + 2]);
    const bool superReadOnly =
        separator + 3 < fields.size() && hasOption(fields[separator + 3], "ro");
    mount.readOnly = hasOption(fields[5], "ro") || superReadOnly;
    const std::string superOptions = separator + 3 < fields.size() ? fields[separator + 3] : "";
    mount.replacesOwners = mount.type == "apfs" &&
                           (hasOption(superOptions, "uid=") || hasOption(superOptions, "gid="));
    return mount;
}

std::uint32_t bigEndian32(std::string_view bytes) {
    std::uint32_t value = 0;
    for (const char byte : bytes.substr(0, 4))
        value = value << 8 | static_cast<unsigned char>(byte);
    return value;
}

/// The first bytes of a block device or image file; nothing for anything else.
std::optional<std::string> volumeStart(const std::string& source) {
    const UniqueFd device(::open(source.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat info {};
    if (!device || ::fstat(device.get(), &info) != 0 ||
        !(S_ISBLK(info.st_mode) || S_ISREG(info.st_mode)))
        return std::nullopt;
    std::string bytes(kHFSPlusHeaderOffset + 512, '\0');
    const ssize_t count = ::pread(device.get(), bytes.data(), bytes.size(), 0);
    if (count != static_cast<ssize_t>(bytes.size()))
        return std::nullopt;
    return bytes;
}

std::string readOnlySentence(const std::string& where,
                             const std::optional<MountedFileSystem>& mount) {
    const std::string type = mount ? mount->type : "";
    if (type == "hfsplus" && mount->journaled.value_or(false))
        return where + " is a journaled HFS+ volume, which Linux mounts read-only: remount it "
                       "with -o remount,rw,force to write to it, at your own risk (Linux does not "
                       "keep its journal), or turn the journal off from macOS first.";
    if (type == "hfsplus")
        return where + " is mounted read-only; Linux mounts a journaled HFS+ volume read-only "
                       "unless it is mounted with -o force, at your own risk. Remount it "
                       "read-write and try again.";
    if (type == "apfs")
        return where + " is mounted read-only: Linux's apfs driver writes only to a volume "
                       "mounted with -o readwrite, and never to a snapshot.";
    return where + " is mounted read-only" +
           (mount ? " (" + type + " on " + mount->source + ")" : "") +
           ": remount it read-write and try again.";
}

/// Whether a file made on the volume can be given to another owner, as kexts must be given to
/// root; asked only of FUSE mounts, which often cannot. Only root can ask.
bool canChangeOwners(const std::string& mountPoint) {
    if (::geteuid() != 0)
        return true;
    const UniqueFd root = openFolder(mountPoint);
    const std::string probe = ".quelm-owner-probe";
    if (!root || !removeTreeAt(root.get(), probe))
        return false;
    const UniqueFd file(::openat(root.get(), probe.c_str(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    struct stat info {};
    const bool changed = file && ::fchown(file.get(), 1, 1) == 0 &&
                         ::fstat(file.get(), &info) == 0 && info.st_uid == 1 && info.st_gid == 1;
    if (file)
        ::unlinkat(root.get(), probe.c_str(), 0);
    return changed;
}

} // namespace

std::vector<MountedFileSystem> parseMounts(std::string_view mountInfo) {
    std::vector<MountedFileSystem> mounts;
    std::istringstream lines{std::string(mountInfo)};
    for (std::string line; std::getline(lines, line);)
        if (auto mount = parseMountLine(line))
            mounts.push_back(std::move(*mount));
    return mounts;
}

std::optional<MountedFileSystem> findMount(std::string_view mountInfo, const std::string& path) {
    std::optional<MountedFileSystem> found;
    for (auto& mount : parseMounts(mountInfo))
        if (holds(mount.mountPoint, path) &&
            (!found || mount.mountPoint.size() >= found->mountPoint.size()))
            found = std::move(mount);
    return found;
}

std::optional<bool> isJournaledHFSPlus(std::string_view firstBytes) {
    if (firstBytes.size() < kHFSPlusHeaderOffset + 8)
        return std::nullopt;
    const auto header = firstBytes.substr(kHFSPlusHeaderOffset);
    if (header.substr(0, 2) != "H+" && header.substr(0, 2) != "HX")
        return std::nullopt;
    return (bigEndian32(header.substr(4)) & kHFSPlusJournaledBit) != 0;
}

std::optional<MountedFileSystem> mountedFileSystemOf(const std::string& path) {
    std::error_code error;
    const auto canonical = std::filesystem::canonical(path, error);
    const auto table = readFileBytes("/proc/self/mountinfo", 1u << 24);
    if (error || !table)
        return std::nullopt;
    auto mount = findMount(*table, canonical.string());
    if (mount && mount->type == "hfsplus")
        if (const auto start = volumeStart(mount->source))
            mount->journaled = isJournaledHFSPlus(*start);
    return mount;
}

namespace {

Error refused(std::string message) {
    return {std::move(message), ErrorKind::refused};
}

/// Why root cannot write beneath the mount point of one half, in one sentence.
std::optional<Error> mountRefusal(const std::string& where) {
    const auto mount = mountedFileSystemOf(where);
    struct statvfs stats {};
    const bool readOnly = (::statvfs(where.c_str(), &stats) == 0 && (stats.f_flag & ST_RDONLY)) ||
                          (mount && mount->readOnly);
    if (readOnly)
        return refused(readOnlySentence(where, mount));
    if (mount && mount->replacesOwners)
        return refused(where +
                       " is an APFS volume mounted with uid= or gid=, so that every item shows "
                       "that owner instead of its own: remount it without those options, since "
                       "owners could be neither checked nor given to root.");
    if (mount && mount->type.starts_with("fuse") && !canChangeOwners(where))
        return refused(where + " is a FUSE mount (" + mount->type +
                       ") that cannot give files to root: mount it with the kernel's hfsplus or "
                       "apfs driver instead.");
    return std::nullopt;
}

} // namespace

std::string missingDataVolumeSentence(const Volume& volume) {
    return volume.mountPoint() + " is the system volume of macOS " +
           volume.version().value_or("10.15 or later") +
           "; /Library, the receipts and the kext caches lie on its data volume, which was not "
           "found: mount the data volume too and name it with --data-volume.";
}

std::optional<Error> writeRefusal(const Volume& volume) {
    if (volume.isSystemVolume() && !volume.dataMountPoint())
        return refused(missingDataVolumeSentence(volume));
    if (volume.dataMountPoint())
        if (auto refusal = mountRefusal(*volume.dataMountPoint()))
            return refusal;
    return volume.isSealed() ? std::nullopt : mountRefusal(volume.mountPoint());
}

std::optional<Error> writeRefusal(const Volume& volume, std::string_view path) {
    if (volume.isSystemVolume() && !volume.dataMountPoint() && dataPathOf(volume.firmlinks(), path))
        return refused(missingDataVolumeSentence(volume));
    const auto place = volume.placeOf(path);
    if (volume.isSealed() && !place.onDataVolume)
        return refused(std::string(path) + " lies on the sealed system volume of macOS " +
                       volume.version().value_or("11 or later") + " (" + volume.mountPoint() +
                       "), which Quelm never writes: macOS would no longer start from a changed "
                       "seal.");
    return mountRefusal(place.root);
}

} // namespace quelm
