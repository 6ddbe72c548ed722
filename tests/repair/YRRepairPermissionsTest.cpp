// The repair job over a whole volume: receipts, BOMs, verify, repair and progress.
#include "repair/YRRepairPermissions.h"

#include "TestSupport.h"
#include "repair/QVCPU.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quelm {
namespace {

using test::TemporaryFolder;
using Type = QVFileSystemResourceAttributeMismatchedType;
using Status = QVFileSystemResourceAttributeStatus;

struct stat lstatOf(const std::filesystem::path& path) {
    struct stat info {};
    ::lstat(path.c_str(), &info);
    return info;
}

mode_t permissionsOf(const std::filesystem::path& path) {
    return lstatOf(path).st_mode & 07777;
}

/// The exit status of work run in a child process whose /proc is an empty file system, as in
/// a rescue system; nothing when this system does not let the child hide /proc.
std::optional<int> exitStatusWithoutProc(const std::function<int()>& work) {
    constexpr int kCannotHide = 77;
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(60); // an open that blocks ends the child, not the test run
        const bool hidden = ::unshare(CLONE_NEWNS) == 0 &&
                            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                            ::mount("none", "/proc", "tmpfs", 0, nullptr) == 0 &&
                            ::access("/proc/self", F_OK) != 0;
        ::_exit(hidden ? work() : kCannotHide);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == kCannotHide)
        return std::nullopt;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// A volume whose name holds a blank and an accent, with two standard receipts (XML at the top,
/// binary in a subfolder, named with a "#"), one receipt of another group, and every listed
/// path present as listed.
class RepairVolumeTest : public testing::Test {
protected:
    void SetUp() override {
        test::makeVolume(volume, "10.12.6", "16G29");
        const std::uint32_t uid = ::getuid(), gid = ::getgid();
        base = {{".", 040755, uid, gid},         {"./bin", 040755, uid, gid},
                {"./bin/ls", 0100755, uid, gid}, {"./bin/notes.txt", 0100644, uid, gid},
                {"./private", 040755, uid, gid}, {"./private/tmp", 041777, uid, gid}};
        essentials = {{".", 040755, uid, gid},
                      {"./usr", 040755, uid, gid},
                      {"./usr/bin", 040755, uid, gid},
                      {"./usr/bin/login", 0104755, uid, gid},
                      {"./usr/bin/missing", 0100755, uid, gid}};
        createOnDisk(base);
        createOnDisk(essentials);
        std::filesystem::remove(volume / "usr/bin/missing");
        test::writeReceipt(volume, "com.apple.pkg.BaseSystem.plist", "com.apple.pkg.BaseSystem",
                           {"com.apple.other", test::kRepairGroup}, base);
        test::writeReceipt(volume, "Essentials/com.apple.pkg.Essentials #2.plist",
                           "com.apple.pkg.Essentials", {test::kRepairGroup}, essentials,
                           PlistFormat::binary);
        test::writeText(volume / "opt/thing", "x");
        ::chmod((volume / "opt/thing").c_str(), 0600);
        test::writeReceipt(volume, "com.example.thing.plist", "com.example.thing",
                           {"com.example.group"},
                           {{".", 040755, uid, gid},
                            {"./opt", 040755, uid, gid},
                            {"./opt/thing", 0100644, uid, gid}});
    }

    void createOnDisk(const std::vector<BomRecord>& records) {
        for (const auto& record : records) {
            const auto path = volume / record.path;
            if ((record.mode & S_IFMT) == S_IFDIR)
                std::filesystem::create_directories(path);
            else
                test::writeText(path, "x");
            ::chmod(path.c_str(), record.mode & 07777);
        }
    }

    YRRepairPermissions job(QVRepairPermissionsJobType type) const {
        return YRRepairPermissions(*QVOSVolume::initWithMountPoint(volume.string()), type);
    }

    std::vector<std::string> pathsOf(const std::vector<QVRepairPermissionsResult>& results) const {
        std::vector<std::string> paths;
        for (const auto& result : results)
            paths.push_back(result.fileSystemResourcePath().substr(volume.string().size()));
        std::ranges::sort(paths);
        return paths;
    }

    TemporaryFolder folder;
    std::filesystem::path volume = folder / "Système Mac HD";
    std::vector<BomRecord> base, essentials;
};

TEST_F(RepairVolumeTest, VerifyFindsDifferencesAndRepairMendsThem) {
    ::chmod((volume / "bin").c_str(), 0775);
    ::chmod((volume / "usr/bin/login").c_str(), 0755);
    ::chmod((volume / "private/tmp").c_str(), 0777);

    auto verify = job(QVRepairPermissionsJobType::verifyPermissions);
    verify.run();
    EXPECT_EQ(pathsOf(verify.results()),
              (std::vector<std::string>{"/bin", "/private/tmp", "/usr/bin/login"}));
    EXPECT_EQ(verify.checkedPathCount(), 8);
    EXPECT_EQ(verify.progress(), 100);

    auto repair = job(QVRepairPermissionsJobType::repairPermissions);
    repair.run();
    EXPECT_EQ(repair.results().size(), 3u);
    for (const auto& result : repair.results())
        EXPECT_EQ(result.attributeStatus(), QVFileSystemResourceAttributeStatus::fixed);
    EXPECT_EQ(permissionsOf(volume / "usr/bin/login"), 04755u);
    EXPECT_EQ(permissionsOf(volume / "private/tmp"), 01777u);
    EXPECT_EQ(permissionsOf(volume / "opt/thing"), 0600u) << "other groups' receipts are ignored";

    auto again = job(QVRepairPermissionsJobType::verifyPermissions);
    again.run();
    EXPECT_TRUE(again.results().empty());
}

TEST_F(RepairVolumeTest, ThreadCountDoesNotChangeTheOutcome) {
    ::chmod((volume / "bin/ls").c_str(), 0700);
    ::chmod((volume / "usr").c_str(), 0700);
    const auto saved = QVCPU::shared().maxthread();
    std::vector<std::vector<std::string>> outcomes;
    for (const std::int64_t threads : {1, 3, 16}) {
        QVCPU::shared().setMaxthread(threads);
        auto verify = job(QVRepairPermissionsJobType::verifyPermissions);
        verify.run();
        outcomes.push_back(pathsOf(verify.results()));
    }
    QVCPU::shared().setMaxthread(saved);
    EXPECT_EQ(outcomes[0], (std::vector<std::string>{"/bin/ls", "/usr"}));
    EXPECT_EQ(outcomes[1], outcomes[0]);
    EXPECT_EQ(outcomes[2], outcomes[0]);
}

TEST_F(RepairVolumeTest, LinksOutOfTheVolumeAreNeverFollowed) {
    TemporaryFolder outside;
    test::writeText(outside / "secret", "x");
    ::chmod((outside / "secret").c_str(), 0600);
    std::filesystem::remove_all(volume / "usr/bin");
    std::filesystem::create_directory_symlink(outside.path(), volume / "usr/bin");

    auto repair = job(QVRepairPermissionsJobType::repairPermissions);
    repair.run();
    EXPECT_EQ(permissionsOf(outside / "secret"), 0600u);
    for (const auto& path : pathsOf(repair.results()))
        EXPECT_FALSE(path.starts_with("/usr/bin/")) << path;
}

TEST_F(RepairVolumeTest, UnreadableBomsAreReportedAndTheRestIsChecked) {
    const auto damaged = volume / "System/Library/Receipts/Damaged";
    const std::vector<std::string> names{"#1 short", "#2 text", "#3 link", "#4 missing"};
    for (const auto& name : names)
        test::writeReceipt(volume, "Damaged/" + name + ".plist", name, {test::kRepairGroup}, base);
    std::filesystem::resize_file(damaged / "#1 short.bom", 100);
    test::writeText(damaged / "#2 text.bom", "not a bill of materials");
    std::filesystem::remove(damaged / "#3 link.bom");
    std::filesystem::create_symlink("../com.apple.pkg.BaseSystem.bom", damaged / "#3 link.bom");
    std::filesystem::remove(damaged / "#4 missing.bom");
    ::chmod((volume / "bin").c_str(), 0775);

    for (const auto type : {QVRepairPermissionsJobType::verifyPermissions,
                            QVRepairPermissionsJobType::repairPermissions}) {
        auto run = job(type);
        run.run();
        EXPECT_EQ(run.checkedPathCount(), 8) << "no damaged BOM is read";
        ASSERT_EQ(run.results().size(), names.size() + 1);
        for (std::size_t i = 0; i < names.size(); ++i) {
            const auto& result = run.results()[i];
            EXPECT_EQ(result.fileSystemResourcePath(), (damaged / (names[i] + ".bom")).string());
            EXPECT_EQ(result.attributeMismatchedType(), Type::billOfMaterialsUnreadable);
            EXPECT_EQ(result.attributeStatus(), Status::failed);
        }
        EXPECT_EQ(run.results().back().fileSystemResourcePath(), (volume / "bin").string());
    }
    EXPECT_EQ(permissionsOf(volume / "bin"), 0755u);
}

TEST_F(RepairVolumeTest, RepairWithoutProcKeepsSetuidAndFollowsNoLink) {
    if (!test::runningAsRoot())
        GTEST_SKIP() << "needs root to change owners and to hide /proc";
    const auto login = volume / "usr/bin/login";
    ASSERT_EQ(::chown(login.c_str(), 501, 80), 0);
    ASSERT_EQ(::chmod(login.c_str(), 04755), 0);
    TemporaryFolder outside;
    test::writeText(outside / "secret", "x");
    ASSERT_EQ(::chown((outside / "secret").c_str(), 501, 80), 0);
    ASSERT_EQ(::chmod((outside / "secret").c_str(), 0600), 0);
    std::filesystem::remove(volume / "bin/notes.txt");
    std::filesystem::create_symlink(outside / "secret", volume / "bin/notes.txt");
    ASSERT_EQ(::lchown((volume / "bin/notes.txt").c_str(), 501, 80), 0);
    std::filesystem::remove(volume / "bin/ls");
    ASSERT_EQ(::mkfifo((volume / "bin/ls").c_str(), 0700), 0);

    const auto failed = exitStatusWithoutProc([&] {
        auto repair = job(QVRepairPermissionsJobType::repairPermissions);
        repair.run();
        return static_cast<int>(std::ranges::count_if(repair.results(), [](const auto& result) {
            return result.attributeStatus() == Status::failed;
        }));
    });
    if (!failed)
        GTEST_SKIP() << "this system does not let a child hide /proc";
    // A FIFO is never opened; without /proc its mode cannot be set by name, and that fails.
    EXPECT_EQ(*failed, 1);
    EXPECT_EQ(permissionsOf(volume / "bin/ls"), 0700u);
    EXPECT_EQ(lstatOf(login).st_uid, 0u);
    EXPECT_EQ(lstatOf(login).st_gid, 0u);
    EXPECT_EQ(permissionsOf(login), 04755u);
    EXPECT_EQ(lstatOf(volume / "bin/notes.txt").st_uid, 0u) << "the link itself gets its owner";
    EXPECT_EQ(lstatOf(outside / "secret").st_uid, 501u);
    EXPECT_EQ(permissionsOf(outside / "secret"), 0600u);

    job(QVRepairPermissionsJobType::repairPermissions).run();
    EXPECT_EQ(permissionsOf(volume / "bin/ls"), 0755u) << "with /proc it is set by name";
}

TEST(RepairJobTest, VolumeWithoutReceiptsEndsEmpty) {
    TemporaryFolder volume;
    test::makeVolume(volume.path(), "10.12.6", "16G29");
    YRRepairPermissions job(*QVOSVolume::initWithMountPoint(volume.path().string()),
                            QVRepairPermissionsJobType::verifyPermissions);
    job.run();
    EXPECT_TRUE(job.results().empty());
    EXPECT_EQ(job.progress(), 100);
}

TEST(RepairProgressTest, FormulaGivesTwoDecimalsPerPhase) {
    EXPECT_DOUBLE_EQ(scaledProgress(3, 12, 30, 10), 17.5);
    EXPECT_DOUBLE_EQ(scaledProgress(3, 12, 50, 40), 52.5);
    EXPECT_DOUBLE_EQ(scaledProgress(1, 3, 30, 10), 20);
    EXPECT_DOUBLE_EQ(scaledProgress(1, 7, 50, 40), 47.14);
    EXPECT_DOUBLE_EQ(scaledProgress(12, 12, 10, 90), 100);
}

TEST(RepairProgressTest, PostsAtMostEveryHalfSecond) {
    TemporaryFolder volume;
    test::makeVolume(volume.path(), "10.12.6", "16G29");
    std::uint64_t now = 10'000'000'000;
    YRRepairPermissions job(*QVOSVolume::initWithMountPoint(volume.path().string()),
                            QVRepairPermissionsJobType::verifyPermissions, [&] { return now; });
    std::vector<double> posted;
    auto& center = NotificationCenter::defaultCenter();
    const auto token = center.addObserver(kRepairPermissionsProgressDidChange,
                                          [&](const double& value) { posted.push_back(value); });
    job.setProgress(10);
    now += 200'000'000;
    job.setProgress(20);
    now += 400'000'000;
    job.setProgress(30);
    now += 500'000'000;
    job.setProgress(40);
    center.removeObserver(token);
    EXPECT_EQ(posted, (std::vector<double>{10, 30}));
    EXPECT_EQ(job.progress(), 40);
}

} // namespace
} // namespace quelm
