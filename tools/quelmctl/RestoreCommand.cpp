// quelmctl restore: puts the kexts of a backup folder back where they came from.
#include "kexts/KextBackups.h"
#include "quelmctl/Commands.h"
#include "quelmctl/Rescue.h"
#include "volumes/MountedFileSystem.h"

#include <iostream>
#include <sys/stat.h>

namespace quelm::ctl {
namespace {

struct Options {
    std::string volume;
    std::string backupTo;
    bool otherVolume = false;
    bool dryRun = false;
    bool json = false;
    std::string backup;
};

/// Prints what restoring would do; 0, or 2 when the backup cannot be read.
int describeRestore(const std::string& backup, const Volume& volume, bool json) {
    const auto steps = planRestore(backup, volume);
    if (!steps) {
        printError(steps.error().message);
        return 2;
    }
    RescueOutcome planned;
    for (const auto& step : *steps) {
        planned.done.push_back(step.item.volumePath());
        if (step.replaces && !json)
            std::cout << "would back up the kext now at " << step.item.volumePath() << '\n';
    }
    std::cout << (json ? "" : "Dry run: nothing is changed.\n");
    reportOutcome(planned, "would-restore", json);
    return 0;
}

bool sameFolder(const std::string& a, const std::string& b) {
    struct stat first {
    }, second{};
    return ::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

/// The volume the backup's manifest names; another only when the user asks for it by name.
std::optional<Volume> volumeFor(const Options& options) {
    const auto manifest = readBackupManifest(options.backup);
    if (!manifest) {
        printError(manifest.error().message);
        return std::nullopt;
    }
    if (options.volume.empty())
        return openVolume(manifest->volume, manifest->dataVolume);
    auto volume = openVolume(options.volume);
    if (volume && !options.otherVolume && !sameFolder(volume->mountPoint(), manifest->volume)) {
        printError(options.backup + " holds kexts of " + manifest->volume + ", not of " +
                   volume->mountPoint() + "; add --onto-other-volume to put them there anyway");
        return std::nullopt;
    }
    return volume;
}

int restore(const Options& options) {
    const auto volume = volumeFor(options);
    if (!volume)
        return 2;
    if (options.dryRun)
        return describeRestore(options.backup, *volume, options.json);
    if (!runsAsRoot("restore"))
        return 2;
    const auto root = backupRoot(options.backupTo);
    if (!root)
        return 2;
    LocalOperations operations;
    const auto result = RestoreJob(rescueRequest(*volume, *root), options.backup, operations).run();
    return reportJob(*volume, result, "restored", options.json);
}

} // namespace

void addRestoreCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "restore", "Put the kexts of a backup folder back where they came from, owned by root "
                   "with mode 755; what they replace goes into a new backup folder first. Then "
                   "the kext caches are rebuilt or marked stale. The backup stays as it is.");
    auto options = std::make_shared<Options>();
    command->add_option("--volume", options->volume,
                        "Mount point of the macOS volume (default: the one the backup's "
                        "manifest names)");
    addDataVolumeOption(command);
    command->add_flag("--onto-other-volume", options->otherVolume,
                      "Restore onto the --volume given although the backup came from another "
                      "one (a volume mounted elsewhere now, or another Mac's)");
    command->add_option("--backup-to", options->backupTo,
                        "Back up what is replaced into a folder in DIR (default: Backups in "
                        "Quelm's folder of the user's data folder)");
    command->add_flag("--dry-run", options->dryRun, "Print what would be restored; change nothing");
    command->add_flag("--json", options->json, "Print the outcome as JSON");
    command->add_option("BACKUP", options->backup, "A backup folder made by remove or install")
        ->required();
    command->footer("Exit status: 0 when every kext was put back, 1 when one could not be, 2 "
                    "when nothing was done: a folder without a readable manifest, a volume that "
                    "cannot be written, a --volume other than the backup's without "
                    "--onto-other-volume.");
    command->callback([options, &status] { status = restore(*options); });
}

} // namespace quelm::ctl
