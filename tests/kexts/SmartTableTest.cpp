// Smart table: preparing, loading, saving and resetting the user copy; the shipped table.
#include "kexts/SmartTable.h"

#include "TestSupport.h"
#include "kexts/KextFolder.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

using test::TemporaryFolder;

PlistValue::Dict tableFile(std::string version, PlistValue::Dict contents) {
    return {{"Version", std::move(version)}, {"Contents", std::move(contents)}};
}

class SmartTableTest : public testing::Test {
protected:
    /// A bundle whose Info.plist and resource file carry the given default table.
    void shipTable(const PlistValue::Dict& table) {
        test::writePlist(resources / "Info.plist",
                         PlistValue::Dict{{"QVDefaultSmartTable", table}});
        test::writePlist(resources / "QVDefaultSmartTable.plist", table);
        bundle.emplace(resources.path());
    }
    SmartTable manager() const { return SmartTable(support.path(), *bundle); }
    PlistValue::Dict userCopy() const {
        return *readPlistDictionary(support / "QVUserDefaultSmartTable.plist");
    }

    TemporaryFolder resources, support;
    std::optional<Bundle> bundle;
    const PlistValue::Dict shipped =
        tableFile("1.2", {{"FakeSMC.kext", "/System/Library/Extensions/"}});
};

TEST_F(SmartTableTest, CreatesTheUserCopyWithItsVersion) {
    shipTable(shipped);
    ASSERT_TRUE(manager().prepare());
    EXPECT_EQ(userCopy(), shipped);
}

TEST_F(SmartTableTest, VersionsCompareAsStrings) {
    const auto path = support / "QVUserDefaultSmartTable.plist";
    const auto edited = tableFile("1.9", {{"Mine.kext", "/Library/Extensions/"}});
    shipTable(tableFile("1.10", {}));
    test::writePlist(path, edited, PlistFormat::binary);
    ASSERT_TRUE(manager().prepare());
    EXPECT_EQ(userCopy(), edited) << "\"1.9\" sorts after \"1.10\": the user copy stays";

    shipTable(tableFile("1.9", {}));
    test::writePlist(path, tableFile("1.10", {}));
    ASSERT_TRUE(manager().prepare());
    EXPECT_EQ(*userCopy().at("Version").string(), "1.9");

    shipTable(shipped);
    test::writePlist(path, tableFile("1.1", {}));
    ASSERT_TRUE(manager().prepare());
    EXPECT_EQ(userCopy(), shipped);
    test::writePlist(path, edited);
    shipTable(tableFile("1.9", {}));
    ASSERT_TRUE(manager().prepare());
    EXPECT_EQ(userCopy(), edited) << "an equal version keeps the user copy";
}

TEST_F(SmartTableTest, PreparationErrorsLeaveTheUserCopyAlone) {
    shipTable(shipped);
    const auto path = support / "QVUserDefaultSmartTable.plist";
    test::writePlist(path, PlistValue::Dict{{"Contents", PlistValue::Dict{}}});
    const auto before = test::readText(path);
    EXPECT_EQ(manager().prepare().error(), SmartTableError::failedToFindLocalTableVersion);
    EXPECT_EQ(test::readText(path), before);

    test::writePlist(path, tableFile("1.0", {}));
    shipTable(PlistValue::Dict{{"Contents", PlistValue::Dict{}}});
    EXPECT_EQ(manager().prepare().error(), SmartTableError::failedToFindInternalTableVersion);

    bundle.emplace(support / "no-bundle-here");
    EXPECT_EQ(manager().prepare().error(), SmartTableError::failedToFindDefaultSmartTable);
}

TEST_F(SmartTableTest, FailedWriteLeavesNoFile) {
    shipTable(shipped);
    const SmartTable missingFolder(support / "missing", *bundle);
    EXPECT_EQ(missingFolder.prepare().error(), SmartTableError::failedToAllocateDefaultSmartTable);
    EXPECT_FALSE(std::filesystem::exists(support / "missing"));
}

TEST_F(SmartTableTest, SupportFolderWithABlank) {
    shipTable(shipped);
    const auto folder = support / "Application Support" / "Quelm";
    std::filesystem::create_directories(folder);
    const SmartTable spaced(folder, *bundle);
    EXPECT_EQ(spaced.userCopyPath(), (folder / "QVUserDefaultSmartTable.plist").string());
    ASSERT_TRUE(spaced.prepare());
    const SmartTable loaded(folder, *bundle, spaced.userCopyPath());
    EXPECT_EQ(loaded.version(), "1.2");
    EXPECT_EQ(loaded.table().at("FakeSMC.kext"), "/System/Library/Extensions/");
}

TEST_F(SmartTableTest, LoadingNeedsStringEntries) {
    shipTable(shipped);
    const auto path = support / "t.plist";
    test::writePlist(path, tableFile("2", {{"A.kext", "/Library/Extensions/"}, {"B.kext", 3}}));
    const SmartTable mixed(support.path(), *bundle, path.string());
    EXPECT_TRUE(mixed.table().empty());
    EXPECT_EQ(mixed.version(), "2");
    const SmartTable missing(support.path(), *bundle, (support / "none").string());
    EXPECT_TRUE(missing.table().empty());
    EXPECT_EQ(missing.version(), std::nullopt);
}

TEST_F(SmartTableTest, SaveWritesEntriesAndResetRestoresTheShippedFile) {
    shipTable(shipped);
    auto edited = manager();
    edited.setTable({{"Mine.kext", "/Extra/Extensions/"}});
    ASSERT_TRUE(edited.save());
    EXPECT_EQ(userCopy(), (PlistValue::Dict{{"Mine.kext", "/Extra/Extensions/"}}));
    ASSERT_TRUE(manager().reset());
    EXPECT_EQ(userCopy(), shipped);

    std::filesystem::remove(resources / "QVDefaultSmartTable.plist");
    ASSERT_TRUE(edited.save());
    EXPECT_FALSE(manager().reset());
    EXPECT_EQ(userCopy(), (PlistValue::Dict{{"Mine.kext", "/Extra/Extensions/"}}));
}

TEST(ShippedResourcesTest, InfoPlistCarriesIdentityAndTheDefaultTable) {
    const Bundle shippedBundle(QUELM_TEST_SHARE_DIR);
    const auto* identifier =
        shippedBundle.objectForInfoDictionaryKey("QVXPCHelperBundleIdentifier");
    ASSERT_NE(identifier, nullptr);
    EXPECT_EQ(*identifier->string(), "org.quelm.veskp.quelm.helper");
    EXPECT_NE(shippedBundle.objectForInfoDictionaryKey("QVXPCHelperBundleVersion"), nullptr);
    EXPECT_NE(shippedBundle.objectForInfoDictionaryKey("CFBundleVersion"), nullptr);

    const auto* embedded = shippedBundle.objectForInfoDictionaryKey("QVDefaultSmartTable");
    const auto resource = readPlistFile(shippedBundle.resourcePath("QVDefaultSmartTable.plist"));
    ASSERT_TRUE(embedded && resource);
    EXPECT_EQ(*embedded, *resource);
    ASSERT_NE(embedded->stringForKey("Version"), nullptr);
    const auto* contents = embedded->find("Contents");
    ASSERT_TRUE(contents && contents->dict() && !contents->dict()->empty());
    for (const auto& [name, folder] : *contents->dict()) {
        EXPECT_TRUE(name.ends_with(".kext")) << name;
        const auto policy = kernelExtensionFolderFromRawValue(*folder.string());
        EXPECT_TRUE(policy == KextFolder::LibraryExtensions ||
                    policy == KextFolder::SystemLibraryExtensions)
            << name;
    }
}

} // namespace
} // namespace quelm
