// quelmctl check-kext: the checks a kext must pass before it goes onto a volume.
#include "kexts/KextChecks.h"
#include "quelmctl/Commands.h"
#include "quelmctl/Rescue.h"

#include <algorithm>
#include <filesystem>
#include <iostream>

namespace quelm::ctl {
namespace {

struct Options {
    std::string volume;
    bool json = false;
    std::vector<std::string> kexts;
};

/// Whether one of the paths is a folder: only a bundle has libraries that could go unchecked.
bool namesAFolder(const std::vector<std::string>& paths) {
    return std::ranges::any_of(paths, [](const std::string& path) {
        std::error_code error;
        return std::filesystem::is_directory(path, error);
    });
}

int printChecks(const Options& options) {
    std::optional<Volume> volume;
    if (!options.volume.empty() && !(volume = openVolume(options.volume)))
        return 2;
    int status = 0;
    std::string json;
    const auto checks = checkKexts(options.kexts, volume);
    for (std::size_t i = 0; i < options.kexts.size(); ++i) {
        const auto& path = options.kexts[i];
        const auto& failures = checks[i];
        status = failures.empty() ? status : 1;
        if (options.json) {
            json += (json.empty() ? "\n " : ",\n ") + std::string("{\"kext\": ") +
                    jsonString(path) + ", \"failures\": " + jsonStrings(failures) + "}";
            continue;
        }
        if (failures.empty())
            std::cout << "ok " << path << '\n';
        for (const auto& failure : failures)
            std::cout << failure << '\n';
    }
    if (options.json)
        std::cout << "[" << json << (json.empty() ? "]\n" : "\n]\n");
    if (!volume && !options.json && namesAFolder(options.kexts))
        std::cout << "Libraries were not checked: give --volume to check them against a "
                     "volume's kexts.\n";
    return status;
}

} // namespace

void addCheckKextCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "check-kext",
        "Check kext bundles before they go onto a volume: a readable Info.plist, package type "
        "KEXT, a bundle identifier, a kext version, an executable with 64-bit Intel code, and "
        "every library it names (OSBundleLibraries_x86_64, else OSBundleLibraries) on the "
        "volume or among the kexts checked with it, at a version that serves it. Kexts checked "
        "together count as installed together. One sentence per failing check.");
    auto options = std::make_shared<Options>();
    command->add_option("--volume", options->volume,
                        "Mount point of the macOS volume whose kexts must provide the libraries");
    addDataVolumeOption(command);
    command->add_flag("--json", options->json, "Print the failures of each kext as JSON");
    command->add_option("KEXT", options->kexts, "The .kext bundles to check")
        ->required()
        ->check(refuseEmpty);
    command->footer("Exit status: 0 when every kext passes, 1 when one fails a check, 2 when "
                    "the --volume folder is no macOS volume.");
    command->callback([options, &status] { status = printChecks(*options); });
}

} // namespace quelm::ctl
