// What the commands that change kexts share: JSON text, where backups go, the history, the
// warning about the kernel cache.
#pragma once

#include "kexts/KextBackups.h"
#include "kexts/KextHistory.h"
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

/// Adds the record to the user's history, saying so on stderr when that fails.
void recordInHistory(HistoryRecord record);

/// A history record of now for the volume.
HistoryRecord recordOf(const Volume& volume, std::string operation, std::vector<std::string> kexts,
                       std::string backup);

/// Marks the volume's kext caches stale (or rebuilds them); false after a message.
bool invalidateCaches(const Volume& volume);

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

/// Reports the outcome; once a kext moved, records the operation in the history and marks the
/// caches stale. Returns the exit status: 0, or 1 when a kext or the caches failed.
int finishChange(const Volume& volume, std::string operation, const RescueOutcome& outcome,
                 std::string_view verb, bool json);

/// Whether the user runs as root; if not, says why the command needs it.
bool runsAsRoot(std::string_view command);

} // namespace quelm::ctl
