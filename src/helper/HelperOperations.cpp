// The privileged helper's operations: everything the application asks of root.
#include "helper/HelperOperations.h"

#include "helper/BooterConfig.h"
#include "helper/HelperInstallation.h"
#include "helper/HelperServer.h"
#include "kexts/KextBackups.h"
#include "kexts/KextCaches.h"
#include "kexts/KextInstallation.h"
#include "repair/PermissionRepair.h"
#include "repair/Processor.h"
#include "support/Files.h"
#include "support/FolderTrees.h"
#include "support/Log.h"
#include "support/PathValidation.h"
#include "support/Process.h"
#include "volumes/MountedFileSystem.h"
#include "volumes/VolumeLock.h"

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kUserOwner = 501;
constexpr gid_t kAdminGroup = 80;

template <class T> const T& argument(const RemoteCall& call, std::size_t index) {
    return std::get<T>(call.arguments[index]);
}

constexpr ItemAttributes kSystemAttributes{0, 0, 0755};
constexpr std::size_t kMaxRepairToolSize = 256u << 20;

void stopRepairTool() {
    startTool(SystemTools::host().killall, {"RepairPermissions"});
}

/// Logs why root cannot write to the volume, or to the half that holds path when one is
/// given, when it cannot.
bool refusesWrites(const Volume& volume, std::string_view path = {}) {
    const auto refusal = path.empty() ? writeRefusal(volume) : writeRefusal(volume, path);
    if (refusal)
        logLine("QVXPCVESKHelper::Error: " + refusal->message);
    return refusal.has_value();
}

} // namespace

bool isAcceptableVolume(const Volume& volume) {
    std::error_code error;
    const auto& data = volume.dataMountPoint();
    // A data volume is joined only to a system volume, and must be one itself.
    return isCleanAbsolutePath(volume.mountPoint()) &&
           fs::is_directory(volume.mountPoint(), error) &&
           (!data || (volume.isSystemVolume() && isCleanAbsolutePath(*data) &&
                      Volume::kindOf(*data) == VolumeKind::data));
}

HelperOperations::HelperOperations(const PlistValue::Dict& info, Settings settings)
    : HelperIdentity(info), info_(info), settings_(std::move(settings)) {
    progressObserver_ = NotificationCenter::defaultCenter().addObserver(
        kRepairPermissionsProgressDidChange,
        [this](const double& progress) { sendRepairPermissionsReport(progress); });
}

HelperOperations::~HelperOperations() {
    NotificationCenter::defaultCenter().removeObserver(progressObserver_);
}

void HelperOperations::sendRepairPermissionsReport(double progress) {
    FrameWriter* connection = connection_.load();
    if (!connection)
        return;
    connection->write(encodeCall(
        {std::nullopt, findRemoteOperation("updateProgressWithDoubleValue:"), {progress}}));
}

std::vector<std::string> HelperOperations::uninstallHelper() const {
    std::vector<std::string> failed;
    for (const auto& path : {toolPath(settings_.root), launchPolicyPath(settings_.root)}) {
        std::error_code error;
        if (!fs::remove(path, error))
            failed.push_back(path);
    }
    return failed;
}

std::string HelperOperations::getHelperBundleVersion() const {
    const auto found = info_.find("CFBundleVersion");
    if (found == info_.end() || !found->second.string())
        fatalError("QVXPCHelper::getHelperBundleVersion() CFBundleVersion key is not defined in "
                   "main bundle's Info.plist file.");
    return *found->second.string();
}

bool HelperOperations::repairWithFolder(const std::string& folder, const Volume& volume) const {
    if (!isAcceptableVolume(volume) || !isCleanAbsolutePath(folder) ||
        refusesWrites(volume, folder))
        return false;
    // Walked beneath the volume: a link anywhere on the way, or inside, is never followed.
    const UniqueFd opened = openFolderOn(volume, folder);
    return opened && applyTreeAttributes(opened.get(), kSystemAttributes);
}

std::vector<ResultRecord>
HelperOperations::repairDiskPermissionsOnTargetVolume(const Volume& volume) const {
    if (!isAcceptableVolume(volume) || refusesWrites(volume))
        return {};
    const auto lock = VolumeLock::acquire(volume.mountPoint());
    if (!lock) {
        logLine("QVXPCVESKHelper::Error: " + lock.error().message);
        return {};
    }
    PermissionRepair job(volume, RepairMode::repairPermissions);
    job.run();
    std::vector<ResultRecord> results;
    results.reserve(job.results().size());
    for (const auto& result : job.results())
        results.push_back(result.representable());
    return results;
}

bool HelperOperations::rebuildCachesOnTargetVolume(const Volume& volume) const {
    return isAcceptableVolume(volume) && !refusesWrites(volume, kKextChangesFolder) &&
           rebuildCaches(volume);
}

std::vector<Kext> HelperOperations::installWithKernelExtensions(const std::vector<Kext>& kexts,
                                                                const std::string& folder,
                                                                const Volume& volume) const {
    if (!isAcceptableVolume(volume))
        return kexts;
    // Root copies for the user who asked: only what that user could read.
    const Reader reader = Reader::forUser(callerUid());
    return installKernelExtensions(kexts, folder, volume, &reader);
}

std::vector<Kext> HelperOperations::backupWithKernelExtensions(
    const std::vector<Kext>& kexts, const std::string& installedInFolder, const Volume& volume,
    const std::string& destinationFolder) const {
    if (!isAcceptableVolume(volume))
        return kexts;
    return backupKernelExtensions(kexts, installedInFolder, volume, destinationFolder,
                                  std::chrono::system_clock::now());
}

std::string HelperOperations::checkWritableTargetVolume(const Volume& volume) const {
    if (!isAcceptableVolume(volume))
        return volume.mountPoint() + " is not a folder that can be the target volume.";
    return writeRefusal(volume).value_or(Error{}).message;
}

std::vector<std::string>
HelperOperations::removeKernelExtensions(const std::vector<std::string>& kexts,
                                         const Volume& volume,
                                         const std::string& backupFolder) const {
    if (!isAcceptableVolume(volume) || !isCleanAbsolutePath(backupFolder) ||
        refusesWrites(volume, kKextChangesFolder))
        return kexts;
    const auto outcome =
        moveKextsToBackup(volume, kexts, backupFolder, "remove", std::chrono::system_clock::now());
    if (!outcome.done.empty() && !rebuildCaches(volume))
        logLine("QVXPCVESKHelper::Error: Unable to mark the kext caches of " + volume.mountPoint() +
                " stale");
    return outcome.failed;
}

std::vector<std::string> HelperOperations::restoreKernelExtensionsFromBackupFolder(
    const std::string& backup, const Volume& volume, const std::string& backupFolder) const {
    if (!isAcceptableVolume(volume) || !isCleanAbsolutePath(backup) ||
        !isCleanAbsolutePath(backupFolder) || refusesWrites(volume, kKextChangesFolder))
        return {backup};
    const auto outcome =
        restoreKextsFromBackup(backup, volume, backupFolder, std::chrono::system_clock::now());
    if (!outcome) {
        logLine("QVXPCVESKHelper::Error: " + outcome.error().message);
        return {backup};
    }
    if (!outcome->done.empty() && !rebuildCaches(volume))
        logLine("QVXPCVESKHelper::Error: Unable to mark the kext caches of " + volume.mountPoint() +
                " stale");
    return outcome->failed;
}

bool HelperOperations::changeMaximumThreadsNumber(std::int64_t count) const {
    // Zero threads would stop the next pass: refuse it rather than let a later job die.
    if (count < 1)
        return false;
    Processor::shared().setMaxthread(count);
    return Processor::shared().maxthread() == count;
}

bool HelperOperations::installRepairPermissionFromSourcePath(const std::string& source,
                                                             const std::string& destination) const {
    if (!isCleanAbsolutePath(source) || !isCleanAbsolutePath(destination))
        return false;
    // Root copies only what the user could not have slipped in: see readTrustedFile.
    const auto tool = readTrustedFile(source, callerUid(), kMaxRepairToolSize);
    const auto place = openParentBelow("/", destination);
    if (!tool || !place)
        return false;
    stopRepairTool();
    const auto& [folder, name] = *place;
    if (!removeTreeAt(folder.get(), name))
        return false;
    const UniqueFd file(::openat(folder.get(), name.c_str(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    return file && writeAll(file.get(), *tool) &&
           ::fchown(file.get(), kUserOwner, kAdminGroup) == 0 && ::fchmod(file.get(), 0755) == 0;
}

bool HelperOperations::uninstallRepairPermissionsFromPath(const std::string& path) const {
    if (!isCleanAbsolutePath(path))
        return false;
    stopRepairTool();
    const auto place = openParentBelow("/", path);
    return place && listedNameAt(place->first.get(), place->second) &&
           removeTreeAt(place->first.get(), place->second);
}

bool HelperOperations::applyBooterConfigViaNVRAMWithNewBooterConfig(std::int64_t value) const {
    return applyBooterConfig(value, settings_.efivarsFolder);
}

RemoteValue HelperOperations::perform(const RemoteCall& call) {
    const std::string_view op = call.operation->selector;
    const auto volumeAt = [&](std::size_t i) -> const Volume& {
        return argument<Volume>(call, i);
    };
    const auto stringAt = [&](std::size_t i) -> const std::string& {
        return argument<std::string>(call, i);
    };
    const auto kextsAt = [&](std::size_t i) -> const std::vector<Kext>& {
        return argument<std::vector<Kext>>(call, i);
    };
    if (op == "test:")
        return test();
    if (op == "test2:")
        return test2();
    if (op == "uninstallHelper:")
        return uninstallHelper();
    if (op == "getHelperBundleVersion:")
        return getHelperBundleVersion();
    if (op == "repairWithFolder:onTargetVolume:reply:")
        return repairWithFolder(stringAt(0), volumeAt(1));
    if (op == "repairDiskPermissionsOnTargetVolume:reply:")
        return repairDiskPermissionsOnTargetVolume(volumeAt(0));
    if (op == "rebuildCachesOnTargetVolume:reply:")
        return rebuildCachesOnTargetVolume(volumeAt(0));
    if (op == "installWithKernelExtensions:toDestinationFolder:onTargetVolume:reply:")
        return installWithKernelExtensions(kextsAt(0), stringAt(1), volumeAt(2));
    if (op == "backupWithKernelExtensions:installedInFolder:onTargetVolume:toDestinationFolder:"
              "reply:")
        return backupWithKernelExtensions(kextsAt(0), stringAt(1), volumeAt(2), stringAt(3));
    if (op == "changeMaximumThreadsNumber:reply:")
        return changeMaximumThreadsNumber(argument<std::int64_t>(call, 0));
    if (op == "installRepairPermissionFromSourcePath:toDestinationPath:reply:")
        return installRepairPermissionFromSourcePath(stringAt(0), stringAt(1));
    if (op == "uninstallRepairPermissionsFromPath:reply:")
        return uninstallRepairPermissionsFromPath(stringAt(0));
    if (op == "applyBooterConfigViaNVRAMWithNewBooterConfig:reply:")
        return applyBooterConfigViaNVRAMWithNewBooterConfig(argument<std::int64_t>(call, 0));
    if (op == "checkWritableTargetVolume:reply:")
        return checkWritableTargetVolume(volumeAt(0));
    if (op == "removeKernelExtensions:fromVolume:backupFolder:reply:")
        return removeKernelExtensions(argument<std::vector<std::string>>(call, 0), volumeAt(1),
                                      stringAt(2));
    if (op == "restoreKernelExtensionsFromBackupFolder:onTargetVolume:backupFolder:reply:")
        return restoreKernelExtensionsFromBackupFolder(stringAt(0), volumeAt(1), stringAt(2));
    fatalError("QVXPCVESKHelper::perform() FatalError: no handler for " + std::string(op));
}

} // namespace quelm
