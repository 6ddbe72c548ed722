// What a job asks of a volume, done in this process or by the privileged helper.
#include "jobs/Operations.h"

#include "kexts/KextCaches.h"
#include "kexts/KextSwaps.h"
#include "repair/PermissionRepair.h"
#include "volumes/MountedFileSystem.h"

#include <algorithm>
#include <chrono>

namespace quelm {

std::expected<void, Error> LocalOperations::checkWritable(const Volume& volume,
                                                          const std::string& path) {
    if (auto refusal = path.empty() ? writeRefusal(volume) : writeRefusal(volume, path))
        return std::unexpected(std::move(*refusal));
    return {};
}

std::expected<std::optional<VolumeLock>, Error> LocalOperations::holdVolume(const Volume& volume) {
    auto lock = beginKextChanges(volume);
    if (!lock)
        return std::unexpected(std::move(lock.error()));
    return std::optional<VolumeLock>(std::move(*lock));
}

std::expected<std::vector<Kext>, Error>
LocalOperations::backUpKexts(const std::vector<Kext>& kexts, const std::string& folder,
                             const Volume& volume, const std::string& backupFolder) {
    std::vector<std::string> paths;
    for (const auto& kext : kexts)
        paths.push_back(folder + kext.name());
    const auto outcome =
        copyKextsToBackup(volume, paths, backupFolder, "install", std::chrono::system_clock::now());
    std::vector<Kext> failed;
    for (const auto& kext : kexts)
        if (std::ranges::find(outcome.failed, folder + kext.name()) != outcome.failed.end())
            failed.push_back(kext);
    return failed;
}

std::expected<std::vector<InstallFailure>, Error>
LocalOperations::installKexts(const std::vector<Kext>& kexts, const std::string& folder,
                              const Volume& volume) {
    return quelm::installKexts(kexts, folder, volume);
}

std::expected<PermissionCheck, Error>
LocalOperations::checkPermissions(const Volume& volume, RepairMode mode, bool checksContent) {
    std::optional<VolumeLock> lock;
    if (mode == RepairMode::repairPermissions) {
        auto taken = VolumeLock::acquire(volume.mountPoint());
        if (!taken)
            return std::unexpected(std::move(taken.error()));
        lock.emplace(std::move(*taken));
    }
    PermissionRepair job(volume, mode);
    job.setChecksContent(checksContent);
    job.run();
    PermissionCheck check{{}, job.checkedPathCount()};
    check.results.reserve(job.results().size());
    for (const auto& result : job.results())
        check.results.push_back(result.representable());
    return check;
}

std::expected<void, Error> LocalOperations::rebuildCaches(const Volume& volume) {
    if (!quelm::rebuildCaches(volume))
        return std::unexpected(
            Error{"Cannot rebuild or mark stale the kext caches of " + volume.mountPoint() + ".",
                  ErrorKind::io});
    return {};
}

std::expected<RescueOutcome, Error>
LocalOperations::removeKexts(const std::vector<std::string>& kexts, const Volume& volume,
                             const std::string& backupFolder) {
    return moveKextsToBackup(volume, kexts, backupFolder, "remove",
                             std::chrono::system_clock::now());
}

std::expected<RescueOutcome, Error> LocalOperations::restoreKexts(const std::string& backup,
                                                                  const Volume& volume,
                                                                  const std::string& backupFolder) {
    return restoreKextsFromBackup(backup, volume, backupFolder, std::chrono::system_clock::now());
}

std::expected<RescueOutcome, Error>
LocalOperations::takeBackKexts(const std::vector<std::string>& placed,
                               const std::string& replacedBackup, const Volume& volume,
                               const std::string& backupFolder) {
    return takeBackPlacedKexts(volume, placed, replacedBackup, backupFolder,
                               std::chrono::system_clock::now());
}

} // namespace quelm
