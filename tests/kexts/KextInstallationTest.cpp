// Kext installation and backup on real folders: staged replacement, attributes, failures.
#include "kexts/KextInstallation.h"

#include "TestSupport.h"
#include "kexts/KextBackups.h"
#include "kexts/KextCaches.h"
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

TEST_F(KextInstallationTest, ReplacesTheOldBundleWholeAndMakesMissingFoldersRootOwned) {
    const auto installed = volumeRoot / "Library/Extensions/Lilu.kext";
    test::writeText(installed / "Contents/OldOnly.plist", "old");
    const auto kext = newKext("Lilu.kext", "1.2");
    EXPECT_EQ(kextsReplacedBy(*volume, "/Library/Extensions/", {kext, newKext("New.kext", "1")}),
              std::vector<Kext>{kext});
    EXPECT_TRUE(installKernelExtensions({kext}, "/Library/Extensions/", *volume).empty());
    EXPECT_TRUE(installKernelExtensions({kext}, "/Extra/Extensions/", *volume).empty());
    EXPECT_FALSE(fs::exists(installed / "Contents/OldOnly.plist"));
    EXPECT_EQ(test::readText(installed / "Contents/MacOS/driver"), "new");
    EXPECT_TRUE(fs::is_symlink(installed / "Contents/MacOS/alias"));
    for (const auto& made : {volumeRoot / "Extra", volumeRoot / "Extra/Extensions", installed}) {
        for (const auto& entry : fs::recursive_directory_iterator(made)) {
            const auto info = statOf(entry.path());
            EXPECT_TRUE(info.st_uid == 0 && info.st_gid == 0) << entry.path();
            EXPECT_TRUE(S_ISLNK(info.st_mode) || (info.st_mode & 07777) == 0755) << entry.path();
        }
        EXPECT_EQ(statOf(made).st_mode & 07777, 0755u) << made;
    }
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
    test::makeKext(outside.path(), "A.kext", PlistValue::Dict{});
    EXPECT_TRUE(kextsReplacedBy(*volume, "/Escape/", {kext}).empty()) << "a link replaces nothing";
}

TEST_F(KextInstallationTest, NamesAndPathsAsUsersTypeThem) {
    const auto downloads = sources / "Téléchargements #2 100%";
    fs::create_directories(downloads / "sub");
    test::makeKext(downloads, "Réseau.kext", PlistValue::Dict{});
    test::makeKext(downloads, "Plain.kext", PlistValue::Dict{});
    const fs::path before = fs::current_path();
    fs::current_path(downloads / "sub");
    const std::vector<Kext> kexts{Kext(FileURL::fromPath("../Réseau.kext", false)),
                                  Kext(FileURL::fromPath("./../Plain.kext/", false))};
    fs::current_path(before);

    EXPECT_TRUE(installKernelExtensions(kexts, "/Library/Extensions/", *volume).empty());
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
    const auto named = [](const char* key, PlistValue folders) {
        return PlistValue(PlistValue::Dict{
            {"PostBootPaths",
             PlistValue::Dict{{key, PlistValue::Dict{{"ExtensionsDir", std::move(folders)}}}}}});
    };
    EXPECT_EQ(kernelCacheFolders(named("Kernelcache v1.3", PlistValue::Array{"/S/E", "/L/A/E"})),
              (std::vector<std::string>{"/S/E", "/L/A/E"}));
    EXPECT_EQ(kernelCacheFolders(named("Kernelcache v1.1", "/S/E")),
              std::vector<std::string>{"/S/E"});
    for (const PlistValue& none :
         {named("Other", "/S/E"), PlistValue("text"),
          PlistValue(PlistValue::Dict{{"PostBootPaths", PlistValue::Array{}}})})
        EXPECT_EQ(kernelCacheFolders(none),
                  (std::vector<std::string>{"/System/Library/Extensions", "/Library/Extensions"}));
}

TEST(KextCachesTest, InvalidationOutrunsACacheNewerThanTheClock) {
    TemporaryFolder volumeRoot;
    test::makeVolume(volumeRoot.path(), "10.14.6", "18G103");
    const auto volume = *Volume::initWithMountPoint(volumeRoot.path().string());
    EXPECT_FALSE(rebuildCaches(volume)) << "no Extensions folder at all";
    const auto cache = volumeRoot / "System/Library/PrelinkedKernels/prelinkedkernel";
    test::writeText(cache, "cache");
    const auto future = fs::file_time_type::clock::now() + std::chrono::hours(24 * 365);
    fs::last_write_time(cache, future);
    for (const auto* folder : {"System/Library/Extensions", "Library/Extensions", "Custom/Ext"})
        fs::create_directories(volumeRoot / folder);
    const auto before = fs::last_write_time(volumeRoot / "Custom/Ext");
    ASSERT_TRUE(rebuildCaches(volume));
    EXPECT_GT(fs::last_write_time(volumeRoot / "Library/Extensions"), future);
    EXPECT_EQ(fs::last_write_time(volumeRoot / "Custom/Ext"), before);
    test::writePlist(
        volumeRoot / "usr/standalone/bootcaches.plist",
        PlistValue::Dict{{"PostBootPaths",
                          PlistValue::Dict{{"Kernelcache v1.4",
                                            PlistValue::Dict{{"ExtensionsDir", "/Custom/Ext"}}}}}},
        PlistFormat::binary);
    ASSERT_TRUE(rebuildCaches(volume));
    EXPECT_GT(fs::last_write_time(volumeRoot / "Custom/Ext"), future)
        << "only the folders that the boot caches name";
}

} // namespace
} // namespace quelm
