// Receipts: which are standard, and which are refused. Both encodings, and names that must come
// back unescaped, are read on a whole volume in PermissionRepairTest.
#include "repair/Package.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

using Dict = PlistValue::Dict;
using Array = PlistValue::Array;

TEST(PackageTest, OnlyTheStandardGroupMakesAStandardPackageAndBadReceiptsAreSkipped) {
    test::TemporaryFolder folder;
    const auto receipt = [&](const PlistValue& groups) {
        return Dict{{"PackageIdentifier", "com.apple.pkg.Foo"}, {"PackageGroups", groups}};
    };
    // A receipt, and whether it makes a package and a standard one.
    const std::tuple<PlistValue, bool, bool> cases[] = {
        {receipt(Array{test::kRepairGroup}), true, true},
        {receipt(Array{"com.example.group"}), true, false},
        {receipt(Array{"COM.APPLE.SNOWLEOPARD-REPAIR-PERMISSIONS.PKG-GROUP"}), true, false},
        {Dict{{"PackageGroups", Array{}}}, false, false},
        {Dict{{"PackageIdentifier", "x"}}, false, false},
        {Dict{{"PackageIdentifier", 3}, {"PackageGroups", Array{}}}, false, false},
        {receipt("g"), false, false},
        {receipt(Array{1}), false, false},
        {Array{"x"}, false, false},
    };
    const auto path = (folder / "receipt.plist").string();
    for (std::size_t row = 0; const auto& [value, package, standard] : cases) {
        test::writePlist(path, value);
        EXPECT_EQ(bool(Package::initWithReceiptPath(path)), package) << "case " << row;
        EXPECT_EQ(bool(StandardPackage::initWithReceiptPath(path)), standard) << "case " << row++;
    }
    EXPECT_FALSE(Package::initWithReceiptPath((folder / "missing.plist").string()));
}

} // namespace
} // namespace quelm
