// One difference found by verification or one change attempted by repair, and its report.
#pragma once

#include "support/KeyedArchive.h"

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

enum class RepairMode { verifyPermissions, repairPermissions };
enum class AttributeStatus { verified, fixed, failed };
/// The first three in the order in which a resource's attributes are checked. The others are
/// failures and content checks: a receipt whose BOM cannot be read (reported with the BOM's
/// path so that its package can be reinstalled) and a path whose attributes cannot be read
/// (both with values 0 and no new value); a file whose size (current and correct in bytes) or
/// checksum (the POSIX cksum CRC) differs from its receipt, or whose content cannot be read.
/// Content is never changed: only reinstalling its package mends it.
enum class Mismatch {
    ownerIDMismatched,
    groupIDMismatched,
    posixPermissionsMismatched,
    billOfMaterialsUnreadable,
    attributesUnreadable,
    sizeMismatched,
    checksumMismatched,
    contentUnreadable,
};

/// Whether the type is about a file's content rather than its owner, group or mode.
bool isContentType(Mismatch type);

/// "Verified", "Fixed", "Failed".
std::string_view displayText(AttributeStatus status);
/// "Owner ID Mismatched", "Group ID Mismatched", "POSIX Permissions Mismatched",
/// "Bill of Materials Unreadable", "Attributes Unreadable", "Size Mismatched",
/// "Checksum Mismatched", "Content Unreadable".
std::string_view displayText(Mismatch type);

struct ResultRecord;

/// A result inside the engine. Attribute values are ids, or permissions as their octal digits
/// read as a decimal number (755).
class RepairResult {
public:
    /// Makes a fresh identifier.
    RepairResult(RepairMode jobType, std::string fileSystemResourcePath,
                 Mismatch attributeMismatchedType, std::int64_t currentAttribute,
                 std::int64_t correctAttribute, std::optional<std::int64_t> newAttribute,
                 AttributeStatus attributeStatus);

    const std::string& identifier() const { return identifier_; }
    RepairMode jobType() const { return jobType_; }
    const std::string& fileSystemResourcePath() const { return path_; }
    Mismatch attributeMismatchedType() const { return type_; }
    std::int64_t currentAttribute() const { return current_; }
    std::int64_t correctAttribute() const { return correct_; }
    std::optional<std::int64_t> newAttribute() const { return new_; }
    AttributeStatus attributeStatus() const { return status_; }

    ResultRecord representable() const;

private:
    std::string identifier_;
    RepairMode jobType_;
    std::string path_;
    Mismatch type_;
    std::int64_t current_;
    std::int64_t correct_;
    std::optional<std::int64_t> new_;
    AttributeStatus status_;
};

/// A result flattened to strings and integers, as it crosses to the application.
struct ResultRecord {
    static constexpr std::string_view className = "QVRepairPermissionsRepresentableResult";
    /// Stored in newAttribute when there is none (verification): no id or mode is negative.
    static constexpr std::int64_t noNewAttribute = -1;

    std::string identifier;
    std::string fileSystemResourcePath;
    std::string attributeMismatchedTypeString;
    std::int64_t currentAttribute = 0;
    std::int64_t correctAttribute = 0;
    std::int64_t newAttribute = noNewAttribute;
    std::string attributeStatusString;

    bool hasNewAttribute() const { return newAttribute != noNewAttribute; }
    [[nodiscard]] static std::expected<ResultRecord, Error>
    initWithCoder(const KeyedUnarchiver& coder);
    void encodeWithCoder(KeyedArchiver& coder) const;
    bool operator==(const ResultRecord&) const = default;
};

/// Six labelled lines ("   File: ", " Reason: ", ... " Status: "), without a final line break.
std::string reportText(const ResultRecord& result);
/// The texts of all results separated by blank lines, ending with a line break.
std::string reportText(const std::vector<ResultRecord>& results);
/// Reads a report back: results in their order, each with a fresh identifier. The error names
/// the line (counted from 1) and what it should hold. A missing final line break is accepted.
[[nodiscard]] std::expected<std::vector<ResultRecord>, std::string>
parseReportText(std::string_view text);

/// A new random UUID's string: "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
std::string makeUUIDString();

} // namespace quelm
