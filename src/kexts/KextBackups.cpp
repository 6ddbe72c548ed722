// Taking kexts off a volume into dated backup folders and putting them back: nothing is ever
// deleted, and every backup folder says in its manifest where its kexts came from.
#include "kexts/KextBackups.h"

#include "kexts/KextHistory.h"
#include "kexts/KextSwaps.h"
#include "support/Files.h"
#include "support/FolderTrees.h"
#include "support/Log.h"
#include "support/PathValidation.h"
#include "support/PropertyList.h"
#include "support/Strings.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;

constexpr ItemAttributes kSystemAttributes{0, 0, 0755};
/// The collection is a file that macOS keeps readable by all, written by root only.
constexpr ItemAttributes kCollectionAttributes{0, 0, 0644};
constexpr ItemAttributes kBackupAttributes{501, 80, 0755};

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

/// What a backup may hold: a kext of an extensions folder or of its staged counterpart, or the
/// auxiliary kernel collection.
bool isBackupSource(std::string_view folder, std::string_view name) {
    if (folder == kAuxiliaryCollectionFolder)
        return name == kAuxiliaryCollectionName;
    if (!name.ends_with(".kext"))
        return false;
    for (const auto extensions : kExtensionsFolders)
        if (folder == extensions ||
            folder == std::string(kStagedExtensionsFolder) + std::string(extensions))
            return true;
    return false;
}

/// "Lilu.kext" or "2/Lilu.kext", nothing else: a manifest never leads out of its folder.
bool isPathInBackup(const std::string& path, const std::string& name) {
    const auto parts = pathComponents(path);
    const bool numbered = parts.size() == 2 && !parts[0].empty() &&
                          std::ranges::all_of(parts[0], [](char c) { return std::isdigit(c); });
    return (parts.size() == 1 || numbered) && parts.back() == name && !path.starts_with("/") &&
           path.find("//") == std::string::npos;
}

constexpr std::size_t kMaxManifestSize = 16u << 20;

PlistValue plistOf(const BackupManifest& manifest) {
    PlistValue::Array items;
    for (const auto& item : manifest.items)
        items.push_back(PlistValue::Dict{{"SourceFolder", item.sourceFolder},
                                         {"Name", item.name},
                                         {"PathInBackup", item.pathInBackup}});
    PlistValue::Dict list{{"Volume", manifest.volume},
                          {"Time", manifest.time},
                          {"Operation", manifest.operation},
                          {"Kexts", std::move(items)}};
    if (manifest.dataVolume)
        list.emplace("DataVolume", *manifest.dataVolume);
    return list;
}

/// The manifest in the list; refused when any entry could lead outside the volume's extensions
/// folders or outside the backup folder.
std::expected<BackupManifest, Error> manifestOf(const PlistValue& list) {
    const auto text = [](const PlistValue& from, std::string_view key) {
        const auto* value = from.stringForKey(key);
        return value ? *value : std::string();
    };
    BackupManifest manifest{
        text(list, "Volume"), text(list, "Time"), text(list, "Operation"), {}, std::nullopt};
    const auto* kexts = list.find("Kexts");
    if (!isCleanAbsolutePath(manifest.volume) || !kexts || !kexts->array())
        return std::unexpected(Error{"it names no volume or no kexts"});
    if (list.find("DataVolume")) {
        manifest.dataVolume = text(list, "DataVolume");
        if (!isCleanAbsolutePath(*manifest.dataVolume))
            return std::unexpected(Error{"its data volume is not a clean absolute path"});
    }
    for (const auto& entry : *kexts->array()) {
        BackupItem item{text(entry, "SourceFolder"), text(entry, "Name"),
                        text(entry, "PathInBackup")};
        if (!isBackupSource(item.sourceFolder, item.name) || !isPlainFileName(item.name) ||
            !isPathInBackup(item.pathInBackup, item.name))
            return std::unexpected(
                Error{"it has an entry that is not a kext of an extensions folder"});
        manifest.items.push_back(std::move(item));
    }
    return manifest;
}

/// Written through the folder's descriptor under a temporary name, then renamed: whoever can
/// write beside the backup folder cannot send the file elsewhere.
bool writeManifestAt(int folder, const BackupManifest& manifest) {
    const auto bytes = serializePlist(plistOf(manifest), PlistFormat::xml);
    const std::string name(kBackupManifestName);
    const std::string temporary = hiddenName(name, HiddenRole::staging);
    const UniqueFd file(::openat(folder, temporary.c_str(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    const bool written = bytes && file && writeAll(file.get(), *bytes) &&
                         ::fsync(file.get()) == 0 &&
                         ::renameat(folder, temporary.c_str(), folder, name.c_str()) == 0;
    if (!written && file && !removeTreeAt(folder, temporary))
        logLine("KextBackups::Error: Unable to remove " + temporary);
    return written;
}

/// A backup folder made on first use. The manifest names each kext before it moves, so that no
/// backup is ever without its manifest; a kext that could not be taken leaves it again.
class BackupWriter {
public:
    BackupWriter(std::string folder, const Volume& volume, std::string_view operation,
                 std::chrono::system_clock::time_point now)
        : folder_(std::move(folder)), manifest_{volume.mountPoint(),
                                                isoTimestamp(now),
                                                std::string(operation),
                                                {},
                                                volume.dataMountPoint()} {}

    /// Takes name from the open folder, known as sourceFolder on the volume: moved, or copied.
    bool take(int folder, const std::string& name, const std::string& sourceFolder, bool move) {
        if (!open())
            return failed("the backup folder " + folder_ + " cannot be made");
        auto [destination, pathInBackup] = placeFor(name);
        if (!destination)
            return failed("the backup folder " + folder_ + " cannot be opened");
        manifest_.items.push_back({sourceFolder, name, pathInBackup});
        if (!writeManifestAt(folder_fd_.get(), manifest_)) {
            manifest_.items.pop_back();
            return failed("the manifest of " + folder_ + " cannot be written");
        }
        if (move ? moveTree(folder, name, destination.get())
                 : copyWhole(folder, name, destination.get()))
            return true;
        failed(name + " cannot be put into " + folder_);
        manifest_.items.pop_back();
        if (!writeManifestAt(folder_fd_.get(), manifest_))
            logLine("KextBackups::Error: the manifest of " + folder_ + " still names " + name +
                    ", which is not in the backup");
        return false;
    }

    /// An empty folder is taken away; the manifest of any other is written already.
    bool finish() {
        if (!folder_fd_ || !manifest_.items.empty())
            return true;
        const auto place = openParentBelow("/", folder_);
        return place && removeTreeAt(place->first.get(), place->second);
    }

    /// The folder, once something went into it.
    std::string made() const { return manifest_.items.empty() ? "" : folder_; }
    const std::string& folder() const { return folder_; }
    /// Why the last take failed.
    const std::string& cause() const { return cause_; }

private:
    bool failed(const std::string& what) {
        cause_ = what + ": " + failureCause(errno);
        return false;
    }

    /// Made under a hidden name with its attributes and an empty manifest, then renamed: a
    /// backup folder is never seen without its manifest.
    bool open() {
        if (folder_fd_ || refused_)
            return bool(folder_fd_);
        refused_ = true;
        const auto place = isCleanAbsolutePath(folder_) && !folder_.ends_with("/")
                               ? openParentBelow("/", folder_)
                               : std::nullopt;
        if (!place)
            return false;
        const int parent = place->first.get();
        const std::string staging = hiddenName(place->second, HiddenRole::staging);
        if (::mkdirat(parent, staging.c_str(), 0700) != 0)
            return false;
        UniqueFd made = openFolderAt(parent, staging);
        // Only root can give the folder away; anyone else keeps it as their own.
        const bool ready = made &&
                           (::geteuid() != 0 || ::fchown(made.get(), kBackupAttributes.owner,
                                                         kBackupAttributes.group) == 0) &&
                           ::fchmod(made.get(), kBackupAttributes.mode) == 0 &&
                           writeManifestAt(made.get(), manifest_) &&
                           ::renameat(parent, staging.c_str(), parent, place->second.c_str()) == 0;
        if (!ready) {
            if (!removeTreeAt(parent, staging))
                logLine("KextBackups::Error: Unable to remove " + staging);
            return false;
        }
        folder_fd_ = std::move(made);
        refused_ = false;
        return true;
    }

    /// The folder the kext goes into, and its path in the backup: the name itself, or a
    /// numbered folder when a kext of that name is there already.
    std::pair<UniqueFd, std::string> placeFor(const std::string& name) {
        if (used_.insert(name).second)
            return {openFolderAt(folder_fd_.get(), "."), name};
        for (int n = 2;; ++n) {
            const std::string path = std::to_string(n) + "/" + name;
            if (used_.insert(path).second)
                return {openOrMakeFolderAt(folder_fd_.get(), std::to_string(n), kBackupAttributes),
                        path};
        }
    }

    /// A copy made under a hidden name, then renamed: the backup holds whole kexts only.
    static bool copyWhole(int folder, const std::string& name, int destination) {
        const std::string staging = hiddenName(name, HiddenRole::staging);
        if (copyTreeAt(folder, name, destination, staging, std::nullopt) &&
            ::renameat(destination, staging.c_str(), destination, name.c_str()) == 0)
            return true;
        const int error = errno;
        if (!removeTreeAt(destination, staging))
            logLine("KextBackups::Error: Unable to remove a partial copy " + staging);
        errno = error;
        return false;
    }

    /// A rename where the backup lies on the same disk; elsewhere a whole copy, then the
    /// original goes out under a hidden name, so that the volume never holds part of it.
    static bool moveTree(int folder, const std::string& name, int destination) {
        if (::renameat(folder, name.c_str(), destination, name.c_str()) == 0)
            return true;
        if (errno != EXDEV || !copyWhole(folder, name, destination))
            return false;
        const std::string removing = hiddenName(name, HiddenRole::removing);
        if (::renameat(folder, name.c_str(), folder, removing.c_str()) != 0) {
            const int error = errno;
            if (!removeTreeAt(destination, name))
                logLine("KextBackups::Error: Unable to remove the copy of " + name);
            errno = error;
            return false;
        }
        if (!removeTreeAt(folder, removing))
            logLine("KextBackups::Error: Unable to remove " + removing + "; the next run will");
        return true;
    }

    std::string folder_;
    BackupManifest manifest_;
    UniqueFd folder_fd_;
    bool refused_ = false;
    std::string cause_;
    std::set<std::string> used_;
};

RescueOutcome takeKexts(const Volume& volume, const std::vector<std::string>& kexts,
                        BackupWriter& writer, bool move) {
    RescueOutcome outcome;
    for (const auto& path : kexts) {
        const auto place = openParentOn(volume, path);
        const auto listed = place ? listedNameAt(place->first.get(), place->second) : std::nullopt;
        const std::string folder = path.substr(0, path.rfind('/') + 1);
        const bool taken = listed && isBackupSource(folder, *listed) &&
                           writer.take(place->first.get(), *listed, folder, move);
        (taken ? outcome.done : outcome.failed).push_back(path);
        if (!taken)
            outcome.causes[path] = (listed ? writer.cause() : "it is not there") +
                                   (move ? "; it stays where it was" : "; nothing was changed");
    }
    return outcome;
}

void finish(BackupWriter& writer, RescueOutcome& outcome) {
    if (!writer.finish())
        outcome.failed.push_back(writer.folder() + "/" + std::string(kBackupManifestName));
    outcome.backupFolder = writer.made();
}

/// Copies the kext from the backup under a staging name, copies what stands in its place into
/// the backup of replaced kexts, then swaps the copy into place: a failure at any step leaves
/// the installed kext as it was.
std::expected<void, Error> putBack(int from, int to, const BackupItem& item,
                                   BackupWriter& replaced) {
    const std::string staging = hiddenName(item.name, HiddenRole::staging);
    const auto installed = listedNameAt(to, item.name);
    std::string cause;
    const bool collection = item.sourceFolder == kAuxiliaryCollectionFolder;
    if (!copyTreeAt(from, item.name, to, staging,
                    collection ? kCollectionAttributes : kSystemAttributes))
        cause = "it cannot be copied from the backup: " + failureCause(errno);
    else if (installed && !replaced.take(to, *installed, item.sourceFolder, false))
        cause = "the kext in its place cannot be backed up: " + replaced.cause();
    if (!cause.empty()) {
        if (!removeTreeAt(to, staging))
            logLine("KextBackups::Error: Unable to remove " + staging);
        return std::unexpected(Error{cause + "; the volume is unchanged", ErrorKind::io});
    }
    const auto old = swapIntoPlace(to, staging, item.name);
    const std::string leftover = old ? *old : staging;
    if (!leftover.empty() && !removeTreeAt(to, leftover))
        logLine("KextBackups::Error: Unable to remove " + leftover + "; the next run will");
    if (!old)
        return std::unexpected(Error{
            old.error().cause + (old.error().keptAs.empty()
                                     ? "; the volume is unchanged"
                                     : "; the kext in place was kept as " + old.error().keptAs +
                                           ", which the next Quelm command puts back"),
            ErrorKind::io});
    return {};
}

std::expected<RescueOutcome, Error> restoreInto(const fs::path& backupFolder, const Volume& volume,
                                                BackupWriter& replaced) {
    const auto manifest = readBackupManifest(backupFolder);
    if (!manifest)
        return std::unexpected(manifest.error());
    RescueOutcome outcome;
    for (const auto& item : manifest->items) {
        const fs::path inBackup = fs::path(item.pathInBackup).parent_path();
        const UniqueFd from = openFolderBelow(backupFolder, inBackup.string());
        const UniqueFd to =
            from ? openFolderOn(volume, item.sourceFolder, kSystemAttributes) : UniqueFd();
        using Restored = std::expected<void, Error>;
        const Restored restored =
            !from ? Restored(std::unexpect, "it is not in the backup", ErrorKind::io)
            : !to ? Restored(std::unexpect,
                             item.sourceFolder +
                                 " cannot be opened on the volume: " + failureCause(errno),
                             ErrorKind::io)
                  : putBack(from.get(), to.get(), item, replaced);
        (restored ? outcome.done : outcome.failed).push_back(item.volumePath());
        if (!restored)
            outcome.causes[item.volumePath()] = restored.error().message;
    }
    return outcome;
}

} // namespace

std::expected<BackupManifest, Error> readBackupManifest(const fs::path& backupFolder) {
    const fs::path file = backupFolder / kBackupManifestName;
    // A backup folder may be anyone's: the manifest is read only if it is a file, not a link.
    const UniqueFd folder = openFolder(backupFolder, FolderUse::reach);
    const auto bytes =
        folder ? readFileAt(folder.get(), std::string(kBackupManifestName), kMaxManifestSize)
               : std::nullopt;
    if (!bytes)
        return std::unexpected(
            Error{file.string() + " cannot be read: not a readable file", ErrorKind::io});
    const auto plist = parsePlist(*bytes);
    auto manifest = plist ? manifestOf(*plist) : std::unexpected(plist.error());
    if (!manifest)
        return std::unexpected(Error{file.string() + " cannot be read: " + manifest.error().message,
                                     manifest.error().kind});
    return manifest;
}

std::string newBackupFolderPath(const fs::path& root, std::chrono::system_clock::time_point now) {
    const std::string base = (root / compactTimestamp(now)).string();
    std::string path = base;
    std::error_code error;
    for (int n = 2; fs::exists(fs::symlink_status(path, error)); ++n)
        path = base + "-" + std::to_string(n);
    return path;
}

std::vector<const Kext*> findInstalledKexts(const std::vector<Kext>& installed,
                                            std::string_view name) {
    std::vector<const Kext*> found;
    for (const auto& kext : installed)
        if (equalsIgnoringCase(kext.name(), name) ||
            equalsIgnoringCase(kext.name(), std::string(name) + ".kext") ||
            kext.identifier() == name)
            found.push_back(&kext);
    return found;
}

std::optional<std::string> stagedCopyOf(const Volume& volume, const std::string& kextPath) {
    const std::string staged = std::string(kStagedExtensionsFolder) + kextPath;
    const auto place = openParentOn(volume, staged);
    const auto listed = place ? listedNameAt(place->first.get(), place->second) : std::nullopt;
    if (!listed)
        return std::nullopt;
    return staged.substr(0, staged.rfind('/') + 1) + *listed;
}

namespace {

RescueOutcome backUpKexts(const Volume& volume, const std::vector<std::string>& kexts,
                          const std::string& backupFolder, std::string_view operation,
                          std::chrono::system_clock::time_point now, bool move) {
    const auto lock = beginKextChanges(volume);
    if (!lock) {
        logLine("KextBackups::Error: " + lock.error().message);
        RescueOutcome refused{{}, kexts, "", {}};
        for (const auto& path : kexts)
            refused.causes[path] = lock.error().message;
        return refused;
    }
    BackupWriter writer(backupFolder, volume, operation, now);
    auto outcome = takeKexts(volume, kexts, writer, move);
    finish(writer, outcome);
    return outcome;
}

} // namespace

RescueOutcome moveKextsToBackup(const Volume& volume, const std::vector<std::string>& kexts,
                                const std::string& backupFolder, std::string_view operation,
                                std::chrono::system_clock::time_point now) {
    return backUpKexts(volume, kexts, backupFolder, operation, now, true);
}

RescueOutcome copyKextsToBackup(const Volume& volume, const std::vector<std::string>& kexts,
                                const std::string& backupFolder, std::string_view operation,
                                std::chrono::system_clock::time_point now) {
    return backUpKexts(volume, kexts, backupFolder, operation, now, false);
}

std::expected<std::vector<RestoreStep>, Error> planRestore(const fs::path& backupFolder,
                                                           const Volume& volume) {
    const auto manifest = readBackupManifest(backupFolder);
    if (!manifest)
        return std::unexpected(manifest.error());
    std::vector<RestoreStep> steps;
    for (const auto& item : manifest->items) {
        const auto place = openParentOn(volume, item.volumePath());
        steps.push_back({item, place && listedNameAt(place->first.get(), place->second)});
    }
    return steps;
}

std::expected<RescueOutcome, Error>
restoreKextsFromBackup(const fs::path& backupFolder, const Volume& volume,
                       const std::string& replacedBackupFolder,
                       std::chrono::system_clock::time_point now) {
    const auto lock = beginKextChanges(volume);
    if (!lock)
        return std::unexpected(lock.error());
    BackupWriter replaced(replacedBackupFolder, volume, "restore", now);
    auto outcome = restoreInto(backupFolder, volume, replaced);
    if (outcome)
        finish(replaced, *outcome);
    return outcome;
}

std::expected<RescueOutcome, Error> takeBackPlacedKexts(const Volume& volume,
                                                        const std::vector<std::string>& placed,
                                                        const std::string& replacedBackup,
                                                        const std::string& backupFolder,
                                                        std::chrono::system_clock::time_point now) {
    const auto lock = beginKextChanges(volume);
    if (!lock)
        return std::unexpected(lock.error());
    // A backup that cannot be read stops the undo before anything moves.
    if (!replacedBackup.empty())
        if (const auto manifest = readBackupManifest(replacedBackup); !manifest)
            return std::unexpected(manifest.error());
    BackupWriter writer(backupFolder, volume, "undo", now);
    RescueOutcome outcome;
    // What the operation replaced goes back first, each in one swap; what replaced nothing
    // then moves out.
    if (!replacedBackup.empty()) {
        auto restored = restoreInto(replacedBackup, volume, writer);
        if (!restored)
            return std::unexpected(restored.error());
        outcome = std::move(*restored);
    }
    std::vector<std::string> rest;
    for (const auto& path : placed)
        if (std::ranges::find(outcome.done, path) == outcome.done.end() &&
            std::ranges::find(outcome.failed, path) == outcome.failed.end())
            rest.push_back(path);
    auto moved = takeKexts(volume, rest, writer, true);
    outcome.done.insert(outcome.done.end(), moved.done.begin(), moved.done.end());
    outcome.failed.insert(outcome.failed.end(), moved.failed.begin(), moved.failed.end());
    finish(writer, outcome);
    return outcome;
}

} // namespace quelm
