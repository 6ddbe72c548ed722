// Kexts on a macOS of 10.15 and later: what the two-volume run of the real file-system lane does
// not see there. That lane installs onto the data volume, refuses the system volume, marks the
// caches and takes kexts off and back; here the kexts listed on the data volume, the caches of
// 10.15 named by the system volume but lying on the data volume, and the auxiliary collection.
#include "KextFixtures.h"
#include "TestSupport.h"
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
        return *openMacOS(system.string(), data.string(), {});
    }

    test::TemporaryFolder folder;
    fs::path system = folder / "Macintosh HD";
    fs::path data = folder / "Macintosh HD - Data";
};

TEST_F(KextGroupTest, Catalina_KextsAndTheCacheLiveOnTheDataVolume) {
    const auto volume = group("10.15.7", "19H2");
    EXPECT_FALSE(auxiliaryCollectionNotice(volume));
    const Kext lilu(FileURL::fromPath((test::realKextsFolder() / "Lilu.kext").string(), false));
    EXPECT_TRUE(installKexts({lilu}, "/Library/Extensions/", volume).empty());
    EXPECT_TRUE(std::ranges::any_of(installedKexts(volume), [](const Kext& kext) {
        return kext.path() == "/Library/Extensions/Lilu.kext" && kext.ownersAndModesRight;
    })) << "listed where it is, root-owned";

    const auto cache = data / "Library/Apple/System/Library/PrelinkedKernels/prelinkedkernel";
    test::writeText(cache, "cache");
    const auto future = fs::file_time_type::clock::now() + 24h * 365;
    fs::last_write_time(cache, future);
    const auto apple = data / "Library/Apple/System/Library/Extensions";
    fs::create_directories(apple);
    test::writePlist(
        system / "usr/standalone/bootcaches.plist",
        PlistValue::Dict{
            {"PostBootPaths",
             PlistValue::Dict{
                 {"Kernelcache v1.5",
                  PlistValue::Dict{{"ExtensionsDir", PlistValue::Array{"/Library/Apple/System/"
                                                                       "Library/Extensions"}}}}}}});
    ASSERT_TRUE(rebuildCaches(volume));
    EXPECT_GT(fs::last_write_time(apple), future);
}

TEST_F(KextGroupTest, Sonoma_SealedFoldersAreRefusedBeforeAnyWriteAndTheCollectionNamed) {
    const auto volume = group("14.6.1", "23G93");
    EXPECT_FALSE(folderRefusal("/Library/Extensions/", volume));
    for (const auto* sealed : {"/Extra/Extensions/", "/System/Library/Extensions/"})
        EXPECT_TRUE(folderRefusal(sealed, volume)) << sealed;
    const auto notice = auxiliaryCollectionNotice(volume);
    ASSERT_TRUE(notice);
    EXPECT_TRUE(notice->contains("AuxiliaryKernelExtensions.kc")) << *notice;
}

} // namespace
} // namespace quelm
