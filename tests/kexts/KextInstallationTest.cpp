// Kext installation and backup on real folders: staged replacement, attributes, failures.
#include "kexts/KextInstallation.h"

#include "TestSupport.h"
#include "kexts/QVKernelExtensionsManager.h"
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
        volume = QVOSVolume::initWithMountPoint(volumeRoot.string());
    }

    QVKernelExtension newKext(const std::string& name, const std::string& version) {
        const auto bundle =
            test::makeKext(sources.path(), name, PlistValue::Dict{{"CFBundleVersion", version}});
        test::writeText(bundle / "Contents/MacOS/driver", "new");
        fs::create_symlink("driver", bundle / "Contents/MacOS/alias");
        ::chmod((bundle / "Contents/MacOS/driver").c_str(), 0600);
        return QVKernelExtension(FileURL::fromPath(bundle.string(), false));
    }

    TemporaryFolder folder, sources;
    fs::path volumeRoot = folder / "Mac HD";
    std::optional<QVOSVolume> volume;
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
    const QVKernelExtension missing(FileURL::fromPath((sources / "Gone.kext").string(), false));
    const auto good = newKext("Good.kext", "1");

    const auto failed = installKernelExtensions({missing, good}, "/Library/Extensions/", *volume);
    EXPECT_EQ(failed, std::vector<QVKernelExtension>{missing});
    EXPECT_EQ(test::readText(installed / "Contents/Info.plist"), "old");
    EXPECT_TRUE(fs::exists(volumeRoot / "Library/Extensions/Good.kext"));
    EXPECT_EQ(std::distance(fs::directory_iterator(volumeRoot / "Library/Extensions"), {}), 2);
}

TEST_F(KextInstallationTest, RefusesFoldersOutsideOrThroughLinks) {
    TemporaryFolder outside;
    fs::create_directory_symlink(outside.path(), volumeRoot / "Escape");
    const auto kext = newKext("A.kext", "1");
    for (const auto* destination : {"/Escape/", "/Library/../Escape/", "Library/Extensions/",
                                    "/Library/Extensions", "/Missing/"})
        EXPECT_EQ(installKernelExtensions({kext}, destination, *volume).size(), 1u) << destination;
    EXPECT_TRUE(fs::is_empty(outside.path()));
}

TEST_F(KextInstallationTest, BackupGoesIntoADatedFolderOwnedByTheUser) {
    test::writeText(volumeRoot / "Library/Extensions/Old.kext/Contents/Info.plist", "old");
    const QVKernelExtension old(FileURL::fromPath("/elsewhere/Old.kext", false));
    const QVKernelExtension absent(FileURL::fromPath("/elsewhere/Absent.kext", false));
    const auto now = std::chrono::system_clock::now();
    const auto destination = folder / "Backups";

    const auto failed = backupKernelExtensions({old, absent}, "/Library/Extensions/", *volume,
                                               destination.string() + "/", now);
    EXPECT_EQ(failed, std::vector<QVKernelExtension>{absent});
    const auto backup = destination / compactTimestamp(now);
    EXPECT_EQ(test::readText(backup / "Old.kext/Contents/Info.plist"), "old");
    for (const auto& made : {destination, backup}) {
        const auto info = statOf(made);
        EXPECT_EQ(info.st_uid, 501u);
        EXPECT_EQ(info.st_gid, 80u);
        EXPECT_EQ(info.st_mode & 07777, 0755u);
    }
    EXPECT_TRUE(backupKernelExtensions({}, "/Library/Extensions/", *volume,
                                       (folder / "None/").string(), now)
                    .empty());
    EXPECT_FALSE(fs::exists(folder / "None"));
    test::writeText(folder / "File", "x");
    EXPECT_EQ(backupKernelExtensions({old}, "/Library/Extensions/", *volume,
                                     (folder / "File/").string(), now)
                  .size(),
              1u);
}

TEST(KextCachesTest, InvalidationTouchesBothExtensionsFolders) {
    TemporaryFolder volumeRoot;
    test::makeVolume(volumeRoot.path(), "10.12.6", "16G29");
    const auto volume = *QVOSVolume::initWithMountPoint(volumeRoot.path().string());
    EXPECT_FALSE(rebuildCaches(volume)) << "no System/Library/Extensions";
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

TEST(QVKernelExtensionsManagerTest, AddsEachKextOnceAndOnlyKexts) {
    QVKernelExtensionsManager manager;
    manager.addKernelExtensions(
        std::vector<std::string>{"/k/A.kext", "/k/B.bundle", "/k/A.kext", "/k/C.kext"});
    ASSERT_EQ(manager.kextsTBI().size(), 2u);
    EXPECT_EQ(manager.kextsTBI()[0].name(), "A.kext");
    EXPECT_EQ(manager.kextsTBI()[1].name(), "C.kext");
    EXPECT_EQ(manager.installationFolder(), QVKernelExtensionFolder::LibraryExtensions);
    EXPECT_EQ(manager.backupFolder(), "~/Desktop/");
}

} // namespace
} // namespace quelm
