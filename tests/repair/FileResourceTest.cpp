// File system resources: verify and repair on real files, never through a link or off the volume.
#include "repair/FileResource.h"

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

using test::TemporaryFolder;
using Type = Mismatch;
using Status = AttributeStatus;

struct FileOnDisk {
    uid_t uid;
    gid_t gid;
    mode_t permissions;
};

FileOnDisk statOf(const std::filesystem::path& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return {info.st_uid, info.st_gid, static_cast<mode_t>(info.st_mode & 07777)};
}

class FileResourceTest : public testing::Test {
protected:
    void SetUp() override { root = VolumeRoot::open(volume.path().string()); }

    std::optional<FileResource> resource(std::string_view volumePath, std::int64_t uid,
                                         std::int64_t gid, std::int64_t permissions) {
        VolumeWalker walker(root);
        return FileResource::init(walker, volume.path().string(), volumePath, uid, gid,
                                  permissions);
    }
    std::vector<RepairResult> repair(const FileResource& resource) {
        VolumeWalker walker(root);
        return resource.repair(walker);
    }
    void makeFolder(std::string_view name, mode_t mode) {
        std::filesystem::create_directories(volume / name);
        ::chmod((volume / name).c_str(), mode);
    }

    TemporaryFolder volume;
    std::shared_ptr<const VolumeRoot> root;
    const std::int64_t myUid = ::getuid();
    const std::int64_t myGid = ::getgid();
};

TEST(FileResourceModeTest, PermissionDigitsFromMode) {
    EXPECT_EQ(permissionsFromMode(040755), 755);
    EXPECT_EQ(permissionsFromMode(0100644), 644);
    EXPECT_EQ(permissionsFromMode(0104755), 4755);
    EXPECT_EQ(permissionsFromMode(041777), 1777);
    EXPECT_EQ(modeFromPermissions(4755), 04755u);
    EXPECT_EQ(modeFromPermissions(644), 0644u);
}

TEST_F(FileResourceTest, MatchingFolderVerifiesClean) {
    makeFolder("bin", 0755);
    const auto folder = resource("/bin", myUid, myGid, 755);
    ASSERT_TRUE(folder);
    EXPECT_EQ(folder->path(), volume.path().string() + "/bin");
    EXPECT_TRUE(folder->verify().empty());
}

TEST_F(FileResourceTest, PermissionsMismatchIsVerifiedThenFixed) {
    makeFolder("bin", 0775);
    const auto folder = resource("/bin", myUid, myGid, 755);
    ASSERT_TRUE(folder);
    const auto found = folder->verify();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].attributeMismatchedType(), Type::posixPermissionsMismatched);
    EXPECT_EQ(found[0].currentAttribute(), 775);
    EXPECT_EQ(found[0].correctAttribute(), 755);
    EXPECT_EQ(found[0].newAttribute(), std::nullopt);
    EXPECT_EQ(found[0].attributeStatus(), Status::verified);

    const auto fixed = repair(*folder);
    ASSERT_EQ(fixed.size(), 1u);
    EXPECT_EQ(fixed[0].newAttribute(), 755);
    EXPECT_EQ(fixed[0].attributeStatus(), Status::fixed);
    EXPECT_EQ(fixed[0].jobType(), RepairMode::repairPermissions);
    EXPECT_EQ(statOf(volume / "bin").permissions, 0755u);
}

TEST_F(FileResourceTest, MissingOrEscapingPathsMakeNoResource) {
    TemporaryFolder outside;
    test::writeText(outside / "secret", "x");
    makeFolder("real", 0755);
    std::filesystem::create_directory_symlink(outside.path(), volume / "escape");
    for (const auto* path : {"/missing", "/escape/secret", "/real/../escape/secret", "real",
                             "/real//x", "/./real", ""})
        EXPECT_FALSE(resource(path, myUid, myGid, 644)) << path;
}

TEST_F(FileResourceTest, AttributeVanishingBeforeRepairFails) {
    test::writeText(volume / "file", "x");
    ::chmod((volume / "file").c_str(), 0600);
    const auto file = resource("/file", myUid, myGid, 644);
    ASSERT_TRUE(file);
    std::filesystem::remove(volume / "file");
    const auto failed = repair(*file);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].attributeStatus(), Status::failed);
    EXPECT_EQ(failed[0].newAttribute(), std::nullopt);
}

class FileResourceRootTest : public FileResourceTest {
protected:
    void SetUp() override {
        if (!test::runningAsRoot())
            GTEST_SKIP() << "needs root to change owners";
        FileResourceTest::SetUp();
    }
};

TEST_F(FileResourceRootTest, OwnerAndGroupDifferOwnerFirst) {
    test::writeText(volume / "tool", "x");
    ASSERT_EQ(::chown((volume / "tool").c_str(), 501, 20), 0);
    ::chmod((volume / "tool").c_str(), 0755);
    const auto found = resource("/tool", 0, 0, 755)->verify();
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].attributeMismatchedType(), Type::ownerIDMismatched);
    EXPECT_EQ(found[0].currentAttribute(), 501);
    EXPECT_EQ(found[1].attributeMismatchedType(), Type::groupIDMismatched);
    EXPECT_EQ(found[1].currentAttribute(), 20);
}

TEST_F(FileResourceRootTest, OwnerRepairKeepsSetuidAndSticky) {
    test::writeText(volume / "login", "x");
    ASSERT_EQ(::chown((volume / "login").c_str(), 501, 80), 0);
    ASSERT_EQ(::chmod((volume / "login").c_str(), 04755), 0);
    makeFolder("tmp", 01777);
    ASSERT_EQ(::chown((volume / "tmp").c_str(), 501, 0), 0);

    const auto fixed = repair(*resource("/login", 0, 0, 4755));
    ASSERT_GE(fixed.size(), 2u);
    for (const auto& result : fixed)
        EXPECT_EQ(result.attributeStatus(), Status::fixed);
    const auto disk = statOf(volume / "login");
    EXPECT_EQ(disk.uid, 0u);
    EXPECT_EQ(disk.gid, 0u);
    EXPECT_EQ(disk.permissions, 04755u);

    EXPECT_EQ(repair(*resource("/tmp", 0, 0, 1777)).size(), 1u);
    EXPECT_EQ(statOf(volume / "tmp").permissions, 01777u);
}

TEST_F(FileResourceRootTest, LinkGetsItsOwnerWithoutTouchingItsTarget) {
    TemporaryFolder outside;
    test::writeText(outside / "target", "x");
    ASSERT_EQ(::chown((outside / "target").c_str(), 501, 80), 0);
    ASSERT_EQ(::chmod((outside / "target").c_str(), 0600), 0);
    std::filesystem::create_symlink(outside / "target", volume / "link");
    ASSERT_EQ(::lchown((volume / "link").c_str(), 501, 80), 0);

    const auto link = resource("/link", 0, 0, 755);
    ASSERT_TRUE(link);
    const auto found = link->verify();
    ASSERT_EQ(found.size(), 2u) << "a link's mode is not compared";
    repair(*link);
    EXPECT_EQ(statOf(volume / "link").uid, 0u);
    const auto target = statOf(outside / "target");
    EXPECT_EQ(target.uid, 501u);
    EXPECT_EQ(target.gid, 80u);
    EXPECT_EQ(target.permissions, 0600u);
}

} // namespace
} // namespace quelm
