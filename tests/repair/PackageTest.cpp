// Receipts: which are read, which are standard, and where their BOM is.
#include "repair/Package.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

using test::TemporaryFolder;

std::filesystem::path writeReceipt(const std::filesystem::path& path, const PlistValue& receipt,
                                   PlistFormat format = PlistFormat::xml) {
    test::writePlist(path, receipt, format);
    return path;
}

PlistValue receiptWith(PlistValue::Array groups) {
    return PlistValue::Dict{{"PackageIdentifier", "com.apple.pkg.Foo"},
                            {"PackageGroups", std::move(groups)}};
}

TEST(PackageTest, ReadsBothEncodingsAndPlacesTheBomBeside) {
    TemporaryFolder folder;
    for (const auto format : {PlistFormat::xml, PlistFormat::binary}) {
        // A volume named as users name them: the BOM path must come back unescaped.
        const auto path =
            writeReceipt(folder / "Système #1 100%/System/Library/Receipts/com.apple.pkg.Foo.plist",
                         receiptWith({"a", test::kRepairGroup}), format);
        const auto package = StandardPackage::initWithReceiptPath(path.string());
        ASSERT_TRUE(package);
        EXPECT_EQ(package->identifier(), "com.apple.pkg.Foo");
        EXPECT_EQ(package->groups(), (std::vector<std::string>{"a", test::kRepairGroup}));
        EXPECT_EQ(
            package->bomPathString(),
            (folder / "Système #1 100%/System/Library/Receipts/com.apple.pkg.Foo.bom").string());
    }
}

TEST(PackageTest, OnlyTheStandardGroupMakesAStandardPackage) {
    TemporaryFolder folder;
    const auto other = writeReceipt(folder / "other.plist", receiptWith({"com.example.group"}));
    EXPECT_TRUE(Package::initWithReceiptPath(other.string()));
    EXPECT_FALSE(StandardPackage::initWithReceiptPath(other.string()));
    const auto none = writeReceipt(folder / "none.plist", receiptWith({}));
    EXPECT_FALSE(StandardPackage::initWithReceiptPath(none.string()));
    const auto upper =
        writeReceipt(folder / "upper.plist",
                     receiptWith({"COM.APPLE.SNOWLEOPARD-REPAIR-PERMISSIONS.PKG-GROUP"}));
    EXPECT_FALSE(StandardPackage::initWithReceiptPath(upper.string()));
}

TEST(PackageTest, BadReceiptsAreSkipped) {
    TemporaryFolder folder;
    test::writeText(folder / "text.plist", "not a property list");
    EXPECT_FALSE(Package::initWithReceiptPath((folder / "text.plist").string()));
    EXPECT_FALSE(Package::initWithReceiptPath((folder / "missing.plist").string()));
    for (const auto& receipt :
         {PlistValue(PlistValue::Dict{{"PackageGroups", PlistValue::Array{}}}),
          PlistValue(PlistValue::Dict{{"PackageIdentifier", "x"}}),
          PlistValue(
              PlistValue::Dict{{"PackageIdentifier", 3}, {"PackageGroups", PlistValue::Array{}}}),
          PlistValue(PlistValue::Dict{{"PackageIdentifier", "x"}, {"PackageGroups", "g"}}),
          PlistValue(PlistValue::Dict{{"PackageIdentifier", "x"},
                                      {"PackageGroups", PlistValue::Array{1}}}),
          PlistValue(PlistValue::Array{"x"})}) {
        const auto path = writeReceipt(folder / "bad.plist", receipt);
        EXPECT_FALSE(Package::initWithReceiptPath(path.string()));
    }
}

} // namespace
} // namespace quelm
