// The installation job shared by the application and quelmctl: kexts taken in and checked,
// each given its folder, what they replace backed up, then installed and recorded for undo;
// afterwards, when asked, the volume's permissions repaired and its kext caches rebuilt.
#pragma once

#include "jobs/Operations.h"
#include "kexts/KextFolder.h"
#include "kexts/SmartTable.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace quelm {

/// Why a kext given to the job is not installed, before anything is written.
enum class SkipReason {
    notAKext,
    failedChecks,
    noFolderChosen,
    notInSmartTable,
    /// The folder cannot take kexts on this volume; the detail says why.
    folderRefused,
    /// What it would replace could not be backed up, and it stays.
    notBackedUp,
};

struct SkippedKext {
    std::string name;
    SkipReason reason;
    std::string detail;
};

enum class JobStage { checking, backingUp, installing, repairing, rebuildingCaches };

/// What the job tells its face as it goes, and the two questions it may ask. Called on the
/// thread that runs the job.
class InstallEvents {
public:
    virtual ~InstallEvents() = default;
    virtual void stageBegan(JobStage) {}
    virtual void progress(double) {}
    virtual void skipped(const SkippedKext&) {}
    /// The failing checks of a kext, before the job decides whether to install it.
    virtual void checksFailed(const Kext&, const std::vector<std::string>&) {}
    /// Whether a kext that failed its checks is installed all the same.
    virtual bool installAnyway(const Kext&, const std::vector<std::string>&) { return false; }
    /// The folder for the kext when the policy asks every time; nothing skips it.
    virtual std::optional<KextFolder> chooseFolder(const Kext&) { return std::nullopt; }
    /// A dry run: where the kext would go, and whether it replaces one.
    virtual void planned(const Kext&, const std::string&, bool) {}
    virtual void backedUp(const std::string&) {}
    virtual void installed(const Kext&, const std::string&) {}
    virtual void failed(const InstallFailure&, const std::string&) {}
};

struct InstallRequest {
    Volume volume;
    /// The paths the user gave, kexts or not.
    std::vector<std::string> paths;
    KextFolder policy = KextFolder::UseSmartTable;
    /// The user's table, needed when the policy is the smart table.
    std::optional<SmartTable> smartTable = {};
    /// Kexts that fail their checks go in without asking.
    bool force = false;
    bool dryRun = false;
    /// New backup folders are made in it.
    std::filesystem::path backupRoot = {};
    std::filesystem::path historyFile = {};
    /// The follow-ups of the application's job; quelmctl leaves them to their own commands.
    bool repairPermissions = false;
    bool rebuildCaches = false;
    /// Where the repair's report is saved, named by the time; none keeps no report.
    std::optional<std::filesystem::path> reportFolder = {};
};

struct InstallOutcome {
    /// Set when the job was refused before it changed anything.
    std::optional<Error> refusal;
    std::vector<SkippedKext> skipped;
    std::vector<std::string> installed;
    std::vector<InstallFailure> failed;
    std::vector<std::string> backups;
    /// The repair's results when it ran, and the report saved from them.
    std::optional<std::vector<ResultRecord>> repairResults;
    std::optional<std::filesystem::path> report;
    /// Why a follow-up (the history, the repair, the caches) did not happen.
    std::vector<std::string> problems;

    bool allInstalled() const { return !refusal && skipped.empty() && failed.empty(); }
};

class InstallJob {
public:
    InstallJob(InstallRequest request, Operations& operations, InstallEvents& events);
    /// What refuses a job before anything is asked or written: a policy's folder that the
    /// volume's macOS keeps read-only.
    static std::optional<Error> refusal(const Volume& volume, KextFolder policy);
    InstallOutcome run();

private:
    struct Placement {
        std::string folder;
        std::vector<Kext> kexts;
    };

    std::vector<Kext> takeIn();
    std::vector<Kext> checked(const std::vector<Kext>& kexts);
    std::vector<Placement> plan(const std::vector<Kext>& kexts);
    std::optional<std::string> folderFor(const Kext& kext);
    void skip(std::string name, SkipReason reason, std::string detail = {});
    void describe(const std::vector<Placement>& placements);
    void place(Placement placement);
    /// Backs up what the placement replaces: the kexts that may go ahead, in its folder, and
    /// the backup made for them ("" when none was).
    Placement backUpReplaced(const Placement& placement, std::string& backup);
    void record(const std::string& folder, const std::vector<Kext>& kexts,
                const std::vector<InstallFailure>& failed, const std::string& backup);
    void repair();
    void rebuildCaches();

    InstallRequest request_;
    Operations& operations_;
    InstallEvents& events_;
    InstallOutcome outcome_;
};

} // namespace quelm
