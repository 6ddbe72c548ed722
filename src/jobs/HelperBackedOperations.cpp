// The operations of a job asked of the privileged helper.
#include "helper/HelperClient.h"
#include "jobs/Operations.h"

#include <algorithm>
#include <filesystem>

namespace quelm {
namespace {

std::unexpected<Error> refused(std::string message) {
    return std::unexpected(Error{std::move(message), ErrorKind::refused});
}

std::unexpected<Error> helperGone() {
    return std::unexpected(Error{"The helper stopped before it answered; see its messages above.",
                                 ErrorKind::channel});
}

/// The helper names the paths that failed: the others were done.
RescueOutcome outcomeOf(const std::vector<std::string>& asked,
                        const std::vector<std::string>& failed, const std::string& backupFolder) {
    RescueOutcome outcome;
    for (const auto& path : asked)
        (std::ranges::find(failed, path) == failed.end() ? outcome.done : outcome.failed)
            .push_back(path);
    std::error_code error;
    if (std::filesystem::exists(backupFolder, error))
        outcome.backupFolder = backupFolder;
    return outcome;
}

} // namespace

HelperBackedOperations::HelperBackedOperations(std::shared_ptr<HelperClient> helper)
    : helper_(std::move(helper)) {
}

std::expected<void, Error> HelperBackedOperations::checkWritable(const Volume& volume,
                                                                 const std::string&) {
    // The helper answers for the whole volume, both halves from macOS 10.15 on.
    const auto refusal = helper_->checkWritableVolume(volume);
    if (!refusal)
        return helperGone();
    if (!refusal->empty())
        return refused(*refusal);
    return {};
}

std::expected<std::optional<VolumeLock>, Error> HelperBackedOperations::holdVolume(const Volume&) {
    return std::optional<VolumeLock>();
}

std::expected<std::vector<Kext>, Error>
HelperBackedOperations::backUpKexts(const std::vector<Kext>& kexts, const std::string& folder,
                                    const Volume& volume, const std::string& backupFolder) {
    auto failed = helper_->backUpKexts(kexts, folder, volume, backupFolder);
    if (!failed)
        return helperGone();
    return std::move(*failed);
}

std::expected<std::vector<InstallFailure>, Error>
HelperBackedOperations::installKexts(const std::vector<Kext>& kexts, const std::string& folder,
                                     const Volume& volume) {
    const auto failed = helper_->installKexts(kexts, folder, volume);
    if (!failed)
        return helperGone();
    std::vector<InstallFailure> failures;
    for (const auto& kext : *failed)
        failures.push_back({kext, "the helper could not install it; its log says why"});
    return failures;
}

std::expected<PermissionCheck, Error> HelperBackedOperations::checkPermissions(const Volume& volume,
                                                                               RepairMode mode,
                                                                               bool checksContent) {
    if (mode != RepairMode::repairPermissions || checksContent)
        return refused("The helper only repairs permissions; verifying runs in quelmctl.");
    auto records = helper_->repairPermissions(volume);
    if (!records)
        return helperGone();
    return PermissionCheck{std::move(*records), 0};
}

std::expected<void, Error> HelperBackedOperations::rebuildCaches(const Volume& volume) {
    const auto rebuilt = helper_->rebuildCaches(volume);
    if (!rebuilt)
        return helperGone();
    if (!*rebuilt)
        return std::unexpected(Error{"The helper could not rebuild or mark stale the kext "
                                     "caches of " +
                                         volume.mountPoint() + ".",
                                     ErrorKind::io});
    return {};
}

std::expected<RescueOutcome, Error>
HelperBackedOperations::removeKexts(const std::vector<std::string>& kexts, const Volume& volume,
                                    const std::string& backupFolder) {
    const auto failed = helper_->removeKexts(kexts, volume, backupFolder);
    if (!failed)
        return helperGone();
    return outcomeOf(kexts, *failed, backupFolder);
}

std::expected<RescueOutcome, Error>
HelperBackedOperations::restoreKexts(const std::string& backup, const Volume& volume,
                                     const std::string& backupFolder) {
    const auto steps = planRestore(backup, volume);
    if (!steps)
        return std::unexpected(steps.error());
    std::vector<std::string> paths;
    for (const auto& step : *steps)
        paths.push_back(step.item.volumePath());
    const auto failed = helper_->restoreKexts(backup, volume, backupFolder);
    if (!failed)
        return helperGone();
    if (failed->size() == 1 && failed->front() == backup)
        return refused("The helper refused to restore " + backup + "; its log says why.");
    return outcomeOf(paths, *failed, backupFolder);
}

std::expected<RescueOutcome, Error>
HelperBackedOperations::takeBackKexts(const std::vector<std::string>& placed,
                                      const std::string& replacedBackup, const Volume& volume,
                                      const std::string& backupFolder) {
    auto taken = removeKexts(placed, volume, backupFolder);
    if (!taken || replacedBackup.empty())
        return taken;
    // Nothing stands where the replaced kexts go back unless taking it off failed.
    auto restored = restoreKexts(replacedBackup, volume, backupFolder + "-replaced");
    if (!restored)
        return restored;
    taken->done.insert(taken->done.end(), restored->done.begin(), restored->done.end());
    taken->failed.insert(taken->failed.end(), restored->failed.begin(), restored->failed.end());
    return taken;
}

} // namespace quelm
