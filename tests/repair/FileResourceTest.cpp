// File system resources: verify and repair on real files, never through a link or off the volume.
#include "repair/FileResource.h"

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

using test::TemporaryFolder;

/// Owner, group and permissions of what is at path itself, never of a link's target.
std::string statOf(const std::filesystem::path& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return std::to_string(info.st_uid) + ":" + std::to_string(info.st_gid) + " " +
           std::to_string(permissionsFromMode(info.st_mode));
}

/// Each result as "REASON CURRENT CORRECT NEW STATUS".
std::vector<std::string> linesOf(const std::vector<RepairResult>& results) {
    std::vector<std::string> lines;
    for (const auto& result : results)
        lines.push_back(std::string(displayText(result.attributeMismatchedType())) + " " +
                        std::to_string(result.currentAttribute()) + " " +
                        std::to_string(result.correctAttribute()) + " " +
                        (result.newAttribute() ? std::to_string(*result.newAttribute()) : "-") +
                        " " + std::string(displayText(result.attributeStatus())));
    return lines;
}

class FileResourceTest : public testing::Test {
protected:
    void SetUp() override { root = VolumeRoot::open(volume.path().string()); }

    std::optional<FileResource> resource(std::string_view path, std::int64_t uid, std::int64_t gid,
                                         std::int64_t permissions) {
        VolumeWalker walker(root);
        return FileResource::init(walker, volume.path().string(), path, uid, gid, permissions);
    }
    std::vector<std::string> repair(std::string_view path, std::int64_t uid, std::int64_t gid,
                                    std::int64_t permissions) {
        VolumeWalker walker(root);
        return linesOf(resource(path, uid, gid, permissions)->repair(walker));
    }
    std::filesystem::path make(std::string_view name, mode_t mode, uid_t uid = ::getuid(),
                               gid_t gid = ::getgid()) {
        if (name.ends_with("/"))
            std::filesystem::create_directories(volume / name);
        else
            test::writeText(volume / name, "x");
        EXPECT_EQ(::lchown((volume / name).c_str(), uid, gid), 0);
        EXPECT_EQ(::chmod((volume / name).c_str(), mode), 0);
        return volume / name;
    }

    TemporaryFolder volume;
    std::shared_ptr<const VolumeRoot> root;
    const std::int64_t myUid = ::getuid(), myGid = ::getgid();
};

TEST(FileResourceModeTest, PermissionDigitsFromMode) {
    for (const auto& [mode, digits] :
         {std::pair{040755u, 755}, {0100644u, 644}, {0104755u, 4755}, {041777u, 1777}}) {
        EXPECT_EQ(permissionsFromMode(mode), digits);
        EXPECT_EQ(modeFromPermissions(digits), mode & 07777);
    }
}

TEST_F(FileResourceTest, PermissionsAreVerifiedThenFixed) {
    make("bin/", 0775);
    make("ok/", 0755);
    EXPECT_TRUE(resource("/ok", myUid, myGid, 755)->verify().empty());
    const auto folder = resource("/bin", myUid, myGid, 755);
    ASSERT_TRUE(folder);
    EXPECT_EQ(folder->path(), volume.path().string() + "/bin");
    EXPECT_EQ(linesOf(folder->verify()),
              std::vector<std::string>{"POSIX Permissions Mismatched 775 755 - Verified"});
    EXPECT_EQ(repair("/bin", myUid, myGid, 755),
              std::vector<std::string>{"POSIX Permissions Mismatched 775 755 755 Fixed"});
    EXPECT_EQ(statOf(volume / "bin"), std::to_string(myUid) + ":" + std::to_string(myGid) + " 755");
}

TEST_F(FileResourceTest, MissingOrEscapingPathsMakeNoResource) {
    TemporaryFolder outside;
    test::writeText(outside / "secret", "x");
    make("real/", 0755);
    std::filesystem::create_directory_symlink(outside.path(), volume / "escape");
    for (const auto* path : {"/missing", "/escape/secret", "/real/../escape/secret", "real",
                             "/real//x", "/./real", ""})
        EXPECT_FALSE(resource(path, myUid, myGid, 644)) << path;
}

TEST_F(FileResourceTest, AttributeVanishingBeforeRepairFails) {
    make("file", 0600);
    const auto file = resource("/file", myUid, myGid, 644);
    std::filesystem::remove(volume / "file");
    VolumeWalker walker(root);
    EXPECT_EQ(linesOf(file->repair(walker)),
              std::vector<std::string>{"POSIX Permissions Mismatched 600 644 - Failed"});
}

class FileResourceRootTest : public FileResourceTest {
protected:
    void SetUp() override {
        if (!test::runningAsRoot())
            GTEST_SKIP() << "needs root to change owners";
        FileResourceTest::SetUp();
    }
};

TEST_F(FileResourceRootTest, OwnerFirstThenGroupAndSetuidAndStickyKept) {
    make("login", 04755, 501, 80);
    make("tmp/", 01777, 501, 0);
    EXPECT_EQ(linesOf(resource("/login", 0, 0, 4755)->verify()),
              (std::vector<std::string>{"Owner ID Mismatched 501 0 - Verified",
                                        "Group ID Mismatched 80 0 - Verified"}));
    // Changing the owner clears setuid, which is then set again.
    EXPECT_EQ(repair("/login", 0, 0, 4755),
              (std::vector<std::string>{"Owner ID Mismatched 501 0 0 Fixed",
                                        "Group ID Mismatched 80 0 0 Fixed",
                                        "POSIX Permissions Mismatched 755 4755 4755 Fixed"}));
    EXPECT_EQ(statOf(volume / "login"), "0:0 4755");
    EXPECT_EQ(repair("/tmp", 0, 0, 1777).size(), 1u);
    EXPECT_EQ(statOf(volume / "tmp"), "0:0 1777");
}

TEST_F(FileResourceRootTest, LinkGetsItsOwnerWithoutTouchingItsTarget) {
    TemporaryFolder outside;
    test::writeText(outside / "target", "x");
    ASSERT_EQ(::chown((outside / "target").c_str(), 501, 80), 0);
    ASSERT_EQ(::chmod((outside / "target").c_str(), 0600), 0);
    std::filesystem::create_symlink(outside / "target", volume / "link");
    ASSERT_EQ(::lchown((volume / "link").c_str(), 501, 80), 0);
    EXPECT_EQ(resource("/link", 0, 0, 755)->verify().size(), 2u) << "a link's mode is not compared";
    repair("/link", 0, 0, 755);
    EXPECT_TRUE(statOf(volume / "link").starts_with("0:0 "));
    EXPECT_EQ(statOf(outside / "target"), "501:80 600");
}

} // namespace
} // namespace quelm
