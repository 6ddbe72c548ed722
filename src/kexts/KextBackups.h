// Taking kexts off a volume into dated backup folders and putting them back: nothing is ever
// deleted, and every backup folder says in its manifest where its kexts came from.
#pragma once

#include "kexts/KextCatalog.h"
#include "volumes/Volume.h"

#include <chrono>
#include <expected>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

/// The file in each backup folder that lists what it holds.
inline constexpr std::string_view kBackupManifestName = "Manifest.plist";
/// Where macOS 10.13 and later keep the staged copy of a kext: this folder + the kext's path.
inline constexpr std::string_view kStagedExtensionsFolder = "/Library/StagedExtensions";

/// The auxiliary kernel collection of macOS 11 and later: the only place from which that macOS
/// loads third-party kexts. A removal may set it aside into its backup.
inline constexpr std::string_view kAuxiliaryCollectionFolder = "/Library/KernelCollections/";
inline constexpr std::string_view kAuxiliaryCollectionName = "AuxiliaryKernelExtensions.kc";

/// One kext kept in a backup folder.
struct BackupItem {
    std::string sourceFolder; ///< its folder on the volume: "/Library/Extensions/"
    std::string name;         ///< "Lilu.kext"
    std::string pathInBackup; ///< "Lilu.kext", or "2/Lilu.kext" when two share a name

    std::string volumePath() const { return sourceFolder + name; }
};

/// The manifest: the volume, the time, the operation that made the backup ("remove",
/// "install", "restore", "undo") and the kexts it took off or replaced.
struct BackupManifest {
    std::string volume;
    std::string time;
    std::string operation;
    std::vector<BackupItem> items;
    /// The data volume joined to the volume, from macOS 10.15 on.
    std::optional<std::string> dataVolume;
};

/// What an operation did: the kexts (paths on the volume) it handled and those that failed,
/// and the backup folder it made, "" when it made none.
struct RescueOutcome {
    std::vector<std::string> done;
    std::vector<std::string> failed;
    std::string backupFolder;
    /// Why each failed kext failed, and what was kept, in words for the user.
    std::map<std::string, std::string> causes;
};

/// The manifest of a backup folder; refused when any entry could lead outside the volume's
/// extensions folders or outside the backup folder.
[[nodiscard]] std::expected<BackupManifest, Error>
readBackupManifest(const std::filesystem::path& backupFolder);

/// A backup folder path that does not exist yet: root + the compact timestamp of now, with
/// "-2", "-3"... when that is taken.
std::string newBackupFolderPath(const std::filesystem::path& root,
                                std::chrono::system_clock::time_point now);

/// The installed kexts that name stands for, each a path on the volume: a bundle name
/// ("Lilu.kext" or "Lilu", any case) or a bundle identifier, in any extensions folder.
std::vector<const Kext*> findInstalledKexts(const std::vector<Kext>& installed,
                                            std::string_view name);

/// The path of the kext's staged copy ("/Library/StagedExtensions/Library/Extensions/X.kext")
/// when the volume has one.
std::optional<std::string> stagedCopyOf(const Volume& volume, const std::string& kextPath);

/// Moves each kext (a path on the volume such as "/Library/Extensions/X.kext") into
/// backupFolder, which is made (owner 501, group 80, mode 755) and must not exist yet; its
/// manifest records operation. A kext that cannot be moved whole stays where it was.
RescueOutcome moveKextsToBackup(const Volume& volume, const std::vector<std::string>& kexts,
                                const std::string& backupFolder, std::string_view operation,
                                std::chrono::system_clock::time_point now);

/// Copies each kext into backupFolder as moveKextsToBackup would move it: for kexts about to
/// be replaced.
RescueOutcome copyKextsToBackup(const Volume& volume, const std::vector<std::string>& kexts,
                                const std::string& backupFolder, std::string_view operation,
                                std::chrono::system_clock::time_point now);

/// One kext a restore puts back, and whether something now stands in its place.
struct RestoreStep {
    BackupItem item;
    bool replaces = false;
};

/// What restoring the backup onto the volume would do, changing nothing.
[[nodiscard]] std::expected<std::vector<RestoreStep>, Error>
planRestore(const std::filesystem::path& backupFolder, const Volume& volume);

/// Puts the kexts of backupFolder back onto the volume where they came from, owned by 0:0 with
/// mode 755, through a hidden staging name so that a failed copy changes nothing. What they
/// replace is first moved into replacedBackupFolder (made only then). The backup stays whole.
[[nodiscard]] std::expected<RescueOutcome, Error>
restoreKextsFromBackup(const std::filesystem::path& backupFolder, const Volume& volume,
                       const std::string& replacedBackupFolder,
                       std::chrono::system_clock::time_point now);

/// Moves the kexts an installation or restore put in place into backupFolder, then puts back
/// what it replaced from its own backup, when it made one: how such an operation is undone.
[[nodiscard]] std::expected<RescueOutcome, Error>
takeBackPlacedKexts(const Volume& volume, const std::vector<std::string>& placed,
                    const std::string& replacedBackup, const std::string& backupFolder,
                    std::chrono::system_clock::time_point now);

} // namespace quelm
