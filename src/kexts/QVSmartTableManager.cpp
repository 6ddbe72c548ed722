// The smart table: which folder each known kext goes into, shipped and as the user's copy.
#include "kexts/QVSmartTableManager.h"

#include "support/Files.h"
#include "support/PropertyList.h"

namespace quelm {
namespace {

using Error = QVSmartTableManagerError;

bool fileExistsAtPath(const std::string& path) {
    std::error_code error;
    return std::filesystem::exists(path, error);
}

/// The entries when every value is a string; any other value makes the table unusable.
QVSmartTableManager::Table tableFrom(const PlistValue* contents) {
    QVSmartTableManager::Table table;
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

std::string_view errorName(QVSmartTableManagerError error) {
    switch (error) {
    case Error::failedToFindDefaultSmartTable:
        return "failedToFindDefaultSmartTable";
    case Error::failedToAllocateDefaultSmartTable:
        return "failedToAllocateDefaultSmartTable";
    case Error::failedToFindLocalTableVersion:
        return "failedToFindLocalTableVersion";
    case Error::failedToFindInternalTableVersion:
        return "failedToFindInternalTableVersion";
    }
    return "unknown";
}

QVSmartTableManager::QVSmartTableManager(const std::filesystem::path& supportFolder,
                                         const Bundle& bundle)
    : bundle_(&bundle),
      userCopyURL_(FileURL::fromPath(supportFolder.string(), true).appending(fileName, false)) {
}

QVSmartTableManager::QVSmartTableManager(const std::filesystem::path& supportFolder,
                                         const Bundle& bundle, const std::string& tablePath)
    : QVSmartTableManager(supportFolder, bundle) {
    const auto file = readPlistFile(tablePath);
    if (!file || !file->dict())
        return;
    table_ = tableFrom(file->find(contentsKey));
    if (const auto* version = file->stringForKey(versionKey))
        version_ = *version;
}

std::expected<void, QVSmartTableManagerError> QVSmartTableManager::prepare() const {
    const auto* shipped = bundle_->objectForInfoDictionaryKey(defaultSmartTableKey);
    if (!shipped || !shipped->dict())
        return std::unexpected(Error::failedToFindDefaultSmartTable);
    if (fileExistsAtPath(userCopyPath())) {
        const auto local = readPlistFile(userCopyPath());
        const auto* localVersion = local ? local->stringForKey(versionKey) : nullptr;
        if (!localVersion)
            return std::unexpected(Error::failedToFindLocalTableVersion);
        const auto* shippedVersion = shipped->stringForKey(versionKey);
        if (!shippedVersion)
            return std::unexpected(Error::failedToFindInternalTableVersion);
        // Plain string order, not numeric: "1.10" sorts before "1.9".
        if (*localVersion >= *shippedVersion)
            return {};
    }
    if (!writePlistFileAtomically(userCopyURL_.path(), *shipped))
        return std::unexpected(Error::failedToAllocateDefaultSmartTable);
    return {};
}

bool QVSmartTableManager::save() const {
    PlistValue::Dict entries;
    for (const auto& [name, folder] : table_)
        entries.emplace(name, folder);
    return writePlistFileAtomically(userCopyURL_.path(), entries).has_value();
}

bool QVSmartTableManager::reset() const {
    // The shipped file is read first so that a missing resource leaves the user copy alone;
    // the rename then removes and replaces the old copy in one step.
    const auto shipped = readFileBytes(bundle_->resourcePath(resourceName), kMaxPlistFileSize);
    return shipped && writeFileAtomically(userCopyURL_.path(), *shipped).has_value();
}

} // namespace quelm
