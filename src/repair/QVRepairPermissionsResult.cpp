// One difference found by verification or one change attempted by repair, and its report.
#include "repair/QVRepairPermissionsResult.h"

#include "support/Strings.h"

#include <random>

namespace quelm {

std::string_view displayText(QVFileSystemResourceAttributeStatus status) {
    switch (status) {
    case QVFileSystemResourceAttributeStatus::verified:
        return "Verified";
    case QVFileSystemResourceAttributeStatus::fixed:
        return "Fixed";
    case QVFileSystemResourceAttributeStatus::failed:
        return "Failed";
    }
    return {};
}

std::string_view displayText(QVFileSystemResourceAttributeMismatchedType type) {
    switch (type) {
    case QVFileSystemResourceAttributeMismatchedType::ownerIDMismatched:
        return "Owner ID Mismatched";
    case QVFileSystemResourceAttributeMismatchedType::groupIDMismatched:
        return "Group ID Mismatched";
    case QVFileSystemResourceAttributeMismatchedType::posixPermissionsMismatched:
        return "POSIX Permissions Mismatched";
    }
    return {};
}

std::string makeUUIDString() {
    thread_local std::mt19937_64 random{std::random_device{}()};
    const std::uint64_t high = random(), low = random();
    // Version 4 (random) and the RFC 4122 variant, as NSUUID makes them.
    const std::uint64_t fields[2] = {(high & ~0xF000ull) | 0x4000ull,
                                     (low & ~(3ull << 62)) | (2ull << 62)};
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string text;
    for (int nibble = 0; nibble < 32; ++nibble) {
        if (nibble == 8 || nibble == 12 || nibble == 16 || nibble == 20)
            text += '-';
        const std::uint64_t word = fields[nibble / 16];
        text += kHex[(word >> (60 - 4 * (nibble % 16))) & 0xF];
    }
    return text;
}

QVRepairPermissionsResult::QVRepairPermissionsResult(
    QVRepairPermissionsJobType jobType, std::string fileSystemResourcePath,
    QVFileSystemResourceAttributeMismatchedType attributeMismatchedType,
    std::int64_t currentAttribute, std::int64_t correctAttribute,
    std::optional<std::int64_t> newAttribute, QVFileSystemResourceAttributeStatus attributeStatus)
    : identifier_(makeUUIDString()), jobType_(jobType), path_(std::move(fileSystemResourcePath)),
      type_(attributeMismatchedType), current_(currentAttribute), correct_(correctAttribute),
      new_(newAttribute), status_(attributeStatus) {
}

QVRepairPermissionsRepresentableResult QVRepairPermissionsResult::representable() const {
    return {identifier_,
            path_,
            std::string(displayText(type_)),
            current_,
            correct_,
            new_.value_or(QVRepairPermissionsRepresentableResult::noNewAttribute),
            std::string(displayText(status_))};
}

std::expected<QVRepairPermissionsRepresentableResult, ArchiveError>
QVRepairPermissionsRepresentableResult::initWithCoder(const KeyedUnarchiver& coder) {
    QVRepairPermissionsRepresentableResult result;
    for (auto [key, field] :
         {std::pair{"identifier", &result.identifier},
          {"fileSystemResourcePath", &result.fileSystemResourcePath},
          {"attributeMismatchedTypeString", &result.attributeMismatchedTypeString},
          {"attributeStatusString", &result.attributeStatusString}}) {
        auto text = coder.decodeString(key);
        if (!text)
            return std::unexpected(text.error());
        *field = std::move(*text);
    }
    for (auto [key, field] : {std::pair{"currentAttribute", &result.currentAttribute},
                              {"correctAttribute", &result.correctAttribute},
                              {"newAttribute", &result.newAttribute}}) {
        auto number = coder.decodeInteger(key);
        if (!number)
            return std::unexpected(number.error());
        *field = *number;
    }
    return result;
}

void QVRepairPermissionsRepresentableResult::encodeWithCoder(KeyedArchiver& coder) const {
    coder.encodeObject("identifier", PlistValue(identifier));
    coder.encodeObject("fileSystemResourcePath", PlistValue(fileSystemResourcePath));
    coder.encodeObject("attributeMismatchedTypeString", PlistValue(attributeMismatchedTypeString));
    coder.encodeInteger("currentAttribute", currentAttribute);
    coder.encodeInteger("correctAttribute", correctAttribute);
    coder.encodeInteger("newAttribute", newAttribute);
    coder.encodeObject("attributeStatusString", PlistValue(attributeStatusString));
}

std::string reportText(const QVRepairPermissionsRepresentableResult& result) {
    return "   File: " + result.fileSystemResourcePath + "\n" +
           " Reason: " + result.attributeMismatchedTypeString + "\n" +
           "Current: " + decimalText(result.currentAttribute) + "\n" +
           "Correct: " + decimalText(result.correctAttribute) + "\n" +
           (result.hasNewAttribute() ? "    New: " + decimalText(result.newAttribute) + "\n"
                                     : std::string("    New: N/A\n")) +
           " Status: " + result.attributeStatusString;
}

std::string reportText(const std::vector<QVRepairPermissionsRepresentableResult>& results) {
    std::string text;
    for (const auto& result : results) {
        if (!text.empty())
            text += "\n\n";
        text += reportText(result);
    }
    return results.empty() ? text : text + "\n";
}

} // namespace quelm
