// A binary property list of 70 kB that would take 256 MiB to read, through each reader that takes
// lists from a disk or a peer we do not trust: each refuses it before reading it, without abort.
#include "TestSupport.h"
#include "helper/Channel.h"
#include "kexts/KextBackups.h"
#include "kexts/KextCatalog.h"
#include "kexts/KextChecks.h"
#include "kexts/KextHistory.h"
#include "repair/PermissionRepair.h"
#include "support/BinaryPlistCheck.h"

#include <cstdlib>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

using test::BinaryPlist;
using test::TemporaryFolder;
using testing::HasSubstr;

/// Copies of the shared string that read within the budget, and that make the bomb.
constexpr std::uint64_t kReadable = 16;
constexpr std::uint64_t kBomb = 4096;
/// Reading the bomb would hold 256 MiB, and more under the sanitizers.
constexpr std::int64_t kPeakBound = 64 << 20;

/// An array of copies references to one string of 64 KiB, to be put where a reader skips it.
std::uint64_t padding(BinaryPlist& plist, std::uint64_t copies) {
    return plist.repeated(plist.string(std::string(64 << 10, 'x')), copies);
}

/// A dictionary of the strings, and of the arrays of strings, given, with the padding under a
/// key of its own.
std::string paddedDict(
    std::uint64_t copies, const std::vector<std::pair<std::string_view, std::string_view>>& strings,
    const std::vector<std::pair<std::string_view, std::vector<std::string_view>>>& arrays = {}) {
    BinaryPlist plist(1);
    std::vector<std::pair<std::string_view, std::uint64_t>> entries;
    for (const auto& [key, value] : strings)
        entries.emplace_back(key, plist.string(value));
    for (const auto& [key, values] : arrays) {
        std::vector<std::uint64_t> items;
        for (const auto value : values)
            items.push_back(plist.string(value));
        entries.emplace_back(key, plist.array(items));
    }
    entries.emplace_back("Padding", padding(plist, copies));
    return plist.bytes(plist.dict(entries));
}

std::int64_t residentHighWater() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmHWM:"))
            return std::stoll(line.substr(6)) * 1024;
    return 0;
}

/// How far the peak of this process's resident memory rose while it lived. The kernel's mark is
/// first set back to what is held now, so that an earlier test's peak cannot hide this one's;
/// where that is refused, the peak so far is the start and the check is only weaker.
class ResidentPeak {
public:
    ResidentPeak() {
        std::ofstream("/proc/self/clear_refs") << "5";
        start_ = residentHighWater();
        EXPECT_GT(start_, 0) << "no VmHWM in /proc/self/status";
    }
    std::int64_t growth() const { return residentHighWater() - start_; }

private:
    std::int64_t start_;
};

std::string kextInfo(std::uint64_t copies) {
    return paddedDict(copies, {{"CFBundlePackageType", "KEXT"},
                               {"CFBundleIdentifier", "com.example.padded"},
                               {"CFBundleVersion", "1.0.0"}});
}

TEST(HostilePlistTest, RegressionBombInAKextInfoPlistLeavesTheBundleWithoutInfo) {
    TemporaryFolder folder;
    test::writeText(folder / "Padded.kext/Contents/Info.plist", kextInfo(kReadable));
    test::writeText(folder / "Bomb.kext/Contents/Info.plist", kextInfo(kBomb));
    const std::vector<std::string> paths{(folder / "Padded.kext").string(),
                                         (folder / "Bomb.kext").string()};
    const ResidentPeak peak;
    const auto padded = readKext(paths[0]);
    ASSERT_TRUE(padded);
    EXPECT_EQ(padded->identifier(), "com.example.padded");
    const auto bomb = readKext(paths[1]);
    ASSERT_TRUE(bomb);
    EXPECT_FALSE(bomb->info);
    EXPECT_EQ(checkKexts(paths, std::nullopt), (std::vector<std::vector<std::string>>{
                                                   {}, {"Bomb.kext has no readable Info.plist."}}));
    EXPECT_LT(peak.growth(), kPeakBound);
}

TEST(HostilePlistTest, RegressionBombInAReceiptIsReportedAndTheOtherReceiptsAreChecked) {
    TemporaryFolder folder;
    const auto volume = folder / "Mac HD";
    const auto receipts = volume / "System/Library/Receipts";
    test::makeVolume(volume, "10.12.6", "16G29");
    std::filesystem::create_directories(volume / "bin");
    ::chmod((volume / "bin").c_str(), 0775);
    const std::vector<BomEntry> records{{".", 040755, ::getuid(), ::getgid()},
                                        {"./bin", 040755, ::getuid(), ::getgid()}};
    for (const auto& [name, copies] :
         {std::pair{"com.apple.pkg.Bomb", kBomb}, std::pair{"com.apple.pkg.Padded", kReadable}}) {
        test::writeText(receipts / (std::string(name) + ".plist"),
                        paddedDict(copies, {{"PackageIdentifier", name}, {"PackageVersion", "1.0"}},
                                   {{"PackageGroups", {test::kRepairGroup}}}));
        test::writeBomFile(receipts / (std::string(name) + ".bom"), records);
    }
    const ResidentPeak peak;
    PermissionRepair verify(*Volume::initWithMountPoint(volume.string()),
                            RepairMode::verifyPermissions);
    verify.run();
    EXPECT_EQ(verify.checkedPathCount(), 1);
    ASSERT_EQ(verify.results().size(), 2u);
    const auto& skipped = verify.results().front();
    EXPECT_EQ(skipped.fileSystemResourcePath(), (receipts / "com.apple.pkg.Bomb.bom").string());
    EXPECT_EQ(skipped.attributeMismatchedType(), Mismatch::billOfMaterialsUnreadable);
    EXPECT_EQ(skipped.attributeStatus(), AttributeStatus::failed);
    EXPECT_EQ(verify.results().back().fileSystemResourcePath(), (volume / "bin").string());
    EXPECT_LT(peak.growth(), kPeakBound);
}

std::string manifest(std::uint64_t copies) {
    return paddedDict(
        copies,
        {{"Volume", "/Volumes/Mac HD"}, {"Time", "2026-11-22T21:55:03Z"}, {"Operation", "remove"}},
        {{"Kexts", {}}});
}

TEST(HostilePlistTest, RegressionBombInABackupManifestIsAnError) {
    TemporaryFolder folder;
    test::writeText(folder / "Padded" / kBackupManifestName, manifest(kReadable));
    test::writeText(folder / "Bomb" / kBackupManifestName, manifest(kBomb));
    const ResidentPeak peak;
    const auto padded = readBackupManifest(folder / "Padded");
    ASSERT_TRUE(padded) << padded.error().message;
    EXPECT_EQ(padded->volume, "/Volumes/Mac HD");
    const auto bomb = readBackupManifest(folder / "Bomb");
    ASSERT_FALSE(bomb);
    EXPECT_THAT(bomb.error().message, HasSubstr("Manifest.plist cannot be read: binary property list "
                                        "would take more than 17 MiB to read"));
    EXPECT_LT(peak.growth(), kPeakBound);
}

std::string history(std::uint64_t copies) {
    BinaryPlist plist(1);
    const auto time = plist.string("2026-11-22T21:55:03Z");
    const auto volume = plist.string("/Volumes/Mac HD");
    const auto operation = plist.string("install");
    const auto kexts = plist.array({plist.string("/Library/Extensions/Lilu.kext")});
    const auto record = plist.dict(
        {{"Time", time}, {"Volume", volume}, {"Operation", operation}, {"Kexts", kexts}});
    return plist.bytes(plist.array({record, padding(plist, copies)}));
}

TEST(HostilePlistTest, RegressionBombInTheHistoryIsRefusedAndLeftAsItIs) {
    TemporaryFolder folder;
    const auto file = folder / "History.plist";
    test::writeText(file, history(kReadable));
    const ResidentPeak peak;
    const auto padded = readHistory(file);
    ASSERT_TRUE(padded) << padded.error().message;
    ASSERT_EQ(padded->size(), 1u);
    EXPECT_EQ(padded->front().kexts, std::vector<std::string>{"/Library/Extensions/Lilu.kext"});
    const auto bomb = history(kBomb);
    test::writeText(file, bomb);
    const auto refused = readHistory(file);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().message, file.string() + " is not a history of operations");
    EXPECT_FALSE(appendHistory(file, padded->front()));
    EXPECT_EQ(test::readText(file), bomb);
    EXPECT_LT(peak.growth(), kPeakBound);
}

std::string replyFrame(std::uint64_t copies) {
    BinaryPlist plist(1);
    const auto id = plist.integer(7);
    const auto reply = plist.array({padding(plist, copies)});
    return frameOfBody(plist.bytes(plist.dict({{"id", id}, {"reply", reply}})));
}

// The helper reads calls whole through takeFrame; the application opens replies as documents.
TEST(HostilePlistTest, RegressionBombInAChannelFrameIsADecodingError) {
    const auto padded = replyFrame(kReadable);
    const auto bomb = replyFrame(kBomb);
    const ResidentPeak peak;
    auto buffer = padded + bomb;
    const auto paddedBody = takeFrameBody(buffer);
    ASSERT_TRUE(paddedBody && *paddedBody);
    const auto document = BinaryPlistDocument::open(**paddedBody);
    ASSERT_TRUE(document) << document.error().message;
    const auto envelope = decodeReplyEnvelope(*document);
    ASSERT_TRUE(envelope);
    EXPECT_EQ(envelope->id, 7);
    const auto bombBody = takeFrameBody(buffer);
    ASSERT_TRUE(bombBody && *bombBody);
    const auto refused = BinaryPlistDocument::open(**bombBody);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().message, "binary property list would take more than 17 MiB to read");

    auto calls = padded + bomb;
    const auto paddedCall = takeFrame(calls);
    ASSERT_TRUE(paddedCall && *paddedCall);
    const auto bombCall = takeFrame(calls);
    ASSERT_FALSE(bombCall);
    EXPECT_EQ(bombCall.error().message, "frame is not a property list");
    EXPECT_LT(peak.growth(), kPeakBound);
}

} // namespace
} // namespace quelm
