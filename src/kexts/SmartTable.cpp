// The smart table: which folder each known kext goes into, shipped and as the user's copy.
#include "kexts/SmartTable.h"

#include "support/Files.h"
#include "support/PropertyList.h"

namespace quelm {
namespace {

bool fileExistsAtPath(const std::string& path) {
    std::error_code error;
    return std::filesystem::exists(path, error);
}

/// The entries when every value is a string; any other value makes the table unusable.
SmartTable::Table tableFrom(const PlistValue* contents) {
    SmartTable::Table table;
    if (!contents || !contents->dict())
        return table;
    for (const auto& [name, folder] : *contents->dict()) {
        if (!folder.string())
            return {};
        table.emplace(name, *folder.string());
    }
    return table;
}

} // namespace

std::string_view errorName(SmartTableError error) {
    switch (error) {
    case SmartTableError::failedToFindDefaultSmartTable:
        return "failedToFindDefaultSmartTable";
    case SmartTableError::failedToAllocateDefaultSmartTable:
        return "failedToAllocateDefaultSmartTable";
    case SmartTableError::failedToFindLocalTableVersion:
        return "failedToFindLocalTableVersion";
    case SmartTableError::failedToFindInternalTableVersion:
        return "failedToFindInternalTableVersion";
    }
    return "unknown";
}

SmartTable::SmartTable(const std::filesystem::path& supportFolder, const Bundle& bundle)
    : bundle_(&bundle),
      userCopyURL_(FileURL::fromPath(supportFolder.string(), true).appending(fileName, false)) {
}

SmartTable::SmartTable(const std::filesystem::path& supportFolder, const Bundle& bundle,
                       const std::string& tablePath)
    : SmartTable(supportFolder, bundle) {
    const auto file = readPlistFile(tablePath);
    if (!file || !file->dict())
        return;
    table_ = tableFrom(file->find(contentsKey));
    if (const auto* version = file->stringForKey(versionKey))
        version_ = *version;
}

std::expected<void, SmartTableError> SmartTable::prepare() const {
    const auto* shipped = bundle_->objectForInfoDictionaryKey(defaultSmartTableKey);
    if (!shipped || !shipped->dict())
        return std::unexpected(SmartTableError::failedToFindDefaultSmartTable);
    if (fileExistsAtPath(userCopyPath())) {
        const auto local = readPlistFile(userCopyPath());
        const auto* localVersion = local ? local->stringForKey(versionKey) : nullptr;
        if (!localVersion)
            return std::unexpected(SmartTableError::failedToFindLocalTableVersion);
        const auto* shippedVersion = shipped->stringForKey(versionKey);
        if (!shippedVersion)
            return std::unexpected(SmartTableError::failedToFindInternalTableVersion);
        // Plain string order, not numeric: "1.10" sorts before "1.9".
        if (*localVersion >= *shippedVersion)
            return {};
    }
    if (!writePlistFileAtomically(userCopyURL_.path(), *shipped))
        return std::unexpected(SmartTableError::failedToAllocateDefaultSmartTable);
    return {};
}

bool SmartTable::save() const {
    PlistValue::Dict entries;
    for (const auto& [name, folder] : table_)
        entries.emplace(name, folder);
    return writePlistFileAtomically(userCopyURL_.path(), entries).has_value();
}

bool SmartTable::reset() const {
    // The shipped file is read first so that a missing resource leaves the user copy alone;
    // the rename then removes and replaces the old copy in one step.
    const auto shipped = readFileBytes(bundle_->resourcePath(resourceName), kMaxPlistFileSize);
    return shipped && writeFileAtomically(userCopyURL_.path(), *shipped).has_value();
}

} // namespace quelm
