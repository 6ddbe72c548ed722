// OS volumes: versions and names, links on the disk, archives and the volume manager.
#include "volumes/Volume.h"

#include "TestSupport.h"
#include "volumes/VolumeManager.h"

#include <gtest/gtest.h>
#include <tuple>

namespace quelm {
namespace {

using test::TemporaryFolder;

TEST(VolumeTest, VersionsNamesAndMajorComeFromTheBuild) {
    for (const auto& [build, fullName, major] :
         std::vector<std::tuple<std::string, std::string, std::optional<std::int64_t>>>{
             {"16G29", "macOS Sierra 10.13 (16G29)", 16},
             {"10A432", "Mac OS X Snow Leopard 10.13 (10A432)", 10},
             {"26A1", "Mac OS Legacy 10.13 (26A1)", 26},
             {"9L31a", "Mac OS Legacy 10.13 (9L31a)", std::nullopt},
             {"1", "Mac OS Legacy 10.13 (1)", std::nullopt}}) {
        for (const auto format : {PlistFormat::xml, PlistFormat::binary}) {
            TemporaryFolder folder;
            test::makeVolume(folder.path(), "10.13", build, format);
            const auto volume = Volume::initWithMountPoint(folder.path().string() + "/");
            ASSERT_TRUE(volume) << build;
            EXPECT_EQ(volume->mountPoint(), folder.path().string()) << "one trailing / goes";
            EXPECT_EQ(volume->getFullNameVersionString(), fullName);
            EXPECT_EQ(volume->majorVersion(), major) << build;
        }
    }
}

TEST(VolumeTest, MissingIncompleteOrLinkedSystemVersionMakesNoVolume) {
    TemporaryFolder folder, elsewhere;
    EXPECT_FALSE(Volume::initWithMountPoint(folder.path().string()));
    const auto file = folder / "System/Library/CoreServices/SystemVersion.plist";
    for (const auto& list :
         {PlistValue::Dict{{"ProductVersion", "10.12"}},
          PlistValue::Dict{{"ProductVersion", "10.12"}, {"ProductBuildVersion", 16}}}) {
        test::writePlist(file, list);
        EXPECT_FALSE(Volume::initWithMountPoint(folder.path().string()));
    }
    test::writeText(file, "not a property list");
    EXPECT_FALSE(Volume::initWithMountPoint(folder.path().string()));
    // A link on the disk, to the file or to a folder above it, is never followed.
    test::makeVolume(elsewhere.path(), "10.12.6", "16G29");
    const auto real = elsewhere / "System/Library/CoreServices";
    std::filesystem::remove(file);
    std::filesystem::create_symlink(real / "SystemVersion.plist", file);
    EXPECT_FALSE(Volume::initWithMountPoint(folder.path().string()));
    std::filesystem::remove_all(folder / "System/Library/CoreServices");
    std::filesystem::create_directory_symlink(real, folder / "System/Library/CoreServices");
    EXPECT_FALSE(Volume::initWithMountPoint(folder.path().string()));
}

TEST(VolumeTest, RecoveryIsToldByTheHostsMarkerOrTheVolumesInstallationFolder) {
    TemporaryFolder folder, host;
    test::makeVolume(folder.path(), "10.12.6", "16G29");
    const auto volume = *Volume::initWithMountPoint(folder.path().string());
    test::writeText(folder / "com.apple.recovery.boot/x", "");
    EXPECT_FALSE(volume.isRecovery(host.path().string())) << "not looked for on the volume";
    test::writeText(host / "com.apple.recovery.boot/x", "");
    EXPECT_TRUE(volume.isRecovery(host.path().string()));
    std::filesystem::create_directories(folder / "System/Installation");
    EXPECT_TRUE(volume.isRecovery(folder.path().string()));
}

TEST(VolumeTest, ArchivesRoundTripAndBadOnesAreRefused) {
    TemporaryFolder folder;
    test::makeVolume(folder.path(), "10.12.6", "16G29");
    const auto volume = *Volume::initWithMountPoint(folder.path().string());
    const auto archived = archive(volume);
    std::filesystem::remove_all(folder / "System");
    const auto restored =
        unarchive<Volume>(*parsePlist(*serializePlist(archived, PlistFormat::binary)));
    ASSERT_TRUE(restored);
    EXPECT_EQ(std::tuple(restored->mountPoint(), restored->getFullNameVersionString(),
                         restored->majorVersion()),
              std::tuple(volume.mountPoint(), "macOS Sierra 10.12.6 (16G29)", 16));
    EXPECT_EQ(unarchive<Volume>(PlistValue::Dict{{"$class", "QVOSVolume"}, {"mountPoint", "/V"}})
                  ->majorVersion(),
              0);
    for (const auto& bad : {PlistValue::Dict{{"$class", "QVKernelExtension"}, {"mountPoint", "/"}},
                            PlistValue::Dict{{"$class", "QVOSVolume"}},
                            PlistValue::Dict{{"$class", "QVOSVolume"}, {"version", 10}},
                            PlistValue::Dict{{"$class", "QVOSVolume"}, {"majorVersion", "16"}}})
        EXPECT_FALSE(unarchive<Volume>(bad));
}

TEST(VolumeDeathTest, ArchivingWithoutMajorVersionStops) {
    TemporaryFolder folder;
    test::makeVolume(folder.path(), "10.4", "9L31a");
    const auto volume = *Volume::initWithMountPoint(folder.path().string());
    EXPECT_DEATH(archive(volume), "has no major version");
}

TEST(VolumeManagerTest, StartsOnTheRunningSystem) {
    TemporaryFolder running;
    test::makeVolume(running.path(), "10.12.6", "16G29");
    EXPECT_EQ(VolumeManager(running.path().string()).selectedOSVolume()->mountPoint(),
              running.path().string());
}

TEST(VolumeManagerDeathTest, UnreadableRunningSystemStops) {
    TemporaryFolder root;
    test::writeText(root / "System/Library/CoreServices/SystemVersion.plist", "damaged");
    EXPECT_DEATH(VolumeManager manager(root.path().string()), "unable to read the running system");
}

} // namespace
} // namespace quelm
