// File URLs: which bytes are escaped, and the way back to the path the disk knows.
#include "support/FileURL.h"

#include "support/PathValidation.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace quelm {
namespace {

TEST(FileURLTest, EncodesEverythingOutsideThePathCharactersAndDecodesItBack) {
    for (const auto& [path, folder, url] :
         {std::tuple{"/Volumes/Mac HD/a.kext", false, "file:///Volumes/Mac%20HD/a.kext"},
          {"/x/é#%?[]", false, "file:///x/%C3%A9%23%25%3F%5B%5D"},
          {"/a-._~!$&'()*+,;=:@", false, "file:///a-._~!$&'()*+,;=:@"},
          {"/x/%41", false, "file:///x/%2541"},
          {"/Library", true, "file:///Library/"},
          {"/Library/", true, "file:///Library/"}}) {
        EXPECT_EQ(FileURL::fromPath(path, folder).absoluteString(), url);
        EXPECT_EQ(FileURL::fromAbsoluteString(url)->path(), folder ? "/Library/" : path);
    }
    EXPECT_EQ(pathFromFileURLString("file:///a%20b/%C3%A9%2520"), "/a b/é%20");
    EXPECT_EQ(pathFromFileURLString("file://") + pathFromFileURLString("file:"), "");
    EXPECT_EQ(FileURL::fromAbsoluteString("file:///%2")->path(), "/%2");
    EXPECT_FALSE(FileURL::fromAbsoluteString("http://x/a"));
    EXPECT_EQ(FileURL::fromPath("/x/a", true).appending("b c.plist", false).absoluteString(),
              "file:///x/a/b%20c.plist");
}

TEST(FileURLTest, RelativeAndDottedPathsBecomeAbsoluteAndNormalAndComponentsAreDecoded) {
    EXPECT_EQ(FileURL::fromPath("./a.kext", false).path(),
              (std::filesystem::current_path() / "a.kext").string());
    EXPECT_EQ(absoluteNormalPath("/media/u/../Macintosh HD/") + absoluteNormalPath("/.."),
              "/media/Macintosh HD/");
    const auto url = FileURL::fromPath("/x/My Kext.kext/", true);
    EXPECT_EQ(url.lastPathComponent() + " " + url.pathExtension(), "My Kext.kext kext");
    EXPECT_EQ(FileURL::fromPath("/x/.kext", false).pathExtension(), "");
}

} // namespace
} // namespace quelm
