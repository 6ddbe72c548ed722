// Backing up and installing kext bundles on a volume: the privileged file operations.
#include "kexts/KextInstallation.h"

#include "kexts/KextBackups.h"
#include "kexts/QVKernelExtensionFolder.h"
#include "support/FolderTrees.h"
#include "support/Log.h"
#include "support/PathValidation.h"
#include "support/Strings.h"
#include "volumes/MountedFileSystem.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>

namespace quelm {
namespace {

constexpr ItemAttributes kSystemAttributes{0, 0, 0755};
constexpr ItemAttributes kBackupAttributes{501, 80, 0755};

/// A bundle put aside while its replacement takes its place.
std::string asideName(const std::string& name) {
    return "." + name + ".quelm-previous";
}

/// Renames the installed bundle aside, puts the staged one in place, and puts the old one back
/// if that fails: for file systems without an atomic exchange, and for names that differ in
/// case only, where the new spelling must win.
bool replaceThroughAside(int folder, const std::string& staging, const std::string& installed,
                         const std::string& name) {
    const std::string aside = asideName(name);
    if (::renameat(folder, installed.c_str(), folder, aside.c_str()) != 0)
        return false;
    if (::renameat(folder, staging.c_str(), folder, name.c_str()) != 0) {
        if (::renameat(folder, aside.c_str(), folder, installed.c_str()) != 0)
            logLine("KextInstallation::Error: Unable to put back " + installed + " from " + aside);
        return false;
    }
    if (!removeTreeAt(folder, aside))
        logLine("KextInstallation::Error: Unable to remove " + aside);
    return true;
}

bool exchange(int folder, const std::string& staging, const std::string& name) {
#if defined(__APPLE__)
    return ::renameatx_np(folder, staging.c_str(), folder, name.c_str(), RENAME_SWAP) == 0;
#else
    return ::renameat2(folder, staging.c_str(), folder, name.c_str(), RENAME_EXCHANGE) == 0;
#endif
}

/// Puts staging where name is. With an atomic exchange the old bundle ends under the staging
/// name; without one (hfsplus and apfs on Linux have none) it goes through an aside name.
bool swapIntoPlace(int folder, const std::string& staging, const std::string& name) {
    const auto installed = listedNameAt(folder, name);
    if (!installed)
        return ::renameat(folder, staging.c_str(), folder, name.c_str()) == 0;
    // Drivers refuse an exchange in their own ways (EINVAL from hfsplus, ENOTEMPTY from apfs
    // when the target holds files): whatever the answer, the aside path is safe to try.
    if (*installed == name && exchange(folder, staging, name))
        return true;
    return replaceThroughAside(folder, staging, *installed, name);
}

/// A swap cut short leaves the old bundle aside: put it back when nothing took its place.
void recoverInterruptedSwap(int folder, const std::string& name) {
    const std::string aside = asideName(name);
    if (!listedNameAt(folder, aside))
        return;
    if (!listedNameAt(folder, name) && ::renameat(folder, aside.c_str(), folder, name.c_str()) == 0)
        return;
    if (!removeTreeAt(folder, aside))
        logLine("KextInstallation::Error: Unable to remove " + aside);
}

bool installOne(const QVKernelExtension& kext, const std::string& folderPath,
                const QVOSVolume& volume) {
    if (!isInstallableKext(kext))
        return false;
    // Missing folders are made root:wheel 755, as macOS has them.
    const UniqueFd folder = openFolderBelow(volume.mountPoint(), folderPath, kSystemAttributes);
    if (!folder)
        return false;
    const std::string name = kext.name();
    recoverInterruptedSwap(folder.get(), name);
    const UniqueFd source(::open(kext.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!source)
        return false;
    const std::string staging = "." + name + ".quelm-staging";
    const bool installed =
        removeTreeAt(folder.get(), staging) &&
        copyTreeAt(source.get(), ".", folder.get(), staging, kSystemAttributes) &&
        swapIntoPlace(folder.get(), staging, name);
    // After an exchange the staging name holds the old bundle; after a failure, the partial copy.
    if (!removeTreeAt(folder.get(), staging))
        logLine("KextInstallation::Error: Unable to remove " + volume.mountPoint() + folderPath +
                staging);
    return installed;
}

/// The name the kext was backed up under; nothing when it was not.
std::optional<std::string> backupOne(const QVKernelExtension& kext, const std::string& installedIn,
                                     const QVOSVolume& volume, int backupFolder) {
    const std::string name = kext.name();
    const UniqueFd installed = openFolderBelow(volume.mountPoint(), installedIn, std::nullopt);
    const auto listed =
        isPlainFileName(name) && installed ? listedNameAt(installed.get(), name) : std::nullopt;
    if (listed && removeTreeAt(backupFolder, *listed) &&
        copyTreeAt(installed.get(), *listed, backupFolder, *listed, std::nullopt))
        return listed;
    return std::nullopt;
}

} // namespace

std::optional<std::string> installationRefusal(const QVOSVolume& volume,
                                               const std::string& folder) {
    if (!isVolumeFolder(folder))
        return folder + " is not a folder of the volume such as /Library/Extensions/";
    if (auto refusal = folderRefusal(folder, volume))
        return refusal;
    return writeRefusal(volume);
}

bool isInstallableKext(const QVKernelExtension& kext) {
    const std::string path = kext.path();
    return isCleanAbsolutePath(path) && isPlainFileName(kext.name()) &&
           kext.url().pathExtension() == "kext";
}

std::vector<QVKernelExtension> installKernelExtensions(const std::vector<QVKernelExtension>& kexts,
                                                       const std::string& destinationFolder,
                                                       const QVOSVolume& volume) {
    const auto refusal = installationRefusal(volume, destinationFolder);
    if (refusal)
        logLine("KextInstallation::Error: " + *refusal);
    std::vector<QVKernelExtension> failed;
    for (const auto& kext : kexts)
        if (refusal || !installOne(kext, destinationFolder, volume))
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
    const std::string backupPath = destinationFolder + compactTimestamp(now) + "/";
    if (!isVolumeFolder(installedInFolder) || !isVolumeFolder(backupPath))
        return kexts;
    const UniqueFd backupFolder = openFolderBelow("/", backupPath, kBackupAttributes);
    if (!backupFolder)
        return kexts;
    std::vector<QVKernelExtension> failed;
    std::vector<BackupItem> saved;
    for (const auto& kext : kexts) {
        if (const auto name = backupOne(kext, installedInFolder, volume, backupFolder.get()))
            saved.push_back({installedInFolder, *name, *name});
        else
            failed.push_back(kext);
    }
    // The manifest lets restore and undo put these back; kexts of other folders it cannot name.
    std::erase_if(saved, [](const BackupItem& item) {
        return std::ranges::find(kExtensionsFolders, item.sourceFolder) == kExtensionsFolders.end();
    });
    if (!saved.empty() && !addToManifest(backupFolder.get(), volume, "install", saved, now))
        logLine("KextInstallation::Error: Unable to write the manifest of " + backupPath);
    return failed;
}

} // namespace quelm
