// Kexts on a macOS of 10.15 and later: installed, listed, moved and restored on the data volume,
// the system volume written only where macOS allows it, the caches marked on the right half.
#include "KextFixtures.h"
#include "TestSupport.h"
#include "kexts/KextBackups.h"
#include "kexts/KextCaches.h"
#include "kexts/KextCatalog.h"
#include "kexts/KextFolder.h"
#include "kexts/KextInstallation.h"
#include "volumes/VolumePairing.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class KextGroupTest : public testing::Test {
protected:
    void SetUp() override {
        if (!test::runningAsRoot())
            GTEST_SKIP() << "installed kexts must belong to root";
    }

    Volume group(std::string_view version, std::string_view build) {
        test::makeVolumeGroup(system, data, version, build);
        for (const auto& extensions :
             {system / "System/Library/Extensions", data / "Library/Extensions"})
            fs::last_write_time(extensions, fs::file_time_type::clock::now() - 48h);
        return *openMacOS(system.string(), data.string(), {});
    }

    test::TemporaryFolder folder, backups;
    fs::path system = folder / "Macintosh HD";
    fs::path data = folder / "Macintosh HD - Data";
};

Kext liluKext() {
    return Kext(FileURL::fromPath((test::realKextsFolder() / "Lilu.kext").string(), false));
}

TEST_F(KextGroupTest, Catalina_KextsLiveOnTheDataVolumeThroughEveryOperation) {
    const auto volume = group("10.15.7", "19H2");
    EXPECT_FALSE(auxiliaryCollectionNotice(volume));
    EXPECT_TRUE(installKexts({liluKext()}, "/Library/Extensions/", volume).empty());
    EXPECT_TRUE(fs::exists(data / "Library/Extensions/Lilu.kext/Contents/Info.plist"));
    EXPECT_FALSE(fs::exists(system / "Library/Extensions")) << "the firmlink's folder stays empty";

    EXPECT_TRUE(std::ranges::any_of(installedKexts(volume), [](const Kext& kext) {
        return kext.path() == "/Library/Extensions/Lilu.kext" && kext.ownersAndModesRight;
    })) << "listed where it is, root-owned";

    const auto failed = installKexts({liluKext()}, "/System/Library/Extensions/", volume);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_NE(failed[0].reason.find("read-only system volume"), std::string::npos);

    // 10.15's kernel cache lies on the data volume, named by the system volume's bootcaches.
    const auto cache = data / "Library/Apple/System/Library/PrelinkedKernels/prelinkedkernel";
    test::writeText(cache, "cache");
    const auto future = fs::file_time_type::clock::now() + 24h * 365;
    fs::last_write_time(cache, future);
    fs::create_directories(data / "Library/Apple/System/Library/Extensions");
    const PlistValue::Array folders{"/System/Library/Extensions", "/Library/Extensions",
                                    "/Library/Apple/System/Library/Extensions"};
    test::writePlist(
        system / "usr/standalone/bootcaches.plist",
        PlistValue::Dict{
            {"PostBootPaths", PlistValue::Dict{{"Kernelcache v1.5",
                                                PlistValue::Dict{{"ExtensionsDir", folders}}}}}});
    ASSERT_TRUE(rebuildCaches(volume));
    for (const auto& marked :
         {data / "Library/Extensions", data / "Library/Apple/System/Library/Extensions",
          system / "System/Library/Extensions"})
        EXPECT_GT(fs::last_write_time(marked), future) << marked;

    const auto now = std::chrono::system_clock::now();
    const auto removed = moveKextsToBackup(volume, {"/Library/Extensions/Lilu.kext"},
                                           (backups / "removed").string(), "remove", now);
    EXPECT_EQ(removed.failed, std::vector<std::string>{});
    EXPECT_FALSE(fs::exists(data / "Library/Extensions/Lilu.kext"));
    ASSERT_TRUE(restoreKextsFromBackup(backups / "removed", volume, (backups / "x").string(), now));
    EXPECT_TRUE(fs::exists(data / "Library/Extensions/Lilu.kext/Contents/Info.plist"));
}

TEST_F(KextGroupTest, Sonoma_TheSealedSystemVolumeIsLeftExactlyAsItWas) {
    const auto volume = group("14.6.1", "23G93");
    const auto systemBefore = test::treeListing(system);
    const auto systemTime = fs::last_write_time(system / "System/Library/Extensions");

    EXPECT_TRUE(installKexts({liluKext()}, "/Library/Extensions/", volume).empty());
    EXPECT_FALSE(folderRefusal("/Library/Extensions/", volume));
    for (const auto* sealed : {"/Extra/Extensions/", "/System/Library/Extensions/"}) {
        EXPECT_TRUE(folderRefusal(sealed, volume)) << "refused before any write: " << sealed;
        const auto failed = installKexts({liluKext()}, sealed, volume);
        ASSERT_EQ(failed.size(), 1u) << sealed;
        EXPECT_NE(failed[0].reason.find("system volume"), std::string::npos) << failed[0].reason;
    }
    ASSERT_TRUE(rebuildCaches(volume));
    EXPECT_GT(fs::last_write_time(data / "Library/Extensions"),
              fs::file_time_type::clock::now() - 1h);
    EXPECT_EQ(fs::last_write_time(system / "System/Library/Extensions"), systemTime);
    EXPECT_EQ(test::treeListing(system), systemBefore);

    const auto notice = auxiliaryCollectionNotice(volume);
    ASSERT_TRUE(notice);
    EXPECT_NE(notice->find("AuxiliaryKernelExtensions.kc"), std::string::npos);
}

} // namespace
} // namespace quelm
