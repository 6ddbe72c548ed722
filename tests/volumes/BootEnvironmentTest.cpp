// Boot environment: raw values and detection from the host's root folder.
#include "volumes/BootEnvironment.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

TEST(BootEnvironmentTest, RawValuesMakeExactlyTheirCases) {
    EXPECT_EQ(rawValue(BootMode::Recovery), "Recovery/PE");
    EXPECT_EQ(bootEnvironmentTypeFromRawValue("Single User Recovery/PE"),
              BootMode::SingleUserRecovery);
    EXPECT_EQ(bootEnvironmentTypeFromRawValue("single user"), std::nullopt);
    for (int i = 0; i <= 4; ++i) {
        const auto type = static_cast<BootMode>(i);
        EXPECT_EQ(bootEnvironmentTypeFromRawValue(rawValue(type)), type);
    }
}

TEST(BootEnvironmentTest, InstallationFolderMeansRecovery) {
    test::TemporaryFolder root;
    EXPECT_EQ(BootEnvironment(root.path().string()).currentEnvironment(), BootMode::Normal);
    std::filesystem::create_directories(root / "System/Installation");
    BootEnvironment manager(root.path().string());
    EXPECT_EQ(manager.currentEnvironment(), BootMode::Recovery);
    EXPECT_EQ(rawValue(manager.currentEnvironment()), "Recovery/PE");
}

} // namespace
} // namespace quelm
