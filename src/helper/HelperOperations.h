// The privileged helper's operations: everything the application asks of root.
#pragma once

#include "helper/Channel.h"
#include "helper/HelperIdentity.h"
#include "helper/RemoteProtocol.h"
#include "support/NotificationCenter.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace quelm {

class HelperOperations : public HelperIdentity {
public:
    struct Settings {
        /// Where the installed helper lies: "/" outside tests.
        std::string root = "/";
        /// Where the firmware variables are, on hosts without an nvram tool.
        std::string efivarsFolder = "/sys/firmware/efi/efivars";
    };

    /// info is the helper's own Info.plist. Progress of repair jobs goes to connection, when
    /// there is one, as one-way "updateProgressWithDoubleValue:" calls.
    HelperOperations(const PlistValue::Dict& info, Settings settings);
    ~HelperOperations();
    HelperOperations(const HelperOperations&) = delete;
    HelperOperations& operator=(const HelperOperations&) = delete;

    void setConnection(FrameWriter* connection) { connection_ = connection; }

    /// Runs one decoded call that has a reply and gives the reply's value. terminateHelper is
    /// the server's: it ends the process.
    RemoteValue perform(const RemoteCall& call);

    std::int64_t test() const { return 1234567890; }
    std::int64_t test2() const { return 9999999999; }
    /// The paths of the tool and of its launch policy that could not be removed.
    std::vector<std::string> uninstallHelper() const;
    std::string getHelperBundleVersion() const;
    bool repairWithFolder(const std::string& folder, const Volume& volume) const;
    std::vector<ResultRecord> repairDiskPermissionsOnTargetVolume(const Volume& volume) const;
    bool rebuildCachesOnTargetVolume(const Volume& volume) const;
    std::vector<Kext> installWithKernelExtensions(const std::vector<Kext>& kexts,
                                                  const std::string& folder,
                                                  const Volume& volume) const;
    std::vector<Kext> backupWithKernelExtensions(const std::vector<Kext>& kexts,
                                                 const std::string& installedInFolder,
                                                 const Volume& volume,
                                                 const std::string& destinationFolder) const;
    bool changeMaximumThreadsNumber(std::int64_t count) const;
    bool installRepairPermissionFromSourcePath(const std::string& source,
                                               const std::string& destination) const;
    bool uninstallRepairPermissionsFromPath(const std::string& path) const;
    bool applyBooterConfigViaNVRAMWithNewBooterConfig(std::int64_t value) const;
    /// Why nothing can be written to the volume as root, in one sentence; "" when it can.
    /// Asked before the first write of a job, so that a read-only disk is refused whole.
    std::string checkWritableTargetVolume(const Volume& volume) const;
    /// Moves the kexts (paths on the volume in its extensions folders, or their staged copies)
    /// into backupFolder, which it makes and which must not exist, then marks the caches stale.
    /// The paths that failed; all of them when an argument is refused.
    std::vector<std::string> removeKernelExtensions(const std::vector<std::string>& kexts,
                                                    const Volume& volume,
                                                    const std::string& backupFolder) const;
    /// Puts the kexts of backup back on the volume, what they replace going into backupFolder
    /// (made only then), then marks the caches stale. The paths that failed; the backup itself
    /// when it cannot be read or an argument is refused.
    std::vector<std::string>
    restoreKernelExtensionsFromBackupFolder(const std::string& backup, const Volume& volume,
                                            const std::string& backupFolder) const;

    /// Relays one progress value of the repair job to the application.
    void sendRepairPermissionsReport(double progress);

private:
    PlistValue::Dict info_;
    Settings settings_;
    std::atomic<FrameWriter*> connection_ = nullptr;
    NotificationCenter::Token progressObserver_;
};

/// A volume argument the helper accepts: a clean absolute mount point of an existing folder.
bool isAcceptableVolume(const Volume& volume);

} // namespace quelm
