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
    /// kexts: installed kexts as paths on the volume. Their staged copies go with them, and
    /// with setAsideCollection the auxiliary kernel collection of macOS 11 and later.
    RemoveJob(RescueRequest request, std::vector<std::string> kexts, Operations& operations,
              bool setAsideCollection = false);
    /// What run moves, in order: each kext, then its staged copy; the collection last, when
    /// the volume has one. Refused when a collection is to be set aside on an older macOS.
    [[nodiscard]] std::expected<std::vector<std::string>, Error> plan() const;
    RescueResult run();

private:
    RescueRequest request_;
    std::vector<std::string> kexts_;
    Operations& operations_;
    bool setAsideCollection_;
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
