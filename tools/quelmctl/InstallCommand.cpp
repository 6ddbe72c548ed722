// quelmctl install: kexts onto a volume with root ownership, by the folder policy, in process.
#include "jobs/InstallJob.h"
#include "quelmctl/Commands.h"
#include "quelmctl/Rescue.h"
#include "support/Paths.h"

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
    bool json() const { return json_; }
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

/// The job's events on the terminal: plain lines as it goes, or with --json one object at the
/// end; the folder question is asked on the terminal as the application's dialog asks it.
class TerminalInstall final : public InstallEvents {
public:
    TerminalInstall(const Volume& volume, bool json) : volume_(volume), report_(json) {}

    void checksFailed(const Kext&, const std::vector<std::string>& failures) override {
        for (const auto& failure : failures)
            report_.say(failure, "checkFailures", failure);
    }
    std::optional<KextFolder> chooseFolder(const Kext& kext) override {
        std::cout << "Select the installation folder for " << kext.name() << ":\n"
                  << "  1) /Library/Extensions/\n  2) /System/Library/Extensions/\n  3) Cancel\n"
                  << "Choice [1-3]: " << std::flush;
        std::string answer;
        std::getline(std::cin, answer);
        if (answer == "1")
            return KextFolder::LibraryExtensions;
        if (answer == "2")
            return KextFolder::SystemLibraryExtensions;
        return std::nullopt;
    }
    void skipped(const SkippedKext& kext) override {
        switch (kext.reason) {
        case SkipReason::notAKext:
            printError(kext.name + " is not a kext bundle: its name must end in .kext");
            break;
        case SkipReason::failedChecks:
            report_.say("refused " + kext.name +
                            ": it would not load; add --force to install it anyway",
                        "refused", kext.name);
            break;
        case SkipReason::noFolderChosen:
            report_.say("skipped " + kext.name + ": cancelled", "skipped", kext.name);
            break;
        case SkipReason::notInSmartTable:
            report_.say("skipped " + kext.name + ": not in the smart table", "skipped", kext.name);
            break;
        case SkipReason::folderRefused:
            printError(kext.detail);
            break;
        case SkipReason::notBackedUp:
            printError("cannot back up " + kext.detail + "; " + kext.name + " was not installed");
            break;
        }
    }
    void planned(const Kext& kext, const std::string& folder, bool replaces) override {
        if (!described_)
            report_.say("Dry run: nothing is changed.", "dryRun", "nothing is changed");
        described_ = true;
        report_.say("would install " + kext.name() + " into " + folder +
                        (replaces ? ", backing up the kext it replaces" : ""),
                    "wouldInstall", folder + kext.name());
    }
    void backedUp(const std::string& backup) override {
        report_.say("backed up what is replaced into " + backup, "backup", backup);
    }
    void installed(const Kext& kext, const std::string& folder) override {
        report_.say("installed " + kext.name() + " into " + folder, "installed",
                    folder + kext.name());
    }
    void failed(const InstallFailure& failure, const std::string& folder) override {
        report_.say("failed " + failure.kext.name() + ": not installed into " + folder + ": " +
                        failure.reason,
                    "failed", failure.kext.name());
    }
    void finish(const InstallOutcome& outcome, bool dryRun) {
        if (dryRun && !described_)
            report_.say("Dry run: nothing is changed.", "dryRun", "nothing is changed");
        for (const auto& problem : outcome.problems)
            printError(problem);
        report_.printJson();
        if (!outcome.installed.empty())
            printCollectionNotice(volume_, report_.json());
    }

private:
    const Volume& volume_;
    Report report_;
    bool described_ = false;
};

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
    std::optional<SmartTable> table;
    if (*policy == KextFolder::UseSmartTable &&
        !(table = preparedUserCopy(applicationSupportFolder())))
        return 2;
    const auto root =
        options.dryRun ? std::optional<std::string>("") : backupRoot(options.backupTo);
    if (!root)
        return 2;
    InstallRequest request{.volume = *volume,
                           .paths = options.kexts,
                           .policy = *policy,
                           .smartTable = std::move(table),
                           .force = options.force,
                           .dryRun = options.dryRun,
                           .backupRoot = *root,
                           .historyFile = historyFilePath()};
    LocalOperations operations;
    TerminalInstall events(*volume, options.json);
    const auto outcome = InstallJob(std::move(request), operations, events).run();
    if (outcome.refusal) {
        printError(outcome.refusal->message);
        return 2;
    }
    events.finish(outcome, options.dryRun);
    return outcome.allInstalled() ? 0 : 1;
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
