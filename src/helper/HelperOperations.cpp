// The privileged helper's operations: everything the application asks of root.
#include "helper/HelperOperations.h"

#include "helper/BooterConfig.h"
#include "helper/HelperInstallation.h"
#include "kexts/KextBackups.h"
#include "kexts/KextCaches.h"
#include "kexts/KextInstallation.h"
#include "repair/PermissionRepair.h"
#include "repair/Processor.h"
#include "support/Files.h"
#include "support/FolderTrees.h"
#include "support/Log.h"
#include "support/Process.h"
#include "volumes/MountedFileSystem.h"
#include "volumes/VolumeLock.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kUserOwner = 501;
constexpr gid_t kAdminGroup = 80;

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

/// Marks the caches stale once kexts moved, logging when that fails.
void markCachesStale(const Volume& volume, const RescueOutcome& outcome) {
    if (!outcome.done.empty() && !rebuildCaches(volume))
        logLine("QVXPCVESKHelper::Error: Unable to mark the kext caches of " + volume.mountPoint() +
                " stale");
}

} // namespace

uid_t callerUid() {
    const char* text = std::getenv("PKEXEC_UID");
    const std::string_view value = text ? text : "";
    uid_t uid = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), uid);
    return text && error == std::errc() && end == value.data() + value.size() ? uid : ::getuid();
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
        {std::nullopt, findOperation("updateProgressWithDoubleValue:"), {progress}, {}}));
}

std::vector<std::string> HelperOperations::uninstall() const {
    std::vector<std::string> failed;
    for (const auto& path : {toolPath(settings_.root), launchPolicyPath(settings_.root)}) {
        std::error_code error;
        if (!fs::remove(path, error))
            failed.push_back(path);
    }
    return failed;
}

std::string HelperOperations::version() const {
    const auto found = info_.find("CFBundleVersion");
    if (found == info_.end() || !found->second.string())
        fatalError("QVXPCHelper::getHelperBundleVersion() CFBundleVersion key is not defined in "
                   "main bundle's Info.plist file.");
    return *found->second.string();
}

bool HelperOperations::repairFolder(const std::string& folder, const Volume& volume) const {
    if (refusesWrites(volume, folder))
        return false;
    // Walked beneath the volume: a link anywhere on the way, or inside, is never followed.
    const UniqueFd opened = openFolderOn(volume, folder);
    return opened && applyTreeAttributes(opened.get(), kSystemAttributes);
}

std::vector<ResultRecord> HelperOperations::repairPermissions(const Volume& volume) const {
    if (refusesWrites(volume))
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

bool HelperOperations::rebuildCaches(const Volume& volume) const {
    return !refusesWrites(volume, kKextChangesFolder) && quelm::rebuildCaches(volume);
}

std::vector<Kext> HelperOperations::installKexts(const std::vector<Kext>& kexts,
                                                 const std::string& folder,
                                                 const Volume& volume) const {
    // Root copies for the user who asked: only what that user could read.
    const Reader reader = Reader::forUser(callerUid());
    return installKernelExtensions(kexts, folder, volume, &reader);
}

std::vector<Kext> HelperOperations::backUpKexts(const std::vector<Kext>& kexts,
                                                const std::string& installedInFolder,
                                                const Volume& volume,
                                                const std::string& backupFolder) const {
    std::vector<std::string> paths;
    for (const auto& kext : kexts)
        paths.push_back(installedInFolder + kext.name());
    const auto outcome =
        copyKextsToBackup(volume, paths, backupFolder, "install", std::chrono::system_clock::now());
    std::vector<Kext> failed;
    for (const auto& kext : kexts)
        if (std::ranges::find(outcome.failed, installedInFolder + kext.name()) !=
            outcome.failed.end())
            failed.push_back(kext);
    return failed;
}

std::string HelperOperations::checkWritableVolume(const Volume& volume) const {
    return writeRefusal(volume).value_or(Error{}).message;
}

std::vector<std::string> HelperOperations::removeKexts(const std::vector<std::string>& kexts,
                                                       const Volume& volume,
                                                       const std::string& backupFolder) const {
    if (refusesWrites(volume, kKextChangesFolder))
        return kexts;
    const auto outcome =
        moveKextsToBackup(volume, kexts, backupFolder, "remove", std::chrono::system_clock::now());
    markCachesStale(volume, outcome);
    return outcome.failed;
}

std::vector<std::string> HelperOperations::restoreKexts(const std::string& backup,
                                                        const Volume& volume,
                                                        const std::string& backupFolder) const {
    if (refusesWrites(volume, kKextChangesFolder))
        return {backup};
    const auto outcome =
        restoreKextsFromBackup(backup, volume, backupFolder, std::chrono::system_clock::now());
    if (!outcome) {
        logLine("QVXPCVESKHelper::Error: " + outcome.error().message);
        return {backup};
    }
    markCachesStale(volume, *outcome);
    return outcome->failed;
}

bool HelperOperations::setMaximumThreads(std::int64_t count) const {
    Processor::shared().setMaxthread(count);
    return Processor::shared().maxthread() == count;
}

bool HelperOperations::installRepairTool(const std::string& source,
                                         const std::string& destination) const {
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

bool HelperOperations::uninstallRepairTool(const std::string& path) const {
    stopRepairTool();
    const auto place = openParentBelow("/", path);
    return place && listedNameAt(place->first.get(), place->second) &&
           removeTreeAt(place->first.get(), place->second);
}

bool HelperOperations::applyBooterConfig(std::int64_t value) const {
    return quelm::applyBooterConfig(value, settings_.efivarsFolder);
}

void HelperOperations::terminate() const {
    std::fflush(stderr);
    ::_exit(0);
}

RemoteValue HelperOperations::perform(const RemoteCall& call) {
    if (call.refused) {
        logLine("QVXPCVESKHelper::Error: " + *call.refused);
        return call.operation->refusal(call.arguments);
    }
    return call.operation->handler(*this, call.arguments);
}

} // namespace quelm
