// A macOS of 10.15 and later as two volumes: firmlinks, finding the other half, wrong pairings.
#include "TestSupport.h"
#include "support/Firmlinks.h"
#include "volumes/VolumePairing.h"

#include <gtest/gtest.h>
#include <tuple>

namespace quelm {
namespace {

namespace fs = std::filesystem;

TEST(FirmlinksTest, APathLiesOnTheDataVolumeThroughTheDeepestLinkThatHoldsIt) {
    const auto links = parseFirmlinks(std::string(kCatalinaFirmlinks) +
                                      "/Old\tDevice/Old\n"
                                      "/Escape\t../etc\nrelative\tx\n/\tall\n/Twice\t/x\nno tab\n");
    EXPECT_EQ(links.size(), 19u) << "the 18 of 10.15.7 and the beta's Device/ form";
    for (const auto* onData : {"/Library/Extensions/Lilu.kext", "/usr/local", "/Old/x",
                               "/System/Library/Caches/com.apple.kext.caches"})
        EXPECT_EQ(dataPathOf(links, onData), onData);
    for (const auto* onSystem : {"/System/Library/Extensions", "/Libraryx", "/usr/localbin",
                                 "/usr/bin", "/Escape/passwd", "/", "/Twice"})
        EXPECT_FALSE(dataPathOf(links, onSystem)) << onSystem;

    std::string flood;
    for (int i = 0; i < 5000; ++i)
        flood += "/f" + std::to_string(i) + "\tf\n";
    EXPECT_EQ(parseFirmlinks(flood).size(), kMaxFirmlinks) << "every repaired path scans them";
}

class VolumeGroupTest : public testing::Test {
protected:
    void SetUp() override { test::makeVolumeGroup(system, data, "10.15.7", "19H2"); }

    /// A mount table in which each folder is an APFS volume of the given device.
    static std::vector<MountedFileSystem>
    mounts(std::initializer_list<std::pair<fs::path, std::string>> volumes) {
        std::vector<MountedFileSystem> table;
        for (const auto& [where, device] : volumes)
            table.push_back({"apfs", device, where.string(), false, false, std::nullopt});
        return table;
    }

    test::TemporaryFolder folder;
    fs::path system = folder / "Macintosh HD";
    fs::path data = folder / "Macintosh HD - Data";
};

TEST_F(VolumeGroupTest, EitherHalfFindsTheOtherWhenItIsCertainAndNothingIsGuessed) {
    EXPECT_EQ(Volume::kindOf(folder.path().string()), VolumeKind::none);
    const auto other = folder / "Other - Data";
    fs::create_directories(other / "Library");
    fs::create_directories(other / "private/var");
    const auto sameContainer =
        mounts({{system, "/dev/sdc1"}, {other, "/dev/sdb2"}, {data, "/dev/sdc1"}});
    const auto twoContainers =
        mounts({{system, "/dev/sdc1"}, {other, "/dev/sdb2"}, {data, "/dev/sdd2"}});
    for (const auto& [named, table, found] :
         std::vector<std::tuple<fs::path, std::vector<MountedFileSystem>, std::optional<fs::path>>>{
             {system, sameContainer, data},
             {data, sameContainer, data},
             {system, twoContainers, {}}}) {
        const auto volume = openMacOS(named.string(), std::nullopt, table);
        ASSERT_TRUE(volume) << volume.error().message;
        EXPECT_EQ(volume->mountPoint(), system.string());
        EXPECT_EQ(volume->placeOf("/Library/Extensions").root, found.value_or(system).string());
        EXPECT_EQ(volume->placeOf("/System/Library/Extensions").root, system.string());
    }
    EXPECT_EQ(openMacOS(system.string(), data.string() + "/", {})->dataMountPoint(), data.string());
}

TEST_F(VolumeGroupTest, EachWrongPairingSaysWhatTheFolderIsNot) {
    const auto whole = folder / "Old HD";
    test::makeVolume(whole, "10.14.6", "18G103");
    const auto cases = std::vector<std::pair<std::expected<Volume, Error>, std::string>>{
        {openMacOS(whole.string(), data.string(), {}), "leave out --data-volume"},
        {openMacOS(system.string(), whole.string(), {}), "is not the data volume"},
        {openMacOS(data.string(), std::nullopt, {}), "whose system volume was not found"},
        {openMacOS(data.string(), system.string(), {}), "name its system volume with --volume"},
        {openMacOS(folder.path().string(), std::nullopt, {}), "is not a macOS volume"},
    };
    for (const auto& [opened, says] : cases) {
        ASSERT_FALSE(opened) << says;
        EXPECT_NE(opened.error().message.find(says), std::string::npos) << opened.error().message;
    }
}

TEST_F(VolumeGroupTest, TheArchiveOfASealedPairReadsItsFirmlinksAgain) {
    test::makeVolume(system, "14.6.1", "23G93");
    const auto volume = *openMacOS(system.string(), data.string(), {});
    const auto decoded = unarchive<Volume>(archive(volume));
    ASSERT_TRUE(decoded && decoded->isSealed());
    EXPECT_EQ(decoded->placeOf("/private/var/db/receipts").root, data.string())
        << "the firmlinks are read again from the disk";
}

} // namespace
} // namespace quelm
