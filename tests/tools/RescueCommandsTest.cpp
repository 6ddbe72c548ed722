// quelmctl's rescue commands on volumes with real Mach-O kexts: list, check, remove, restore,
// undo, and dry runs that change nothing.
#include "KextFixtures.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;
using test::runCommand;
using test::shellQuote;

class RescueCommandsTest : public testing::Test {
protected:
    void SetUp() override { test::makeRescueVolume(volume); }

    /// quelmctl with the user's data folder inside the test folder.
    test::CommandResult quelmctl(const std::string& arguments) const {
        return runCommand("XDG_DATA_HOME=" + shellQuote((folder / "data").string()) + " " +
                          QUELMCTL_PATH + " " + arguments);
    }
    std::string onVolume() const { return " --volume " + shellQuote(volume.string()) + " "; }
    std::string backupTo() const { return " --backup-to " + shellQuote(backups.string()) + " "; }

    test::TemporaryFolder folder;
    fs::path volume = folder / "Mac HD";
    fs::path backups = folder / "backups";
    fs::path incoming = folder / "incoming";
};

TEST_F(RescueCommandsTest, KextsListsEveryKextWithItsPlugIns) {
    const auto plain = quelmctl("kexts" + onVolume());
    EXPECT_EQ(plain.status, 0);
    EXPECT_TRUE(plain.output.contains("\n  IOKit.kext (com.apple.kpi.iokit 17.7.0) in "
                                      "/System/Library/Extensions/System.kext/Contents/PlugIns/: "))
        << plain.output;

    const auto json = quelmctl("kexts --json" + onVolume());
    EXPECT_EQ(json.status, 0);
    for (const auto* text :
         {"\"name\": \"Lilu.kext\"", "\"cpuTypes\": [\"x86_64\"]", "\"apple\": true",
          "\"plugIns\": [{\"name\": \"IOKit.kext\"", "\"codeSignature\": true"})
        EXPECT_TRUE(json.output.contains(text)) << text;
    EXPECT_EQ(quelmctl("kexts --volume " + shellQuote(folder.path().string())).status, 2);
}

TEST_F(RescueCommandsTest, CheckKextSaysWhatFailsInPlainSentences) {
    const auto good = test::makeKextBundle(
        incoming, "Good.kext",
        test::kextInfo("com.example.Good", "1.0", "Good", {{"as.vit9696.Lilu", "1.2"}}),
        test::thinMachO(test::kX86_64));
    const auto arm = test::makeKextBundle(
        incoming, "Arm.kext",
        test::kextInfo("com.example.Arm", "1.0", "Arm", {{"com.example.Missing", "1.0"}}),
        test::fatMachO({{test::kArm64, test::thinMachO(test::kArm64)}}));
    auto result = quelmctl("check-kext" + onVolume() + shellQuote(good.string()));
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(result.output, "ok " + good.string() + "\n");

    result = quelmctl("check-kext" + onVolume() + shellQuote(good.string()) + " " +
                      shellQuote(arm.string()));
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(
        result.output.contains("Arm.kext's executable Arm has no 64-bit Intel (x86_64) code, "
                               "only arm64.\nArm.kext needs com.example.Missing, which is not "
                               "on the volume.\n"))
        << result.output;
    EXPECT_EQ(quelmctl("check-kext --volume /nowhere " + shellQuote(good.string())).status, 2);
}

TEST_F(RescueCommandsTest, InstallRefusesAKextThatCannotLoadUnlessForced) {
    if (!test::runningAsRoot())
        GTEST_SKIP() << "installed kexts belong to root";
    const auto arm =
        test::makeKextBundle(incoming, "Arm.kext", test::kextInfo("com.example.Arm", "1.0", "Arm"),
                             test::fatMachO({{test::kArm64, test::thinMachO(test::kArm64)}}));
    const std::string install = "install --folder library" + onVolume() + shellQuote(arm.string());
    auto result = quelmctl(install);
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.output.contains("refused Arm.kext: it would not load; add --force"))
        << result.output;
    EXPECT_FALSE(fs::exists(volume / "Library/Extensions/Arm.kext"));
    result = quelmctl(install + " --json");
    EXPECT_EQ(result.output,
              "{\"checkFailures\": [\"Arm.kext's executable Arm has no 64-bit Intel (x86_64) "
              "code, only arm64.\"], \"refused\": [\"Arm.kext\"]}\n");
    result = quelmctl(install + " --force");
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_TRUE(fs::exists(volume / "Library/Extensions/Arm.kext"));
}

TEST_F(RescueCommandsTest, RealKextsPassOnAVolumeLaidOutAsAppleShipsIt) {
    // Their listing is the catalog's test; their installation the jobs' test and the lanes'.
    const auto catalina = folder / "Catalina";
    test::makeCatalinaVolume(catalina);
    const auto check = [&](const std::vector<std::string>& names) {
        std::string line = "check-kext --volume " + shellQuote(catalina.string());
        for (const auto& name : names)
            line += " " + shellQuote((test::realKextsFolder() / name).string());
        return quelmctl(line);
    };
    const auto alone = check({"VirtualSMC.kext"});
    EXPECT_EQ(alone.status, 1);
    EXPECT_EQ(alone.output, "VirtualSMC.kext needs as.vit9696.Lilu, which is not on the volume.\n");
    const auto all = check({"Lilu.kext", "VirtualSMC.kext", "SMCProcessor.kext"});
    EXPECT_EQ(all.status, 0) << all.output;
}

TEST_F(RescueCommandsTest, RemoveAndRestoreRefuseWhatTheyMustNotTake) {
    // The round trip itself is the jobs' test and the file-system lane's.
    if (!test::runningAsRoot())
        GTEST_SKIP() << "restored kexts belong to root";
    fs::last_write_time(volume / "Library/Extensions",
                        fs::file_time_type::clock::now() - std::chrono::hours(24));
    auto result = quelmctl("remove" + onVolume() + backupTo() + "lilu");
    ASSERT_EQ(result.status, 0) << result.output;
    EXPECT_TRUE(result.output.starts_with("removed /Library/Extensions/Lilu.kext\nbackup: "))
        << result.output;
    EXPECT_GT(fs::last_write_time(volume / "Library/Extensions"),
              fs::file_time_type::clock::now() - std::chrono::hours(1))
        << "the caches are marked stale";

    result = quelmctl("remove" + onVolume() + backupTo() + "System.kext Nothing.kext");
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(result.output.contains("is Apple's (com.apple.kernel)")) << result.output;
    EXPECT_TRUE(result.output.contains("Nothing.kext is not installed")) << result.output;
    EXPECT_TRUE(fs::exists(volume / "System/Library/Extensions/System.kext"));

    // Onto another volume only when asked for by name.
    const auto other = folder / "Other HD";
    test::makeVolume(other, "10.15.7", "19H2");
    const auto backup = fs::directory_iterator(backups)->path();
    result = quelmctl("restore --volume " + shellQuote(other.string()) + backupTo() +
                      shellQuote(backup.string()));
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(result.output.contains("holds kexts of " + volume.string() + ", not of " +
                                       other.string() + "; add --onto-other-volume"))
        << result.output;
    EXPECT_FALSE(fs::exists(other / "Library/Extensions/Lilu.kext"));
}

TEST_F(RescueCommandsTest, RemovalSetsTheAuxiliaryCollectionAsideOnlyWhereMacOSHasOne) {
    if (!test::runningAsRoot())
        GTEST_SKIP() << "removing kexts takes root";
    const auto system = folder / "Sonoma HD";
    const auto data = folder / "Sonoma HD - Data";
    test::makeVolumeGroup(system, data, "14.6.1", "23G93");
    test::makeKextBundle(data / "Library/Extensions", "Lilu.kext",
                         test::kextInfo("as.vit9696.Lilu", "1.6.8"));
    const auto collection = data / "Library/KernelCollections/AuxiliaryKernelExtensions.kc";
    test::writeText(collection, "collection");
    const auto group =
        " --volume " + shellQuote(system.string()) + " --data-volume " + shellQuote(data.string());

    const auto removed = quelmctl("remove --set-aside-collection Lilu" + group + backupTo());
    EXPECT_EQ(removed.status, 0) << removed.output;
    EXPECT_TRUE(
        removed.output.contains("removed /Library/KernelCollections/AuxiliaryKernelExtensions.kc"))
        << removed.output;
    EXPECT_FALSE(fs::exists(collection));
    const auto backup = fs::directory_iterator(backups)->path();
    const auto restored = quelmctl("restore " + shellQuote(backup.string()));
    EXPECT_EQ(restored.status, 0) << "the manifest names both volumes";
    EXPECT_TRUE(restored.output.contains("auxiliary kernel collection")) << restored.output;
    EXPECT_EQ(test::readText(collection), "collection");
    EXPECT_TRUE(fs::exists(data / "Library/Extensions/Lilu.kext"));

    const auto refused = quelmctl("remove --set-aside-collection Lilu" + onVolume() + backupTo());
    EXPECT_EQ(refused.status, 2);
    EXPECT_TRUE(refused.output.contains("only macOS 11 and later")) << refused.output;
    EXPECT_TRUE(fs::exists(volume / "Library/Extensions/Lilu.kext"));
}

TEST_F(RescueCommandsTest, DryRunsChangeNothing) {
    const auto kext =
        test::makeKextBundle(incoming, "New.kext", test::kextInfo("com.example.New", "1.0", "New"),
                             test::thinMachO(test::kX86_64));
    test::writeReceipt(volume, "com.apple.pkg.Base.plist", "com.apple.pkg.Base",
                       {test::kRepairGroup}, {{".", 040755, 0, 0}, {"./Library", 040755, 0, 0}});
    fs::permissions(volume / "Library", fs::perms(0700));
    fs::create_directories(backups);
    const auto listing = [&] {
        return test::treeListing(volume) + test::treeListing(backups);
    };
    // Each dry run with what it says it would do.
    const auto dryRuns = [&](const std::vector<std::pair<std::string, std::string>>& runs) {
        const auto before = listing();
        for (const auto& [arguments, says] : runs) {
            const auto result = quelmctl(arguments);
            EXPECT_NE(result.status, 2) << arguments << "\n" << result.output;
            EXPECT_TRUE(result.output.contains(says)) << arguments << "\n" << result.output;
            EXPECT_EQ(listing(), before) << arguments;
        }
    };
    dryRuns({{"install --dry-run --folder library" + onVolume() + shellQuote(kext.string()),
              "would install New.kext into /Library/Extensions/"},
             {"remove --dry-run" + onVolume() + backupTo() + "Lilu",
              "would-remove /Library/Extensions/Lilu.kext"},
             {"repair-permissions --dry-run" + onVolume(), "1 mismatched"}});
    if (!test::runningAsRoot())
        return;
    ASSERT_EQ(quelmctl("remove" + onVolume() + backupTo() + "Lilu").status, 0);
    const auto backup = shellQuote(fs::directory_iterator(backups)->path().string());
    dryRuns({{"restore --dry-run " + backup, "would-restore /Library/Extensions/Lilu.kext"},
             {"undo --dry-run" + onVolume(), "would-restore /Library/Extensions/Lilu.kext"}});
}

} // namespace
} // namespace quelm
