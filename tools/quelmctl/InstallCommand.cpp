// quelmctl install: kexts onto a volume with root ownership, by the folder policy, in process.
#include "kexts/KextBackups.h"
#include "kexts/KextChecks.h"
#include "kexts/KextInstallation.h"
#include "kexts/KextIntake.h"
#include "kexts/KextSwaps.h"
#include "quelmctl/Commands.h"
#include "quelmctl/Rescue.h"
#include "support/Paths.h"
#include "volumes/MountedFileSystem.h"

#include <chrono>
#include <iostream>
#include <map>
#include <unistd.h>

namespace quelm::ctl {
namespace {

struct Options {
    std::string volume;
    std::string folder = "smart";
    std::string backupTo;
    bool force = false;
    bool dryRun = false;
    bool json = false;
    std::vector<std::string> kexts;
};

/// What the installation tells: plain lines as it goes, or with --json one object at the end
/// whose keys gather the values.
class Report {
public:
    explicit Report(bool json) : json_(json) {}

    void say(const std::string& line, const std::string& key, const std::string& value) {
        if (json_)
            entries_[key].push_back(value);
        else
            std::cout << line << '\n';
    }
    void printJson() const {
        if (!json_)
            return;
        std::string out;
        for (const auto& [key, values] : entries_)
            out += (out.empty() ? "" : ", ") + jsonString(key) + ": " + jsonStrings(values);
        std::cout << "{" << out << "}\n";
    }

private:
    bool json_;
    std::map<std::string, std::vector<std::string>> entries_;
};

std::optional<KextFolder> policyNamed(const std::string& name) {
    static const std::map<std::string, KextFolder, std::less<>> kShortNames{
        {"extra", KextFolder::ExtraExtensions},
        {"library", KextFolder::LibraryExtensions},
        {"system", KextFolder::SystemLibraryExtensions},
        {"ask", KextFolder::AskMeEveryTime},
        {"smart", KextFolder::UseSmartTable}};
    const auto found = kShortNames.find(name);
    return found != kShortNames.end() ? std::optional(found->second)
                                      : kernelExtensionFolderFromRawValue(name);
}

/// The three choices of the application's folder dialog, asked on the terminal.
std::optional<std::string> askFolder(const Kext& kext) {
    std::cout << "Select the installation folder for " << kext.name() << ":\n"
              << "  1) /Library/Extensions/\n  2) /System/Library/Extensions/\n  3) Cancel\n"
              << "Choice [1-3]: " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    if (answer == "1")
        return std::string(rawValue(KextFolder::LibraryExtensions));
    if (answer == "2")
        return std::string(rawValue(KextFolder::SystemLibraryExtensions));
    return std::nullopt;
}

/// The kexts to install in each folder.
using Plan = std::map<std::string, std::vector<Kext>>;

/// Each kext's folder by the policy; nothing for a kext that is skipped, with the reason.
Plan planFolders(const std::vector<Kext>& kexts, KextFolder policy,
                 const std::optional<SmartTable>& table, const Volume& volume, int& skipped,
                 Report& report) {
    Plan plan;
    for (const auto& kext : kexts) {
        std::optional<std::string> folder;
        if (policy == KextFolder::AskMeEveryTime)
            folder = askFolder(kext);
        else if (policy != KextFolder::UseSmartTable)
            folder = std::string(rawValue(policy));
        else if (const auto found = table->table().find(kext.name()); found != table->table().end())
            folder = folderOnVolume(found->second, volume);
        if (folder) {
            plan[*folder].push_back(kext);
            continue;
        }
        ++skipped;
        report.say(
            "skipped " + kext.name() +
                (policy == KextFolder::AskMeEveryTime ? ": cancelled" : ": not in the smart table"),
            "skipped", kext.name());
    }
    return plan;
}

/// The kexts that pass the checks against the volume's kexts and the others given, or every
/// kext with force; says why each other one is refused.
std::vector<Kext> checkedKexts(const std::vector<Kext>& kexts, const Volume& volume, bool force,
                               int& refused, Report& report) {
    std::vector<std::string> paths;
    for (const auto& kext : kexts)
        paths.push_back(kext.path());
    const auto checks = checkKexts(paths, volume);
    std::vector<Kext> passed;
    for (std::size_t i = 0; i < kexts.size(); ++i) {
        const auto& failures = checks[i];
        for (const auto& failure : failures)
            report.say(failure, "checkFailures", failure);
        if (failures.empty() || force) {
            passed.push_back(kexts[i]);
            continue;
        }
        report.say("refused " + kexts[i].name() +
                       ": it would not load; add --force to install it anyway",
                   "refused", kexts[i].name());
        ++refused;
    }
    return passed;
}

/// Copies the installed kexts that the plan replaces into a new backup folder; false after a
/// message when one cannot be copied.
bool backupReplaced(const Options& options, const Volume& volume, const Plan& plan,
                    std::string& backupFolder, Report& report) {
    std::vector<std::string> replaced;
    for (const auto& [folder, kexts] : plan)
        for (const auto& kext : kextsReplacedBy(volume, folder, kexts))
            replaced.push_back(folder + kext.name());
    if (replaced.empty())
        return true;
    const auto root = backupRoot(options.backupTo);
    if (!root)
        return false;
    const auto now = std::chrono::system_clock::now();
    const auto outcome =
        copyKextsToBackup(volume, replaced, newBackupFolderPath(*root, now), "install", now);
    for (const auto& path : outcome.failed)
        printError("cannot back up " + volume.mountPoint() + path + "; nothing was installed");
    backupFolder = outcome.backupFolder;
    if (!backupFolder.empty())
        report.say("backed up what is replaced into " + backupFolder, "backup", backupFolder);
    return outcome.failed.empty();
}

/// Takes out of the plan the folders that cannot take kexts, saying why; the kexts taken out.
int dropRefusedFolders(Plan& plan, const Volume& volume) {
    int dropped = 0;
    for (auto it = plan.begin(); it != plan.end();) {
        const auto refusal = installationRefusal(volume, it->first);
        if (!refusal) {
            ++it;
            continue;
        }
        printError(refusal->message);
        dropped += static_cast<int>(it->second.size());
        it = plan.erase(it);
    }
    return dropped;
}

void describePlan(const Plan& plan, const Volume& volume, Report& report) {
    report.say("Dry run: nothing is changed.", "dryRun", "nothing is changed");
    for (const auto& [folder, kexts] : plan)
        for (const auto& replaced = kextsReplacedBy(volume, folder, kexts);
             const auto& kext : kexts) {
            const bool replaces = std::ranges::find(replaced, kext) != replaced.end();
            report.say("would install " + kext.name() + " into " + folder +
                           (replaces ? ", backing up the kext it replaces" : ""),
                       "wouldInstall", folder + kext.name());
        }
}

/// Backs up what the plan replaces, installs it and records it; the number of kexts that
/// failed, or nothing when the backup failed and nothing was installed.
std::optional<int> installPlan(const Options& options, const Volume& volume, const Plan& plan,
                               Report& report) {
    // One lock from the backup to the last kext: no other run changes the volume between them.
    const auto lock = beginKextChanges(volume);
    if (!lock) {
        printError(lock.error().message);
        return std::nullopt;
    }
    std::string backupFolder;
    if (!backupReplaced(options, volume, plan, backupFolder, report))
        return std::nullopt;
    std::vector<std::string> installed;
    int failures = 0;
    for (const auto& [folder, kexts] : plan) {
        const auto failed = installKexts(kexts, folder, volume);
        for (const auto& kext : kexts) {
            const auto failure = std::ranges::find_if(
                failed, [&](const InstallFailure& item) { return item.kext == kext; });
            if (failure != failed.end()) {
                report.say("failed " + kext.name() + ": not installed into " + folder + ": " +
                               failure->reason,
                           "failed", kext.name());
                continue;
            }
            report.say("installed " + kext.name() + " into " + folder, "installed",
                       folder + kext.name());
            installed.push_back(folder + kext.name());
        }
        failures += static_cast<int>(failed.size());
    }
    if (installed.empty())
        return failures;
    recordInHistory(recordOf(volume, "install", installed, backupFolder));
    printCollectionNotice(volume, options.json);
    return failures;
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
    if (!options.dryRun && ::geteuid() != 0) {
        printError("install must run as root: installed kexts must belong to root");
        return 2;
    }
    if (!options.dryRun && refusesWrites(*volume, kKextChangesFolder))
        return 2;
    if (const auto refusal =
            isConcreteFolder(*policy) ? folderRefusal(rawValue(*policy), *volume) : std::nullopt) {
        printError(refusal->message);
        return 2;
    }
    auto& manager = KextIntake::shared();
    manager.addKernelExtensions(options.kexts);
    // Other paths are left out by the manager; each is named here, and counts as not installed.
    int notInstalled = 0;
    for (const auto& path : options.kexts)
        if (FileURL::fromPath(path, false).pathExtension() != "kext") {
            printError(path + " is not a kext bundle: its name must end in .kext");
            ++notInstalled;
        }
    std::optional<SmartTable> table;
    if (*policy == KextFolder::UseSmartTable &&
        !(table = preparedUserCopy(applicationSupportFolder())))
        return 2;
    Report report(options.json);
    auto plan = planFolders(
        checkedKexts(manager.kextsToInstall(), *volume, options.force, notInstalled, report),
        *policy, table, *volume, notInstalled, report);
    notInstalled += dropRefusedFolders(plan, *volume);
    if (options.dryRun) {
        describePlan(plan, *volume, report);
    } else if (const auto failed = installPlan(options, *volume, plan, report)) {
        notInstalled += *failed;
    } else {
        return 1;
    }
    report.printJson();
    return notInstalled == 0 ? 0 : 1;
}

} // namespace

void addInstallCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "install", "Install kext bundles onto a macOS volume, owned by root with mode 755 (run "
                   "as root). A kext that fails leaves the bundle it would replace in place.");
    auto options = std::make_shared<Options>();
    command->add_option("--volume", options->volume, "Mount point of the macOS volume")->required();
    addDataVolumeOption(command);
    command->add_option("--folder", options->folder,
                        "Where the kexts go: library, system, extra, a folder such as "
                        "/Library/Extensions/, ask (asked per kext) or smart (the smart table; "
                        "the default)");
    command->add_option("--backup-to", options->backupTo,
                        "Back up the kexts about to be replaced into a dated folder in DIR "
                        "(default: Backups in Quelm's folder of the user's data folder)");
    command->add_flag("--force", options->force,
                      "Install kexts that fail the checks of check-kext");
    command->add_flag("--dry-run", options->dryRun,
                      "Print what would be installed; change nothing");
    command->add_flag("--json", options->json, "Print the outcome as one JSON object");
    command->add_option("KEXT", options->kexts, "The .kext bundles to install")->required();
    command->footer("A missing Extensions folder is made (root:wheel 755). On a case-insensitive "
                    "volume, lilu.kext replaces an installed Lilu.kext. Each kext must first pass "
                    "the checks of check-kext; what it replaces is backed up, and the "
                    "installation is recorded for quelmctl undo.\n"
                    "Exit status: 0 when every kext was installed, 1 when one was skipped or "
                    "failed, 2 when nothing could be done: a folder that is no macOS volume, a "
                    "volume mounted read-only, a system folder that its macOS keeps read-only.");
    command->callback([options, &status] { status = install(*options); });
}

} // namespace quelm::ctl
