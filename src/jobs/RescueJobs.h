// The jobs that take kexts off a volume, put a backup back and undo the last change, shared by
// the Installed Kexts window and quelmctl: each makes its own backup folder, records itself in
// the history and marks the kext caches stale once a kext moved.
#pragma once

#include "jobs/Operations.h"
#include "kexts/KextHistory.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace quelm {

struct RescueRequest {
    Volume volume;
    /// New backup folders are made in it.
    std::filesystem::path backupRoot = {};
    std::filesystem::path historyFile = {};
};

struct RescueResult {
    /// Set when nothing was done.
    std::optional<Error> refusal;
    RescueOutcome outcome;
    /// Why the history or the caches did not follow.
    std::vector<std::string> problems;

    bool succeeded() const { return !refusal && outcome.failed.empty() && problems.empty(); }
};

class RemoveJob {
public:
    /// kexts: paths on the volume, their staged copies among them.
    RemoveJob(RescueRequest request, std::vector<std::string> kexts, Operations& operations);
    RescueResult run();

private:
    RescueRequest request_;
    std::vector<std::string> kexts_;
    Operations& operations_;
};

class RestoreJob {
public:
    RestoreJob(RescueRequest request, std::string backup, Operations& operations);
    RescueResult run();

private:
    RescueRequest request_;
    std::string backup_;
    Operations& operations_;
};

/// Reverses the last change on the volume that the history holds: removed kexts come back
/// from their backup; installed or restored ones move into a new backup folder and what they
/// replaced comes back.
class UndoJob {
public:
    UndoJob(RescueRequest request, Operations& operations);
    /// The record that run would undo, or why there is none.
    [[nodiscard]] std::expected<HistoryRecord, Error> target() const;
    RescueResult run();

private:
    RescueRequest request_;
    Operations& operations_;
};

} // namespace quelm
