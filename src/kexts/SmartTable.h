// The smart table: which folder each known kext goes into, shipped and as the user's copy.
#pragma once

#include "support/Bundle.h"
#include "support/FileURL.h"

#include <expected>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace quelm {

enum class SmartTableError {
    failedToFindDefaultSmartTable,
    failedToAllocateDefaultSmartTable,
    failedToFindLocalTableVersion,
    failedToFindInternalTableVersion,
};

/// The case name, for messages at the edges.
std::string_view errorName(SmartTableError error);

class SmartTable {
public:
    using Table = std::map<std::string, std::string, std::less<>>;

    static constexpr std::string_view defaultSmartTableKey = "QVDefaultSmartTable";
    static constexpr std::string_view contentsKey = "Contents";
    static constexpr std::string_view versionKey = "Version";
    static constexpr std::string_view fileName = "QVUserDefaultSmartTable.plist";
    static constexpr std::string_view resourceName = "QVDefaultSmartTable.plist";

    /// No version and an empty table. The user copy lives in supportFolder; the shipped
    /// table comes from bundle, which must outlive the manager.
    SmartTable(const std::filesystem::path& supportFolder, const Bundle& bundle);
    /// Loads version and entries from the table file at tablePath; an unreadable file leaves
    /// no version and an empty table.
    SmartTable(const std::filesystem::path& supportFolder, const Bundle& bundle,
               const std::string& tablePath);

    /// Creates the user copy, or refreshes it when the shipped version sorts after it.
    [[nodiscard]] std::expected<void, SmartTableError> prepare() const;
    /// Writes the entries alone (no "Version") over the user copy.
    [[nodiscard]] bool save() const;
    /// Replaces the user copy with the shipped resource file.
    [[nodiscard]] bool reset() const;

    const FileURL& userCopyURL() const { return userCopyURL_; }
    /// The user copy's path, used for existence tests.
    std::string userCopyPath() const { return userCopyURL_.path(); }

    const std::optional<std::string>& version() const { return version_; }
    const Table& table() const { return table_; }
    void setTable(Table table) { table_ = std::move(table); }

private:
    const Bundle* bundle_;
    FileURL userCopyURL_;
    std::optional<std::string> version_;
    Table table_;
};

} // namespace quelm
