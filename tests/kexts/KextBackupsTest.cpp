// Kexts taken off a volume into backup folders, put back, and the history that undo reads.
#include "kexts/KextBackups.h"

#include "KextFixtures.h"
#include "TestSupport.h"
#include "kexts/KextHistory.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

const auto kNow = std::chrono::system_clock::now();
const std::string kLilu = "/Library/Extensions/Lilu.kext";
const std::string kStagedLilu = "/Library/StagedExtensions/Library/Extensions/Lilu.kext";

class KextBackupsTest : public testing::Test {
protected:
    void SetUp() override {
        test::makeRescueVolume(root);
        test::makeKextBundle(root / "Library/StagedExtensions/Library/Extensions", "Lilu.kext",
                             test::kextInfo("as.vit9696.Lilu", "1.4.5"));
        test::makeKextBundle(root / "Extra/Extensions", "Lilu.kext",
                             test::kextInfo("as.vit9696.Lilu", "1.0"));
        fs::create_directories(backups);
    }
    Volume volume() const { return *Volume::initWithMountPoint(root.string()); }
    std::string backupIn(const fs::path& where) const { return newBackupFolderPath(where, kNow); }

    test::TemporaryFolder folder;
    fs::path root = folder / "Mac HD";
    fs::path backups = folder / "backups";
};

TEST_F(KextBackupsTest, NamesStandForEveryCopyAndTheStagedOneIsFound) {
    const auto installed = installedKexts(volume());
    const auto byName = findInstalledKexts(installed, "lilu");
    ASSERT_EQ(byName.size(), 2u);
    EXPECT_EQ(byName[0]->path(), "/Library/Extensions/Lilu.kext");
    EXPECT_EQ(byName[1]->path(), "/Extra/Extensions/Lilu.kext");
    EXPECT_EQ(findInstalledKexts(installed, "as.vit9696.Lilu").size(), 2u);
    EXPECT_TRUE(findInstalledKexts(installed, "Nothing.kext").empty());
    EXPECT_EQ(stagedCopyOf(volume(), kLilu),
              "/Library/StagedExtensions/Library/Extensions/Lilu.kext");
    EXPECT_EQ(stagedCopyOf(volume(), "/Extra/Extensions/Lilu.kext"), std::nullopt);
}

TEST_F(KextBackupsTest, RemovedKextsMoveWholeIntoABackupThatSaysWhereEachCameFrom) {
    const Strings paths{kLilu, kStagedLilu, "/Extra/Extensions/Lilu.kext",
                        "/Library/Extensions/Missing.kext"};
    const auto backup = backupIn(backups);
    const auto outcome = moveKextsToBackup(volume(), paths, backup, "remove", kNow);
    EXPECT_EQ(outcome.done, Strings(paths.begin(), paths.end() - 1));
    EXPECT_EQ(outcome.failed, Strings{"/Library/Extensions/Missing.kext"});
    EXPECT_FALSE(fs::exists(root / "Extra/Extensions/Lilu.kext"));
    EXPECT_TRUE(fs::exists(fs::path(backup) / "Lilu.kext/Contents/_CodeSignature"));
    const auto manifest = readBackupManifest(backup);
    ASSERT_TRUE(manifest) << manifest.error().message;
    ASSERT_EQ(manifest->items.size(), 3u);
    EXPECT_EQ(manifest->items[1].pathInBackup, "2/Lilu.kext") << "same name, own folder";
    EXPECT_EQ(manifest->items[2].volumePath(), "/Extra/Extensions/Lilu.kext");

    EXPECT_TRUE(moveKextsToBackup(volume(), paths, backup, "remove", kNow).done.empty())
        << "an existing folder is never reused";
    const auto none = moveKextsToBackup(volume(), {"/Library/Extensions/Missing.kext"},
                                        backupIn(backups), "remove", kNow);
    EXPECT_EQ(none.backupFolder, "");
    EXPECT_EQ(std::distance(fs::directory_iterator(backups), {}), 1) << "no empty backup left";
}

TEST_F(KextBackupsTest, OnlyKextsOfExtensionsFoldersCanBeTaken) {
    test::writeText(root / "etc/passwd", "root");
    fs::create_symlink(root / "Library/Extensions", root / "Links");
    const auto outcome = moveKextsToBackup(volume(),
                                           {"/etc/passwd", "/Library/Extensions/../../etc/passwd",
                                            "/Links/Lilu.kext", "Library/Extensions/Lilu.kext"},
                                           backupIn(backups), "remove", kNow);
    EXPECT_EQ(outcome.done, Strings{});
    EXPECT_TRUE(fs::exists(root / "etc/passwd"));
    EXPECT_TRUE(fs::exists(root / "Library/Extensions/Lilu.kext"));
}

TEST_F(KextBackupsTest, HostileManifestsAreRefused) {
    const auto backup = folder / "hostile";
    const auto manifestWith = [&](PlistValue::Dict entry) {
        test::writePlist(backup / "Manifest.plist",
                         PlistValue::Dict{{"Volume", root.string()},
                                          {"Time", "2026-01-01T00:00:00Z"},
                                          {"Operation", "remove"},
                                          {"Kexts", PlistValue::Array{std::move(entry)}}});
        return readBackupManifest(backup);
    };
    const auto entry = [](std::string source, std::string name, std::string path) {
        return PlistValue::Dict{{"SourceFolder", source}, {"Name", name}, {"PathInBackup", path}};
    };
    EXPECT_TRUE(
        manifestWith(entry("/Library/StagedExtensions/Library/Extensions/", "A.kext", "3/A.kext")));
    for (const auto& bad : {entry("/etc/", "A.kext", "A.kext"),
                            entry("/Library/Extensions/../../etc/", "A.kext", "A.kext"),
                            entry("/Library/Extensions/", "../A.kext", "A.kext"),
                            entry("/Library/Extensions/", "passwd", "passwd"),
                            entry("/Library/Extensions/", "A.kext", "../../A.kext"),
                            entry("/Library/Extensions/", "A.kext", "/tmp/A.kext"),
                            entry("/Library/Extensions/", "A.kext", "x/A.kext"),
                            entry("/Library/Extensions/", "A.kext", "B.kext")})
        EXPECT_FALSE(manifestWith(bad));
    // A manifest that is a link is not followed, even to a good one.
    ASSERT_TRUE(manifestWith(entry("/Library/Extensions/", "A.kext", "A.kext")));
    fs::rename(backup, folder / "elsewhere");
    fs::create_directory(backup);
    fs::create_symlink(folder / "elsewhere/Manifest.plist", backup / "Manifest.plist");
    EXPECT_FALSE(readBackupManifest(backup));
    fs::remove(backup / "Manifest.plist");
    test::writeText(backup / "Manifest.plist", "not a list");
    EXPECT_FALSE(readBackupManifest(backup));
    EXPECT_FALSE(readBackupManifest(folder / "none"));
}

TEST(KextHistoryTest, RecordsAreKeptInOrderAndTheLastUndoableIsFound) {
    test::TemporaryFolder folder;
    const auto file = folder / "data/History.plist";
    EXPECT_EQ(readHistory(file)->size(), 0u);
    const auto record = [](std::string volume, std::string operation, bool undone) {
        return HistoryRecord{"2026-11-22T21:55:03Z",
                             std::move(volume),
                             std::move(operation),
                             {"/Library/Extensions/A.kext"},
                             "/b/1",
                             undone};
    };
    for (const auto& entry : {record("/V", "install", false), record("/W", "remove", false),
                              record("/V", "remove", true), record("/V", "undo", false)})
        ASSERT_TRUE(appendHistory(file, entry));
    const auto records = readHistory(file);
    ASSERT_TRUE(records && records->size() == 4u);
    EXPECT_EQ((*records)[0].kexts, Strings{"/Library/Extensions/A.kext"});
    EXPECT_EQ(lastUndoable(*records, "/V"), 0u) << "undone ones and undos are passed over";
    EXPECT_EQ(lastUndoable(*records, "/W"), 1u);
    EXPECT_EQ(lastUndoable(*records, "/X"), std::nullopt);
    test::writeText(file, "damaged");
    EXPECT_FALSE(readHistory(file));
    EXPECT_EQ(isoTimestamp(std::chrono::system_clock::time_point{}), "1970-01-01T00:00:00Z");
}

} // namespace
} // namespace quelm
