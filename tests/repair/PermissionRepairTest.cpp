// The repair job over a whole volume: receipts, BOMs, verify, repair and progress; the file
// resources it checks, never off the volume, never through a link.
#include "repair/PermissionRepair.h"

#include "TestSupport.h"
#include "repair/FileResource.h"
#include "repair/PosixChecksum.h"
#include "repair/Processor.h"

#include <algorithm>
#include <deque>
#include <gtest/gtest.h>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;
using test::TemporaryFolder;
constexpr auto verify = RepairMode::verifyPermissions;
constexpr auto repair = RepairMode::repairPermissions;

/// Owner, group and permissions of what is at path itself, never of a link's target.
std::string statOf(const fs::path& path) {
    struct stat info {};
    ::lstat(path.c_str(), &info);
    return std::to_string(info.st_uid) + ":" + std::to_string(info.st_gid) + " " +
           std::to_string(permissionsFromMode(info.st_mode));
}

/// Entries owned by this process from "PATH MODE" pairs, the mode in octal with its type bits; a
/// file's size and checksum are those of the text create writes. Their paths live as long as the
/// test program.
std::vector<BomEntry> owned(std::string_view pairs) {
    static std::deque<std::string> paths;
    std::vector<BomEntry> entries;
    std::istringstream in{std::string(pairs)};
    for (std::string path, mode; in >> path >> mode;) {
        const auto bits = static_cast<std::uint16_t>(std::stoul(mode, nullptr, 8));
        const bool file = S_ISREG(bits);
        entries.emplace_back(paths.emplace_back(path), bits, ::getuid(), ::getgid(), file ? 9 : 0,
                             file ? posixChecksum("<plist/>\n") : 0);
    }
    return entries;
}

/// Results as "REASON<TAB>STATUS<TAB>PATH<TAB>CURRENT CORRECT NEW", with the paths below root,
/// sorted: threads finish in any order.
std::vector<std::string> linesOf(const std::vector<RepairResult>& results, const fs::path& root) {
    std::vector<std::string> lines;
    for (const auto& result : results) {
        const auto fresh = result.newAttribute();
        lines.push_back(std::string(displayText(result.attributeMismatchedType())) + "\t" +
                        std::string(displayText(result.attributeStatus())) + "\t" +
                        result.fileSystemResourcePath().substr(root.string().size()) + "\t" +
                        std::to_string(result.currentAttribute()) + " " +
                        std::to_string(result.correctAttribute()) + " " +
                        (fresh ? std::to_string(*fresh) : std::string("-")));
    }
    std::ranges::sort(lines);
    return lines;
}

/// Makes the folder or file of a listed entry below volume, with the entry's mode.
void create(const fs::path& volume, const BomEntry& entry) {
    if (S_ISDIR(entry.mode))
        fs::create_directories(volume / entry.path);
    else
        test::writeText(volume / entry.path, "<plist/>\n");
    ::chmod((volume / entry.path).c_str(), entry.mode & 07777);
}

/// Gives this process a /proc of its own that is an empty file system, as in a rescue system.
bool hideProc(int) {
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("none", "/proc", "tmpfs", 0, nullptr) == 0 && ::access("/proc/self", F_OK) != 0;
}

/// A volume whose name holds a blank and an accent, with two standard receipts (XML at the top,
/// binary in a subfolder, named with a "#"), every listed path present as listed, files whose
/// receipt holds their size and checksum, and two receipts whose BOM cannot be read. Then three
/// modes go wrong, one file changes in place and one grows. Receipts of other groups are never
/// read as packages: PackageTest.
class RepairVolumeTest : public testing::Test {
protected:
    void SetUp() override {
        test::makeVolume(volume, "10.12.6", "16G29");
        auto base = owned(". 40755 ./bin 40755 ./bin/ls 100755 ./bin/notes.txt 100644 "
                          "./private 40755 ./private/tmp 41777");
        auto essentials = owned(". 40755 ./usr 40755 ./usr/bin 40755 ./usr/bin/login 104755 "
                                "./usr/bin/missing 100755 ./Library 40755 "
                                "./Library/intact.plist 100644 ./Library/altered.plist 100644 "
                                "./Library/grown.plist 100644");
        for (const auto* entries : {&base, &essentials})
            for (const auto& entry : *entries)
                create(volume, entry);
        essentials.push_back({"./Library/link", 0120755, uid, gid, 4, 0, "none"});
        fs::create_symlink("none", volume / "Library/link");
        fs::remove(volume / "usr/bin/missing");
        test::writeReceipt(volume, "com.apple.pkg.BaseSystem.plist", "com.apple.pkg.BaseSystem",
                           {"com.apple.other", test::kRepairGroup}, base);
        test::writeReceipt(volume, "Essentials/com.apple.pkg.Essentials #2.plist",
                           "com.apple.pkg.Essentials", {test::kRepairGroup}, essentials,
                           PlistFormat::binary);
        damageBoms(base);
        for (const auto& [path, mode] :
             {std::pair{"bin", 0775}, {"usr/bin/login", 0755}, {"private/tmp", 0777}})
            ::chmod((volume / path).c_str(), mode);
        test::writeText(volume / "Library/altered.plist", "<plist>0\n");
        test::writeText(volume / "Library/grown.plist", "<plist/>\n\n");
    }

    /// A BOM that is a link, and a receipt that cannot be read: it may be a standard one, so its
    /// BOM goes unread too. A missing BOM fails to open as the link does; BOMs cut short or
    /// damaged are the BOM reader's test.
    void damageBoms(const std::vector<BomEntry>& entries) {
        test::writeReceipt(volume, "Damaged/#3 link.plist", "#3 link", {test::kRepairGroup},
                           entries);
        fs::remove(damaged / "#3 link.bom");
        fs::create_symlink("../com.apple.pkg.BaseSystem.bom", damaged / "#3 link.bom");
        test::writeText(damaged / "#0 garbled.plist", "<?xml version=\"1.0\"?><plist><dict>");
        test::writeText(damaged / "#0 garbled.bom", "");
    }

    PermissionRepair ran(RepairMode type, bool content = false) const {
        PermissionRepair job(*Volume::initWithMountPoint(volume.string()), type);
        job.setChecksContent(content);
        job.run();
        EXPECT_EQ(job.progress(), 100);
        return job;
    }

    /// What a job reports: the unreadable BOMs, then the lines given.
    std::vector<std::string> unreadAnd(std::vector<std::string> lines) const {
        for (const auto* name : {"#0 garbled", "#3 link"})
            lines.push_back(std::string("Bill of Materials Unreadable\tFailed\t/System/Library/") +
                            "Receipts/Damaged/" + name + ".bom\t0 0 -");
        std::ranges::sort(lines);
        return lines;
    }

    TemporaryFolder folder;
    fs::path volume = folder / "Système #1 100% HD";
    fs::path damaged = volume / "System/Library/Receipts/Damaged";
    const std::uint32_t uid = ::getuid(), gid = ::getgid();
};

TEST_F(RepairVolumeTest, VerifyFindsDifferencesRepairMendsModesOnlyAndNothingLeavesTheVolume) {
    const std::string mode = "POSIX Permissions Mismatched\t";
    // Other thread counts give the same lines: the descriptor-limit and progress tests run them.
    const auto job = ran(verify);
    EXPECT_EQ(
        linesOf(job.results(), volume),
        unreadAnd({mode + "Verified\t/bin\t775 755 -", mode + "Verified\t/private/tmp\t777 1777 -",
                   mode + "Verified\t/usr/bin/login\t755 4755 -"}));
    EXPECT_EQ(job.checkedPathCount(), 13) << "no damaged BOM is read";
    const std::string altered = "\t/Library/altered.plist\t" +
                                std::to_string(posixChecksum("<plist>0\n")) + " " +
                                std::to_string(posixChecksum("<plist/>\n")) + " -";
    EXPECT_EQ(
        linesOf(ran(repair, true).results(), volume),
        unreadAnd({mode + "Fixed\t/bin\t775 755 755", mode + "Fixed\t/private/tmp\t777 1777 1777",
                   mode + "Fixed\t/usr/bin/login\t755 4755 4755",
                   "Checksum Mismatched\tFailed" + altered,
                   "Size Mismatched\tFailed\t/Library/grown.plist\t10 9 -"}));
    EXPECT_EQ(linesOf(ran(verify, true).results(), volume),
              unreadAnd({"Checksum Mismatched\tVerified" + altered,
                         "Size Mismatched\tVerified\t/Library/grown.plist\t10 9 -"}));

    // No resource is made off the volume, and one that vanishes fails its repair.
    TemporaryFolder outside;
    test::writeText(outside / "secret", "x");
    fs::create_directory_symlink(outside.path(), volume / "bin/escape");
    VolumeWalker walker(VolumeRoot::open(volume.string()));
    for (const auto* path : {"/usr/bin/missing", "/bin/escape/secret", "/bin/../bin/escape/secret",
                             "bin", "/bin//ls", "/./bin", ""})
        EXPECT_FALSE(FileResource::init(walker, volume.string(), path, uid, gid, 644)) << path;
    ::chmod((volume / "usr/bin/login").c_str(), 0755); // as before the repair
    const auto login =
        FileResource::init(walker, volume.string(), "/usr/bin/login", uid, gid, 4755);
    fs::remove(volume / "usr/bin/login");
    EXPECT_EQ(linesOf(login->repair(walker), volume),
              std::vector<std::string>{
                  "POSIX Permissions Mismatched\tFailed\t/usr/bin/login\t755 4755 -"});
}

TEST_F(RepairVolumeTest, RepairWithoutProcKeepsSetuidAndFollowsNoLink) {
    if (!test::runningAsRoot())
        GTEST_SKIP() << "needs root to change owners and to hide /proc";
    const auto login = volume / "usr/bin/login", notes = volume / "bin/notes.txt";
    TemporaryFolder outside;
    test::writeText(outside / "secret", "x");
    for (const auto& [path, mode] : {std::pair{login, 04755}, {outside / "secret", 0600}})
        ASSERT_TRUE(::chown(path.c_str(), 501, 80) == 0 && ::chmod(path.c_str(), mode) == 0);
    fs::remove(notes);
    fs::create_symlink(outside / "secret", notes);
    ASSERT_EQ(::lchown(notes.c_str(), 501, 80), 0);
    fs::remove(volume / "bin/ls");
    ASSERT_EQ(::mkfifo((volume / "bin/ls").c_str(), 0700), 0);

    const TemporaryFolder out;
    const auto failed = test::inChild(
        hideProc,
        [&] {
            const auto job = ran(repair);
            return std::to_string(std::ranges::count_if(job.results(), [](const auto& result) {
                return result.attributeMismatchedType() != Mismatch::billOfMaterialsUnreadable &&
                       result.attributeStatus() == AttributeStatus::failed;
            }));
        },
        out);
    if (!failed)
        GTEST_SKIP() << "this system does not let a child hide /proc";
    // A FIFO is never opened; without /proc its mode cannot be set by name, and that fails.
    EXPECT_EQ(*failed, "1");
    EXPECT_EQ(statOf(volume / "bin/ls"), "0:0 700");
    EXPECT_EQ(statOf(login), "0:0 4755");
    EXPECT_TRUE(statOf(notes).starts_with("0:0 ")) << "the link itself gets its owner";
    EXPECT_EQ(statOf(outside / "secret"), "501:80 600");
    ran(repair);
    EXPECT_EQ(statOf(volume / "bin/ls"), "0:0 755") << "with /proc it is set by name";
}

TEST(RepairDescriptorLimitTest, FewDescriptorsGiveRightCountsOrFailuresNeverMissingPaths) {
    TemporaryFolder folder;
    const auto volume = folder / "volume";
    test::makeVolume(volume, "10.12.6", "16G29");
    // Ten folders deep, four files in each, the first of them with a wrong mode.
    std::string listed = ". 40755", verified, fixed;
    std::vector<std::string> wrong; // in the order of the result lines
    for (std::string level = "."; wrong.size() < 10;) {
        listed += " " + (level += "/level" + std::to_string(wrong.size())) + " 40755";
        for (int i = 0; i < 4; ++i)
            listed += " " + level + "/file" + std::to_string(i) + " 100644";
        wrong.push_back(level.substr(1) + "/file0");
        verified += "POSIX Permissions Mismatched\tVerified\t" + wrong.back() + "\t600 644 -\n";
        fixed += "POSIX Permissions Mismatched\tFixed\t" + wrong.back() + "\t600 644 644\n";
    }
    const auto entries = owned(listed);
    for (const auto& entry : entries)
        create(volume, entry);
    for (const auto& path : wrong)
        ::chmod((volume / ("." + path)).c_str(), 0600);
    // Nested receipt folders take descriptors too: the receipts must not vanish either.
    test::writeReceipt(volume, "A/B/C/D/com.apple.pkg.Deep.plist", "com.apple.pkg.Deep",
                       {test::kRepairGroup}, entries);
    // The result lines of a job run in a child process left with exactly spare free descriptors
    // (its limit, soft and hard, just above them). The job's own opens are under test, not the
    // reading of the volume's version or of the processor count.
    const TemporaryFolder out;
    const auto linesWith = [&](rlim_t spare, RepairMode type) {
        std::optional<Volume> target;
        const auto prepare = [&](int output) {
            target = Volume::initWithMountPoint(volume.string());
            Processor::shared().setMaxthread(512);
            return target && test::leaveSpareDescriptors(output, spare);
        };
        const auto work = [&] {
            PermissionRepair job(std::move(*target), type);
            job.run();
            std::string lines;
            for (const auto& line : linesOf(job.results(), volume))
                lines += line + "\n";
            return lines;
        };
        return test::inChild(prepare, work, out).value_or("no child");
    };
    for (const rlim_t spare : {40u, 24u, 12u, 8u, 5u, 3u}) {
        const auto results = linesWith(spare, verify);
        if (spare >= 24) {
            EXPECT_EQ(results, verified) << spare << " spare descriptors";
            continue;
        }
        // Every mismatch is reported, or its path or a receipt is reported as failed, and every
        // path that failed is logged.
        const bool bomFailed = results.contains("\tFailed\t/System/Library/Receipts/");
        for (const auto& path : wrong)
            EXPECT_TRUE(bomFailed || results.contains("\t" + path + "\t"))
                << path << " with " << spare << " spare descriptors";
        std::istringstream lines(results);
        const auto log = test::readText(out / "log");
        for (std::string line; std::getline(lines, line);)
            if (const auto at = line.find("\tFailed\t"); at != line.npos) {
                const auto path = line.substr(at + 8, line.rfind('\t') - at - 8);
                const std::string logged = path.starts_with("/System/Library/Receipts/")
                                               ? "QVPackageManager::Error: Unable to read "
                                               : "QVFile::Error: Unable to get attributes of ";
                EXPECT_TRUE(log.contains(logged + volume.string() + path)) << path;
            }
    }
    // That a verify after it is clean is the file-system lane's check.
    EXPECT_EQ(linesWith(24, repair), fixed);
}

TEST(RepairProgressTest, EveryPhaseHasItsSpanAndSetUpEndsAtItsTotal) {
    TemporaryFolder volume;
    test::makeVolume(volume.path(), "10.12.6", "16G29");
    // The root and the missing path are no resources: the total drops from 5 to 3.
    test::writeReceipt(volume.path(), "com.apple.pkg.P.plist", "com.apple.pkg.P",
                       {test::kRepairGroup},
                       owned(". 40755 ./a 40755 ./a/x 100644 ./missing 100644 ./a/y 100644"));
    test::writeText(volume / "a/x", "x");
    test::writeText(volume / "a/y", "y");
    ::chmod((volume / "a/y").c_str(), 0600);
    // The progress posted with threads work items, under a clock that moves a second per
    // reading, so that every change is posted.
    const auto saved = Processor::shared().maxthread();
    const auto posted = [&](std::int64_t threads) {
        std::uint64_t now = 0;
        PermissionRepair job(*Volume::initWithMountPoint(volume.path().string()), verify,
                             [&] { return now += 1'000'000'000; });
        Processor::shared().setMaxthread(threads);
        std::vector<double> values;
        auto& center = NotificationCenter::defaultCenter();
        const auto token =
            center.addObserver(kRepairPermissionsProgressDidChange,
                               [&](const double& value) { values.push_back(value); });
        job.run();
        center.removeObserver(token);
        return values;
    };
    // Set-up: 10, one step per resource up to 40 (1/4, then 2/3 and 3/3 once the missing path
    // lowered the total), 40; verify 40 to 90 by thirds; collecting 90 to 100; 100.
    EXPECT_EQ(posted(1), (std::vector<double>{10, 17.5, 30, 40, 40, 56.67, 73.33, 90, 100, 100}));
    // With more work items the steps of set-up come in any order, and the last of them may
    // coincide with the start of verify; set-up still ends at 40, never beyond.
    for (const std::int64_t threads : {2, 3, 8}) {
        auto values = posted(threads);
        const auto forty = std::ranges::find(values, 40.0);
        ASSERT_TRUE(forty != values.end() && std::all_of(values.begin() + 1, forty,
                                                         [](double v) { return v > 10 && v < 40; }))
            << threads << " work items";
        values.erase(values.begin() + 1,
                     std::find_if(forty, values.end(), [](double v) { return v != 40; }));
        EXPECT_EQ(values, (std::vector<double>{10, 56.67, 73.33, 90, 100, 100}))
            << threads << " work items";
    }
    Processor::shared().setMaxthread(saved);
}

} // namespace
} // namespace quelm
