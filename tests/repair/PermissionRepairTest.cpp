// The repair job over a whole volume: receipts, BOMs, verify, repair and progress.
#include "repair/PermissionRepair.h"

#include "TestSupport.h"
#include "repair/PosixChecksum.h"
#include "repair/Processor.h"

#include <algorithm>
#include <deque>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <sched.h>
#include <set>
#include <sstream>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quelm {
namespace {

using test::TemporaryFolder;
using Type = Mismatch;
using Status = AttributeStatus;

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
        ::alarm(600); // an open that blocks ends the child, not the test run
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

    void createOnDisk(const std::vector<BomEntry>& entries) {
        for (const auto& entry : entries) {
            const auto path = volume / entry.path;
            if (S_ISDIR(entry.mode))
                std::filesystem::create_directories(path);
            else
                test::writeText(path, "x");
            ::chmod(path.c_str(), entry.mode & 07777);
        }
    }

    PermissionRepair job(RepairMode type) const {
        return PermissionRepair(*Volume::initWithMountPoint(volume.string()), type);
    }

    std::vector<std::string> pathsOf(const std::vector<RepairResult>& results) const {
        std::vector<std::string> paths;
        for (const auto& result : results)
            paths.push_back(result.fileSystemResourcePath().substr(volume.string().size()));
        std::ranges::sort(paths);
        return paths;
    }

    TemporaryFolder folder;
    std::filesystem::path volume = folder / "Système Mac HD";
    std::vector<BomEntry> base, essentials;
};

TEST_F(RepairVolumeTest, VerifyFindsDifferencesAndRepairMendsThem) {
    ::chmod((volume / "bin").c_str(), 0775);
    ::chmod((volume / "usr/bin/login").c_str(), 0755);
    ::chmod((volume / "private/tmp").c_str(), 0777);

    auto verify = job(RepairMode::verifyPermissions);
    verify.run();
    EXPECT_EQ(pathsOf(verify.results()),
              (std::vector<std::string>{"/bin", "/private/tmp", "/usr/bin/login"}));
    EXPECT_EQ(verify.checkedPathCount(), 8);
    EXPECT_EQ(verify.progress(), 100);

    auto repair = job(RepairMode::repairPermissions);
    repair.run();
    EXPECT_EQ(repair.results().size(), 3u);
    for (const auto& result : repair.results())
        EXPECT_EQ(result.attributeStatus(), AttributeStatus::fixed);
    EXPECT_EQ(permissionsOf(volume / "usr/bin/login"), 04755u);
    EXPECT_EQ(permissionsOf(volume / "private/tmp"), 01777u);
    EXPECT_EQ(permissionsOf(volume / "opt/thing"), 0600u) << "other groups' receipts are ignored";

    auto again = job(RepairMode::verifyPermissions);
    again.run();
    EXPECT_TRUE(again.results().empty());
}

TEST_F(RepairVolumeTest, ThreadCountDoesNotChangeTheOutcome) {
    ::chmod((volume / "bin/ls").c_str(), 0700);
    ::chmod((volume / "usr").c_str(), 0700);
    const auto saved = Processor::shared().maxthread();
    for (const std::int64_t threads : {1, 3, 16}) {
        Processor::shared().setMaxthread(threads);
        auto verify = job(RepairMode::verifyPermissions);
        verify.run();
        EXPECT_EQ(pathsOf(verify.results()), (std::vector<std::string>{"/bin/ls", "/usr"}))
            << threads << " threads";
    }
    Processor::shared().setMaxthread(saved);
}

TEST_F(RepairVolumeTest, LinksOutOfTheVolumeAreNeverFollowed) {
    TemporaryFolder outside;
    test::writeText(outside / "secret", "x");
    ::chmod((outside / "secret").c_str(), 0600);
    std::filesystem::remove_all(volume / "usr/bin");
    std::filesystem::create_directory_symlink(outside.path(), volume / "usr/bin");

    auto repair = job(RepairMode::repairPermissions);
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
    // A receipt that cannot be read may be a standard one: its BOM goes unread too.
    test::writeText(damaged / "#0 garbled.plist", "<?xml version=\"1.0\"?><plist><dict>");
    test::writeText(damaged / "#0 garbled.bom", "");
    ::chmod((volume / "bin").c_str(), 0775);

    std::vector<std::string> unread{"#0 garbled"};
    unread.insert(unread.end(), names.begin(), names.end());
    for (const auto type : {RepairMode::verifyPermissions, RepairMode::repairPermissions}) {
        auto run = job(type);
        run.run();
        EXPECT_EQ(run.checkedPathCount(), 8) << "no damaged BOM is read";
        ASSERT_EQ(run.results().size(), unread.size() + 1);
        for (std::size_t i = 0; i < unread.size(); ++i) {
            const auto& result = run.results()[i];
            EXPECT_EQ(result.fileSystemResourcePath(), (damaged / (unread[i] + ".bom")).string());
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
        auto repair = job(RepairMode::repairPermissions);
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

    job(RepairMode::repairPermissions).run();
    EXPECT_EQ(permissionsOf(volume / "bin/ls"), 0755u) << "with /proc it is set by name";
}

/// A receipt whose files carry the sizes and checksums of their bytes as installed; then one
/// file is changed in place and one grows.
class ContentVolumeTest : public testing::Test {
protected:
    void SetUp() override {
        test::makeVolume(volume, "10.12.6", "16G29");
        const std::uint32_t uid = ::getuid(), gid = ::getgid();
        std::string big(3 << 20, '\0');
        for (std::size_t i = 0; i < big.size(); ++i)
            big[i] = static_cast<char>((i * 2654435761u) >> 13);
        entries = {{".", 040755, uid, gid},
                   {"./Library", 040755, uid, gid},
                   {"./Library/Kernels", 040755, uid, gid},
                   {"./Library/link", 0120755, uid, gid, 4, 0, "none"}};
        for (const auto& [path, bytes] : files(big)) {
            test::writeText(volume / path, bytes);
            ::chmod((volume / path).c_str(), 0644);
            entries.emplace_back(path, 0100644, uid, gid, static_cast<std::uint32_t>(bytes.size()),
                                 posixChecksum(bytes));
        }
        std::filesystem::create_symlink("none", volume / "Library/link");
        test::writeReceipt(volume, "com.apple.pkg.Content.plist", "com.apple.pkg.Content",
                           {test::kRepairGroup}, entries);
        test::writeText(volume / "Library/altered.plist", "<plist>1</plist>\n");
        test::writeText(volume / "Library/grown.plist", "<plist/>\n\n");
    }

    static std::vector<std::pair<std::string_view, std::string_view>> files(std::string_view big) {
        return {{"./Library/Kernels/kernel", big},
                {"./Library/intact.plist", "<plist/>\n"},
                {"./Library/altered.plist", "<plist>0</plist>\n"},
                {"./Library/grown.plist", "<plist/>\n"},
                {"./Library/empty", ""}};
    }

    PermissionRepair job(RepairMode type, bool content) const {
        PermissionRepair made(*Volume::initWithMountPoint(volume.string()), type);
        made.setChecksContent(content);
        return made;
    }

    TemporaryFolder folder;
    std::filesystem::path volume = folder / "Macintosh HD";
    std::vector<BomEntry> entries;
};

TEST_F(ContentVolumeTest, SizeAndChecksumDifferencesAreFoundAndNeverRepaired) {
    auto plain = job(RepairMode::verifyPermissions, false);
    plain.run();
    EXPECT_TRUE(plain.results().empty()) << "content is only checked when asked";

    const auto altered = posixChecksum("<plist>1</plist>\n");
    for (const auto type : {RepairMode::verifyPermissions, RepairMode::repairPermissions}) {
        auto run = job(type, true);
        run.run();
        auto results = run.results();
        ASSERT_EQ(results.size(), 2u);
        std::ranges::sort(results, {}, &RepairResult::fileSystemResourcePath);
        const auto expected =
            type == RepairMode::verifyPermissions ? Status::verified : Status::failed;
        EXPECT_EQ(results[0].fileSystemResourcePath(), (volume / "Library/altered.plist").string());
        EXPECT_EQ(results[0].attributeMismatchedType(), Type::checksumMismatched);
        EXPECT_EQ(results[0].currentAttribute(), altered);
        EXPECT_EQ(results[0].correctAttribute(), entries[6].checksum);
        EXPECT_EQ(results[0].attributeStatus(), expected);
        EXPECT_FALSE(results[0].newAttribute());
        EXPECT_EQ(results[1].fileSystemResourcePath(), (volume / "Library/grown.plist").string());
        EXPECT_EQ(results[1].attributeMismatchedType(), Type::sizeMismatched);
        EXPECT_EQ(results[1].currentAttribute(), 10);
        EXPECT_EQ(results[1].correctAttribute(), 9);
        EXPECT_EQ(results[1].attributeStatus(), expected);
    }
    EXPECT_EQ(test::readText(volume / "Library/altered.plist"), "<plist>1</plist>\n");
}

/// The results of a job run in a child process left with exactly spare free descriptors (its
/// limit, soft and hard, just above them), as lines "TYPE<TAB>PATH", and what the child logged.
struct ChildOutcome {
    std::set<std::string> results;
    std::set<std::string> failedPaths;
    std::string log;
};

/// Limits the process to its highest open descriptor plus spare, and takes every free number
/// below that descriptor, so that spare free numbers remain whatever the process inherited.
bool leaveSpareDescriptors(int reference, rlim_t spare) {
    int highest = 0;
    for (int fd = 0; fd < 1024; ++fd)
        highest = ::fcntl(fd, F_GETFD) != -1 ? fd : highest;
    const rlimit small{highest + 1 + spare, highest + 1 + spare};
    if (::setrlimit(RLIMIT_NOFILE, &small) != 0)
        return false;
    for (int fd = ::fcntl(reference, F_DUPFD, 0); fd >= 0; fd = ::fcntl(reference, F_DUPFD, 0))
        if (fd > highest)
            return ::close(fd) == 0;
    return spare == 0;
}

ChildOutcome runUnderDescriptorLimit(rlim_t spare, const std::filesystem::path& volume,
                                     RepairMode type, const TemporaryFolder& out) {
    const auto resultsFile = out / "results", logFile = out / "log";
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(600); // a hang ends the child, not the test run
        const int results = ::open(resultsFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int log = ::open(logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(log, STDERR_FILENO);
        ::close(log);
        // The job's own opens are under test, not the reading of the volume's version or of
        // the processor count.
        auto target = Volume::initWithMountPoint(volume.string());
        Processor::shared().setMaxthread(512);
        if (!target || !leaveSpareDescriptors(results, spare))
            ::_exit(3);
        PermissionRepair job(std::move(*target), type);
        job.run();
        std::string text;
        for (const auto& result : job.results())
            text += std::string(displayText(result.attributeMismatchedType())) + "\t" +
                    std::string(displayText(result.attributeStatus())) + "\t" +
                    result.fileSystemResourcePath().substr(volume.string().size()) + "\n";
        const bool written =
            ::write(results, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        ::_exit(written ? 0 : 4);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    ChildOutcome outcome;
    std::istringstream lines(test::readText(resultsFile));
    for (std::string line; std::getline(lines, line);) {
        const auto first = line.find('\t'), second = line.find('\t', first + 1);
        const auto kind = line.substr(0, first), path = line.substr(second + 1);
        outcome.results.insert(kind + "\t" + path);
        if (line.substr(first + 1, second - first - 1) == "Failed")
            outcome.failedPaths.insert(path);
    }
    outcome.log = test::readText(logFile);
    return outcome;
}

TEST(RepairDescriptorLimitTest, FewDescriptorsGiveRightCountsOrFailuresNeverMissingPaths) {
    TemporaryFolder folder;
    const auto volume = folder / "volume";
    test::makeVolume(volume, "10.12.6", "16G29");
    const std::uint32_t uid = ::getuid(), gid = ::getgid();
    std::vector<BomEntry> entries{{".", 040755, uid, gid}};
    std::deque<std::string> paths;
    std::string folderPath = ".";
    std::set<std::string> expected;
    for (int depth = 0; depth < 10; ++depth) {
        const std::string& path =
            paths.emplace_back(folderPath += "/level" + std::to_string(depth));
        entries.emplace_back(path, 040755, uid, gid);
        std::filesystem::create_directory(volume / path);
        for (int i = 0; i < 4; ++i) {
            const std::string& file = paths.emplace_back(path + "/file" + std::to_string(i));
            entries.emplace_back(file, 0100644, uid, gid);
            test::writeText(volume / file, "x");
            ::chmod((volume / file).c_str(), i == 0 ? 0600 : 0644);
            if (i == 0)
                expected.insert("POSIX Permissions Mismatched\t" + file.substr(1));
        }
    }
    // Nested receipt folders take descriptors too: the receipts must not vanish either.
    test::writeReceipt(volume, "A/B/C/D/com.apple.pkg.Deep.plist", "com.apple.pkg.Deep",
                       {test::kRepairGroup}, entries);
    TemporaryFolder out;
    for (const rlim_t spare : {40u, 24u, 12u, 8u, 5u, 3u}) {
        const auto verify =
            runUnderDescriptorLimit(spare, volume, RepairMode::verifyPermissions, out);
        if (spare >= 24) {
            EXPECT_EQ(verify.results, expected) << "with " << spare << " spare descriptors";
            continue;
        }
        // Every mismatch is reported, or the path or the receipt is reported as failed, and
        // every path that failed is logged.
        const bool bomFailed = std::ranges::any_of(verify.results, [](const std::string& line) {
            return line.starts_with("Bill of Materials Unreadable");
        });
        for (const auto& mismatch : expected) {
            const auto mismatchPath = mismatch.substr(mismatch.find('\t') + 1);
            EXPECT_TRUE(verify.results.contains(mismatch) || bomFailed ||
                        verify.failedPaths.contains(mismatchPath))
                << mismatch << " with " << spare << " spare descriptors";
        }
        for (const auto& failed : verify.failedPaths) {
            const bool receipts = failed.starts_with("/System/Library/Receipts/");
            const auto logged =
                std::string(receipts ? "QVPackageManager::Error: Unable to read "
                                     : "QVFile::Error: Unable to get attributes of ") +
                volume.string() + failed;
            EXPECT_NE(verify.log.find(logged), std::string::npos) << failed;
        }
    }

    const auto repair = runUnderDescriptorLimit(24, volume, RepairMode::repairPermissions, out);
    EXPECT_EQ(repair.results, expected);
    EXPECT_TRUE(repair.failedPaths.empty());
    const auto again = runUnderDescriptorLimit(24, volume, RepairMode::verifyPermissions, out);
    EXPECT_TRUE(again.results.empty());
}

/// A job whose clock moves a second per reading, so that every progress change is posted.
std::vector<double> postedProgress(const std::filesystem::path& volume, std::int64_t threads) {
    std::uint64_t now = 0;
    PermissionRepair job(*Volume::initWithMountPoint(volume.string()),
                         RepairMode::verifyPermissions, [&] { return now += 1'000'000'000; });
    std::vector<double> posted;
    auto& center = NotificationCenter::defaultCenter();
    const auto token = center.addObserver(kRepairPermissionsProgressDidChange,
                                          [&](const double& value) { posted.push_back(value); });
    const auto saved = Processor::shared().maxthread();
    Processor::shared().setMaxthread(threads);
    job.run();
    Processor::shared().setMaxthread(saved);
    center.removeObserver(token);
    return posted;
}

TEST(RepairProgressTest, EveryPhaseHasItsSpanAndSetUpEndsAtItsTotal) {
    TemporaryFolder volume;
    test::makeVolume(volume.path(), "10.12.6", "16G29");
    const std::uint32_t uid = ::getuid(), gid = ::getgid();
    // The root and the missing path are no resources: the total drops from 5 to 3.
    test::writeReceipt(volume.path(), "com.apple.pkg.P.plist", "com.apple.pkg.P",
                       {test::kRepairGroup},
                       {{".", 040755, uid, gid},
                        {"./a", 040755, uid, gid},
                        {"./a/x", 0100644, uid, gid},
                        {"./missing", 0100644, uid, gid},
                        {"./a/y", 0100644, uid, gid}});
    test::writeText(volume / "a/x", "x");
    test::writeText(volume / "a/y", "y");
    ::chmod((volume / "a").c_str(), 0755);
    ::chmod((volume / "a/x").c_str(), 0644);
    ::chmod((volume / "a/y").c_str(), 0600);
    // Set-up: 10, one step per resource up to 40 (1/4, then 2/3 and 3/3 once the missing path
    // lowered the total), 40; verify 40 to 90 by thirds; collecting 90 to 100; 100.
    EXPECT_EQ(postedProgress(volume.path(), 1),
              (std::vector<double>{10, 17.5, 30, 40, 40, 56.67, 73.33, 90, 100, 100}));

    // With more work items the steps of set-up come in any order, and the last of them may
    // coincide with the start of verify; set-up still ends at 40, never beyond.
    for (const std::int64_t threads : {2, 3, 8}) {
        const auto posted = postedProgress(volume.path(), threads);
        const auto forty = std::ranges::find(posted, 40.0);
        ASSERT_NE(forty, posted.end()) << threads << " work items";
        EXPECT_TRUE(std::all_of(posted.begin() + 1, forty,
                                [](double value) { return value > 10 && value < 40; }))
            << threads << " work items";
        const auto verify = std::find_if(forty, posted.end(), [](double v) { return v != 40; });
        EXPECT_EQ(std::vector<double>(verify, posted.end()),
                  (std::vector<double>{56.67, 73.33, 90, 100, 100}))
            << threads << " work items";
    }
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
    PermissionRepair job(*Volume::initWithMountPoint(volume.path().string()),
                         RepairMode::verifyPermissions, [&] { return now; });
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
    EXPECT_EQ(posted, (std::vector<double>{10, 30}));
    EXPECT_EQ(job.progress(), 40);
    // A volume without receipts ends at once, empty.
    now += 500'000'000;
    job.run();
    center.removeObserver(token);
    EXPECT_TRUE(job.results().empty());
    EXPECT_EQ(job.progress(), 100);
}

} // namespace
} // namespace quelm
