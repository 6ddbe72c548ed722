// OS volumes: mount points, versions and names, kinds, archives and the volume manager.
#include "volumes/Volume.h"

#include "TestSupport.h"
#include "volumes/VolumeManager.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

using test::TemporaryFolder;

/// The marketing name, cut from the full name line of a volume with that build.
std::string nameFor(const std::string& build) {
    TemporaryFolder folder;
    test::makeVolume(folder.path(), "10.13", build);
    const auto full =
        Volume::initWithMountPoint(folder.path().string())->getFullNameVersionString();
    return full.substr(0, full.size() - (" 10.13 (" + build + ")").size());
}

class VolumeTest : public testing::Test {
protected:
    TemporaryFolder folder;
};

TEST_F(VolumeTest, ReadsVersionsFromEitherEncoding) {
    for (const auto format : {PlistFormat::xml, PlistFormat::binary}) {
        test::makeVolume(folder.path(), "10.12.6", "16G29", format);
        const auto volume = Volume::initWithMountPoint(folder.path().string());
        ASSERT_TRUE(volume);
        EXPECT_EQ(volume->version(), "10.12.6");
        EXPECT_EQ(volume->buildVersion(), "16G29");
        EXPECT_EQ(volume->majorVersion(), 16);
        EXPECT_EQ(volume->getFullNameVersionString(), "macOS Sierra 10.12.6 (16G29)");
    }
}

TEST_F(VolumeTest, NormalisesOneTrailingSlash) {
    test::makeVolume(folder.path(), "10.11.6", "15G31");
    const std::string root = folder.path().string();
    EXPECT_EQ(Volume::initWithMountPoint(root + "/")->mountPoint(), root);
    EXPECT_EQ(Volume::initWithMountPoint(root + "//")->mountPoint(), root + "/");
    EXPECT_EQ(Volume::initWithMountPoint(root)->mountPoint(), root);
}

TEST_F(VolumeTest, MissingIncompleteOrLinkedSystemVersionMakesNoVolume) {
    EXPECT_FALSE(Volume::initWithMountPoint(folder.path().string()));
    const auto file = folder / "System/Library/CoreServices/SystemVersion.plist";
    test::writePlist(file, PlistValue::Dict{{"ProductVersion", "10.12"}});
    EXPECT_FALSE(Volume::initWithMountPoint(folder.path().string()));
    test::writePlist(file,
                     PlistValue::Dict{{"ProductVersion", "10.12"}, {"ProductBuildVersion", 16}});
    EXPECT_FALSE(Volume::initWithMountPoint(folder.path().string()));
    test::writeText(file, "not a property list");
    EXPECT_FALSE(Volume::initWithMountPoint(folder.path().string()));
    // A link on the disk, to the file or to a folder above it, is never followed.
    TemporaryFolder elsewhere;
    test::makeVolume(elsewhere.path(), "10.12.6", "16G29");
    const auto real = elsewhere / "System/Library/CoreServices";
    std::filesystem::remove(file);
    std::filesystem::create_symlink(real / "SystemVersion.plist", file);
    EXPECT_FALSE(Volume::initWithMountPoint(folder.path().string()));
    std::filesystem::remove_all(folder / "System/Library/CoreServices");
    std::filesystem::create_directory_symlink(real, folder / "System/Library/CoreServices");
    EXPECT_FALSE(Volume::initWithMountPoint(folder.path().string()));
    EXPECT_TRUE(Volume::initWithMountPoint(elsewhere.path().string()));
}

TEST(VolumeNameTest, NameFollowsTheBuildPrefix) {
    EXPECT_EQ(nameFor("10A432"), "Mac OS X Snow Leopard");
    EXPECT_EQ(nameFor("15G31"), "OS X El Capitan");
    EXPECT_EQ(nameFor("17A365"), "macOS High Sierra");
    EXPECT_EQ(nameFor("19H2"), "macOS Catalina");
    EXPECT_EQ(nameFor("20G817"), "macOS Big Sur");
    EXPECT_EQ(nameFor("25A354"), "macOS Tahoe");
    EXPECT_EQ(nameFor("26A1"), "Mac OS Legacy");
    EXPECT_EQ(nameFor("9L31a"), "Mac OS Legacy");
    EXPECT_EQ(nameFor("1"), "Mac OS Legacy");
}

TEST_F(VolumeTest, MajorVersionNeedsTwoDigits) {
    for (const auto& [build, major] : std::vector<std::pair<std::string, std::optional<int>>>{
             {"9L31a", std::nullopt}, {"1", std::nullopt}, {"", std::nullopt}, {"17A365", 17}}) {
        test::makeVolume(folder.path(), "10.13", build);
        const auto volume = Volume::initWithMountPoint(folder.path().string());
        ASSERT_TRUE(volume) << build;
        EXPECT_EQ(volume->majorVersion(), major) << build;
    }
}

TEST_F(VolumeTest, RecoveryLooksAtTheVolumeAndAtTheHostRoot) {
    TemporaryFolder host;
    test::makeVolume(folder.path(), "10.12.6", "16G29");
    auto volume = *Volume::initWithMountPoint(folder.path().string());
    EXPECT_FALSE(volume.isRecovery(host.path().string()));
    test::writeText(host / "com.apple.recovery.boot/x", "");
    EXPECT_TRUE(volume.isRecovery(host.path().string()));
    // The host marker is not looked for on the volume itself.
    TemporaryFolder otherHost;
    EXPECT_FALSE(volume.isRecovery(otherHost.path().string()));
    std::filesystem::create_directories(folder / "System/Installation");
    EXPECT_TRUE(volume.isRecovery(otherHost.path().string()));
}

TEST_F(VolumeTest, ExtraFolder) {
    test::makeVolume(folder.path(), "10.12.6", "16G29");
    const auto volume = *Volume::initWithMountPoint(folder.path().string());
    EXPECT_FALSE(volume.hasExtraFolder());
    std::filesystem::create_directory(folder / "Extra");
    EXPECT_TRUE(volume.hasExtraFolder());
}

TEST_F(VolumeTest, ArchiveRoundTripsAllFourFields) {
    test::makeVolume(folder.path(), "10.12.6", "16G29");
    const auto volume = *Volume::initWithMountPoint(folder.path().string());
    const auto archived = archive(volume);
    std::filesystem::remove_all(folder / "System");
    const auto restored =
        unarchive<Volume>(*parsePlist(*serializePlist(archived, PlistFormat::binary)));
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->mountPoint(), volume.mountPoint());
    EXPECT_EQ(restored->version(), "10.12.6");
    EXPECT_EQ(restored->buildVersion(), "16G29");
    EXPECT_EQ(restored->majorVersion(), 16);
    EXPECT_EQ(restored->hash(), volume.hash());
}

TEST(VolumeArchiveTest, DecodingDefaultsMajorAndRefusesBadArchives) {
    const auto restored =
        unarchive<Volume>(PlistValue::Dict{{"$class", "QVOSVolume"}, {"mountPoint", "/Volumes/X"}});
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->majorVersion(), 0);
    EXPECT_EQ(restored->version(), std::nullopt);
    EXPECT_FALSE(
        unarchive<Volume>(PlistValue::Dict{{"$class", "QVKernelExtension"}, {"mountPoint", "/"}}));
    EXPECT_FALSE(unarchive<Volume>(PlistValue::Dict{{"$class", "QVOSVolume"}}));
    EXPECT_FALSE(unarchive<Volume>(
        PlistValue::Dict{{"$class", "QVOSVolume"}, {"mountPoint", "/"}, {"version", 10}}));
    EXPECT_FALSE(unarchive<Volume>(
        PlistValue::Dict{{"$class", "QVOSVolume"}, {"mountPoint", "/"}, {"majorVersion", "16"}}));
}

TEST(VolumeDeathTest, ArchivingWithoutMajorVersionStops) {
    TemporaryFolder folder;
    test::makeVolume(folder.path(), "10.4", "9L31a");
    const auto volume = *Volume::initWithMountPoint(folder.path().string());
    EXPECT_DEATH(archive(volume), "has no major version");
}

TEST(VolumeManagerTest, StartsOnTheRunningSystemWhenThereIsOne) {
    TemporaryFolder root;
    test::makeVolume(root.path(), "10.12.6", "16G29");
    VolumeManager manager(root.path().string());
    ASSERT_TRUE(manager.selectedOSVolume());
    EXPECT_EQ(manager.selectedOSVolume()->mountPoint(), root.path().string());
}

TEST(VolumeManagerTest, HostWithoutMacOSStartsWithNoneUntilOneIsNamed) {
    TemporaryFolder root, other;
    VolumeManager manager(root.path().string());
    EXPECT_FALSE(manager.selectedOSVolume());
    test::makeVolume(other.path(), "10.13.6", "17G65");
    manager.setStartingOSVolume(*Volume::initWithMountPoint(other.path().string()));
    manager.setSelectedOSVolume(std::nullopt);
    manager.resetSelectedOSVolume();
    ASSERT_TRUE(manager.selectedOSVolume());
    EXPECT_EQ(manager.selectedOSVolume()->mountPoint(), other.path().string());
}

TEST(VolumeManagerDeathTest, UnreadableRunningSystemStops) {
    TemporaryFolder root;
    test::writeText(root / "System/Library/CoreServices/SystemVersion.plist", "damaged");
    EXPECT_DEATH(VolumeManager manager(root.path().string()), "unable to read the running system");
}

} // namespace
} // namespace quelm
