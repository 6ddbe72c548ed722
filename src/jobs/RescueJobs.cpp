// The jobs that take kexts off a volume, put a backup back and undo the last change.
#include "jobs/RescueJobs.h"

#include "volumes/MountedFileSystem.h"

#include <algorithm>
#include <chrono>

namespace quelm {
namespace {

std::string newBackupFolder(const RescueRequest& request) {
    return newBackupFolderPath(request.backupRoot, std::chrono::system_clock::now());
}

HistoryRecord recordOf(const RescueRequest& request, std::string operation,
                       const RescueOutcome& outcome) {
    return {isoTimestamp(std::chrono::system_clock::now()),
            request.volume.mountPoint(),
            std::move(operation),
            outcome.done,
            outcome.backupFolder,
            false};
}

/// Why root cannot change the volume's kexts, asked before the first change.
std::optional<Error> writeRefusalOf(const RescueRequest& request, Operations& operations) {
    auto writable = operations.checkWritable(request.volume, std::string(kKextChangesFolder));
    return writable ? std::nullopt : std::optional(std::move(writable.error()));
}

/// The result of an operation; once a kext moved, the caches are marked stale.
RescueResult finish(const RescueRequest& request, std::expected<RescueOutcome, Error> outcome,
                    Operations& operations) {
    RescueResult result;
    if (!outcome) {
        result.refusal = std::move(outcome.error());
        return result;
    }
    result.outcome = std::move(*outcome);
    if (result.outcome.done.empty())
        return result;
    if (auto rebuilt = operations.rebuildCaches(request.volume); !rebuilt)
        result.problems.push_back(rebuilt.error().message + " Run quelmctl rebuild-caches.");
    return result;
}

/// Adds the record to the history when the operation moved a kext.
void record(const RescueRequest& request, std::string operation, RescueResult& result) {
    if (result.outcome.done.empty())
        return;
    if (auto saved = appendHistory(request.historyFile,
                                   recordOf(request, std::move(operation), result.outcome));
        !saved)
        result.problems.push_back("The change is not in the history: " + saved.error().message);
}

/// The volume's history and the index of the record an undo takes back, or why there is none.
std::expected<std::pair<std::vector<HistoryRecord>, std::size_t>, Error>
undoableHistory(const RescueRequest& request) {
    auto records = readHistory(request.historyFile);
    if (!records)
        return std::unexpected(std::move(records.error()));
    const auto last = lastUndoable(*records, request.volume.mountPoint());
    if (!last)
        return std::unexpected(
            Error{"nothing to undo on " + request.volume.mountPoint(), ErrorKind::refused});
    return std::pair(std::move(*records), *last);
}

} // namespace

RemoveJob::RemoveJob(RescueRequest request, std::vector<std::string> kexts, Operations& operations,
                     bool setAsideCollection)
    : request_(std::move(request)), kexts_(std::move(kexts)), operations_(operations),
      setAsideCollection_(setAsideCollection) {
}

std::expected<std::vector<std::string>, Error> RemoveJob::plan() const {
    const auto& volume = request_.volume;
    if (setAsideCollection_ && !volume.isSealed())
        return std::unexpected(Error{"only macOS 11 and later load kexts from an auxiliary kernel "
                                     "collection; " +
                                         volume.mountPoint() + " holds macOS " +
                                         volume.version().value_or("?"),
                                     ErrorKind::refused});
    std::vector<std::string> paths;
    for (const auto& kext : kexts_) {
        if (std::ranges::find(paths, kext) != paths.end())
            continue;
        paths.push_back(kext);
        if (auto staged = stagedCopyOf(volume, kext))
            paths.push_back(std::move(*staged));
    }
    const std::string collection =
        std::string(kAuxiliaryCollectionFolder) + std::string(kAuxiliaryCollectionName);
    const auto place = setAsideCollection_ ? openParentOn(volume, collection) : std::nullopt;
    if (place && listedNameAt(place->first.get(), place->second))
        paths.push_back(collection);
    return paths;
}

RescueResult RemoveJob::run() {
    auto paths = plan();
    if (!paths)
        return {std::move(paths.error()), {}, {}};
    if (auto refusal = writeRefusalOf(request_, operations_))
        return {std::move(refusal), {}, {}};
    auto result = finish(
        request_, operations_.removeKexts(*paths, request_.volume, newBackupFolder(request_)),
        operations_);
    record(request_, "remove", result);
    return result;
}

RestoreJob::RestoreJob(RescueRequest request, std::string backup, Operations& operations)
    : request_(std::move(request)), backup_(std::move(backup)), operations_(operations) {
}

RescueResult RestoreJob::run() {
    if (auto refusal = writeRefusalOf(request_, operations_))
        return {std::move(refusal), {}, {}};
    auto result = finish(
        request_, operations_.restoreKexts(backup_, request_.volume, newBackupFolder(request_)),
        operations_);
    record(request_, "restore", result);
    return result;
}

UndoJob::UndoJob(RescueRequest request, Operations& operations)
    : request_(std::move(request)), operations_(operations) {
}

std::expected<HistoryRecord, Error> UndoJob::target() const {
    auto history = undoableHistory(request_);
    if (!history)
        return std::unexpected(std::move(history.error()));
    return history->first[history->second];
}

RescueResult UndoJob::run() {
    auto history = undoableHistory(request_);
    if (!history)
        return {std::move(history.error()), {}, {}};
    auto& [records, last] = *history;
    if (auto refusal = writeRefusalOf(request_, operations_))
        return {std::move(refusal), {}, {}};
    auto& undone = records[last];
    const auto backupFolder = newBackupFolder(request_);
    auto result = finish(
        request_,
        undone.operation == "remove"
            ? operations_.restoreKexts(undone.backup, request_.volume, backupFolder)
            : operations_.takeBackKexts(undone.kexts, undone.backup, request_.volume, backupFolder),
        operations_);
    if (result.refusal)
        return result;
    undone.undone = true;
    records.push_back(recordOf(request_, "undo", result.outcome));
    if (auto saved = writeHistory(request_.historyFile, records); !saved)
        result.problems.push_back("The undo is not in the history: " + saved.error().message);
    return result;
}

} // namespace quelm
