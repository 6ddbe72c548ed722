// Boot environment: raw values and detection from the host's root folder.
#include "volumes/BootEnvironment.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

TEST(BootEnvironmentTest, RawValuesAndTheInstallationFolderOfTheHost) {
    EXPECT_EQ(bootEnvironmentTypeFromRawValue("single user"), std::nullopt);
    test::TemporaryFolder root;
    EXPECT_EQ(BootEnvironment(root.path().string()).currentEnvironment(), BootMode::Normal);
    std::filesystem::create_directories(root / "System/Installation");
    EXPECT_EQ(rawValue(BootEnvironment(root.path().string()).currentEnvironment()), "Recovery/PE");
}

} // namespace
} // namespace quelm
