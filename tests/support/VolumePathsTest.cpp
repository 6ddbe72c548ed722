// Paths beneath a volume: a missing path told from a folder that could not be opened, the
// order in which a walker opens each folder about once, and files read without following links.
#include "support/VolumePaths.h"

#include "TestSupport.h"
#include "support/FolderTrees.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

using test::TemporaryFolder;

TEST(VolumeWalkerTest, MissingPathsAreToldFromFoldersThatCannotBeOpened) {
    TemporaryFolder volume;
    test::writeText(volume / "a/b/c/file", "x");
    std::filesystem::create_directory_symlink(volume / "a", volume / "link");
    VolumeWalker walker(VolumeRoot::open(volume.path().string()));
    ASSERT_TRUE(walker.parentOf("/a/b/c/file"));
    for (const char* missing : {"/a/none/file", "/link/b/file", "/a/b/c/file/below", "/a/../a"}) {
        EXPECT_FALSE(walker.parentOf(missing)) << missing;
        EXPECT_EQ(walker.failure(), 0) << missing;
    }
    // With no descriptor left, opening a folder fails with EMFILE: not a missing path.
    std::optional<VolumeWalker> fresh;
    const auto failure = test::inChild(
        [&](int output) {
            fresh.emplace(VolumeRoot::open(volume.path().string()));
            return test::leaveSpareDescriptors(output, 0);
        },
        [&] { return fresh->parentOf("/a/b/c/file") ? "found" : std::to_string(fresh->failure()); },
        volume);
    EXPECT_EQ(failure, std::to_string(EMFILE));
}

TEST(VolumeWalkerTest, FolderOrderKeepsFoldersTogetherAndSubtreesAfterTheirFolder) {
    const std::vector<std::string_view> paths{"/b/2",   "/a/x", "/b/1", "/a-b/q",
                                              "/a/y/z", "",     "/a/y"};
    const auto order = folderOrder(paths.size(), [&](std::size_t i) { return paths[i]; });
    // "" (the root), then /a with its items in their given order, /a/y right after /a, then
    // /a-b and /b: "/" sorts before every other byte.
    EXPECT_EQ(order, (std::vector<std::size_t>{5, 1, 6, 4, 3, 0, 2}));
    EXPECT_EQ(folderDepth(paths.size(), [&](std::size_t i) { return paths[i]; }), 3u);
}

TEST(ReadFileAtTest, OnlyARegularFileWithinTheSizeIsReadAndNothingBlocks) {
    TemporaryFolder folder;
    test::writeText(folder / "file", "12345");
    std::filesystem::create_symlink("file", folder / "link");
    ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
    const UniqueFd open(::open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(readFileAt(open.get(), "file", 5), "12345");
    EXPECT_FALSE(readFileAt(open.get(), "file", 4));
    EXPECT_FALSE(readFileAt(open.get(), "link", 5));
    // A FIFO with no writer would hold a blocking open forever.
    EXPECT_FALSE(readFileAt(open.get(), "pipe", 5));
    EXPECT_FALSE(readFileAt(open.get(), "missing", 5));
}

} // namespace
} // namespace quelm
