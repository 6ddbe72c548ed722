// Installing kext bundles on a volume: the privileged file operations.
#include "kexts/KextInstallation.h"

#include "kexts/KextBackups.h"
#include "kexts/KextCatalog.h"
#include "kexts/KextFolder.h"
#include "kexts/KextSwaps.h"
#include "support/FolderTrees.h"
#include "support/Log.h"
#include "support/PathValidation.h"
#include "support/Strings.h"
#include "volumes/MountedFileSystem.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

namespace quelm {
namespace {

constexpr ItemAttributes kSystemAttributes{0, 0, 0755};

/// The folder holding the kext's bundle, checked without following a link: a link named like
/// a kext must not make root copy what it points to.
std::expected<UserPathParent, Error> openSource(const Kext& kext, const Reader* reader) {
    auto place = openUserPathParent(kext.path());
    struct stat folder {};
    if (!place || ::fstat(place->folder.get(), &folder) != 0)
        return std::unexpected(
            Error{"its folder cannot be opened: " + failureCause(errno), ErrorKind::io});
    if (reader && !reader->mayRead(folder))
        return std::unexpected(
            Error{place->folderPath + " cannot be read by you", ErrorKind::refused});
    struct stat info {};
    if (::fstatat(place->folder.get(), place->name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
        return std::unexpected(Error{"it cannot be found: " + failureCause(errno), ErrorKind::io});
    if (!S_ISDIR(info.st_mode))
        return std::unexpected(Error{S_ISLNK(info.st_mode)
                                         ? "it is a link, not a kext bundle folder"
                                         : "it is not a kext bundle folder"});
    return std::move(*place);
}

std::string keptText(const std::string& name, const SwapFailure& failure) {
    return failure.keptAs.empty() ? "; the installed " + name + " is unchanged"
                                  : "; the installed " + name + " was kept as " + failure.keptAs +
                                        ", which the next Quelm command puts back";
}

std::expected<void, Error> installOne(const Kext& kext, const std::string& folderPath,
                                      const Volume& volume, const Reader* reader) {
    if (!isInstallableKext(kext))
        return std::unexpected(Error{"it is not a .kext bundle given by a whole path"});
    const auto source = openSource(kext, reader);
    if (!source)
        return std::unexpected(source.error());
    // Missing folders are made root:wheel 755, as macOS has them.
    const UniqueFd folder = openFolderOn(volume, folderPath, kSystemAttributes);
    if (!folder)
        return std::unexpected(Error{
            folderPath + " cannot be opened on the volume: " + failureCause(errno), ErrorKind::io});
    const std::string name = kext.name();
    const std::string staging = hiddenName(name, HiddenRole::staging);
    if (!copyTreeAt(source->folder.get(), source->name, folder.get(), staging, kSystemAttributes,
                    reader)) {
        const std::string cause = failureCause(errno);
        if (!removeTreeAt(folder.get(), staging))
            logLine("KextInstallation::Error: Unable to remove " + staging);
        return std::unexpected(Error{cause + keptText(name, {}), ErrorKind::io});
    }
    const auto old = swapIntoPlace(folder.get(), staging, name);
    // After an exchange the staging name holds the old bundle; after a failure, the new copy.
    const std::string leftover = old ? *old : staging;
    if (!leftover.empty() && !removeTreeAt(folder.get(), leftover))
        logLine("KextInstallation::Error: Unable to remove " + volume.mountPoint() + folderPath +
                leftover);
    if (!old)
        return std::unexpected(
            Error{old.error().cause + keptText(name, old.error()), ErrorKind::io});
    return {};
}

} // namespace

std::optional<Error> installationRefusal(const Volume& volume, const std::string& folder) {
    if (!isVolumeFolder(folder))
        return Error{folder + " is not a folder of the volume such as /Library/Extensions/"};
    if (auto refusal = folderRefusal(folder, volume))
        return refusal;
    return writeRefusal(volume, folder);
}

std::vector<Kext> kextsReplacedBy(const Volume& volume, std::string_view folder,
                                  const std::vector<Kext>& kexts) {
    const UniqueFd opened = openFolderOn(volume, folder);
    std::vector<Kext> replaced;
    for (const auto& kext : kexts)
        if (opened && isPlainFileName(kext.name()) && listedNameAt(opened.get(), kext.name()))
            replaced.push_back(kext);
    return replaced;
}

bool isInstallableKext(const Kext& kext) {
    const std::string path = kext.path();
    return isCleanAbsolutePath(path) && isPlainFileName(kext.name()) &&
           kext.url().pathExtension() == "kext";
}

std::vector<InstallFailure> installKexts(const std::vector<Kext>& kexts,
                                         const std::string& destinationFolder, const Volume& volume,
                                         const Reader* reader) {
    auto refusal = installationRefusal(volume, destinationFolder);
    std::optional<VolumeLock> lock;
    if (!refusal) {
        auto taken = beginKextChanges(volume);
        if (taken)
            lock.emplace(std::move(*taken));
        else
            refusal = taken.error();
    }
    std::vector<InstallFailure> failed;
    for (const auto& kext : kexts) {
        auto installed = refusal ? std::expected<void, Error>(std::unexpect, *refusal)
                                 : installOne(kext, destinationFolder, volume, reader);
        if (!installed)
            failed.push_back({kext, std::move(installed.error().message)});
    }
    return failed;
}

std::vector<Kext> installKernelExtensions(const std::vector<Kext>& kexts,
                                          const std::string& destinationFolder,
                                          const Volume& volume, const Reader* reader) {
    std::vector<Kext> failed;
    for (auto& failure : installKexts(kexts, destinationFolder, volume, reader)) {
        logLine("KextInstallation::Error: " + failure.kext.name() + ": " + failure.reason);
        failed.push_back(std::move(failure.kext));
    }
    return failed;
}

} // namespace quelm
