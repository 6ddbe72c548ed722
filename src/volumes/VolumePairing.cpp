// A macOS of 10.15 or later is two volumes: finding the other half of the one the user names.
#include "volumes/VolumePairing.h"

#include "support/Files.h"

#include <algorithm>

namespace quelm {
namespace {

/// Data volumes are APFS, read by the kernel's driver or apfs-fuse; other mounts (/proc, network
/// shares, which may hang) are never looked into.
bool mayHoldMacOS(const MountedFileSystem& mount) {
    return mount.type == "apfs" || mount.type.starts_with("fuse.apfs");
}

const MountedFileSystem* mountAt(const std::vector<MountedFileSystem>& mounts,
                                 const std::string& mountPoint) {
    const MountedFileSystem* found = nullptr;
    for (const auto& mount : mounts)
        if (mount.mountPoint == mountPoint)
            found = &mount;
    return found;
}

/// The mount points of the given kind: those of the same container as near when there are any,
/// else all of them.
std::vector<std::string> halvesOfKind(VolumeKind kind, const std::string& near,
                                      const std::vector<MountedFileSystem>& mounts) {
    const auto* own = mountAt(mounts, near);
    std::vector<std::string> sameContainer;
    std::vector<std::string> others;
    for (const auto& mount : mounts) {
        if (mount.mountPoint == near || !mayHoldMacOS(mount) ||
            Volume::kindOf(mount.mountPoint) != kind)
            continue;
        const bool same =
            own && own->type == "apfs" && mount.type == "apfs" && mount.source == own->source;
        (same ? sameContainer : others).push_back(mount.mountPoint);
    }
    return sameContainer.empty() ? others : sameContainer;
}

std::optional<std::string> onlyOne(std::vector<std::string> candidates) {
    std::ranges::sort(candidates);
    candidates.erase(std::ranges::unique(candidates).begin(), candidates.end());
    return candidates.size() == 1 ? std::optional(candidates.front()) : std::nullopt;
}

Error notMacOS(const std::string& path) {
    return Error{path +
                 " is not a macOS volume: it has no readable "
                 "System/Library/CoreServices/SystemVersion.plist with ProductVersion and "
                 "ProductBuildVersion, and it is not the data volume of macOS 10.15 or later"};
}

std::expected<Volume, Error> joined(Volume system, const std::string& dataPath) {
    if (Volume::kindOf(dataPath) != VolumeKind::data)
        return std::unexpected(
            Error{dataPath + " is not the data volume of macOS 10.15 or later: it needs the "
                             "folders Library and private/var and no System/Library/CoreServices"});
    system.setDataMountPoint(dataPath);
    return system;
}

} // namespace

std::optional<std::string> findDataVolume(const Volume& system,
                                          const std::vector<MountedFileSystem>& mounts) {
    return onlyOne(halvesOfKind(VolumeKind::data, system.mountPoint(), mounts));
}

std::optional<Volume> findSystemVolume(const std::string& dataPath,
                                       const std::vector<MountedFileSystem>& mounts) {
    const auto found = onlyOne(halvesOfKind(VolumeKind::system, dataPath, mounts));
    return found ? Volume::initWithMountPoint(*found) : std::nullopt;
}

std::expected<Volume, Error> openMacOS(const std::string& path,
                                       const std::optional<std::string>& dataPath,
                                       const std::vector<MountedFileSystem>& mounts) {
    if (auto volume = Volume::initWithMountPoint(path)) {
        if (!volume->isSystemVolume() && dataPath)
            return std::unexpected(Error{path + " holds a whole macOS, up to 10.14, which has no "
                                                "separate data volume: leave out --data-volume"});
        if (!volume->isSystemVolume())
            return std::move(*volume);
        if (dataPath)
            return joined(std::move(*volume), *dataPath);
        volume->setDataMountPoint(findDataVolume(*volume, mounts));
        return std::move(*volume);
    }
    if (Volume::kindOf(path) != VolumeKind::data)
        return std::unexpected(notMacOS(path));
    if (dataPath && *dataPath != path)
        return std::unexpected(Error{path + " is a data volume; name its system volume with "
                                            "--volume and this folder with --data-volume"});
    auto system = findSystemVolume(path, mounts);
    if (!system)
        return std::unexpected(
            Error{path + " is the data volume of macOS 10.15 or later, whose system volume was not "
                         "found among the mounted volumes: mount it too and name it with --volume, "
                         "and this folder with --data-volume"});
    system->setDataMountPoint(path);
    return std::move(*system);
}

std::expected<Volume, Error> openMacOS(const std::string& path,
                                       const std::optional<std::string>& dataPath) {
    const auto table = readFileBytes("/proc/self/mountinfo", 1u << 24);
    return openMacOS(path, dataPath,
                     table ? parseMounts(*table) : std::vector<MountedFileSystem>{});
}

} // namespace quelm
