// quelmctl remove: takes kexts off a volume into a dated backup folder, never deleting them.
#include "kexts/KextBackups.h"
#include "kexts/KextCaches.h"
#include "quelmctl/Commands.h"
#include "quelmctl/Rescue.h"
#include "volumes/MountedFileSystem.h"

#include <algorithm>
#include <iostream>

namespace quelm::ctl {
namespace {

struct Options {
    std::string volume;
    std::string backupTo;
    bool force = false;
    bool setAsideCollection = false;
    bool dryRun = false;
    bool json = false;
    std::vector<std::string> names;
};

/// The paths on the volume that the names stand for, with their staged copies; nothing after a
/// message for each name that is not installed or is Apple's without force.
std::optional<std::vector<std::string>> kextsToRemove(const Options& options,
                                                      const Volume& volume) {
    const auto installed = installedKexts(volume);
    std::vector<std::string> paths;
    bool refused = false;
    for (const auto& name : options.names) {
        const auto found = findInstalledKexts(installed, name);
        if (found.empty()) {
            printError(name + " is not installed in an extensions folder of " +
                       volume.mountPoint());
            refused = true;
        }
        for (const auto* kext : found) {
            if (kext->isApple() && !options.force) {
                printError(kext->path() + " is Apple's (" + kext->identifier() +
                           "): macOS may need it to start; add --force to remove it anyway");
                refused = true;
            }
            paths.push_back(kext->path());
        }
    }
    return refused ? std::nullopt : std::optional(paths);
}

/// What the next start does with the kexts just taken off.
std::string removalNotice(const Volume& volume, const RescueOutcome& outcome) {
    const bool setAside = std::ranges::any_of(outcome.done, [](const std::string& path) {
        return path.ends_with(kAuxiliaryCollectionName);
    });
    if (setAside)
        return "The auxiliary kernel collection is in the backup: macOS starts without any "
               "third-party kext and builds a new collection once you approve the kexts of "
               "/Library/Extensions again; quelmctl undo puts the old collection back.";
    return auxiliaryCollectionRemovalNotice(volume).value_or(std::string(kKernelCacheWarning));
}

int remove(const Options& options) {
    const auto volume = openVolume(options.volume);
    auto kexts = volume ? kextsToRemove(options, *volume) : std::nullopt;
    const auto root = !kexts           ? std::nullopt
                      : options.dryRun ? std::optional<std::string>("")
                                       : backupRoot(options.backupTo);
    if (!root)
        return 2;
    LocalOperations operations;
    RemoveJob job(rescueRequest(*volume, *root), *kexts, operations, options.setAsideCollection);
    if (options.dryRun) {
        const auto plan = job.plan();
        if (!plan) {
            printError(plan.error().message);
            return 2;
        }
        std::cout << (options.json ? "" : "Dry run: nothing is changed.\n");
        reportOutcome({*plan, {}, "", {}}, "would-remove", options.json);
        return 0;
    }
    const auto result = job.run();
    const int status = reportJob(*volume, result, "removed", options.json);
    if (!result.outcome.done.empty() && !options.json)
        std::cout << removalNotice(*volume, result.outcome) << '\n';
    return status;
}

} // namespace

void addRemoveCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "remove", "Take kexts off a volume: each moves, with its staged copy under "
                  "/Library/StagedExtensions, into a new dated backup folder (never deleted), "
                  "then the kext caches are rebuilt or marked stale.");
    auto options = std::make_shared<Options>();
    command->add_option("--volume", options->volume, "Mount point of the macOS volume")->required();
    addDataVolumeOption(command);
    command->add_option("--backup-to", options->backupTo,
                        "Make the backup folder in DIR (default: Backups in Quelm's folder of "
                        "the user's data folder, ~/.local/share/Quelm)");
    command->add_flag("--force", options->force, "Remove Apple's kexts (com.apple.*) too");
    command->add_flag(
        "--set-aside-collection", options->setAsideCollection,
        "macOS 11 and later: also move /Library/KernelCollections/AuxiliaryKernelExtensions.kc "
        "into the backup, so that the removed kexts cannot load from it; macOS then starts "
        "without third-party kexts until you approve them again and it builds a new one (undo "
        "puts it back)");
    command->add_flag("--dry-run", options->dryRun, "Print what would be removed; change nothing");
    command->add_flag("--json", options->json, "Print the outcome as JSON");
    command
        ->add_option("NAME", options->names,
                     "A kext's bundle name (Lilu.kext or Lilu) or bundle identifier")
        ->required();
    command->footer(
        "Each backup folder holds Manifest.plist: the volume, the time and where each kext came "
        "from; quelmctl restore puts them back, quelmctl undo reverses the last operation.\n"
        "Exit status: 0 when every kext was removed, 1 when one could not be, 2 when nothing "
        "was done: a name not installed, an Apple kext without --force, a volume that cannot be "
        "written.");
    command->callback([options, &status] { status = remove(*options); });
}

} // namespace quelm::ctl
