// Kext bundles: path and name from the URL, version precedence, equality and archives.
#include "kexts/Kext.h"

#include "TestSupport.h"
#include "kexts/KextCatalog.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

using test::TemporaryFolder;

Kext kextAt(const std::filesystem::path& path) {
    return Kext(FileURL::fromPath(path.string(), false));
}

std::optional<std::string> versionAt(const std::filesystem::path& path) {
    const auto kext = readKext(path.string());
    return kext ? kext->version() : std::nullopt;
}

TEST(KextTest, PathIsTheOneOnDiskWhateverTheName) {
    const auto spaced = kextAt("/Volumes/My Disk/Fake SMC.kext");
    EXPECT_EQ(spaced.path(), "/Volumes/My Disk/Fake SMC.kext");
    EXPECT_EQ(spaced.name(), "Fake SMC.kext");
    const auto accented = kextAt("/k/Réseau.kext");
    EXPECT_EQ(accented.path(), "/k/Réseau.kext");
    EXPECT_EQ(kextAt("/k/#1/100%.kext").path(), "/k/#1/100%.kext");
    EXPECT_EQ(accented.name(), "Réseau.kext");
}

TEST(KextTest, VersionListAndShortStringTakePrecedence) {
    for (const auto format : {PlistFormat::xml, PlistFormat::binary}) {
        TemporaryFolder folder;
        const auto bundle = test::makeKext(
            folder / "with space", "A.kext",
            PlistValue::Dict{{"CFBundleShortVersionString", "1.0"}, {"CFBundleVersion", "1.0.1"}},
            std::nullopt, format);
        EXPECT_EQ(versionAt(bundle), "1.0");
        test::writePlist(bundle / "Contents/version.plist",
                         PlistValue::Dict{{"CFBundleShortVersionString", "2.0"}}, format);
        EXPECT_EQ(versionAt(bundle), "2.0");
    }
}

TEST(KextTest, BundleVersionIsTheLastResort) {
    TemporaryFolder folder;
    const auto bundle =
        test::makeKext(folder.path(), "B.kext", PlistValue::Dict{{"CFBundleVersion", "3"}},
                       PlistValue::Dict{{"CFBundleVersion", "4"}});
    EXPECT_EQ(versionAt(bundle), "4");
    std::filesystem::remove(bundle / "Contents/version.plist");
    EXPECT_EQ(versionAt(bundle), "3");
}

TEST(KextTest, NoListsOrANonStringFirstCandidateGiveNoVersion) {
    TemporaryFolder folder;
    EXPECT_EQ(versionAt(test::makeKext(folder.path(), "N.kext", std::nullopt)), std::nullopt);
    const auto bundle = test::makeKext(
        folder.path(), "T.kext",
        PlistValue::Dict{{"CFBundleShortVersionString", 2}, {"CFBundleVersion", "2.0"}});
    EXPECT_EQ(versionAt(bundle), std::nullopt);
    test::writeText(bundle / "Contents/version.plist", "<plist><dict>");
    EXPECT_EQ(versionAt(bundle), std::nullopt);
}

TEST(KextTest, EqualityFollowsThePath) {
    const auto a = kextAt("/k/A.kext");
    EXPECT_EQ(a, kextAt("/k/A.kext"));
    EXPECT_EQ(a.hash(), kextAt("/k/A.kext").hash());
    EXPECT_NE(a, kextAt("/k/B.kext"));
}

TEST(KextTest, ArchiveCarriesTheURLText) {
    const auto kext = kextAt("/k/My Kext.kext");
    const auto archived = archive(kext);
    EXPECT_EQ(*archived.stringForKey("url"), "file:///k/My%20Kext.kext");
    const auto restored = unarchive<Kext>(archived);
    ASSERT_TRUE(restored);
    EXPECT_EQ(*restored, kext);
    EXPECT_FALSE(unarchive<Kext>(PlistValue::Dict{{"$class", "QVKernelExtension"}}));
    EXPECT_FALSE(
        unarchive<Kext>(PlistValue::Dict{{"$class", "QVKernelExtension"}, {"url", "/k/A.kext"}}));
    EXPECT_FALSE(
        unarchive<Kext>(PlistValue::Dict{{"$class", "QVOSVolume"}, {"url", "file:///k/A.kext"}}));
}

} // namespace
} // namespace quelm
