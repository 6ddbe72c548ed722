// Kext installation and backup on real folders: staged replacement, attributes, failures.
#include "kexts/KextInstallation.h"

#include "TestSupport.h"
#include "kexts/KextBackups.h"
#include "kexts/KextCaches.h"
#include "kexts/KextIntake.h"
#include "support/Strings.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;
using test::TemporaryFolder;

struct stat statOf(const fs::path& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return info;
}

class KextInstallationTest : public testing::Test {
protected:
    void SetUp() override {
        if (!test::runningAsRoot())
            GTEST_SKIP() << "installed kexts must belong to root";
        test::makeVolume(volumeRoot, "10.12.6", "16G29");
        fs::create_directories(volumeRoot / "Library/Extensions");
        volume = Volume::initWithMountPoint(volumeRoot.string());
    }

    Kext newKext(const std::string& name, const std::string& version) {
        const auto bundle =
            test::makeKext(sources.path(), name, PlistValue::Dict{{"CFBundleVersion", version}});
        test::writeText(bundle / "Contents/MacOS/driver", "new");
        fs::create_symlink("driver", bundle / "Contents/MacOS/alias");
        ::chmod((bundle / "Contents/MacOS/driver").c_str(), 0600);
        return Kext(FileURL::fromPath(bundle.string(), false));
    }

    TemporaryFolder folder, sources;
    fs::path volumeRoot = folder / "Mac HD";
    std::optional<Volume> volume;
};

TEST_F(KextInstallationTest, ReplacesTheOldBundleWholeWithRootOwnedItems) {
    const auto installed = volumeRoot / "Library/Extensions/Lilu.kext";
    test::writeText(installed / "Contents/OldOnly.plist", "old");
    const auto kext = newKext("Lilu.kext", "1.2");

    EXPECT_TRUE(installKernelExtensions({kext}, "/Library/Extensions/", *volume).empty());
    EXPECT_FALSE(fs::exists(installed / "Contents/OldOnly.plist"));
    EXPECT_EQ(test::readText(installed / "Contents/MacOS/driver"), "new");
    EXPECT_TRUE(fs::is_symlink(installed / "Contents/MacOS/alias"));
    for (const auto& entry : fs::recursive_directory_iterator(installed)) {
        const auto info = statOf(entry.path());
        EXPECT_EQ(info.st_uid, 0u) << entry.path();
        EXPECT_EQ(info.st_gid, 0u) << entry.path();
        if (!S_ISLNK(info.st_mode)) {
            EXPECT_EQ(info.st_mode & 07777, 0755u) << entry.path();
        }
    }
    EXPECT_EQ(statOf(installed).st_mode & 07777, 0755u);
    EXPECT_EQ(std::distance(fs::directory_iterator(volumeRoot / "Library/Extensions"), {}), 1);
}

TEST_F(KextInstallationTest, FailedKextKeepsTheOldBundleAndLeavesNothingElse) {
    const auto installed = volumeRoot / "Library/Extensions/Gone.kext";
    test::writeText(installed / "Contents/Info.plist", "old");
    const Kext missing(FileURL::fromPath((sources / "Gone.kext").string(), false));
    const auto good = newKext("Good.kext", "1");

    const auto failed = installKernelExtensions({missing, good}, "/Library/Extensions/", *volume);
    EXPECT_EQ(failed, std::vector<Kext>{missing});
    EXPECT_EQ(test::readText(installed / "Contents/Info.plist"), "old");
    EXPECT_TRUE(fs::exists(volumeRoot / "Library/Extensions/Good.kext"));
    EXPECT_EQ(std::distance(fs::directory_iterator(volumeRoot / "Library/Extensions"), {}), 2);
}

TEST_F(KextInstallationTest, RefusesFoldersOutsideOrThroughLinks) {
    TemporaryFolder outside;
    fs::create_directory_symlink(outside.path(), volumeRoot / "Escape");
    const auto kext = newKext("A.kext", "1");
    for (const auto* destination : {"/Escape/", "/Escape/Extensions/", "/Library/../Escape/",
                                    "Library/Extensions/", "/Library/Extensions"})
        EXPECT_EQ(installKernelExtensions({kext}, destination, *volume).size(), 1u) << destination;
    EXPECT_TRUE(fs::is_empty(outside.path()));
}

TEST_F(KextInstallationTest, MissingFoldersAreMadeRootOwned) {
    const auto kext = newKext("A.kext", "1");
    ASSERT_TRUE(installKernelExtensions({kext}, "/Extra/Extensions/", *volume).empty());
    for (const auto* made : {"Extra", "Extra/Extensions", "Extra/Extensions/A.kext"}) {
        const auto info = statOf(volumeRoot / made);
        EXPECT_EQ(info.st_uid, 0u) << made;
        EXPECT_EQ(info.st_gid, 0u) << made;
        EXPECT_EQ(info.st_mode & 07777, 0755u) << made;
    }
}

TEST_F(KextInstallationTest, NamesAndPathsAsUsersTypeThem) {
    const auto downloads = sources / "Téléchargements #2 100%";
    fs::create_directories(downloads / "sub");
    test::makeKext(downloads, "Réseau.kext", PlistValue::Dict{});
    test::makeKext(downloads, "Plain.kext", PlistValue::Dict{});
    const fs::path before = fs::current_path();
    fs::current_path(downloads / "sub");
    KextIntake manager;
    manager.addKernelExtensions(std::vector<std::string>{"../Réseau.kext", "./../Plain.kext/"});
    fs::current_path(before);

    ASSERT_EQ(manager.kextsToInstall().size(), 2u);
    EXPECT_TRUE(
        installKernelExtensions(manager.kextsToInstall(), "/Library/Extensions/", *volume).empty());
    EXPECT_TRUE(fs::is_directory(volumeRoot / "Library/Extensions/Réseau.kext/Contents"));
    EXPECT_TRUE(fs::is_directory(volumeRoot / "Library/Extensions/Plain.kext/Contents"));
}

TEST_F(KextInstallationTest, AnInterruptedSwapGivesTheOldBundleBack) {
    // A swap cut short (power lost) leaves the old bundle under its aside name only.
    const auto extensions = volumeRoot / "Library/Extensions";
    test::writeText(extensions / ".Lilu.kext.quelm-previous/Contents/Info.plist", "old");
    const Kext missing(FileURL::fromPath((sources / "Lilu.kext").string(), false));

    EXPECT_EQ(installKernelExtensions({missing}, "/Library/Extensions/", *volume).size(), 1u);
    EXPECT_EQ(test::readText(extensions / "Lilu.kext/Contents/Info.plist"), "old");
    EXPECT_FALSE(fs::exists(extensions / ".Lilu.kext.quelm-previous"));

    test::writeText(extensions / ".Lilu.kext.quelm-previous/Contents/Info.plist", "older");
    EXPECT_TRUE(
        installKernelExtensions({newKext("Lilu.kext", "2")}, "/Library/Extensions/", *volume)
            .empty());
    EXPECT_EQ(test::readText(extensions / "Lilu.kext/Contents/MacOS/driver"), "new");
    EXPECT_EQ(std::distance(fs::directory_iterator(extensions), {}), 1);
}

TEST_F(KextInstallationTest, ABundleWithADeviceOrFifoInsideIsRefused) {
    const auto kext = newKext("Odd.kext", "1");
    ASSERT_EQ(::mkfifo((fs::path(kext.path()) / "Contents/pipe").c_str(), 0600), 0);
    const auto failed = installKexts({kext}, "/Library/Extensions/", *volume);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].reason, "it holds a device, FIFO or socket, which no kext holds; the "
                                "installed Odd.kext is unchanged");
    EXPECT_TRUE(fs::is_empty(volumeRoot / "Library/Extensions"));
}

TEST_F(KextInstallationTest, SystemFolderOfAReadOnlySystemVolumeIsRefused) {
    test::makeVolume(volumeRoot, "10.15.7", "19H2");
    const auto catalina = *Volume::initWithMountPoint(volumeRoot.string());
    const auto kext = newKext("A.kext", "1");
    const auto refusal = installationRefusal(catalina, "/System/Library/Extensions/");
    ASSERT_TRUE(refusal);
    EXPECT_NE(refusal->find("read-only system volume"), std::string::npos) << *refusal;
    EXPECT_EQ(installKernelExtensions({kext}, "/System/Library/Extensions/", catalina).size(), 1u);
    EXPECT_FALSE(fs::exists(volumeRoot / "System/Library/Extensions/A.kext"));
    EXPECT_FALSE(installationRefusal(*volume, "/System/Library/Extensions/"));
}

TEST_F(KextInstallationTest, TheBackupOfReplacedKextsIsACopyOwnedByTheUser) {
    test::writeText(volumeRoot / "Library/Extensions/Old.kext/Contents/Info.plist", "old");
    fs::create_directories(folder / "Backups");
    const auto backup = newBackupFolderPath(folder / "Backups", std::chrono::system_clock::now());
    const auto outcome = copyKextsToBackup(
        *volume, {"/Library/Extensions/Old.kext", "/Library/Extensions/Absent.kext"}, backup,
        "install", std::chrono::system_clock::now());
    EXPECT_EQ(outcome.failed, std::vector<std::string>{"/Library/Extensions/Absent.kext"});
    EXPECT_EQ(test::readText(fs::path(backup) / "Old.kext/Contents/Info.plist"), "old");
    EXPECT_TRUE(fs::exists(volumeRoot / "Library/Extensions/Old.kext")) << "copied, not moved";
    const auto info = statOf(backup);
    EXPECT_EQ(info.st_uid, 501u);
    EXPECT_EQ(info.st_gid, 80u);
    EXPECT_EQ(info.st_mode & 07777, 0755u);
    EXPECT_EQ(readBackupManifest(backup)->operation, "install");
}

TEST(KextCachesTest, BootCachesNameTheFoldersOfTheKernelCache) {
    const PlistValue bootCaches = PlistValue::Dict{
        {"PostBootPaths",
         PlistValue::Dict{{"Kernelcache v1.3",
                           PlistValue::Dict{{"ExtensionsDir",
                                             PlistValue::Array{"/System/Library/Extensions",
                                                               "/Library/Apple/Extensions"}}}}}}};
    EXPECT_EQ(
        kernelCacheFolders(bootCaches),
        (std::vector<std::string>{"/System/Library/Extensions", "/Library/Apple/Extensions"}));
    const PlistValue single = PlistValue::Dict{
        {"PostBootPaths",
         PlistValue::Dict{{"Kernelcache v1.1", PlistValue::Dict{{"ExtensionsDir", "/S/E"}}}}}};
    EXPECT_EQ(kernelCacheFolders(single), std::vector<std::string>{"/S/E"});
    for (const PlistValue& none :
         {PlistValue(PlistValue::Dict{}), PlistValue("text"),
          PlistValue(PlistValue::Dict{{"PostBootPaths", PlistValue::Array{}}})})
        EXPECT_EQ(kernelCacheFolders(none),
                  (std::vector<std::string>{"/System/Library/Extensions", "/Library/Extensions"}));
}

TEST(KextCachesTest, InvalidationOutrunsACacheNewerThanTheClock) {
    TemporaryFolder volumeRoot;
    test::makeVolume(volumeRoot.path(), "10.14.6", "18G103");
    const auto cache = volumeRoot / "System/Library/PrelinkedKernels/prelinkedkernel";
    test::writeText(cache, "cache");
    const auto future = fs::file_time_type::clock::now() + std::chrono::hours(24 * 365);
    fs::last_write_time(cache, future);
    test::writePlist(
        volumeRoot / "usr/standalone/bootcaches.plist",
        PlistValue::Dict{
            {"PostBootPaths",
             PlistValue::Dict{
                 {"Kernelcache v1.4",
                  PlistValue::Dict{{"ExtensionsDir", PlistValue::Array{"/Custom/Ext"}}}}}}},
        PlistFormat::binary);
    fs::create_directories(volumeRoot / "Custom/Ext");
    fs::create_directories(volumeRoot / "System/Library/Extensions");
    const auto before = fs::last_write_time(volumeRoot / "System/Library/Extensions");
    const auto volume = *Volume::initWithMountPoint(volumeRoot.path().string());

    ASSERT_TRUE(rebuildCaches(volume));
    EXPECT_GT(fs::last_write_time(volumeRoot / "Custom/Ext"), future);
    EXPECT_EQ(fs::last_write_time(volumeRoot / "System/Library/Extensions"), before)
        << "only the folders that the boot caches name";
}

TEST(KextCachesTest, InvalidationTouchesBothExtensionsFolders) {
    TemporaryFolder volumeRoot;
    test::makeVolume(volumeRoot.path(), "10.12.6", "16G29");
    const auto volume = *Volume::initWithMountPoint(volumeRoot.path().string());
    EXPECT_FALSE(rebuildCaches(volume)) << "no Extensions folder at all";
    for (const auto* folder : {"System/Library/Extensions", "Library/Extensions"}) {
        fs::create_directories(volumeRoot / folder);
        fs::last_write_time(volumeRoot / folder,
                            fs::file_time_type::clock::now() - std::chrono::hours(48));
    }
    ASSERT_TRUE(rebuildCaches(volume));
    for (const auto* folder : {"System/Library/Extensions", "Library/Extensions"})
        EXPECT_GT(fs::last_write_time(volumeRoot / folder),
                  fs::file_time_type::clock::now() - std::chrono::minutes(1));
}

TEST(KextIntakeTest, AddsEachKextOnceAndOnlyKexts) {
    KextIntake manager;
    manager.addKernelExtensions(
        std::vector<std::string>{"/k/A.kext", "/k/B.bundle", "/k/A.kext", "/k/C.kext"});
    ASSERT_EQ(manager.kextsToInstall().size(), 2u);
    EXPECT_EQ(manager.kextsToInstall()[0].name(), "A.kext");
    EXPECT_EQ(manager.kextsToInstall()[1].name(), "C.kext");
    EXPECT_EQ(manager.installationFolder(), KextFolder::LibraryExtensions);
    EXPECT_EQ(manager.backupFolder(), "~/Desktop/");
}

} // namespace
} // namespace quelm
