// The installation job shared by the application and quelmctl.
#include "jobs/InstallJob.h"

#include "jobs/RepairJob.h"
#include "kexts/KextChecks.h"
#include "kexts/KextHistory.h"
#include "volumes/MountedFileSystem.h"

#include <algorithm>
#include <chrono>
#include <map>

namespace quelm {

InstallJob::InstallJob(InstallRequest request, Operations& operations, InstallEvents& events)
    : request_(std::move(request)), operations_(operations), events_(events) {
}

std::optional<Error> InstallJob::refusal(const Volume& volume, KextFolder policy) {
    return isConcreteFolder(policy) ? folderRefusal(rawValue(policy), volume) : std::nullopt;
}

InstallOutcome InstallJob::run() {
    const auto& volume = request_.volume;
    if ((outcome_.refusal = refusal(volume, request_.policy)))
        return std::move(outcome_);
    events_.stageBegan(JobStage::checking);
    auto placements = plan(checked(takeIn()));
    if (request_.dryRun) {
        describe(placements);
        return std::move(outcome_);
    }
    if (auto writable = operations_.checkWritable(volume, std::string(kKextChangesFolder));
        !writable) {
        outcome_.refusal = std::move(writable.error());
        return std::move(outcome_);
    }
    {
        auto hold = operations_.holdVolume(volume);
        if (!hold) {
            outcome_.refusal = std::move(hold.error());
            return std::move(outcome_);
        }
        for (auto& placement : placements)
            place(std::move(placement));
    }
    if (request_.repairPermissions)
        repair();
    if (request_.rebuildCaches)
        rebuildCaches();
    return std::move(outcome_);
}

std::vector<Kext> InstallJob::takeIn() {
    std::vector<Kext> kexts;
    for (const auto& path : request_.paths) {
        Kext kext(FileURL::fromPath(path, false));
        if (kext.url().pathExtension() != "kext")
            skip(kext.name(), SkipReason::notAKext);
        else if (std::ranges::find(kexts, kext) == kexts.end())
            kexts.push_back(std::move(kext));
    }
    return kexts;
}

std::vector<Kext> InstallJob::checked(const std::vector<Kext>& kexts) {
    std::vector<std::string> paths;
    for (const auto& kext : kexts)
        paths.push_back(kext.path());
    // Checked as one job: the kexts given may be each other's libraries.
    const auto checks = checkKexts(paths, request_.volume);
    std::vector<Kext> passed;
    for (std::size_t i = 0; i < kexts.size(); ++i) {
        const auto& failures = checks[i];
        if (!failures.empty())
            events_.checksFailed(kexts[i], failures);
        if (failures.empty() || request_.force || events_.installAnyway(kexts[i], failures))
            passed.push_back(kexts[i]);
        else
            skip(kexts[i].name(), SkipReason::failedChecks);
    }
    return passed;
}

std::vector<InstallJob::Placement> InstallJob::plan(const std::vector<Kext>& kexts) {
    std::map<std::string, std::vector<Kext>> byFolder;
    for (const auto& kext : kexts)
        if (auto folder = folderFor(kext))
            byFolder[*folder].push_back(kext);
    std::vector<Placement> placements;
    for (auto& [folder, placed] : byFolder) {
        if (const auto refusal = installationRefusal(request_.volume, folder)) {
            for (const auto& kext : placed)
                skip(kext.name(), SkipReason::folderRefused, refusal->message);
            continue;
        }
        placements.push_back({folder, std::move(placed)});
    }
    return placements;
}

std::optional<std::string> InstallJob::folderFor(const Kext& kext) {
    switch (request_.policy) {
    case KextFolder::AskMeEveryTime:
        if (const auto chosen = events_.chooseFolder(kext); chosen && isConcreteFolder(*chosen))
            return std::string(rawValue(*chosen));
        skip(kext.name(), SkipReason::noFolderChosen);
        return std::nullopt;
    case KextFolder::UseSmartTable: {
        const auto& table =
            request_.smartTable ? request_.smartTable->table() : SmartTable::Table{};
        if (const auto found = table.find(kext.name()); found != table.end())
            return folderOnVolume(found->second, request_.volume);
        skip(kext.name(), SkipReason::notInSmartTable);
        return std::nullopt;
    }
    default:
        return std::string(rawValue(request_.policy));
    }
}

void InstallJob::skip(std::string name, SkipReason reason, std::string detail) {
    outcome_.skipped.push_back({std::move(name), reason, std::move(detail)});
    events_.skipped(outcome_.skipped.back());
}

void InstallJob::describe(const std::vector<Placement>& placements) {
    for (const auto& [folder, kexts] : placements) {
        const auto replaced = kextsReplacedBy(request_.volume, folder, kexts);
        for (const auto& kext : kexts)
            events_.planned(kext, folder, std::ranges::find(replaced, kext) != replaced.end());
    }
}

void InstallJob::place(Placement placement) {
    std::string backup;
    const auto kexts = backUpReplaced(placement, backup).kexts;
    if (kexts.empty())
        return;
    events_.stageBegan(JobStage::installing);
    auto failed = operations_.installKexts(kexts, placement.folder, request_.volume);
    if (!failed) {
        failed.emplace();
        for (const auto& kext : kexts)
            failed->push_back({kext, failed.error().message});
    }
    for (const auto& kext : kexts) {
        const auto failure = std::ranges::find_if(
            *failed, [&](const InstallFailure& item) { return item.kext == kext; });
        if (failure != failed->end()) {
            events_.failed(*failure, placement.folder);
            outcome_.failed.push_back(*failure);
        } else {
            events_.installed(kext, placement.folder);
            outcome_.installed.push_back(placement.folder + kext.name());
        }
    }
    record(placement.folder, kexts, *failed, backup);
}

InstallJob::Placement InstallJob::backUpReplaced(const Placement& placement, std::string& backup) {
    const auto replaced = kextsReplacedBy(request_.volume, placement.folder, placement.kexts);
    if (replaced.empty())
        return placement;
    events_.stageBegan(JobStage::backingUp);
    const auto folder = newBackupFolderPath(request_.backupRoot, std::chrono::system_clock::now());
    auto failed = operations_.backUpKexts(replaced, placement.folder, request_.volume, folder);
    if (!failed)
        failed = replaced;
    if (failed->size() < replaced.size()) {
        backup = folder;
        outcome_.backups.push_back(folder);
        events_.backedUp(folder);
    }
    // Installing over a kext that has no backup could lose the only working copy.
    Placement going{placement.folder, {}};
    for (const auto& kext : placement.kexts)
        if (std::ranges::find(*failed, kext) == failed->end())
            going.kexts.push_back(kext);
        else
            skip(kext.name(), SkipReason::notBackedUp,
                 request_.volume.mountPoint() + placement.folder + kext.name());
    return going;
}

void InstallJob::record(const std::string& folder, const std::vector<Kext>& kexts,
                        const std::vector<InstallFailure>& failed, const std::string& backup) {
    HistoryRecord record{isoTimestamp(std::chrono::system_clock::now()),
                         request_.volume.mountPoint(),
                         "install",
                         {},
                         {},
                         false};
    for (const auto& kext : kexts)
        if (std::ranges::none_of(failed, [&](const auto& item) { return item.kext == kext; }))
            record.kexts.push_back(folder + kext.name());
    if (record.kexts.empty())
        return;
    record.backup = backup;
    if (auto saved = appendHistory(request_.historyFile, record); !saved)
        outcome_.problems.push_back("The installation is not in the history: " +
                                    saved.error().message);
}

void InstallJob::repair() {
    events_.stageBegan(JobStage::repairing);
    auto repaired =
        RepairJob({.volume = request_.volume, .reportFolder = request_.reportFolder}, operations_)
            .run();
    if (repaired.refusal)
        outcome_.problems.push_back(repaired.refusal->message);
    else
        outcome_.repairResults = std::move(repaired.check.results);
    if (repaired.reportProblem)
        outcome_.problems.push_back(repaired.reportProblem->message);
    outcome_.report = repaired.report;
}

void InstallJob::rebuildCaches() {
    events_.stageBegan(JobStage::rebuildingCaches);
    if (auto rebuilt = operations_.rebuildCaches(request_.volume); !rebuilt)
        outcome_.problems.push_back(rebuilt.error().message);
}

} // namespace quelm
