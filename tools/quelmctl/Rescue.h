// What the commands that change kexts share: JSON text, where backups go, the history, the
// warning about the kernel cache.
#pragma once

#include "jobs/RescueJobs.h"
#include "volumes/Volume.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quelm::ctl {

/// A JSON string literal, always valid UTF-8: paths read from a disk are bytes, so each byte that
/// is not part of a well-formed UTF-8 sequence becomes U+FFFD; control characters are escaped.
std::string jsonString(std::string_view text);
/// A JSON array of string literals.
std::string jsonStrings(const std::vector<std::string>& texts);

/// Where new backup folders go: chosen (--backup-to) or the default in the user's data folder,
/// made when missing and with links resolved; nothing (and a message) when it cannot be made.
std::optional<std::string> backupRoot(const std::string& chosen);

/// A request for a rescue job on the volume, its backups made in backupRoot.
RescueRequest rescueRequest(const Volume& volume, const std::string& backupRoot);

/// What users learn the hard way after taking a kext off a Mac that no longer starts.
inline constexpr std::string_view kKernelCacheWarning =
    "The next start still uses the old kernel cache, which may still hold the removed kext: "
    "start the Mac once in safe mode (hold Shift while it starts), or rebuild the caches from "
    "Recovery, so that macOS builds a new cache without it.";

/// On macOS 11 and later, says on stdout (not in JSON) when the changed kexts take effect.
void printCollectionNotice(const Volume& volume, bool json);

/// Prints the outcome as "VERB path" and "failed path" lines, or as a JSON object; returns the
/// exit status: 0 when nothing failed, else 1.
int reportOutcome(const RescueOutcome& outcome, std::string_view verb, bool json);

/// Reports what a rescue job did, and what did not follow it; returns the exit status: 2
/// when it did nothing, 1 when a kext, the history or the caches failed, else 0.
int reportJob(const Volume& volume, const RescueResult& result, std::string_view verb, bool json);

/// Whether the user runs as root; if not, says why the command needs it.
bool runsAsRoot(std::string_view command);

} // namespace quelm::ctl
