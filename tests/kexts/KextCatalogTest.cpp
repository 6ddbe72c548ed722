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
    EXPECT_EQ(system.path(), "/System/Library/Extensions/System.kext");
    EXPECT_TRUE(system.isApple());
    EXPECT_FALSE(system.executable) << "codeless";
    ASSERT_EQ(system.plugIns.size(), 1u);
    EXPECT_EQ(system.plugIns[0].path(),
              "/System/Library/Extensions/System.kext/Contents/PlugIns/IOKit.kext");
    EXPECT_EQ(system.plugIns[0].identifier(), "com.apple.kpi.iokit");

    const auto& lilu = kexts[1];
    EXPECT_EQ(lilu.path(), "/Library/Extensions/Lilu.kext");
    EXPECT_EQ(lilu.identifier(), "as.vit9696.Lilu");
    EXPECT_EQ(lilu.version(), "1.4.5");
    EXPECT_FALSE(lilu.isApple());
    EXPECT_TRUE(lilu.hasCodeSignature);
    EXPECT_EQ(lilu.cpuTypes(), std::vector<std::string>{"x86_64"});
    EXPECT_FALSE(system.hasCodeSignature);

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

TEST_F(KextVolumeTest, EachFailingCheckGivesOneSentence) {
    test::writePlist(root / "Library/Extensions/Bare.kext/Contents/Info.plist",
                     kextInfo("com.example.Bare", "2.0"));
    const auto needing = [](std::string library, std::string asked) {
        return kextInfo("com.example.Needs", "1.0", std::nullopt, {{library, asked}});
    };
    auto notKext = kextInfo("", "one");
    notKext.insert_or_assign("CFBundlePackageType", "APPL");
    auto shortVersion = kextInfo("com.example.Short", "2.0");
    shortVersion.emplace("CFBundleShortVersionString", "2.0 beta");
    const auto intel = thinMachO(test::kX86_64);
    const auto arm = thinMachO(test::kArm64);
    struct Case {
        std::string name;
        PlistValue::Dict info;
        std::string executable;
        std::vector<std::string> failures;
    };
    for (const auto& [name, info, executable, failures] : std::vector<Case>{
             {"Good.kext",
              kextInfo("com.example.Good", "2.0b3", "Good",
                       {{"as.vit9696.Lilu", "1.4.0"}, {"com.apple.kpi.iokit", "17.0"}}),
              test::fatMachO({{test::kArm64, arm}, {test::kX86_64, intel}}),
              {}},
             {"Codeless.kext", kextInfo("com.example.Codeless", "1.0"), "", {}},
             {"Short.kext", shortVersion, "", {}},
             {"Arm.kext",
              kextInfo("com.example.Arm", "1.0", "Arm"),
              test::fatMachO({{test::kArm64, arm}, {test::kI386, thinMachO(test::kI386, false)}}),
              {"Arm.kext's executable Arm has no 64-bit Intel (x86_64) code, only arm64, i386."}},
             {"Script.kext",
              kextInfo("com.example.Script", "1.0", "Script"),
              "#!/bin/sh\n",
              {"Script.kext's executable Script is unusable: not a Mach-O file."}},
             {"App.kext",
              notKext,
              "",
              {"App.kext is not a kext bundle: its CFBundlePackageType is \"APPL\", not \"KEXT\".",
               "App.kext has no CFBundleIdentifier.",
               "App.kext's CFBundleVersion \"one\" is not a kext version such as 1.2.3."}},
             {"Missing.kext",
              needing("com.example.Missing", "1.0"),
              "",
              {"Missing.kext needs com.example.Missing, which is not on the volume."}},
             {"TooNew.kext",
              needing("as.vit9696.Lilu", "1.5"),
              "",
              {"TooNew.kext needs as.vit9696.Lilu version 1.5 or later; the volume has \"1.4.5\" "
               "at /Library/Extensions/Lilu.kext."}},
             {"TooOld.kext",
              needing("as.vit9696.Lilu", "1.1.9"),
              "",
              {"TooOld.kext asks for as.vit9696.Lilu version 1.1.9, older than 1.2.0, the oldest "
               "version that /Library/Extensions/Lilu.kext still serves."}},
             {"Plug.kext", needing("com.apple.kpi.iokit", "8.0.0b1"), "", {}},
             {"Kernel.kext",
              needing("com.apple.kernel", "17.0"),
              "",
              {"Kernel.kext needs com.apple.kernel, which only a 32-bit kernel has, so no 64-bit "
               "Intel Mac can load it."}},
             {"Bare.kext",
              needing("com.example.Bare", "1.0"),
              "",
              {"Bare.kext needs com.example.Bare, but /Library/Extensions/Bare.kext has no "
               "OSBundleCompatibleVersion, so no kext can link against it."}},
             {"Typo.kext",
              needing("as.vit9696.Lilu", "1.x"),
              "",
              {"Typo.kext asks for as.vit9696.Lilu at \"1.x\", which is not a kext version."}}})
        EXPECT_EQ(checkOne(makeKextBundle(incoming, name, info, executable), volume()), failures)
            << name;
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
