// quelmctl install: kexts onto a volume with root ownership, by the folder policy, in process.
#include "kexts/KextInstallation.h"
#include "kexts/QVKernelExtensionsManager.h"
#include "quelmctl/Commands.h"
#include "support/Paths.h"

#include <chrono>
#include <iostream>
#include <map>
#include <unistd.h>

namespace quelm::ctl {
namespace {

namespace fs = std::filesystem;

struct Options {
    std::string volume;
    std::string folder = "smart";
    std::string backupTo;
    std::vector<std::string> kexts;
};

std::optional<QVKernelExtensionFolder> policyNamed(const std::string& name) {
    static const std::map<std::string, QVKernelExtensionFolder, std::less<>> kShortNames{
        {"extra", QVKernelExtensionFolder::ExtraExtensions},
        {"library", QVKernelExtensionFolder::LibraryExtensions},
        {"system", QVKernelExtensionFolder::SystemLibraryExtensions},
        {"ask", QVKernelExtensionFolder::AskMeEveryTime},
        {"smart", QVKernelExtensionFolder::UseSmartTable}};
    const auto found = kShortNames.find(name);
    return found != kShortNames.end() ? std::optional(found->second)
                                      : kernelExtensionFolderFromRawValue(name);
}

/// The three choices of the application's folder dialog, asked on the terminal.
std::optional<std::string> askFolder(const QVKernelExtension& kext) {
    std::cout << "Select the installation folder for " << kext.name() << ":\n"
              << "  1) /Library/Extensions/\n  2) /System/Library/Extensions/\n  3) Cancel\n"
              << "Choice [1-3]: " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    if (answer == "1")
        return std::string(rawValue(QVKernelExtensionFolder::LibraryExtensions));
    if (answer == "2")
        return std::string(rawValue(QVKernelExtensionFolder::SystemLibraryExtensions));
    return std::nullopt;
}

/// Each kext's folder by the policy; nothing for a kext that is skipped, with the reason.
std::map<std::string, std::vector<QVKernelExtension>>
planFolders(const std::vector<QVKernelExtension>& kexts, QVKernelExtensionFolder policy,
            const std::optional<QVSmartTableManager>& table, const QVOSVolume& volume,
            int& skipped) {
    std::map<std::string, std::vector<QVKernelExtension>> plan;
    for (const auto& kext : kexts) {
        std::optional<std::string> folder;
        if (policy == QVKernelExtensionFolder::AskMeEveryTime)
            folder = askFolder(kext);
        else if (policy != QVKernelExtensionFolder::UseSmartTable)
            folder = std::string(rawValue(policy));
        else if (const auto found = table->table().find(kext.name()); found != table->table().end())
            folder = folderOnVolume(found->second, volume);
        if (folder) {
            plan[*folder].push_back(kext);
            continue;
        }
        ++skipped;
        std::cout << "skipped " << kext.name()
                  << (policy == QVKernelExtensionFolder::AskMeEveryTime
                          ? ": cancelled\n"
                          : ": not in the smart table\n");
    }
    return plan;
}

/// Backs up, into DIR/<timestamp>, the kexts that the installation is about to replace.
bool backupReplaced(const Options& options, const QVOSVolume& volume, const std::string& folder,
                    const std::vector<QVKernelExtension>& kexts) {
    std::vector<QVKernelExtension> replaced;
    for (const auto& kext : kexts)
        if (std::error_code error; fs::exists(volume.mountPoint() + folder + kext.name(), error))
            replaced.push_back(kext);
    std::string destination = fs::absolute(options.backupTo).string();
    if (destination.back() != '/')
        destination += '/';
    const auto failed = backupKernelExtensions(replaced, folder, volume, destination,
                                               std::chrono::system_clock::now());
    for (const auto& kext : failed)
        printError("cannot back up " + volume.mountPoint() + folder + kext.name());
    return failed.empty();
}

int install(const Options& options) {
    const auto policy = policyNamed(options.folder);
    if (!policy) {
        printError(options.folder + " is not a folder policy");
        return 2;
    }
    const auto volume = openVolume(options.volume);
    if (!volume)
        return 2;
    if (::geteuid() != 0) {
        printError("install must run as root: installed kexts must belong to root");
        return 2;
    }
    if (refusesWrites(*volume))
        return 2;
    if (const auto refusal =
            isConcreteFolder(*policy) ? folderRefusal(rawValue(*policy), *volume) : std::nullopt) {
        printError(*refusal);
        return 2;
    }
    auto& manager = QVKernelExtensionsManager::shared();
    manager.addKernelExtensions(options.kexts);
    std::optional<QVSmartTableManager> table;
    if (*policy == QVKernelExtensionFolder::UseSmartTable &&
        !(table = preparedUserCopy(applicationSupportFolder())))
        return 2;
    int notInstalled = static_cast<int>(options.kexts.size() - manager.kextsTBI().size());
    for (const auto& [folder, kexts] :
         planFolders(manager.kextsTBI(), *policy, table, *volume, notInstalled)) {
        if (const auto refusal = installationRefusal(*volume, folder)) {
            printError(*refusal);
            notInstalled += static_cast<int>(kexts.size());
            continue;
        }
        if (!options.backupTo.empty() && !backupReplaced(options, *volume, folder, kexts))
            return 1;
        const auto failed = installKernelExtensions(kexts, folder, *volume);
        for (const auto& kext : kexts) {
            const bool ok = std::ranges::find(failed, kext) == failed.end();
            std::cout << (ok ? "installed " : "failed ") << kext.name()
                      << (ok ? " into " : ": could not be installed into ") << folder << '\n';
        }
        notInstalled += static_cast<int>(failed.size());
    }
    return notInstalled == 0 ? 0 : 1;
}

} // namespace

void addInstallCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "install", "Install kext bundles onto a macOS volume, owned by root with mode 755 (run "
                   "as root). A kext that fails leaves the bundle it would replace in place.");
    auto options = std::make_shared<Options>();
    command->add_option("--volume", options->volume, "Mount point of the macOS volume")->required();
    command->add_option("--folder", options->folder,
                        "Where the kexts go: library, system, extra, a folder such as "
                        "/Library/Extensions/, ask (asked per kext) or smart (the smart table; "
                        "the default)");
    command->add_option("--backup-to", options->backupTo,
                        "Back up the kexts about to be replaced into a dated folder in DIR");
    command->add_option("KEXT", options->kexts, "The .kext bundles to install")->required();
    command->footer("A missing Extensions folder is made (root:wheel 755). On a case-insensitive "
                    "volume, lilu.kext replaces an installed Lilu.kext.\n"
                    "Exit status: 0 when every kext was installed, 1 when one was skipped or "
                    "failed, 2 when nothing could be done: a folder that is no macOS volume, a "
                    "volume mounted read-only, a system folder that its macOS keeps read-only.");
    command->callback([options, &status] { status = install(*options); });
}

} // namespace quelm::ctl
