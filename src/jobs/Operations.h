// What a job asks of a volume, done in this process (quelmctl as root, tests) or by the
// privileged helper: one interface, so that each job is written once for both faces.
#pragma once

#include "kexts/KextBackups.h"
#include "kexts/KextInstallation.h"
#include "repair/RepairResult.h"
#include "support/Error.h"
#include "volumes/Volume.h"
#include "volumes/VolumeLock.h"

#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quelm {

class HelperClient;

/// What a verify or repair pass found (and, repairing, did), and how many paths it checked.
struct PermissionCheck {
    std::vector<ResultRecord> results;
    /// Unknown (0) when the helper did the pass.
    std::int64_t checkedPaths = 0;
};

/// Each operation gives an Error when it did nothing at all: refused whole, or the helper
/// could not be asked.
class Operations {
public:
    virtual ~Operations() = default;

    /// Why root cannot write to the half of the volume that holds path, or with no path to
    /// either half (leaving out a sealed system volume, which nothing writes).
    [[nodiscard]] virtual std::expected<void, Error> checkWritable(const Volume& volume,
                                                                   const std::string& path) = 0;
    /// Held from a job's first change to its last, so that no other run changes the volume in
    /// between: the volume's lock in this process; nothing through the helper, which takes
    /// the lock for each call.
    [[nodiscard]] virtual std::expected<std::optional<VolumeLock>, Error>
    holdVolume(const Volume& volume) = 0;
    /// Copies the kexts installed in folder under the names of kexts into backupFolder, which
    /// is made and must not exist; the kexts that could not be copied.
    [[nodiscard]] virtual std::expected<std::vector<Kext>, Error>
    backUpKexts(const std::vector<Kext>& kexts, const std::string& folder, const Volume& volume,
                const std::string& backupFolder) = 0;
    /// The kexts that failed, with why.
    [[nodiscard]] virtual std::expected<std::vector<InstallFailure>, Error>
    installKexts(const std::vector<Kext>& kexts, const std::string& folder,
                 const Volume& volume) = 0;
    /// Verifies or repairs the owners and modes of the volume from its receipts, holding the
    /// volume's lock when repairing; the helper only repairs, without the content checks.
    [[nodiscard]] virtual std::expected<PermissionCheck, Error>
    checkPermissions(const Volume& volume, RepairMode mode, bool checksContent) = 0;
    /// Rebuilds the kext caches, or marks them stale where they cannot be built.
    [[nodiscard]] virtual std::expected<void, Error> rebuildCaches(const Volume& volume) = 0;
    /// Moves the kexts (paths on the volume) into backupFolder, made only then.
    [[nodiscard]] virtual std::expected<RescueOutcome, Error>
    removeKexts(const std::vector<std::string>& kexts, const Volume& volume,
                const std::string& backupFolder) = 0;
    /// Puts the kexts of backup back; what they replace goes into backupFolder.
    [[nodiscard]] virtual std::expected<RescueOutcome, Error>
    restoreKexts(const std::string& backup, const Volume& volume,
                 const std::string& backupFolder) = 0;
    /// Moves the kexts a change put in place (paths on the volume) into backupFolder, then puts
    /// back what they replaced from replacedBackup, when there is one: how a change is undone.
    [[nodiscard]] virtual std::expected<RescueOutcome, Error>
    takeBackKexts(const std::vector<std::string>& placed, const std::string& replacedBackup,
                  const Volume& volume, const std::string& backupFolder) = 0;
};

/// The operations done here, as the user running this process.
class LocalOperations final : public Operations {
public:
    std::expected<void, Error> checkWritable(const Volume& volume,
                                             const std::string& path) override;
    std::expected<std::optional<VolumeLock>, Error> holdVolume(const Volume& volume) override;
    std::expected<std::vector<Kext>, Error> backUpKexts(const std::vector<Kext>& kexts,
                                                        const std::string& folder,
                                                        const Volume& volume,
                                                        const std::string& backupFolder) override;
    std::expected<std::vector<InstallFailure>, Error> installKexts(const std::vector<Kext>& kexts,
                                                                   const std::string& folder,
                                                                   const Volume& volume) override;
    std::expected<PermissionCheck, Error> checkPermissions(const Volume& volume, RepairMode mode,
                                                           bool checksContent) override;
    std::expected<void, Error> rebuildCaches(const Volume& volume) override;
    std::expected<RescueOutcome, Error> removeKexts(const std::vector<std::string>& kexts,
                                                    const Volume& volume,
                                                    const std::string& backupFolder) override;
    std::expected<RescueOutcome, Error> restoreKexts(const std::string& backup,
                                                     const Volume& volume,
                                                     const std::string& backupFolder) override;
    std::expected<RescueOutcome, Error> takeBackKexts(const std::vector<std::string>& placed,
                                                      const std::string& replacedBackup,
                                                      const Volume& volume,
                                                      const std::string& backupFolder) override;
};

/// The same operations asked of the privileged helper.
class HelperBackedOperations final : public Operations {
public:
    explicit HelperBackedOperations(std::shared_ptr<HelperClient> helper);

    std::expected<void, Error> checkWritable(const Volume& volume,
                                             const std::string& path) override;
    std::expected<std::optional<VolumeLock>, Error> holdVolume(const Volume& volume) override;
    std::expected<std::vector<Kext>, Error> backUpKexts(const std::vector<Kext>& kexts,
                                                        const std::string& folder,
                                                        const Volume& volume,
                                                        const std::string& backupFolder) override;
    std::expected<std::vector<InstallFailure>, Error> installKexts(const std::vector<Kext>& kexts,
                                                                   const std::string& folder,
                                                                   const Volume& volume) override;
    std::expected<PermissionCheck, Error> checkPermissions(const Volume& volume, RepairMode mode,
                                                           bool checksContent) override;
    std::expected<void, Error> rebuildCaches(const Volume& volume) override;
    std::expected<RescueOutcome, Error> removeKexts(const std::vector<std::string>& kexts,
                                                    const Volume& volume,
                                                    const std::string& backupFolder) override;
    std::expected<RescueOutcome, Error> restoreKexts(const std::string& backup,
                                                     const Volume& volume,
                                                     const std::string& backupFolder) override;
    std::expected<RescueOutcome, Error> takeBackKexts(const std::vector<std::string>& placed,
                                                      const std::string& replacedBackup,
                                                      const Volume& volume,
                                                      const std::string& backupFolder) override;

private:
    std::shared_ptr<HelperClient> helper_;
};

} // namespace quelm
