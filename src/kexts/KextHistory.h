// The record of every installation, removal and restore, kept in the user's data folder so that
// the last one on a volume can be undone.
#pragma once

#include "support/Error.h"

#include <chrono>
#include <cstddef>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace quelm {

/// One operation on a volume.
struct HistoryRecord {
    std::string time;      ///< "2026-11-22T21:55:03Z"
    std::string volume;    ///< the mount point
    std::string operation; ///< "install", "remove", "restore" or "undo"
    /// The kexts it put in place, or for "remove" the kexts it took off: paths on the volume.
    std::vector<std::string> kexts;
    /// Where the kexts it took off or replaced went; "" when it replaced nothing.
    std::string backup;
    bool undone = false;
};

/// The time in UTC as "2026-11-22T21:55:03Z".
std::string isoTimestamp(std::chrono::system_clock::time_point time);

/// The user's data folder + "History.plist".
std::filesystem::path historyFilePath();
/// The user's data folder + "Backups": where backups go unless the user chooses a folder.
std::filesystem::path defaultBackupRoot();

/// Every record, oldest first; a missing file has none.
[[nodiscard]] std::expected<std::vector<HistoryRecord>, Error>
readHistory(const std::filesystem::path& file);
/// Replaces the file atomically with the records.
[[nodiscard]] std::expected<void, Error> writeHistory(const std::filesystem::path& file,
                                                      const std::vector<HistoryRecord>& records);
/// Adds one record at the end.
[[nodiscard]] std::expected<void, Error> appendHistory(const std::filesystem::path& file,
                                                       const HistoryRecord& record);

/// The index of the last record on the volume that can be undone: not undone yet, and not an
/// undo itself.
std::optional<std::size_t> lastUndoable(const std::vector<HistoryRecord>& records,
                                        const std::string& volume);

} // namespace quelm
