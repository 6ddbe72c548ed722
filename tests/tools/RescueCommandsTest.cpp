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
    EXPECT_NE(plain.output.find("System.kext (com.apple.kernel 17.7.0) in "
                                "/System/Library/Extensions/: no executable; Apple's; no code "
                                "signature; "),
              std::string::npos)
        << plain.output;
    EXPECT_NE(plain.output.find("\n  IOKit.kext (com.apple.kpi.iokit 17.7.0) in "
                                "/System/Library/Extensions/System.kext/Contents/PlugIns/: "),
              std::string::npos)
        << plain.output;
    EXPECT_NE(plain.output.find("Lilu.kext (as.vit9696.Lilu 1.4.5) in /Library/Extensions/: "
                                "x86_64; code signature"),
              std::string::npos)
        << plain.output;

    const auto json = quelmctl("kexts --json" + onVolume());
    EXPECT_EQ(json.status, 0);
    for (const auto* text :
         {"\"name\": \"Lilu.kext\"", "\"cpuTypes\": [\"x86_64\"]", "\"apple\": true",
          "\"plugIns\": [{\"name\": \"IOKit.kext\"", "\"codeSignature\": true"})
        EXPECT_NE(json.output.find(text), std::string::npos) << text;
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
    EXPECT_NE(result.output.find("Arm.kext's executable Arm has no 64-bit Intel (x86_64) code, "
                                 "only arm64.\nArm.kext needs com.example.Missing, which is not "
                                 "on the volume.\n"),
              std::string::npos)
        << result.output;
    result = quelmctl("check-kext --json" + onVolume() + shellQuote(arm.string()));
    EXPECT_NE(result.output.find("\"failures\": [\"Arm.kext's executable"), std::string::npos);
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
    EXPECT_NE(result.output.find("refused Arm.kext: it would not load; add --force"),
              std::string::npos)
        << result.output;
    EXPECT_FALSE(fs::exists(volume / "Library/Extensions/Arm.kext"));
    result = quelmctl(install + " --json");
    EXPECT_EQ(result.output,
              "{\"checkFailures\": [\"Arm.kext's executable Arm has no 64-bit Intel (x86_64) "
              "code, only arm64.\"], \"refused\": [\"Arm.kext\"]}\n");
    result = quelmctl("install --folder library" + onVolume() +
                      shellQuote((folder / "notes.txt").string()));
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("notes.txt is not a kext bundle: its name must end in .kext"),
              std::string::npos)
        << result.output;
    result = quelmctl(install + " --force");
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_TRUE(fs::exists(volume / "Library/Extensions/Arm.kext"));
    EXPECT_NE(quelmctl("history").output.find(" install on " + volume.string() +
                                              ": /Library/Extensions/Arm.kext\n"),
              std::string::npos);
}

TEST_F(RescueCommandsTest, RealKextsPassOnAVolumeLaidOutAsAppleShipsIt) {
    const auto catalina = folder / "Catalina";
    test::makeCatalinaVolume(catalina);
    const std::string on = " --volume " + shellQuote(catalina.string()) + " ";
    const auto real = [](std::string_view name) {
        return " " + shellQuote((test::realKextsFolder() / name).string());
    };
    const auto listing = quelmctl("kexts" + on);
    EXPECT_NE(listing.output.find("IOPCIFamily.kext (com.apple.iokit.IOPCIFamily 2.9) in "
                                  "/System/Library/Extensions/: x86_64; Apple's"),
              std::string::npos)
        << listing.output;
    EXPECT_NE(listing.output.find("\n  BSDKernel.kext (com.apple.kpi.bsd 19.6.0) in "
                                  "/System/Library/Extensions/System.kext/PlugIns/"),
              std::string::npos)
        << listing.output;

    auto result = quelmctl("check-kext" + on + real("VirtualSMC.kext"));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output,
              "VirtualSMC.kext needs as.vit9696.Lilu, which is not on the volume.\n");
    const std::string all = real("Lilu.kext") + real("VirtualSMC.kext") + real("SMCProcessor.kext");
    result = quelmctl("check-kext" + on + all);
    EXPECT_EQ(result.status, 0) << result.output;
    if (!test::runningAsRoot())
        GTEST_SKIP() << "installed kexts belong to root";
    result = quelmctl("install --folder library" + on + backupTo() + all);
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(result.output.find("refused"), std::string::npos) << result.output;
    for (const auto* name : {"Lilu.kext", "VirtualSMC.kext", "SMCProcessor.kext"})
        EXPECT_TRUE(fs::exists(catalina / "Library/Extensions" / name / "Contents/Info.plist"))
            << name;
}

TEST_F(RescueCommandsTest, RemoveRestoreAndUndoGoBackAndForth) {
    if (!test::runningAsRoot())
        GTEST_SKIP() << "restored kexts belong to root";
    const auto lilu = volume / "Library/Extensions/Lilu.kext";
    fs::last_write_time(volume / "Library/Extensions",
                        fs::file_time_type::clock::now() - std::chrono::hours(24));
    auto result = quelmctl("remove" + onVolume() + backupTo() + "lilu");
    ASSERT_EQ(result.status, 0) << result.output;
    EXPECT_TRUE(result.output.starts_with(
        "removed /Library/Extensions/Lilu.kext\nbackup: " + backups.string() + "/"))
        << result.output;
    EXPECT_NE(result.output.find("start the Mac once in safe mode"), std::string::npos);
    EXPECT_FALSE(fs::exists(lilu));
    EXPECT_GT(fs::last_write_time(volume / "Library/Extensions"),
              fs::file_time_type::clock::now() - std::chrono::hours(1))
        << "the caches are marked stale";
    const auto backup = fs::directory_iterator(backups)->path();
    EXPECT_TRUE(fs::exists(backup / "Manifest.plist"));

    result = quelmctl("remove" + onVolume() + backupTo() + "System.kext Nothing.kext");
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.output.find("is Apple's (com.apple.kernel)"), std::string::npos);
    EXPECT_NE(result.output.find("Nothing.kext is not installed"), std::string::npos);
    EXPECT_TRUE(fs::exists(volume / "System/Library/Extensions/System.kext"));

    // Onto another volume only when asked for by name.
    const auto other = folder / "Other HD";
    test::makeVolume(other, "10.15.7", "19H2");
    const std::string onOther = " --volume " + shellQuote(other.string()) + " ";
    result = quelmctl("restore" + onOther + backupTo() + shellQuote(backup.string()));
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.output.find("holds kexts of " + volume.string() + ", not of " +
                                 other.string() + "; add --onto-other-volume"),
              std::string::npos)
        << result.output;
    EXPECT_FALSE(fs::exists(other / "Library/Extensions/Lilu.kext"));

    result = quelmctl("restore" + backupTo() + shellQuote(backup.string()));
    ASSERT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(result.output, "restored /Library/Extensions/Lilu.kext\n");
    result = quelmctl("undo --json" + onVolume() + backupTo());
    EXPECT_TRUE(result.output.starts_with(
        "{\"undone\": [\"/Library/Extensions/Lilu.kext\"], \"failed\": [], \"backup\": "))
        << result.output;
    EXPECT_NE(quelmctl("history --json" + onVolume()).output.find("\"undone\": true"),
              std::string::npos);
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
    EXPECT_NE(
        removed.output.find("removed /Library/KernelCollections/AuxiliaryKernelExtensions.kc"),
        std::string::npos)
        << removed.output;
    EXPECT_FALSE(fs::exists(collection));
    const auto backup = removed.output.find("backup: ");
    ASSERT_NE(backup, std::string::npos) << removed.output;
    const auto folderOfBackup =
        removed.output.substr(backup + 8, removed.output.find('\n', backup) - backup - 8);
    const auto restored = quelmctl("restore " + shellQuote(folderOfBackup));
    EXPECT_EQ(restored.status, 0) << "the manifest names both volumes";
    EXPECT_NE(restored.output.find("auxiliary kernel collection"), std::string::npos)
        << restored.output;
    EXPECT_EQ(test::readText(collection), "collection");
    EXPECT_TRUE(fs::exists(data / "Library/Extensions/Lilu.kext"));

    const auto refused = quelmctl("remove --set-aside-collection Lilu" + onVolume() + backupTo());
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.output.find("only macOS 11 and later"), std::string::npos) << refused.output;
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
    const auto before = listing();
    const std::vector<std::string> dryRuns{"install --dry-run --folder library" + onVolume() +
                                               shellQuote(kext.string()),
                                           "remove --dry-run" + onVolume() + backupTo() + "Lilu",
                                           "repair-permissions --dry-run" + onVolume()};
    for (const auto& arguments : dryRuns) {
        const auto result = quelmctl(arguments);
        EXPECT_NE(result.status, 2) << arguments << "\n" << result.output;
        EXPECT_EQ(listing(), before) << arguments;
    }
    EXPECT_NE(quelmctl(dryRuns[0]).output.find("would install New.kext into /Library/Extensions/"),
              std::string::npos);
    EXPECT_NE(quelmctl(dryRuns[1]).output.find("would-remove /Library/Extensions/Lilu.kext"),
              std::string::npos);
    EXPECT_NE(quelmctl(dryRuns[2]).output.find("1 mismatched"), std::string::npos);
    if (!test::runningAsRoot())
        return;
    ASSERT_EQ(quelmctl("remove" + onVolume() + backupTo() + "Lilu").status, 0);
    const auto backup = fs::directory_iterator(backups)->path();
    const auto afterRemove = listing();
    auto result = quelmctl("restore --dry-run " + shellQuote(backup.string()));
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_NE(result.output.find("would-restore /Library/Extensions/Lilu.kext"), std::string::npos);
    result = quelmctl("undo --dry-run" + onVolume());
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_NE(result.output.find("would-restore /Library/Extensions/Lilu.kext"), std::string::npos);
    EXPECT_EQ(listing(), afterRemove);
}

TEST_F(RescueCommandsTest, EveryRescueCommandHasHelp) {
    for (const auto* command : {"kexts", "check-kext", "remove", "restore", "history", "undo"}) {
        const auto result = quelmctl(std::string(command) + " --help");
        EXPECT_EQ(result.status, 0) << command;
        EXPECT_NE(result.output.find("Exit status"), std::string::npos) << command;
    }
}

} // namespace
} // namespace quelm
