// The privileged helper's operations: everything the application asks of root.
#pragma once

#include "helper/Channel.h"
#include "helper/HelperIdentity.h"
#include "helper/RemoteProtocol.h"
#include "support/NotificationCenter.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <sys/types.h>
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

    /// Runs one decoded call through its operation's handler, or gives its operation's refusal
    /// when an argument was refused. The arguments are of their kinds: no operation checks
    /// them again.
    RemoteValue perform(const RemoteCall& call);

    std::int64_t test() const { return 1234567890; }
    std::int64_t test2() const { return 9999999999; }
    /// The paths of the tool and of its launch policy that could not be removed.
    std::vector<std::string> uninstall() const;
    std::string version() const;
    /// Gives every item beneath folder of the volume owner 0, group 0 and mode 755.
    bool repairFolder(const std::string& folder, const Volume& volume) const;
    std::vector<ResultRecord> repairPermissions(const Volume& volume) const;
    bool rebuildCaches(const Volume& volume) const;
    /// The kexts that failed.
    std::vector<Kext> installKexts(const std::vector<Kext>& kexts, const std::string& folder,
                                   const Volume& volume) const;
    /// Copies the kexts installed in installedInFolder into backupFolder, which it makes and
    /// which must not exist. The kexts that failed.
    std::vector<Kext> backUpKexts(const std::vector<Kext>& kexts,
                                  const std::string& installedInFolder, const Volume& volume,
                                  const std::string& backupFolder) const;
    bool setMaximumThreads(std::int64_t count) const;
    bool installRepairTool(const std::string& source, const std::string& destination) const;
    bool uninstallRepairTool(const std::string& path) const;
    bool applyBooterConfig(std::int64_t value) const;
    /// Why nothing can be written to the volume as root, in one sentence; "" when it can.
    /// Asked before the first write of a job, so that a read-only disk is refused whole.
    std::string checkWritableVolume(const Volume& volume) const;
    /// Moves the kexts (paths on the volume in its extensions folders, or their staged copies)
    /// into backupFolder, which it makes and which must not exist, then marks the caches stale.
    /// The paths that failed.
    std::vector<std::string> removeKexts(const std::vector<std::string>& kexts,
                                         const Volume& volume,
                                         const std::string& backupFolder) const;
    /// Puts the kexts of backup back on the volume, what they replace going into backupFolder
    /// (made only then), then marks the caches stale. The paths that failed; the backup itself
    /// when it cannot be read.
    std::vector<std::string> restoreKexts(const std::string& backup, const Volume& volume,
                                          const std::string& backupFolder) const;
    /// Ends the helper at once, with status 0.
    [[noreturn]] void terminate() const;

    /// Relays one progress value of the repair job to the application.
    void sendRepairPermissionsReport(double progress);

private:
    PlistValue::Dict info_;
    Settings settings_;
    std::atomic<FrameWriter*> connection_ = nullptr;
    NotificationCenter::Token progressObserver_;
};

/// The user on whose behalf the helper runs: the one pkexec authorised (PKEXEC_UID), else
/// whoever started this process.
uid_t callerUid();

} // namespace quelm
