// quelmctl undo: reverses the last installation, removal or restore on a volume.
#include "kexts/KextBackups.h"
#include "kexts/KextHistory.h"
#include "quelmctl/Commands.h"
#include "quelmctl/Rescue.h"
#include "volumes/MountedFileSystem.h"

#include <iostream>

namespace quelm::ctl {
namespace {

struct Options {
    std::string volume;
    std::string backupTo;
    bool dryRun = false;
    bool json = false;
};

/// What undoing the record would change: the kexts taken off, then those put back.
void describeUndo(const HistoryRecord& record, const Volume& volume, bool json) {
    const std::vector<std::string> takenOff =
        record.operation == "remove" ? std::vector<std::string>{} : record.kexts;
    std::vector<std::string> putBack;
    if (!record.backup.empty())
        if (const auto steps = planRestore(record.backup, volume))
            for (const auto& step : *steps)
                putBack.push_back(step.item.volumePath());
    if (json) {
        std::cout << "{\"would-remove\": " << jsonStrings(takenOff)
                  << ", \"would-restore\": " << jsonStrings(putBack) << "}\n";
        return;
    }
    std::cout << "Dry run: nothing is changed. Undoing the " << record.operation << " of "
              << record.time << ":\n";
    for (const auto& path : takenOff)
        std::cout << "would-remove " << path << '\n';
    for (const auto& path : putBack)
        std::cout << "would-restore " << path << '\n';
}

std::expected<RescueOutcome, Error> reverse(const HistoryRecord& record, const Volume& volume,
                                            const std::string& backupFolder) {
    const auto now = std::chrono::system_clock::now();
    if (record.operation == "remove")
        return restoreKextsFromBackup(record.backup, volume, backupFolder, now);
    return takeBackPlacedKexts(volume, record.kexts, record.backup, backupFolder, now);
}

int undo(const Options& options) {
    const auto volume = openVolume(options.volume);
    auto records = volume ? readHistory(historyFilePath()) : std::unexpected(Error{});
    if (!records) {
        if (volume)
            printError(records.error().message);
        return 2;
    }
    const auto last = lastUndoable(*records, volume->mountPoint());
    if (!last) {
        printError("nothing to undo on " + volume->mountPoint());
        return 2;
    }
    auto& record = (*records)[*last];
    if (options.dryRun) {
        describeUndo(record, *volume, options.json);
        return 0;
    }
    if (!runsAsRoot("undo") || refusesWrites(*volume, kKextChangesFolder))
        return 2;
    const auto root = backupRoot(options.backupTo);
    if (!root)
        return 2;
    const auto outcome =
        reverse(record, *volume, newBackupFolderPath(*root, std::chrono::system_clock::now()));
    if (!outcome) {
        printError(outcome.error().message);
        return 2;
    }
    const int status = reportOutcome(*outcome, "undone", options.json);
    record.undone = true;
    records->push_back(recordOf(*volume, "undo", outcome->done, outcome->backupFolder));
    if (auto saved = writeHistory(historyFilePath(), *records); !saved)
        printError("the undo is not in the history: " + saved.error().message);
    const bool invalidated = invalidateCaches(*volume);
    printCollectionNotice(*volume, options.json);
    return invalidated ? status : 1;
}

} // namespace

void addUndoCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "undo", "Reverse the last installation, removal or restore on a volume that the "
                "history holds: removed kexts are put back from their backup; installed or "
                "restored kexts move into a new backup folder and what they replaced is put "
                "back. Then the kext caches are rebuilt or marked stale.");
    auto options = std::make_shared<Options>();
    command->add_option("--volume", options->volume, "Mount point of the macOS volume")->required();
    addDataVolumeOption(command);
    command->add_option("--backup-to", options->backupTo,
                        "Make the new backup folder in DIR (default: Backups in Quelm's folder "
                        "of the user's data folder)");
    command->add_flag("--dry-run", options->dryRun, "Print what would change; change nothing");
    command->add_flag("--json", options->json, "Print the outcome as JSON");
    command->footer("Each undo is recorded too, and the operation it reversed is marked undone: "
                    "undo again to reverse the one before.\nExit status: 0 when everything was "
                    "reversed, 1 when a kext could not be, 2 when nothing was done: nothing to "
                    "undo, a backup that cannot be read, a volume that cannot be written.");
    command->callback([options, &status] { status = undo(*options); });
}

} // namespace quelm::ctl
