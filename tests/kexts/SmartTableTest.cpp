// Smart table: the user copy prepared, loaded, saved and reset; the shipped table.
#include "kexts/SmartTable.h"

#include "TestSupport.h"
#include "kexts/KextFolder.h"

#include <gtest/gtest.h>
#include <tuple>

namespace quelm {
namespace {

using test::TemporaryFolder;

PlistValue::Dict tableFile(std::string version, PlistValue::Dict contents = {}) {
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
    PlistValue::Dict userCopy() const { return *readPlistDictionary(path); }

    TemporaryFolder resources, support;
    std::filesystem::path path = support / "QVUserDefaultSmartTable.plist";
    std::optional<Bundle> bundle;
};

TEST_F(SmartTableTest, TheUserCopyIsRefreshedOnlyWhenTheShippedVersionSortsAfterIt) {
    const auto edited = tableFile("1.9", {{"Mine.kext", "/Library/Extensions/"}});
    // Versions compare as strings: "1.9" sorts after "1.10".
    for (const auto& [shipped, before, after] :
         std::vector<std::tuple<std::string, std::optional<PlistValue::Dict>, std::string>>{
             {"1.2", std::nullopt, "1.2"},
             {"1.10", edited, "1.9"},
             {"1.9", tableFile("1.10"), "1.9"},
             {"1.9", edited, "1.9"}}) {
        shipTable(tableFile(shipped));
        if (before)
            test::writePlist(path, *before, PlistFormat::binary);
        ASSERT_TRUE(manager().prepare());
        EXPECT_EQ(*userCopy().at("Version").string(), after) << shipped;
    }
    EXPECT_EQ(userCopy(), edited) << "an equal version keeps the user's entries";
}

TEST_F(SmartTableTest, PreparationErrorsLeaveTheUserCopyAlone) {
    shipTable(tableFile("1.2"));
    test::writePlist(path, PlistValue::Dict{{"Contents", PlistValue::Dict{}}});
    const auto before = test::readText(path);
    EXPECT_EQ(manager().prepare().error(), SmartTableError::failedToFindLocalTableVersion);
    EXPECT_EQ(test::readText(path), before);
    EXPECT_EQ(SmartTable(support / "missing", *bundle).prepare().error(),
              SmartTableError::failedToAllocateDefaultSmartTable);
    EXPECT_FALSE(std::filesystem::exists(support / "missing"));
    test::writePlist(path, tableFile("1.0"));
    shipTable(PlistValue::Dict{{"Contents", PlistValue::Dict{}}});
    EXPECT_EQ(manager().prepare().error(), SmartTableError::failedToFindInternalTableVersion);
    bundle.emplace(support / "no-bundle-here");
    EXPECT_EQ(manager().prepare().error(), SmartTableError::failedToFindDefaultSmartTable);
}

TEST_F(SmartTableTest, LoadingSavingAndResetting) {
    const auto shipped = tableFile("1.2", {{"FakeSMC.kext", "/System/Library/Extensions/"}});
    shipTable(shipped);
    const auto mixed = support / "Application Support/t.plist";
    test::writePlist(mixed, tableFile("2", {{"A.kext", "/Library/Extensions/"}, {"B.kext", 3}}));
    EXPECT_TRUE(SmartTable(support.path(), *bundle, mixed.string()).table().empty())
        << "every entry must be a string";

    auto edited = manager();
    edited.setTable({{"Mine.kext", "/Extra/Extensions/"}});
    ASSERT_TRUE(edited.save());
    EXPECT_EQ(userCopy(), (PlistValue::Dict{{"Mine.kext", "/Extra/Extensions/"}}));
    ASSERT_TRUE(manager().reset());
    EXPECT_EQ(userCopy(), shipped);
    std::filesystem::remove(resources / "QVDefaultSmartTable.plist");
    EXPECT_FALSE(manager().reset());
    EXPECT_EQ(userCopy(), shipped) << "a failed reset keeps the user copy";
}

TEST(ShippedResourcesTest, InfoPlistCarriesIdentityAndTheDefaultTable) {
    const Bundle shipped(QUELM_TEST_SHARE_DIR);
    for (const auto* key :
         {"QVXPCHelperBundleIdentifier", "QVXPCHelperBundleVersion", "CFBundleVersion"})
        EXPECT_NE(shipped.objectForInfoDictionaryKey(key), nullptr) << key;
    const auto* embedded = shipped.objectForInfoDictionaryKey("QVDefaultSmartTable");
    const auto resource = readPlistFile(shipped.resourcePath("QVDefaultSmartTable.plist"));
    ASSERT_TRUE(embedded && resource);
    EXPECT_EQ(*embedded, *resource);
    ASSERT_NE(embedded->stringForKey("Version"), nullptr);
    const auto* contents = embedded->find("Contents");
    ASSERT_TRUE(contents && contents->dict() && !contents->dict()->empty());
    for (const auto& [name, folder] : *contents->dict()) {
        const auto policy = kernelExtensionFolderFromRawValue(*folder.string());
        EXPECT_TRUE(name.ends_with(".kext") && (policy == KextFolder::LibraryExtensions ||
                                                policy == KextFolder::SystemLibraryExtensions))
            << name;
    }
}

} // namespace
} // namespace quelm
