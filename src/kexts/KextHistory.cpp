// The record of every installation, removal and restore, kept in the user's data folder so that
// the last one on a volume can be undone.
#include "kexts/KextHistory.h"

#include "support/Paths.h"
#include "support/PropertyList.h"

#include <ctime>

namespace quelm {
namespace {

std::string text(const PlistValue& from, std::string_view key) {
    const auto* value = from.stringForKey(key);
    return value ? *value : std::string();
}

HistoryRecord recordOf(const PlistValue& entry) {
    HistoryRecord record{text(entry, "Time"),      text(entry, "Volume"),
                         text(entry, "Operation"), {},
                         text(entry, "Backup"),    false};
    if (const auto* kexts = entry.find("Kexts"); kexts && kexts->array())
        for (const auto& kext : *kexts->array())
            if (kext.string())
                record.kexts.push_back(*kext.string());
    if (const auto* undone = entry.find("Undone"); undone && undone->get<bool>())
        record.undone = *undone->get<bool>();
    return record;
}

PlistValue plistOf(const HistoryRecord& record) {
    return PlistValue::Dict{{"Time", record.time},
                            {"Volume", record.volume},
                            {"Operation", record.operation},
                            {"Kexts", PlistValue::Array(record.kexts.begin(), record.kexts.end())},
                            {"Backup", record.backup},
                            {"Undone", record.undone}};
}

} // namespace

std::string isoTimestamp(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

std::filesystem::path historyFilePath() {
    return applicationSupportFolder() / "History.plist";
}

std::filesystem::path defaultBackupRoot() {
    return applicationSupportFolder() / "Backups";
}

std::expected<std::vector<HistoryRecord>, Error> readHistory(const std::filesystem::path& file) {
    std::error_code error;
    if (!std::filesystem::exists(file, error))
        return std::vector<HistoryRecord>{};
    const auto plist = readPlistFile(file);
    if (!plist || !plist->array())
        return std::unexpected(Error{file.string() + " is not a history of operations"});
    std::vector<HistoryRecord> records;
    for (const auto& entry : *plist->array())
        if (entry.dict())
            records.push_back(recordOf(entry));
    return records;
}

std::expected<void, Error> writeHistory(const std::filesystem::path& file,
                                        const std::vector<HistoryRecord>& records) {
    PlistValue::Array entries;
    for (const auto& record : records)
        entries.push_back(plistOf(record));
    std::error_code error;
    std::filesystem::create_directories(file.parent_path(), error);
    const auto written = writePlistFileAtomically(file, entries);
    if (!written)
        return std::unexpected(
            Error{"cannot write " + file.string() + ": " + written.error().message, ErrorKind::io});
    return {};
}

std::expected<void, Error> appendHistory(const std::filesystem::path& file,
                                         const HistoryRecord& record) {
    auto records = readHistory(file);
    if (!records)
        return std::unexpected(records.error());
    records->push_back(record);
    return writeHistory(file, *records);
}

std::optional<std::size_t> lastUndoable(const std::vector<HistoryRecord>& records,
                                        const std::string& volume) {
    for (std::size_t i = records.size(); i-- > 0;)
        if (records[i].volume == volume && !records[i].undone && records[i].operation != "undo")
            return i;
    return std::nullopt;
}

} // namespace quelm
