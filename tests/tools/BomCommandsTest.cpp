// quelmctl list-bom and make-bom, run as a user would run them.
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;
using test::TemporaryFolder;

const fs::path dataFolder = QUELM_TEST_BOM_DIR;

/// quelmctl's command with the paths after it, each quoted.
test::CommandResult quelmctl(const std::string& command, const std::vector<fs::path>& paths) {
    std::string line = std::string(QUELMCTL_PATH) + " " + command;
    for (const auto& path : paths)
        line += " " + test::shellQuote(path.string());
    return test::runCommand(line);
}

TEST(BomCommandsTest, ListBomTellsUnreadableFromNotABom) {
    TemporaryFolder folder;
    test::writeText(folder / "text.bom", "plain text");
    const std::string real = test::readText(dataFolder / "packagemaker-archive.bom");
    test::writeText(folder / "cut.bom", real.substr(0, 10000));
    for (const auto& [name, status] :
         {std::pair{"missing file.bom", 1}, std::pair{"text.bom", 2}, std::pair{"cut.bom", 2}}) {
        const auto result = quelmctl("list-bom", {folder / name});
        EXPECT_EQ(result.status, status) << name;
        EXPECT_TRUE(result.output.contains((folder / name).string())) << result.output;
    }
}

TEST(BomCommandsTest, RealFilesAreListedExactlyAndTheLongListingAddsSizeChecksumAndLinkTarget) {
    const auto real = dataFolder / "pkgbuild-python-applications.bom";
    const auto plain = quelmctl("list-bom", {real});
    EXPECT_EQ(plain.status, 0);
    EXPECT_EQ(plain.output, test::readText(dataFolder / "pkgbuild-python-applications.listing"));
    const auto result = quelmctl("list-bom --long", {real});
    EXPECT_EQ(result.status, 0);
    for (const std::string line :
         {"\n./Python 3.9\t40755\t0/0\n",
          "\n./Python 3.9/License.rtf\t100644\t0/0\t15119\t366503802\n",
          "\n./Python 3.9/IDLE.app/Contents/MacOS/Python\t120755\t0/0\t92\t3776735147\t/Library/"
          "Frameworks/Python.framework/Versions/3.9/Resources/Python.app/Contents/MacOS/Python\n",
          "\n./._Python 3.9\t40755\t0/0\n"})
        EXPECT_TRUE(result.output.contains(line)) << line;
    // PackageMaker's shorter records end right after the checksum.
    EXPECT_EQ(quelmctl("list-bom --long", {dataFolder / "packagemaker-archive.bom"}).output,
              ".\t40755\t501/501\n./InstalledFile.txt\t100644\t501/501\t65\t3995837755\n");
}

TEST(BomCommandsTest, MakeBomFailureNamesTheLineAndKeepsTheOldFile) {
    TemporaryFolder folder;
    test::writeText(folder / "out.bom", "old");
    test::writeText(folder / "bad", ".\t40755\t0/0\n./a\t7xx\t0/0\n");
    test::writeText(folder / "orphan", ".\t40755\t0/0\n./a/b\t100644\t0/0\n");
    for (const auto& [input, named] :
         {std::pair{"bad", "bad: line 2: "}, std::pair{"orphan", "./a/b"},
          std::pair{"missing", "missing"}}) {
        const auto result = quelmctl("make-bom", {folder / input, folder / "out.bom"});
        EXPECT_EQ(result.status, 1) << input;
        EXPECT_TRUE(result.output.contains(named)) << result.output;
    }
    EXPECT_EQ(test::readText(folder / "out.bom"), "old");
    EXPECT_EQ(quelmctl("make-bom",
                       {dataFolder / "packagemaker-archive.listing", folder / "no/such/folder.bom"})
                  .status,
              1);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), {}), 3);
}

} // namespace
} // namespace quelm
