// Real third-party kexts against a volume whose libraries lie as Apple ships them: flat bundles,
// architecture-specific library lists, libraries of the same job and of every Extensions folder.
#include "KextFixtures.h"
#include "TestSupport.h"
#include "kexts/Kext.h"
#include "kexts/KextCatalog.h"
#include "kexts/KextChecks.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;
using Failures = std::vector<std::vector<std::string>>;

class RealKextsTest : public testing::Test {
protected:
    void SetUp() override { test::makeCatalinaVolume(root); }
    Volume volume() const { return *Volume::initWithMountPoint(root.string()); }

    /// The failures of each real kext named, checked as one job.
    std::vector<std::vector<std::string>> check(const std::vector<std::string>& names) const {
        std::vector<std::string> paths;
        for (const auto& name : names)
            paths.push_back((test::realKextsFolder() / name).string());
        return checkKexts(paths, volume());
    }

    test::TemporaryFolder folder;
    fs::path root = folder / "Macintosh HD";
};

TEST_F(RealKextsTest, FlatBundlesAreListedWithTheirCodeVersionAndPlugIns) {
    const auto kexts = installedKexts(volume());
    ASSERT_EQ(kexts.size(), 3u);
    const auto& pci = kexts[0];
    EXPECT_EQ(pci.path(), "/System/Library/Extensions/IOPCIFamily.kext");
    EXPECT_TRUE(pci.flat);
    EXPECT_EQ(pci.cpuTypes(), std::vector<std::string>{"x86_64"});
    EXPECT_EQ(readKext((root / pci.path().substr(1)).string())->version(), "2.9")
        << "read from the bundle's top";
    ASSERT_EQ(kexts[1].plugIns.size(), 6u);
    EXPECT_EQ(kexts[1].plugIns[0].path(),
              "/System/Library/Extensions/System.kext/PlugIns/BSDKernel.kext");
    EXPECT_EQ(kexts[2].path(), "/Library/Apple/System/Library/Extensions/IOACPIFamily.kext");
    EXPECT_FALSE(kexts[2].flat);
}

TEST_F(RealKextsTest, RealKextsPassWhereTheyWouldLoad) {
    const std::vector<std::string> none;
    EXPECT_EQ(check({"Lilu.kext"}), Failures{none}) << "its x86_64 list, not the 32-bit one";
    EXPECT_EQ(check({"Lilu.kext", "VirtualSMC.kext", "SMCProcessor.kext"}),
              (Failures{none, none, none}))
        << "Lilu installed in the same job";
    fs::create_directories(root / "Library/Extensions/Lilu.kext");
    fs::copy(test::realKextsFolder() / "Lilu.kext", root / "Library/Extensions/Lilu.kext",
             fs::copy_options::recursive);
    EXPECT_EQ(check({"SMCProcessor.kext", "VirtualSMC.kext"}), (Failures{none, none}))
        << "Lilu on the volume";
}

TEST_F(RealKextsTest, MissingLibrariesAndThe32BitKernelAreNamed) {
    EXPECT_EQ(
        check({"SMCProcessor.kext"}),
        (Failures{{"SMCProcessor.kext needs as.vit9696.Lilu, which is not on the volume.",
                   "SMCProcessor.kext needs as.vit9696.VirtualSMC, which is not on the volume."}}));
    const auto old = test::makeKextBundle(
        folder / "incoming", "Old.kext",
        test::kextInfo("com.example.Old", "1.0", std::nullopt,
                       {{"com.apple.kernel.6.0", "7.9.9"}, {"com.apple.kpi.iokit", "8.0.0"}}));
    EXPECT_EQ(
        checkKexts({old.string()}, volume()),
        (Failures{{"Old.kext needs com.apple.kernel.6.0, which only a 32-bit kernel has, so no "
                   "64-bit Intel Mac can load it."}}));
}

} // namespace
} // namespace quelm
