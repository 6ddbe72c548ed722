// quelmctl list-bom and make-bom, run as a user would run them.
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

using test::runCommand;
using test::shellQuote;
using test::TemporaryFolder;

const std::filesystem::path dataFolder = QUELM_TEST_BOM_DIR;

std::string quelmctl(const std::string& arguments) {
    return std::string(QUELMCTL_PATH) + " " + arguments;
}

std::string quoted(const std::filesystem::path& path) {
    return shellQuote(path.string());
}

TEST(BomCommandsTest, ListBomPrintsARealFileExactly) {
    const auto result =
        runCommand(quelmctl("list-bom " + quoted(dataFolder / "pkgbuild-python-applications.bom")));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, test::readText(dataFolder / "pkgbuild-python-applications.listing"));
}

TEST(BomCommandsTest, ListBomTellsUnreadableFromNotABom) {
    TemporaryFolder folder;
    auto result = runCommand(quelmctl("list-bom " + quoted(folder / "missing file.bom")));
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find((folder / "missing file.bom").string()), std::string::npos);
    test::writeText(folder / "text.bom", "plain text");
    const std::string real = test::readText(dataFolder / "packagemaker-archive.bom");
    test::writeText(folder / "cut.bom", real.substr(0, 10000));
    for (const char* name : {"text.bom", "cut.bom"}) {
        result = runCommand(quelmctl("list-bom " + quoted(folder / name)));
        EXPECT_EQ(result.status, 2) << name;
        EXPECT_NE(result.output.find((folder / name).string()), std::string::npos) << result.output;
    }
}

TEST(BomCommandsTest, MakeBomWritesWhatListBomReadsBack) {
    TemporaryFolder folder;
    const std::string listing = ".\t40755\t0/0\n./Library\t41777\t0/80\n./Library/Icon\r\t100644\t"
                                "501/20\n";
    test::writeText(folder / "listing", listing);
    EXPECT_EQ(runCommand(quelmctl("make-bom " + quoted(folder / "listing") + " " +
                                  quoted(folder / "out.bom")))
                  .status,
              0);
    const auto result = runCommand(quelmctl("list-bom " + quoted(folder / "out.bom")));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, listing);
}

TEST(BomCommandsTest, LongListingAddsSizeChecksumAndLinkTarget) {
    const auto result = runCommand(
        quelmctl("list-bom --long " + quoted(dataFolder / "pkgbuild-python-applications.bom")));
    EXPECT_EQ(result.status, 0);
    // A link's size and checksum are those of its target's text, as `cksum` gives them.
    for (const std::string line :
         {"\n./Python 3.9\t40755\t0/0\n",
          "\n./Python 3.9/License.rtf\t100644\t0/0\t15119\t366503802\n",
          "\n./Python 3.9/IDLE.app/Contents/MacOS/Python\t120755\t0/0\t92\t3776735147\t/Library/"
          "Frameworks/Python.framework/Versions/3.9/Resources/Python.app/Contents/MacOS/Python\n",
          "\n./._Python 3.9\t40755\t0/0\n"})
        EXPECT_NE(result.output.find(line), std::string::npos) << line;
    // PackageMaker's shorter records end right after the checksum.
    EXPECT_EQ(
        runCommand(quelmctl("list-bom --long " + quoted(dataFolder / "packagemaker-archive.bom")))
            .output,
        ".\t40755\t501/501\n./InstalledFile.txt\t100644\t501/501\t65\t3995837755\n");

    TemporaryFolder folder;
    const std::string listing = ".\t40755\t0/0\n./bin\t40755\t0/0\n./bin/ls\t100755\t0/0\t38\t"
                                "3557505254\n./bin/sh\t120755\t0/0\t4\t1234\tbash\n";
    test::writeText(folder / "listing", listing);
    ASSERT_EQ(runCommand(quelmctl("make-bom " + quoted(folder / "listing") + " " +
                                  quoted(folder / "out.bom")))
                  .status,
              0);
    EXPECT_EQ(runCommand(quelmctl("list-bom --long " + quoted(folder / "out.bom"))).output,
              listing);
    EXPECT_EQ(runCommand(quelmctl("list-bom " + quoted(folder / "out.bom"))).output,
              ".\t40755\t0/0\n./bin\t40755\t0/0\n./bin/ls\t100755\t0/0\n./bin/sh\t120755\t0/0\n");
}

TEST(BomCommandsTest, MakeBomFailureNamesTheLineAndKeepsTheOldFile) {
    TemporaryFolder folder;
    test::writeText(folder / "out.bom", "old");
    test::writeText(folder / "bad", ".\t40755\t0/0\n./a\t7xx\t0/0\n");
    test::writeText(folder / "orphan", ".\t40755\t0/0\n./a/b\t100644\t0/0\n");
    auto result = runCommand(
        quelmctl("make-bom " + quoted(folder / "bad") + " " + quoted(folder / "out.bom")));
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("bad: line 2: "), std::string::npos) << result.output;
    result = runCommand(
        quelmctl("make-bom " + quoted(folder / "orphan") + " " + quoted(folder / "out.bom")));
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("./a/b"), std::string::npos) << result.output;
    EXPECT_EQ(runCommand(quelmctl("make-bom " + quoted(folder / "missing") + " " +
                                  quoted(folder / "out.bom")))
                  .status,
              1);
    EXPECT_EQ(test::readText(folder / "out.bom"), "old");
    EXPECT_EQ(
        runCommand(quelmctl("make-bom " + quoted(dataFolder / "packagemaker-archive.listing") +
                            " " + quoted(folder / "no/such/folder.bom")))
            .status,
        1);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 3);
}

TEST(BomCommandsTest, BothCommandsHaveHelp) {
    for (const char* command : {"list-bom", "make-bom"}) {
        const auto result = runCommand(quelmctl(std::string(command) + " --help"));
        EXPECT_EQ(result.status, 0) << command;
        EXPECT_NE(result.output.find("PATH<TAB>MODE"), std::string::npos) << command;
    }
}

} // namespace
} // namespace quelm
