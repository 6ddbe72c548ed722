// Receipts: which are standard, and which are refused. Both encodings, and names that must come
// back unescaped, are read on a whole volume in PermissionRepairTest.
#include "repair/Package.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

using Dict = PlistValue::Dict;
using Array = PlistValue::Array;

/// The path of a receipt written in folder under name.
std::string receipt(const test::TemporaryFolder& folder, const std::string& name,
                    const PlistValue& value, PlistFormat format = PlistFormat::xml) {
    test::writePlist(folder / name, value, format);
    return (folder / name).string();
}

PlistValue receiptWith(Array groups) {
    return Dict{{"PackageIdentifier", "com.apple.pkg.Foo"}, {"PackageGroups", std::move(groups)}};
}

TEST(PackageTest, OnlyTheStandardGroupMakesAStandardPackage) {
    test::TemporaryFolder folder;
    const auto other = receipt(folder, "other.plist", receiptWith({"com.example.group"}));
    EXPECT_TRUE(Package::initWithReceiptPath(other));
    EXPECT_FALSE(StandardPackage::initWithReceiptPath(other));
    for (const char* group : {"", "COM.APPLE.SNOWLEOPARD-REPAIR-PERMISSIONS.PKG-GROUP"})
        EXPECT_FALSE(StandardPackage::initWithReceiptPath(
            receipt(folder, "x.plist", receiptWith(*group ? Array{group} : Array{}))));
}

TEST(PackageTest, BadReceiptsAreSkipped) {
    test::TemporaryFolder folder;
    test::writeText(folder / "text.plist", "not a property list");
    EXPECT_FALSE(Package::initWithReceiptPath((folder / "text.plist").string()));
    EXPECT_FALSE(Package::initWithReceiptPath((folder / "missing.plist").string()));
    for (const auto& bad :
         {PlistValue(Dict{{"PackageGroups", Array{}}}),
          PlistValue(Dict{{"PackageIdentifier", "x"}}),
          PlistValue(Dict{{"PackageIdentifier", 3}, {"PackageGroups", Array{}}}),
          PlistValue(Dict{{"PackageIdentifier", "x"}, {"PackageGroups", "g"}}),
          PlistValue(Dict{{"PackageIdentifier", "x"}, {"PackageGroups", Array{1}}}),
          PlistValue(Array{"x"})})
        EXPECT_FALSE(Package::initWithReceiptPath(receipt(folder, "bad.plist", bad)));
}

} // namespace
} // namespace quelm
