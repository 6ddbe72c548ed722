// Kext versions, the kexts of a volume as listed, and the checks before a kext is installed.
#include "kexts/KextCatalog.h"

#include "KextFixtures.h"
#include "TestSupport.h"
#include "kexts/KextChecks.h"
#include "kexts/KextVersion.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;
using test::kextInfo;
using test::makeKextBundle;
using test::thinMachO;

KextVersion version(std::string_view text) {
    const auto parsed = KextVersion::parse(text);
    EXPECT_TRUE(parsed) << text;
    return parsed.value_or(*KextVersion::parse("0"));
}

TEST(KextVersionTest, VersionsOrderByNumbersThenStage) {
    const std::vector<std::string_view> ascending{"0.9",     "1",         "1.0.1d1",  "1.0.1d12",
                                                  "1.0.1a1", "1.0.1b255", "1.0.1fc1", "1.0.1",
                                                  "1.2",     "1.10",      "2.0",      "9999.99.99"};
    for (std::size_t i = 0; i + 1 < ascending.size(); ++i)
        EXPECT_LT(version(ascending[i]), version(ascending[i + 1]))
            << ascending[i] << " < " << ascending[i + 1];
    EXPECT_EQ(version("1"), version("1.0.0"));
    EXPECT_EQ(version("1.2"), version("1.2.0"));
    for (const auto* bad : {"", "1.", ".1", "1..2", "1.2.3.4", "10000", "1.100", "1.0e1", "1.0b",
                            "1.0b256", "1.0b1000", "1.0fc1x", "v1.0", "1.0 ", "-1"})
        EXPECT_FALSE(KextVersion::parse(bad)) << bad;
}

class KextVolumeTest : public testing::Test {
protected:
    void SetUp() override { test::makeRescueVolume(root); }
    Volume volume() const { return *Volume::initWithMountPoint(root.string()); }

    static std::vector<std::string> checkOne(const fs::path& kext,
                                             const std::optional<Volume>& volume) {
        return checkKexts({kext.string()}, volume).at(0);
    }

    test::TemporaryFolder folder;
    fs::path root = folder / "Mac HD";
    fs::path incoming = folder / "incoming";
};

TEST_F(KextVolumeTest, TheListingReadsEachKextAndItsPlugIns) {
    test::writeText(root / "Extra/Extensions/Odd.kext/Contents/Info.plist", "not a list");
    fs::create_directories(root / "Library/Extensions/NotAKext");
    fs::create_symlink(root / "Library/Extensions/Lilu.kext", root / "Extra/Extensions/Link.kext");
    const auto kexts = installedKexts(volume());
    ASSERT_EQ(kexts.size(), 3u);
    const auto& system = kexts[0];
    EXPECT_TRUE(system.isApple());
    ASSERT_EQ(system.plugIns.size(), 1u);
    EXPECT_EQ(system.plugIns[0].path(),
              "/System/Library/Extensions/System.kext/Contents/PlugIns/IOKit.kext");
    const auto& lilu = kexts[1];
    EXPECT_EQ(lilu.path(), "/Library/Extensions/Lilu.kext");
    EXPECT_FALSE(lilu.isApple());
    EXPECT_TRUE(lilu.hasCodeSignature);
    EXPECT_EQ(lilu.cpuTypes(), std::vector<std::string>{"x86_64"});
    EXPECT_EQ(kexts[2].path(), "/Extra/Extensions/Odd.kext") << "links are not followed";
    EXPECT_FALSE(kexts[2].info);
    EXPECT_EQ(withPlugIns(kexts).size(), 4u);
}

TEST_F(KextVolumeTest, OwnersAndModesMustBeRootAnd755) {
    if (!test::runningAsRoot())
        GTEST_SKIP() << "items made by another user belong to that user";
    EXPECT_TRUE(installedKexts(volume())[1].ownersAndModesRight);
    const auto executable = root / "Library/Extensions/Lilu.kext/Contents/MacOS/Lilu";
    ::chmod(executable.c_str(), 0666);
    EXPECT_FALSE(installedKexts(volume())[1].ownersAndModesRight);
    ::chmod(executable.c_str(), 0755);
    ::chown(executable.c_str(), 501, 20);
    EXPECT_FALSE(installedKexts(volume())[1].ownersAndModesRight);
}

TEST_F(KextVolumeTest, EachFailingCheckGivesOneSentenceNamingTheKext) {
    test::writePlist(root / "Library/Extensions/Bare.kext/Contents/Info.plist",
                     kextInfo("com.example.Bare", "2.0"));
    const auto needs = [](std::string library, std::string asked) {
        return kextInfo("com.example.Needs", "1.0", std::nullopt, {{library, asked}});
    };
    auto notKext = kextInfo("", "one");
    notKext.insert_or_assign("CFBundlePackageType", "APPL");
    auto shortVersion = kextInfo("com.example.Short", "2.0");
    shortVersion.emplace("CFBundleShortVersionString", "2.0 beta");
    struct Case {
        std::string name;
        PlistValue::Dict info;
        std::vector<std::string> phrases; ///< what the sentence of each failure says
        std::string executable = {};
    };
    const auto arm = thinMachO(test::kArm64);
    for (const auto& [name, info, phrases, executable] : std::vector<Case>{
             {"Good.kext",
              kextInfo("com.example.Good", "2.0b3", "Good",
                       {{"as.vit9696.Lilu", "1.4.0"}, {"com.apple.kpi.iokit", "17.0"}}),
              {},
              test::fatMachO({{test::kArm64, arm}, {test::kX86_64, thinMachO(test::kX86_64)}})},
             {"Codeless.kext", kextInfo("com.example.Codeless", "1.0"), {}},
             {"Short.kext", shortVersion, {}},
             {"Arm.kext",
              kextInfo("com.example.Arm", "1.0", "Arm"),
              {"no 64-bit Intel (x86_64) code, only arm64, i386."},
              test::fatMachO({{test::kArm64, arm}, {test::kI386, thinMachO(test::kI386, false)}})},
             {"Script.kext", kextInfo("e.Script", "1", "Script"), {"not a Mach-O file"}, "#!"},
             {"App.kext", notKext, {"\"APPL\", not \"KEXT\"", "no CFBundleIdentifier", "\"one\""}},
             {"Missing.kext", needs("com.example.Missing", "1.0"), {"Missing, which is not on"}},
             {"TooNew.kext", needs("as.vit9696.Lilu", "1.5"), {"the volume has \"1.4.5\""}},
             {"TooOld.kext", needs("as.vit9696.Lilu", "1.1.9"), {"older than 1.2.0, the oldest"}},
             {"Plug.kext", needs("com.apple.kpi.iokit", "8.0.0b1"), {}},
             {"Kernel.kext", needs("com.apple.kernel", "17.0"), {"only a 32-bit kernel has"}},
             {"Bare.kext", needs("com.example.Bare", "1.0"), {"has no OSBundleCompatibleVersion"}},
             {"Typo.kext", needs("as.vit9696.Lilu", "1.x"), {"\"1.x\", which is not a kext"}}}) {
        const auto failures = checkOne(makeKextBundle(incoming, name, info, executable), volume());
        ASSERT_EQ(failures.size(), phrases.size()) << name;
        for (std::size_t i = 0; i < phrases.size(); ++i)
            EXPECT_TRUE(failures[i].starts_with(name) && failures[i].contains(phrases[i]))
                << failures[i];
    }
    EXPECT_EQ(checkOne(incoming / "Missing.kext", std::nullopt), std::vector<std::string>{})
        << "without a volume the libraries are not checked";
    test::writeText(incoming / "Broken.kext/Contents/Info.plist", "<plist><dict><key>");
    EXPECT_EQ(checkOne(incoming / "Broken.kext", volume()),
              std::vector<std::string>{"Broken.kext has no readable Info.plist."});
    EXPECT_EQ(checkOne(incoming / "Gone.kext", volume()),
              std::vector<std::string>{(incoming / "Gone.kext").string() +
                                       " is not a kext bundle folder."});
}

} // namespace
} // namespace quelm
