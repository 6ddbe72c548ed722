// Results: the report text, the flattened form and its archive.
#include "repair/QVRepairPermissionsResult.h"

#include <gtest/gtest.h>
#include <regex>

namespace quelm {
namespace {

using Type = QVFileSystemResourceAttributeMismatchedType;
using Status = QVFileSystemResourceAttributeStatus;

QVRepairPermissionsRepresentableResult ownerResult() {
    return QVRepairPermissionsResult(QVRepairPermissionsJobType::verifyPermissions,
                                     "/Volumes/Mac HD/usr/bin/login", Type::ownerIDMismatched, 501,
                                     0, std::nullopt, Status::verified)
        .representable();
}

TEST(QVRepairPermissionsResultTest, ReportTextOfAVerifiedResult) {
    EXPECT_EQ(reportText(ownerResult()), "   File: /Volumes/Mac HD/usr/bin/login\n"
                                         " Reason: Owner ID Mismatched\n"
                                         "Current: 501\n"
                                         "Correct: 0\n"
                                         "    New: N/A\n"
                                         " Status: Verified");
}

TEST(QVRepairPermissionsResultTest, ReportTextOfAFixedResultAndOfSeveral) {
    const auto fixed =
        QVRepairPermissionsResult(QVRepairPermissionsJobType::repairPermissions, "/V/bin",
                                  Type::posixPermissionsMismatched, 775, 755, 755, Status::fixed)
            .representable();
    EXPECT_EQ(reportText(fixed), "   File: /V/bin\n Reason: POSIX Permissions Mismatched\n"
                                 "Current: 775\nCorrect: 755\n    New: 755\n Status: Fixed");
    EXPECT_EQ(reportText({ownerResult(), fixed}),
              reportText(ownerResult()) + "\n\n" + reportText(fixed) + "\n");
    EXPECT_EQ(reportText(std::vector<QVRepairPermissionsRepresentableResult>{}), "");
}

TEST(QVRepairPermissionsResultTest, RepresentableArchiveKeepsAllSevenFields) {
    auto original = ownerResult();
    EXPECT_EQ(original.newAttribute, QVRepairPermissionsRepresentableResult::noNewAttribute);
    const auto archived = archive(original);
    for (const auto* key :
         {"identifier", "fileSystemResourcePath", "attributeMismatchedTypeString",
          "currentAttribute", "correctAttribute", "newAttribute", "attributeStatusString"})
        EXPECT_NE(archived.find(key), nullptr) << key;
    const auto restored = unarchive<QVRepairPermissionsRepresentableResult>(
        *parsePlist(*serializePlist(archived, PlistFormat::binary)));
    ASSERT_TRUE(restored);
    EXPECT_EQ(*restored, original);
    auto broken = *archived.dict();
    broken.insert_or_assign("currentAttribute", "501");
    EXPECT_FALSE(unarchive<QVRepairPermissionsRepresentableResult>(broken));
}

TEST(QVRepairPermissionsResultTest, IdentifiersAreFreshVersion4UUIDs) {
    const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    const auto first = makeUUIDString();
    EXPECT_TRUE(std::regex_match(first, uuid)) << first;
    EXPECT_NE(first, makeUUIDString());
    EXPECT_NE(ownerResult().identifier, ownerResult().identifier);
}

} // namespace
} // namespace quelm
