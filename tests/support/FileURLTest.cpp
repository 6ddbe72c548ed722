// File URLs: which bytes are escaped, and the way back to the path the disk knows.
#include "support/FileURL.h"

#include "support/PathValidation.h"

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

TEST(FileURLTest, RelativeAndDottedPathsBecomeAbsoluteAndNormal) {
    const auto here = std::filesystem::current_path();
    EXPECT_EQ(FileURL::fromPath("a.kext", false).path(), (here / "a.kext").string());
    EXPECT_EQ(FileURL::fromPath("./a.kext", false).path(), (here / "a.kext").string());
    EXPECT_EQ(FileURL::fromPath("../a.kext/", false).path(),
              (here.parent_path() / "a.kext").string());
    EXPECT_EQ(FileURL::fromPath("/x/./y/../Réseau.kext", false).lastPathComponent(), "Réseau.kext");
    EXPECT_EQ(absoluteNormalPath("/media/u/../Macintosh HD/"), "/media/Macintosh HD");
    EXPECT_EQ(absoluteNormalPath("/.."), "/");
}

TEST(FileURLTest, PathsComeBackWithEveryEscapeDecoded) {
    EXPECT_EQ(pathFromFileURLString("file:///a%20b/%C3%A9%2520"), "/a b/é%20");
    EXPECT_EQ(pathFromFileURLString("file://"), "");
    EXPECT_EQ(pathFromFileURLString("file:"), "");
    EXPECT_EQ(FileURL::fromPath("/Library", true).path(), "/Library/");
    for (const char* path : {"/Téléchargements/Réseau.kext", "/x/#1 100%.kext", "/x/%41"})
        EXPECT_EQ(FileURL::fromPath(path, false).path(), path);
    EXPECT_EQ(FileURL::fromAbsoluteString("file:///%2")->path(), "/%2");
}

TEST(FileURLTest, ComponentsAreDecoded) {
    const auto url = FileURL::fromPath("/x/My Kext.kext/", true);
    EXPECT_EQ(url.lastPathComponent(), "My Kext.kext");
    EXPECT_EQ(url.pathExtension(), "kext");
    EXPECT_EQ(FileURL::fromPath("/x/.kext", false).pathExtension(), "");
    EXPECT_EQ(FileURL::fromPath("/x/a", true).appending("b c.plist", false).absoluteString(),
              "file:///x/a/b%20c.plist");
    EXPECT_FALSE(FileURL::fromAbsoluteString("http://x/a"));
}

} // namespace
} // namespace quelm
