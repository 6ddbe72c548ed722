// Verify and repair of a macOS of 10.15 and later: receipts of both volumes, each path checked on
// the volume that holds it, never through a link, and a sealed system volume left alone.
#include "TestSupport.h"
#include "repair/PermissionRepair.h"
#include "volumes/VolumePairing.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;

mode_t permissionsOf(const fs::path& path) {
    struct stat info {};
    ::lstat(path.c_str(), &info);
    return info.st_mode & 07777;
}

class RepairGroupTest : public testing::Test {
protected:
    /// Receipts on both volumes whose paths lie on both, every listed item made as listed, then
    /// one wrong mode on each volume, and a link on the data volume where a folder belongs.
    void make(std::string_view version, std::string_view build) {
        test::makeVolumeGroup(system, data, version, build);
        const std::uint32_t uid = ::getuid(), gid = ::getgid();
        const auto dir = [&](const char* path, std::uint16_t mode = 0755) {
            return BomEntry{path, static_cast<std::uint16_t>(040000 | mode), uid, gid};
        };
        const std::vector<BomEntry> core{dir("."),
                                         dir("./bin"),
                                         {"./bin/ps", 0104755, uid, gid},
                                         dir("./private"),
                                         dir("./private/tmp", 01777),
                                         dir("./Library"),
                                         dir("./Library/Extensions")};
        const std::vector<BomEntry> local{dir("."), dir("./usr"), dir("./usr/local"),
                                          dir("./usr/local/bin")};
        const std::vector<BomEntry> users{dir("."), dir("./Users"), dir("./Users/Shared", 01777)};
        test::writeReceiptIn(system / "System/Library/Receipts", "com.apple.pkg.Core.plist",
                             "com.apple.pkg.Core", {test::kRepairGroup}, core);
        test::writeReceiptIn(data / "Library/Apple/System/Library/Receipts",
                             "com.apple.pkg.Local.plist", "com.apple.pkg.Local",
                             {test::kRepairGroup}, local, PlistFormat::binary);
        test::writeReceiptIn(data / "private/var/db/receipts", "com.apple.pkg.Users.plist",
                             "com.apple.pkg.Users", {test::kRepairGroup}, users);
        for (const auto& made : {system / "bin", data / "private/tmp", data / "usr/local/bin",
                                 outside / "Shared", system / "Library/Extensions"})
            fs::create_directories(made);
        test::writeText(system / "bin/ps", "x");
        ::chmod((system / "bin/ps").c_str(), 0755);
        ::chmod((data / "private/tmp").c_str(), 0777);
        ::chmod((outside / "Shared").c_str(), 0777);
        ::chmod((system / "Library/Extensions").c_str(), 0700);
        fs::remove(data / "Users");
        fs::create_directory_symlink(outside.path(), data / "Users");
    }

    std::vector<std::string> run(RepairMode type) {
        PermissionRepair job(*openMacOS(system.string(), data.string(), {}), type);
        job.run();
        std::vector<std::string> paths;
        for (const auto& result : job.results())
            paths.push_back(result.fileSystemResourcePath().substr(folder.path().string().size()));
        std::ranges::sort(paths);
        return paths;
    }

    test::TemporaryFolder folder, outside;
    fs::path system = folder / "Macintosh HD";
    fs::path data = folder / "Macintosh HD - Data";
};

TEST_F(RepairGroupTest, Catalina_BothVolumesAreRepairedEachPathOnItsOwn) {
    make("10.15.7", "19H2");
    EXPECT_EQ(
        run(RepairMode::verifyPermissions),
        (std::vector<std::string>{"/Macintosh HD - Data/private/tmp", "/Macintosh HD/bin/ps"}))
        << "each path is named where it lies";
    run(RepairMode::repairPermissions);
    EXPECT_EQ(permissionsOf(system / "bin/ps"), 04755u);
    EXPECT_EQ(permissionsOf(data / "private/tmp"), 01777u);
    EXPECT_EQ(permissionsOf(system / "Library/Extensions"), 0700u)
        << "the system volume's own /Library is hidden by the firmlink";
    EXPECT_EQ(permissionsOf(outside / "Shared"), 0777u) << "a link on the data volume";
    EXPECT_TRUE(run(RepairMode::verifyPermissions).empty());
}

TEST_F(RepairGroupTest, Sonoma_TheSealedSystemVolumeIsNeitherCheckedNorChanged) {
    make("14.6.1", "23G93");
    EXPECT_EQ(run(RepairMode::verifyPermissions),
              std::vector<std::string>{"/Macintosh HD - Data/private/tmp"});
    run(RepairMode::repairPermissions);
    EXPECT_EQ(permissionsOf(data / "private/tmp"), 01777u);
    EXPECT_EQ(permissionsOf(system / "bin/ps"), 0755u);
}

} // namespace
} // namespace quelm
