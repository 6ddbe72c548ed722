// Backing up and installing kext bundles on a volume: the privileged file operations.
#include "kexts/KextInstallation.h"

#include "support/Log.h"
#include "support/PathValidation.h"
#include "support/Process.h"
#include "support/Strings.h"
#include "support/VolumePaths.h"

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kSystemOwner = 0;
constexpr gid_t kSystemGroup = 0;
constexpr uid_t kBackupOwner = 501;
constexpr gid_t kBackupGroup = 80;
constexpr mode_t kBundleMode = 0755;

/// Whether volumePath's folder is reached from the volume root without any link.
bool isBeneathVolume(const QVOSVolume& volume, const std::string& volumePath) {
    const auto root = VolumeRoot::open(volume.mountPoint());
    if (!root)
        return false;
    VolumeWalker walker(root);
    return walker.parentOf(volumePath).has_value();
}

bool setOwnerAndMode(const fs::path& path, uid_t owner, gid_t group, mode_t mode) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0 || ::lchown(path.c_str(), owner, group) != 0)
        return false;
    return S_ISLNK(info.st_mode) || ::chmod(path.c_str(), mode) == 0;
}

/// Owner 0, group 0 and mode 755 on the bundle and on every item below it, links included
/// (their owner only: a link's own mode means nothing here).
bool applySystemAttributes(const fs::path& bundle) {
    if (!setOwnerAndMode(bundle, kSystemOwner, kSystemGroup, kBundleMode))
        return false;
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(bundle, error);
         !error && it != fs::recursive_directory_iterator(); it.increment(error))
        if (!setOwnerAndMode(it->path(), kSystemOwner, kSystemGroup, kBundleMode))
            return false;
    return !error;
}

/// Copies the bundle folder, its inner links as links.
bool copyBundle(const fs::path& source, const fs::path& destination) {
    std::error_code error;
    if (!fs::is_directory(source, error))
        return false;
    fs::create_directory(destination, error);
    if (error)
        return false;
    fs::copy(source, destination, fs::copy_options::recursive | fs::copy_options::copy_symlinks,
             error);
    return !error;
}

/// Puts staging where destination is, and the old bundle, if any, where staging was.
bool swapIntoPlace(const fs::path& staging, const fs::path& destination) {
    struct stat info {};
    if (::lstat(destination.c_str(), &info) != 0)
        return ::rename(staging.c_str(), destination.c_str()) == 0;
#if defined(__APPLE__)
    return ::renamex_np(staging.c_str(), destination.c_str(), RENAME_SWAP) == 0;
#else
    return ::renameat2(AT_FDCWD, staging.c_str(), AT_FDCWD, destination.c_str(), RENAME_EXCHANGE) ==
           0;
#endif
}

bool installOne(const QVKernelExtension& kext, const std::string& folder,
                const QVOSVolume& volume) {
    const std::string name = kext.name();
    if (!isInstallableKext(kext) || !isBeneathVolume(volume, folder + name))
        return false;
    const fs::path destination = volume.mountPoint() + folder + name;
    const fs::path staging = volume.mountPoint() + folder + "." + name + ".quelm-staging";
    std::error_code error;
    fs::remove_all(staging, error);
    const bool installed = !error && copyBundle(kext.path(), staging) &&
                           applySystemAttributes(staging) && swapIntoPlace(staging, destination);
    // After a swap the staging name holds the old bundle; after a failure, the partial copy.
    fs::remove_all(staging, error);
    if (error)
        logLine("KextInstallation::Error: Unable to remove " + staging.string());
    return installed;
}

/// Makes folder and its missing parents, each with the backup owner, group and mode.
bool makeBackupFolder(const fs::path& folder) {
    std::vector<fs::path> missing;
    std::error_code error;
    for (auto path = folder; !path.empty() && !fs::exists(path, error); path = path.parent_path()) {
        missing.push_back(path);
        if (path == path.parent_path())
            break;
    }
    fs::create_directories(folder, error);
    if (error || !fs::is_directory(folder, error))
        return false;
    for (const auto& path : missing)
        if (!setOwnerAndMode(path, kBackupOwner, kBackupGroup, kBundleMode))
            return false;
    return true;
}

bool backupOne(const QVKernelExtension& kext, const std::string& installedIn,
               const QVOSVolume& volume, const fs::path& backupPath) {
    const std::string name = kext.name();
    if (!isPlainFileName(name) || !isBeneathVolume(volume, installedIn + name))
        return false;
    std::error_code error;
    const fs::path source = volume.mountPoint() + installedIn + name;
    if (!fs::is_directory(fs::symlink_status(source, error)))
        return false;
    fs::copy(source, backupPath / name,
             fs::copy_options::recursive | fs::copy_options::copy_symlinks |
                 fs::copy_options::overwrite_existing,
             error);
    return !error;
}

/// Sets the modification time of the volume's folder to now, without following links.
bool touchFolder(VolumeWalker& walker, std::string_view folder) {
    const auto parent = walker.parentOf(folder);
    if (!parent)
        return false;
    const std::string name(parent->second);
    return ::utimensat(parent->first, name.c_str(), nullptr, AT_SYMLINK_NOFOLLOW) == 0;
}

} // namespace

bool rebuildCaches(const QVOSVolume& volume) {
    if (!isCleanAbsolutePath(volume.mountPoint()))
        return false;
    if (const auto& kextcache = SystemTools::host().kextcache)
        return runTool(*kextcache, {"-i", volume.mountPoint()}) == 0;
    const auto root = VolumeRoot::open(volume.mountPoint());
    if (!root)
        return false;
    VolumeWalker walker(root);
    std::error_code error;
    const bool hasLibraryExtensions =
        std::filesystem::is_directory(volume.mountPoint() + "/Library/Extensions", error);
    return touchFolder(walker, "/System/Library/Extensions") &&
           (!hasLibraryExtensions || touchFolder(walker, "/Library/Extensions"));
}

bool isInstallableKext(const QVKernelExtension& kext) {
    const std::string path = kext.path();
    return isCleanAbsolutePath(path) && isPlainFileName(kext.name()) &&
           kext.url().pathExtension() == "kext";
}

std::vector<QVKernelExtension> installKernelExtensions(const std::vector<QVKernelExtension>& kexts,
                                                       const std::string& destinationFolder,
                                                       const QVOSVolume& volume) {
    std::vector<QVKernelExtension> failed;
    const bool validFolder = isVolumeFolder(destinationFolder);
    for (const auto& kext : kexts)
        if (!validFolder || !installOne(kext, destinationFolder, volume))
            failed.push_back(kext);
    return failed;
}

std::vector<QVKernelExtension> backupKernelExtensions(const std::vector<QVKernelExtension>& kexts,
                                                      const std::string& installedInFolder,
                                                      const QVOSVolume& volume,
                                                      const std::string& destinationFolder,
                                                      std::chrono::system_clock::time_point now) {
    if (kexts.empty())
        return {};
    const fs::path backupPath = destinationFolder + compactTimestamp(now);
    if (!isVolumeFolder(installedInFolder) || !isVolumeFolder(destinationFolder) ||
        !makeBackupFolder(backupPath))
        return kexts;
    std::vector<QVKernelExtension> failed;
    for (const auto& kext : kexts)
        if (!backupOne(kext, installedInFolder, volume, backupPath))
            failed.push_back(kext);
    return failed;
}

} // namespace quelm
