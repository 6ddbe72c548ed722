// A binary property list of 70 kB that would take 256 MiB to read, through each reader that takes
// lists from a disk or a peer we do not trust: each refuses it before reading it, without abort.
#include "TestSupport.h"
#include "helper/Channel.h"
#include "kexts/KextBackups.h"
#include "kexts/KextCatalog.h"
#include "kexts/KextChecks.h"
#include "kexts/KextHistory.h"
#include "repair/BomWriter.h"
#include "repair/PermissionRepair.h"
#include "support/BinaryPlistCheck.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;
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
    return plist.array(std::vector(copies, plist.string(std::string(64 << 10, 'x'))));
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

template <typename T> std::string errorOf(const std::expected<T, Error>& result) {
    return result ? "accepted" : result.error().message;
}

std::int64_t residentHighWater() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmHWM:"))
            return std::stoll(line.substr(6)) * 1024;
    return 0;
}

// Each reader reads a list padded within the budget and refuses the bomb; the peak of this
// process's resident memory is bounded over all of them. The kernel's mark is first set back to
// what is held now, so that an earlier test's peak cannot hide these; where that is refused, the
// peak so far is the start and the check is only weaker.
TEST(HostilePlistTest, RegressionBombsAreRefusedByEveryReaderBeforeTheyAreRead) {
    TemporaryFolder folder;
    const auto write = [&](const fs::path& path, std::uint64_t copies, const auto& make) {
        test::writeText(folder.path() / path, make(copies));
        return folder.path() / path;
    };
    std::ofstream("/proc/self/clear_refs") << "5";
    const std::int64_t start = residentHighWater();
    ASSERT_GT(start, 0) << "no VmHWM in /proc/self/status";

    // A kext whose Info.plist is a bomb is a bundle without info.
    const auto kextInfo = [](std::uint64_t copies) {
        return paddedDict(copies, {{"CFBundlePackageType", "KEXT"},
                                   {"CFBundleIdentifier", "com.example.padded"},
                                   {"CFBundleVersion", "1.0.0"}});
    };
    write("Padded.kext/Contents/Info.plist", kReadable, kextInfo);
    write("Bomb.kext/Contents/Info.plist", kBomb, kextInfo);
    const std::vector kexts{(folder / "Padded.kext").string(), (folder / "Bomb.kext").string()};
    EXPECT_EQ(checkKexts(kexts, std::nullopt), (std::vector<std::vector<std::string>>{
                                                   {}, {"Bomb.kext has no readable Info.plist."}}));

    // A receipt that is a bomb is reported, and the other receipts are checked.
    const auto volume = folder / "Mac HD";
    test::makeVolume(volume, "10.12.6", "16G29");
    fs::create_directories(volume / "bin");
    ::chmod((volume / "bin").c_str(), 0775);
    for (const auto& [name, copies] :
         {std::pair{"com.apple.pkg.Bomb", kBomb}, std::pair{"com.apple.pkg.Padded", kReadable}}) {
        const auto receipt = volume / "System/Library/Receipts" / name;
        test::writeText(receipt.string() + ".plist",
                        paddedDict(copies, {{"PackageIdentifier", name}, {"PackageVersion", "1.0"}},
                                   {{"PackageGroups", {test::kRepairGroup}}}));
        test::writeText(receipt.string() + ".bom", *writeBom(std::vector<BomEntry>{
                                                       {".", 040755, ::getuid(), ::getgid()},
                                                       {"./bin", 040755, ::getuid(), ::getgid()}}));
    }
    PermissionRepair verify(*Volume::initWithMountPoint(volume.string()),
                            RepairMode::verifyPermissions);
    verify.run();
    EXPECT_EQ(verify.checkedPathCount(), 1);
    std::string paths;
    for (const auto& result : verify.results())
        paths += result.fileSystemResourcePath() + "\n";
    EXPECT_EQ(paths, volume.string() + "/System/Library/Receipts/com.apple.pkg.Bomb.bom\n" +
                         volume.string() + "/bin\n");

    // A backup manifest that is a bomb is an error.
    const auto manifest = [](std::uint64_t copies) {
        return paddedDict(copies,
                          {{"Volume", "/Volumes/Mac HD"},
                           {"Time", "2026-11-22T21:55:03Z"},
                           {"Operation", "remove"}},
                          {{"Kexts", {}}});
    };
    write(fs::path("Padded") / kBackupManifestName, kReadable, manifest);
    write(fs::path("Bomb") / kBackupManifestName, kBomb, manifest);
    EXPECT_EQ(readBackupManifest(folder / "Padded").value().volume, "/Volumes/Mac HD");
    EXPECT_THAT(errorOf(readBackupManifest(folder / "Bomb")),
                HasSubstr("Manifest.plist cannot be read: binary property list would take more "
                          "than 17 MiB to read"));

    // A history that is a bomb is refused and left as it is.
    const auto history = [](std::uint64_t copies) {
        BinaryPlist plist(1);
        const auto time = plist.string("2026-11-22T21:55:03Z");
        const auto where = plist.string("/Volumes/Mac HD");
        const auto operation = plist.string("install");
        const auto list = plist.array({plist.string("/Library/Extensions/Lilu.kext")});
        const auto record = plist.dict(
            {{"Time", time}, {"Volume", where}, {"Operation", operation}, {"Kexts", list}});
        return plist.bytes(plist.array({record, padding(plist, copies)}));
    };
    const auto padded = readHistory(write("History.plist", kReadable, history));
    ASSERT_TRUE(padded && padded->size() == 1u);
    EXPECT_EQ(padded->front().kexts, std::vector<std::string>{"/Library/Extensions/Lilu.kext"});
    const auto file = write("History.plist", kBomb, history);
    EXPECT_EQ(errorOf(readHistory(file)), file.string() + " is not a history of operations");
    EXPECT_FALSE(appendHistory(file, padded->front()));
    EXPECT_EQ(test::readText(file), history(kBomb));

    // In a channel frame it is a decoding error: the helper reads calls whole through takeFrame,
    // the application opens replies as documents.
    const auto frame = [](std::uint64_t copies) {
        BinaryPlist plist(1);
        const auto id = plist.add(0x10, {}, "\x07");
        const auto reply = plist.array({padding(plist, copies)});
        return frameOfBody(plist.bytes(plist.dict({{"id", id}, {"reply", reply}})));
    };
    auto replies = frame(kReadable) + frame(kBomb), calls = replies;
    const auto body = takeFrameBody(replies).value().value();
    const auto document = BinaryPlistDocument::open(body);
    EXPECT_EQ(decodeReplyEnvelope(document.value()).value().id, 7);
    EXPECT_EQ(errorOf(BinaryPlistDocument::open(takeFrameBody(replies).value().value())),
              "binary property list would take more than 17 MiB to read");
    EXPECT_TRUE(takeFrame(calls).value());
    EXPECT_EQ(errorOf(takeFrame(calls)), "frame is not a property list");
    EXPECT_LT(residentHighWater() - start, kPeakBound);
}

} // namespace
} // namespace quelm
