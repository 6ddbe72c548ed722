// quelmctl history: every installation, removal, restore and undo, oldest first.
#include "kexts/KextHistory.h"
#include "quelmctl/Commands.h"
#include "quelmctl/Rescue.h"
#include "support/PathValidation.h"

#include <iostream>

namespace quelm::ctl {
namespace {

struct Options {
    std::string volume;
    bool json = false;
};

std::string jsonOf(const HistoryRecord& record) {
    return "{\"time\": " + jsonString(record.time) + ", \"volume\": " + jsonString(record.volume) +
           ", \"operation\": " + jsonString(record.operation) +
           ", \"kexts\": " + jsonStrings(record.kexts) +
           ", \"backup\": " + (record.backup.empty() ? "null" : jsonString(record.backup)) +
           ", \"undone\": " + (record.undone ? "true" : "false") + "}";
}

void printRecord(const HistoryRecord& record) {
    std::cout << record.time << ' ' << record.operation << " on " << record.volume << ':';
    for (const auto& kext : record.kexts)
        std::cout << ' ' << kext;
    std::cout << (record.backup.empty() ? "" : "; backup: " + record.backup)
              << (record.undone ? " (undone)" : "") << '\n';
}

int showHistory(const Options& options) {
    const auto records = readHistory(historyFilePath());
    if (!records) {
        printError(records.error().message);
        return 2;
    }
    const std::string volume = options.volume.empty() ? "" : absoluteNormalPath(options.volume);
    std::string json;
    for (const auto& record : *records) {
        if (!volume.empty() && record.volume != volume)
            continue;
        if (options.json)
            json += (json.empty() ? "\n " : ",\n ") + jsonOf(record);
        else
            printRecord(record);
    }
    if (options.json)
        std::cout << "[" << json << (json.empty() ? "]\n" : "\n]\n");
    return 0;
}

} // namespace

void addHistoryCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "history", "List every kext installation, removal, restore and undo recorded in the "
                   "user's data folder, oldest first: time, volume, kexts and backup folder.");
    auto options = std::make_shared<Options>();
    command->add_option("--volume", options->volume, "Only the operations on this volume");
    command->add_flag("--json", options->json, "Print the records as a JSON array");
    command->footer("The history is ~/.local/share/Quelm/History.plist ($XDG_DATA_HOME/Quelm when "
                    "set).\nExit status: 0, or 2 when the history cannot be read.");
    command->callback([options, &status] { status = showHistory(*options); });
}

} // namespace quelm::ctl
