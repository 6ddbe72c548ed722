// Results: the report text, the flattened form and its archive.
#include "repair/RepairResult.h"

#include <gtest/gtest.h>
#include <regex>

namespace quelm {
namespace {

using Type = Mismatch;
using Status = AttributeStatus;

ResultRecord ownerResult() {
    return RepairResult(RepairMode::verifyPermissions, "/Volumes/Mac HD/usr/bin/login",
                        Type::ownerIDMismatched, 501, 0, std::nullopt, Status::verified)
        .representable();
}

TEST(RepairResultTest, ReportTextOfAVerifiedResult) {
    EXPECT_EQ(reportText(ownerResult()), "   File: /Volumes/Mac HD/usr/bin/login\n"
                                         " Reason: Owner ID Mismatched\n"
                                         "Current: 501\n"
                                         "Correct: 0\n"
                                         "    New: N/A\n"
                                         " Status: Verified");
}

TEST(RepairResultTest, ReportTextOfAFixedResultAndOfSeveral) {
    const auto fixed = RepairResult(RepairMode::repairPermissions, "/V/bin",
                                    Type::posixPermissionsMismatched, 775, 755, 755, Status::fixed)
                           .representable();
    EXPECT_EQ(reportText(fixed), "   File: /V/bin\n Reason: POSIX Permissions Mismatched\n"
                                 "Current: 775\nCorrect: 755\n    New: 755\n Status: Fixed");
    EXPECT_EQ(reportText({ownerResult(), fixed}),
              reportText(ownerResult()) + "\n\n" + reportText(fixed) + "\n");
    EXPECT_EQ(reportText(std::vector<ResultRecord>{}), "");
}

TEST(RepairResultTest, RepresentableArchiveKeepsAllSevenFields) {
    auto original = ownerResult();
    EXPECT_EQ(original.newAttribute, ResultRecord::noNewAttribute);
    const auto archived = archive(original);
    for (const auto* key :
         {"identifier", "fileSystemResourcePath", "attributeMismatchedTypeString",
          "currentAttribute", "correctAttribute", "newAttribute", "attributeStatusString"})
        EXPECT_NE(archived.find(key), nullptr) << key;
    const auto restored =
        unarchive<ResultRecord>(*parsePlist(*serializePlist(archived, PlistFormat::binary)));
    ASSERT_TRUE(restored);
    EXPECT_EQ(*restored, original);
    auto broken = *archived.dict();
    broken.insert_or_assign("currentAttribute", "501");
    EXPECT_FALSE(unarchive<ResultRecord>(broken));
}

TEST(RepairResultTest, ParsedReportGivesBackEveryResultWithFreshIdentifiers) {
    const auto fixed = RepairResult(RepairMode::repairPermissions, "/V/a b/ New: 1",
                                    Type::groupIDMismatched, 20, 0, 0, Status::fixed)
                           .representable();
    const auto unreadable =
        RepairResult(RepairMode::repairPermissions, "/V/System/Library/Receipts/#1.bom",
                     Type::billOfMaterialsUnreadable, 0, 0, std::nullopt, Status::failed)
            .representable();
    const std::vector results{ownerResult(), fixed, unreadable, ownerResult()};
    const std::string text = reportText(results);
    for (const auto& input : {text, text.substr(0, text.size() - 1)}) {
        const auto parsed = parseReportText(input);
        ASSERT_TRUE(parsed) << parsed.error();
        ASSERT_EQ(parsed->size(), results.size());
        EXPECT_EQ(reportText(*parsed), text);
        for (std::size_t i = 0; i < results.size(); ++i) {
            auto withSameIdentifier = (*parsed)[i];
            EXPECT_NE(withSameIdentifier.identifier, results[i].identifier);
            withSameIdentifier.identifier = results[i].identifier;
            EXPECT_EQ(withSameIdentifier, results[i]);
        }
    }
    EXPECT_EQ((*parseReportText(text))[0].newAttribute, ResultRecord::noNewAttribute);
    EXPECT_EQ(parseReportText("")->size(), 0u);
}

TEST(RepairResultTest, DamagedReportIsRefusedNamingTheLine) {
    const std::string good = reportText(std::vector{ownerResult(), ownerResult()});
    const auto errorOf = [&](std::string_view from, std::string_view to) {
        std::string text = good;
        text.replace(text.find(from), from.size(), to);
        const auto parsed = parseReportText(text);
        return parsed ? std::string("accepted") : parsed.error();
    };
    EXPECT_EQ(errorOf("Owner ID Mismatched", "Owner Mismatched"),
              "line 2: unknown text after \" Reason: \": \"Owner Mismatched\"");
    EXPECT_EQ(errorOf("Current: 501", "Current: 5x1"),
              "line 3: expected a decimal integer after \"Current: \", found \"5x1\"");
    EXPECT_EQ(errorOf("Correct: 0", "Correct: 99999999999999999999"),
              "line 4: expected a decimal integer after \"Correct: \", found "
              "\"99999999999999999999\"");
    EXPECT_EQ(errorOf("    New: N/A", "    New:"),
              "line 5: expected \"    New: \", found \"    New:\"");
    EXPECT_EQ(errorOf("Verified\n\n", "Verified\n"),
              "line 7: expected a blank line between results, found \"   File: "
              "/Volumes/Mac HD/usr/bin/login\"");
    EXPECT_EQ(errorOf("Verified\n\n", "Verified\n\n\n"),
              "line 8: expected \"   File: \", found \"\"");
    const auto cut = parseReportText(good.substr(0, good.find("Correct")));
    ASSERT_FALSE(cut);
    EXPECT_EQ(cut.error(), "line 4: expected \"Correct: \", but the report ends");
}

TEST(RepairResultTest, IdentifiersAreFreshVersion4UUIDs) {
    const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    const auto first = makeUUIDString();
    EXPECT_TRUE(std::regex_match(first, uuid)) << first;
    EXPECT_NE(first, makeUUIDString());
    EXPECT_NE(ownerResult().identifier, ownerResult().identifier);
}

} // namespace
} // namespace quelm
