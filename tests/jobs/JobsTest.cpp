// The jobs of the core, done in process on a volume with real kexts: what each installs, skips,
// backs up and records, and a removal, a restore and an undo that go back and forth.
#include "KextFixtures.h"
#include "TestSupport.h"
#include "jobs/InstallJob.h"
#include "jobs/RescueJobs.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;

/// Records the plan of a dry run; the questions get the default answers (no folder, no).
class PlanEvents final : public InstallEvents {
public:
    std::vector<std::string> lines;
    void planned(const Kext& kext, const std::string&, bool replaces) override {
        lines.push_back(kext.name() + (replaces ? " replacing" : ""));
    }
};

class JobsTest : public testing::Test {
protected:
    void SetUp() override {
        if (!test::runningAsRoot())
            GTEST_SKIP() << "installed kexts must belong to root";
        test::makeCatalinaVolume(root);
        fs::create_directories(root / "Library/Extensions");
        fs::copy(test::realKextsFolder() / "Lilu.kext", root / "Library/Extensions/Lilu.kext",
                 fs::copy_options::recursive);
        fs::create_directories(backups);
        volume = Volume::initWithMountPoint(root.string());
    }

    InstallRequest request(std::vector<std::string> paths, KextFolder policy) const {
        return {.volume = *volume,
                .paths = std::move(paths),
                .policy = policy,
                .backupRoot = backups,
                .historyFile = history};
    }
    RescueRequest rescue() const { return {*volume, backups, history}; }
    std::string real(std::string_view name) const {
        return (test::realKextsFolder() / name).string();
    }

    test::TemporaryFolder folder;
    fs::path root = folder / "Mac HD";
    fs::path backups = folder / "backups";
    fs::path history = folder / "History.plist";
    std::optional<Volume> volume;
    LocalOperations operations;
    PlanEvents events;
};

TEST_F(JobsTest, InstallBacksUpWhatItReplacesRecordsItAndSaysWhyTheRestWasSkipped) {
    fs::create_directories(folder / "incoming");
    test::writeText(folder / "incoming/notes.txt", "not a kext");
    auto job = request(
        {real("Lilu.kext"), real("VirtualSMC.kext"), (folder / "incoming/notes.txt").string()},
        KextFolder::LibraryExtensions);
    const auto outcome = InstallJob(std::move(job), operations, events).run();

    ASSERT_FALSE(outcome.refusal);
    EXPECT_EQ(outcome.installed, (std::vector<std::string>{"/Library/Extensions/Lilu.kext",
                                                           "/Library/Extensions/VirtualSMC.kext"}));
    ASSERT_EQ(outcome.skipped.size(), 1u);
    EXPECT_EQ(outcome.skipped[0].reason, SkipReason::notAKext);
    // The volume's Lilu went into the one backup, which the history names for undo.
    ASSERT_EQ(outcome.backups.size(), 1u);
    EXPECT_TRUE(fs::exists(fs::path(outcome.backups[0]) / "Lilu.kext/Contents/Info.plist"));
    const auto records = readHistory(history);
    ASSERT_TRUE(records && records->size() == 1u);
    EXPECT_EQ(records->front().backup, outcome.backups[0]);
    struct stat info {};
    ASSERT_EQ(::lstat((root / "Library/Extensions/VirtualSMC.kext").c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, 0u);
}

TEST_F(JobsTest, EveryWayOfNotChoosingAFolderSkipsTheKextAndChangesNothing) {
    const auto before = test::treeListing(root);
    // Asked and cancelled; unknown to the smart table; its library missing and the answer no.
    for (const auto& [kext, policy, reason] :
         {std::tuple{"Lilu.kext", KextFolder::AskMeEveryTime, SkipReason::noFolderChosen},
          std::tuple{"Lilu.kext", KextFolder::UseSmartTable, SkipReason::notInSmartTable},
          std::tuple{"SMCProcessor.kext", KextFolder::LibraryExtensions,
                     SkipReason::failedChecks}}) {
        const auto outcome = InstallJob(request({real(kext)}, policy), operations, events).run();
        EXPECT_EQ(outcome.skipped.at(0).reason, reason) << kext;
    }
    EXPECT_EQ(test::treeListing(root), before);
    EXPECT_FALSE(fs::exists(history));
}

TEST_F(JobsTest, ADryRunSaysWhatItWouldReplaceAndAFailedBackupKeepsTheOldKext) {
    const auto before = test::treeListing(root);
    auto dry = request({real("Lilu.kext")}, KextFolder::LibraryExtensions);
    dry.dryRun = true;
    InstallJob(std::move(dry), operations, events).run();
    EXPECT_EQ(events.lines, std::vector<std::string>{"Lilu.kext replacing"});

    // Backups cannot be made beneath a file: the kext it would replace stays as it is.
    fs::remove_all(backups);
    test::writeText(backups, "a file");
    const auto outcome =
        InstallJob(request({real("Lilu.kext")}, KextFolder::LibraryExtensions), operations, events)
            .run();
    EXPECT_EQ(outcome.skipped.at(0).reason, SkipReason::notBackedUp);
    EXPECT_TRUE(outcome.installed.empty());
    EXPECT_EQ(test::treeListing(root), before);
}

TEST_F(JobsTest, RemoveRestoreAndUndoGoBackAndForthThroughTheHistory) {
    const std::string lilu = "/Library/Extensions/Lilu.kext";
    const auto removed = RemoveJob(rescue(), {lilu}, operations).run();
    ASSERT_TRUE(removed.succeeded()) << (removed.problems.empty() ? "" : removed.problems[0]);
    EXPECT_FALSE(fs::exists(root / "Library/Extensions/Lilu.kext"));

    const auto restored = RestoreJob(rescue(), removed.outcome.backupFolder, operations).run();
    ASSERT_TRUE(restored.succeeded());
    EXPECT_TRUE(fs::exists(root / "Library/Extensions/Lilu.kext/Contents/Info.plist"));

    // Undoing the restore takes the kext off again; undoing that undo is refused.
    UndoJob undo(rescue(), operations);
    EXPECT_EQ(undo.target()->operation, "restore");
    ASSERT_TRUE(undo.run().succeeded());
    EXPECT_FALSE(fs::exists(root / "Library/Extensions/Lilu.kext"));
    const auto records = readHistory(history);
    ASSERT_TRUE(records && records->size() == 3u);
    EXPECT_TRUE((*records)[1].undone);
    EXPECT_EQ(records->back().operation, "undo");

    const auto missing = RestoreJob(rescue(), (folder / "no backup").string(), operations).run();
    EXPECT_TRUE(missing.refusal);
}

} // namespace
} // namespace quelm
