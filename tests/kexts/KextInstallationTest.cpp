// Kext installation and backup on real folders: staged replacement, attributes, failures.
#include "kexts/KextInstallation.h"

#include "TestSupport.h"
#include "kexts/KextBackups.h"
#include "kexts/KextCaches.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tuple>

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
        fs::create_directories(extensions);
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
    std::vector<Kext> install(const std::vector<Kext>& kexts,
                              const std::string& into = "/Library/Extensions/") {
        return installKernelExtensions(kexts, into, *volume);
    }
    long entries() const { return std::distance(fs::directory_iterator(extensions), {}); }

    TemporaryFolder folder, sources;
    fs::path volumeRoot = folder / "Mac HD";
    fs::path extensions = volumeRoot / "Library/Extensions";
    std::optional<Volume> volume;
};

TEST_F(KextInstallationTest, ReplacesTheOldBundleWholeAndMakesMissingFoldersRootOwned) {
    const auto installed = extensions / "Lilu.kext";
    test::writeText(installed / "Contents/OldOnly.plist", "old");
    const auto kext = newKext("Lilu.kext", "1.2");
    EXPECT_EQ(kextsReplacedBy(*volume, "/Library/Extensions/", {kext, newKext("New.kext", "1")}),
              std::vector<Kext>{kext});
    EXPECT_TRUE(install({kext}).empty());
    EXPECT_TRUE(install({kext}, "/Extra/Extensions/").empty());
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
    EXPECT_EQ(entries(), 1);
}

TEST_F(KextInstallationTest, AFailedKextKeepsTheOldBundleAndLeavesNothingElse) {
    test::writeText(extensions / "Gone.kext/Contents/Info.plist", "old");
    const Kext missing(FileURL::fromPath((sources / "Gone.kext").string(), false));
    const auto odd = newKext("Odd.kext", "1");
    ASSERT_EQ(::mkfifo((fs::path(odd.path()) / "Contents/pipe").c_str(), 0600), 0);
    const auto failed =
        installKexts({missing, odd, newKext("Good.kext", "1")}, "/Library/Extensions/", *volume);
    ASSERT_EQ(failed.size(), 2u);
    EXPECT_EQ(failed[0].kext, missing);
    EXPECT_NE(failed[1].reason.find("FIFO"), std::string::npos) << failed[1].reason;
    EXPECT_EQ(test::readText(extensions / "Gone.kext/Contents/Info.plist"), "old");
    EXPECT_TRUE(fs::exists(extensions / "Good.kext"));
    EXPECT_EQ(entries(), 2) << "neither Odd.kext nor any staging";
}

TEST_F(KextInstallationTest, RefusesFoldersOutsideOrThroughLinks) {
    TemporaryFolder outside;
    fs::create_directory_symlink(outside.path(), volumeRoot / "Escape");
    const auto kext = newKext("A.kext", "1");
    for (const auto* destination : {"/Escape/", "/Escape/Extensions/", "/Library/../Escape/",
                                    "Library/Extensions/", "/Library/Extensions"})
        EXPECT_EQ(install({kext}, destination).size(), 1u) << destination;
    EXPECT_TRUE(fs::is_empty(outside.path()));
    test::makeKext(outside.path(), "A.kext", PlistValue::Dict{});
    EXPECT_TRUE(kextsReplacedBy(*volume, "/Escape/", {kext}).empty()) << "a link replaces nothing";
}

TEST_F(KextInstallationTest, AnInterruptedSwapGivesTheOldBundleBack) {
    // A swap cut short (power lost) leaves the old bundle under its aside name only.
    const auto aside = extensions / ".Lilu.kext.quelm-previous/Contents/Info.plist";
    test::writeText(aside, "old");
    EXPECT_EQ(install({Kext(FileURL::fromPath((sources / "Lilu.kext").string(), false))}).size(),
              1u);
    EXPECT_EQ(test::readText(extensions / "Lilu.kext/Contents/Info.plist"), "old");
    EXPECT_EQ(entries(), 1);

    test::writeText(aside, "older");
    EXPECT_TRUE(install({newKext("Lilu.kext", "2")}).empty());
    EXPECT_EQ(test::readText(extensions / "Lilu.kext/Contents/MacOS/driver"), "new");
    EXPECT_EQ(entries(), 1);
}

TEST_F(KextInstallationTest, TheBackupOfReplacedKextsIsACopyOwnedByTheUser) {
    test::writeText(extensions / "Old.kext/Contents/Info.plist", "old");
    const auto backup = folder / "Backups/1";
    fs::create_directories(backup.parent_path());
    const auto outcome = copyKextsToBackup(
        *volume, {"/Library/Extensions/Old.kext", "/Library/Extensions/Absent.kext"},
        backup.string(), "install", std::chrono::system_clock::now());
    EXPECT_EQ(outcome.failed, std::vector<std::string>{"/Library/Extensions/Absent.kext"});
    EXPECT_EQ(test::readText(backup / "Old.kext/Contents/Info.plist"), "old");
    EXPECT_TRUE(fs::exists(extensions / "Old.kext")) << "copied, not moved";
    const auto info = statOf(backup);
    EXPECT_EQ(std::tuple(info.st_uid, info.st_gid, info.st_mode & 07777),
              std::tuple(501u, 80u, 0755u));
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
