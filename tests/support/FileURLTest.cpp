// File URLs: which bytes are escaped, and the narrow way back to a path.
#include "support/FileURL.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace quelm {
namespace {

TEST(FileURLTest, EncodesEverythingOutsideThePathCharacters) {
    EXPECT_EQ(FileURL::fromPath("/Volumes/Mac HD/a.kext", false).absoluteString(),
              "file:///Volumes/Mac%20HD/a.kext");
    EXPECT_EQ(FileURL::fromPath("/x/é#%?[]", false).absoluteString(),
              "file:///x/%C3%A9%23%25%3F%5B%5D");
    EXPECT_EQ(FileURL::fromPath("/a-._~!$&'()*+,;=:@", false).absoluteString(),
              "file:///a-._~!$&'()*+,;=:@");
    EXPECT_EQ(FileURL::fromPath("/Library", true).absoluteString(), "file:///Library/");
    EXPECT_EQ(FileURL::fromPath("/Library/", true).absoluteString(), "file:///Library/");
}

TEST(FileURLTest, RelativePathsStartAtTheWorkingFolder) {
    const auto url = FileURL::fromPath("a.kext", false);
    EXPECT_EQ(url.fileSystemPath(), (std::filesystem::current_path() / "a.kext").string());
}

TEST(FileURLTest, NarrowRuleDecodesOnlyBlanks) {
    EXPECT_EQ(pathFromFileURLString("file:///a%20b/%C3%A9%2520"), "/a b/%C3%A9%2520");
    EXPECT_EQ(pathFromFileURLString("file://"), "");
    EXPECT_EQ(pathFromFileURLString("file:"), "");
    EXPECT_EQ(FileURL::fromPath("/Library", true).path(), "/Library/");
    EXPECT_EQ(FileURL::fromPath("/x/é y", false).path(), "/x/%C3%A9 y");
    EXPECT_EQ(FileURL::fromPath("/x/é y", false).fileSystemPath(), "/x/é y");
}

TEST(FileURLTest, ComponentsAreDecoded) {
    const auto url = FileURL::fromPath("/x/My Kext.kext/", true);
    EXPECT_EQ(url.lastPathComponent(), "My Kext.kext");
    EXPECT_EQ(url.pathExtension(), "kext");
    EXPECT_EQ(FileURL::fromPath("/x/.kext", false).pathExtension(), "");
    EXPECT_EQ(FileURL::fromPath("/x/a", true).appending("b c.plist", false).absoluteString(),
              "file:///x/a/b%20c.plist");
    EXPECT_FALSE(FileURL::fromAbsoluteString("http://x/a"));
    EXPECT_EQ(FileURL::fromAbsoluteString("file:///%2")->fileSystemPath(), "/%2");
}

} // namespace
} // namespace quelm
