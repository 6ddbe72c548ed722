// File system resources on real files: never through a link or off the volume, and failures
// reported. Verify and repair of owners and modes, setuid kept, and links met on the way are
// checked on whole volumes in PermissionRepairTest.
#include "repair/FileResource.h"

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace quelm {
namespace {

using test::TemporaryFolder;

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
    std::optional<FileResource> resource(std::string_view path, std::int64_t uid, std::int64_t gid,
                                         std::int64_t permissions) {
        VolumeWalker walker(root);
        return FileResource::init(walker, volume.path().string(), path, uid, gid, permissions);
    }
    std::vector<std::string> repair(const FileResource& resource) {
        VolumeWalker walker(root);
        return linesOf(resource.repair(walker));
    }

    TemporaryFolder volume;
    std::shared_ptr<const VolumeRoot> root = VolumeRoot::open(volume.path().string());
    const std::int64_t myUid = ::getuid(), myGid = ::getgid();
};

TEST_F(FileResourceTest, MissingOrEscapingPathsMakeNoResource) {
    TemporaryFolder outside;
    test::writeText(outside / "secret", "x");
    std::filesystem::create_directory(volume / "real");
    std::filesystem::create_directory_symlink(outside.path(), volume / "escape");
    for (const auto* path : {"/missing", "/escape/secret", "/real/../escape/secret", "real",
                             "/real//x", "/./real", ""})
        EXPECT_FALSE(resource(path, myUid, myGid, 644)) << path;
}

TEST_F(FileResourceTest, AttributeVanishingBeforeRepairFails) {
    test::writeText(volume / "file", "x");
    ::chmod((volume / "file").c_str(), 0600);
    const auto file = resource("/file", myUid, myGid, 644);
    std::filesystem::remove(volume / "file");
    EXPECT_EQ(repair(*file),
              std::vector<std::string>{"POSIX Permissions Mismatched 600 644 - Failed"});
}

} // namespace
} // namespace quelm
