// Results: the report text, the flattened form and its archive.
#include "repair/RepairResult.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

using Type = Mismatch;
using Status = AttributeStatus;

ResultRecord ownerResult() {
    return RepairResult(RepairMode::verifyPermissions, "/Volumes/Mac HD/usr/bin/login",
                        Type::ownerIDMismatched, 501, 0, std::nullopt, Status::verified)
        .representable();
}

const ResultRecord fixed = RepairResult(RepairMode::repairPermissions, "/V/a b/ New: 1",
                                        Type::groupIDMismatched, 20, 0, 0, Status::fixed)
                               .representable();
const ResultRecord unreadable =
    RepairResult(RepairMode::repairPermissions, "/V/System/Library/Receipts/#1.bom",
                 Type::billOfMaterialsUnreadable, 0, 0, std::nullopt, Status::failed)
        .representable();

TEST(RepairResultTest, ReportTextOfOneResultAndOfSeveralGivesBackEveryResult) {
    EXPECT_NE(ownerResult().identifier, ownerResult().identifier) << "each result has its own";
    EXPECT_EQ(reportText(ownerResult()), "   File: /Volumes/Mac HD/usr/bin/login\n"
                                         " Reason: Owner ID Mismatched\n"
                                         "Current: 501\n"
                                         "Correct: 0\n"
                                         "    New: N/A\n"
                                         " Status: Verified");
    const std::vector results{ownerResult(), fixed, unreadable};
    const std::string text = reportText(results);
    EXPECT_EQ(text, reportText(results[0]) + "\n\n" + reportText(fixed) + "\n\n" +
                        reportText(unreadable) + "\n");
    for (const auto& input : {text, text.substr(0, text.size() - 1)}) {
        const auto parsed = parseReportText(input);
        ASSERT_TRUE(parsed && parsed->size() == results.size());
        EXPECT_EQ(reportText(*parsed), text) << "every field but the identifier is in the text";
        EXPECT_NE(parsed->front().identifier, results.front().identifier) << "a fresh one";
    }
    EXPECT_EQ(reportText(std::vector<ResultRecord>{}), "");
    EXPECT_TRUE(parseReportText("")->empty());
}

TEST(RepairResultTest, DamagedReportIsRefusedNamingTheLine) {
    const std::string good = reportText(std::vector{ownerResult(), ownerResult()});
    const std::pair<std::pair<std::string_view, std::string_view>, std::string> cases[] = {
        {{"Owner ID Mismatched", "Owner Mismatched"},
         "line 2: unknown text after \" Reason: \": \"Owner Mismatched\""},
        {{"Current: 501", "Current: 5x1"},
         "line 3: expected a decimal integer after \"Current: \", found \"5x1\""},
        {{"Verified\n\n", "Verified\n"},
         "line 7: expected a blank line between results, found "
         "\"   File: /Volumes/Mac HD/usr/bin/login\""},
        {{"Verified\n\n", "Verified\n\n\n"}, "line 8: expected \"   File: \", found \"\""},
    };
    for (const auto& [change, message] : cases) {
        std::string text = good;
        const auto parsed = parseReportText(
            text.replace(text.find(change.first), change.first.size(), change.second));
        EXPECT_EQ(parsed ? std::string("accepted") : parsed.error(), message);
    }
    const auto cut = parseReportText(good.substr(0, good.find("Correct")));
    EXPECT_EQ(cut ? "accepted" : cut.error(),
              "line 4: expected \"Correct: \", but the report ends");
}

} // namespace
} // namespace quelm
