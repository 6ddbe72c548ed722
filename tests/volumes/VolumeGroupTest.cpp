// A macOS of 10.15 and later as two volumes: firmlinks, finding the other half, refusals.
#include "TestSupport.h"
#include "support/Firmlinks.h"
#include "volumes/VolumePairing.h"

#include <gtest/gtest.h>
#include <memory>
#include <sys/mount.h>
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
    const auto alone = openMacOS(system.string(), std::nullopt, twoContainers);
    const auto refusal = writeRefusal(*alone, "/Library/Extensions");
    ASSERT_TRUE(refusal) << "a system volume opens alone, and nothing is written to it";
    EXPECT_NE(refusal->message.find("--data-volume"), std::string::npos) << refusal->message;
    EXPECT_EQ(writeRefusal(*alone)->message, refusal->message);
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

TEST_F(VolumeGroupTest, ASealedSystemVolumeIsNeverWrittenAndTheArchiveKeepsThePair) {
    test::makeVolume(system, "14.6.1", "23G93");
    auto volume = *openMacOS(system.string(), data.string(), {});
    for (const auto* path : {"/System/Library/Extensions", "/Extra/Extensions", "/usr/bin"}) {
        const auto refusal = writeRefusal(volume, path);
        ASSERT_TRUE(refusal) << path;
        EXPECT_NE(refusal->message.find("sealed system volume"), std::string::npos) << path;
        EXPECT_EQ(refusal->kind, ErrorKind::refused);
    }
    EXPECT_FALSE(writeRefusal(volume, "/Library/Extensions"));
    EXPECT_FALSE(writeRefusal(volume)) << "the whole volume: its data half only";

    const auto decoded = unarchive<Volume>(archive(volume));
    ASSERT_TRUE(decoded && decoded->isSealed());
    EXPECT_EQ(decoded->placeOf("/private/var/db/receipts").root, data.string())
        << "the firmlinks are read again from the disk";
}

TEST_F(VolumeGroupTest, AReadOnlyDataVolumeRefusesWhatLiesOnItOnly) {
    if (!test::runningAsRoot())
        GTEST_SKIP() << "mounting takes root";
    if (::mount("quelm-test", data.c_str(), "tmpfs", 0, "size=1m") != 0)
        GTEST_SKIP() << "this host does not let tests mount";
    const std::unique_ptr<const char, int (*)(const char*)> unmount(data.c_str(), ::umount);
    test::makeVolumeGroup(system, data, "10.15.7", "19H2");
    ASSERT_EQ(::mount(nullptr, data.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    const auto opened = openMacOS(system.string(), data.string(), {});
    ASSERT_TRUE(opened) << opened.error().message;
    const auto& volume = *opened;
    const auto refusal = writeRefusal(volume, "/Library/Extensions");
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->message, data.string() + " is mounted read-only (tmpfs on quelm-test): "
                                                "remount it read-write and try again.");
    EXPECT_EQ(writeRefusal(volume)->message, refusal->message);
    EXPECT_FALSE(writeRefusal(volume, "/Extra/Extensions")) << "10.15's system volume is writable";
}

} // namespace
} // namespace quelm
