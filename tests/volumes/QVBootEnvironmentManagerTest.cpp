// Boot environment: raw values and detection from the host's root folder.
#include "volumes/QVBootEnvironmentManager.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

TEST(QVBootEnvironmentManagerTest, RawValuesMakeExactlyTheirCases) {
    EXPECT_EQ(rawValue(QVBootEnvironmentType::Recovery), "Recovery/PE");
    EXPECT_EQ(bootEnvironmentTypeFromRawValue("Single User Recovery/PE"),
              QVBootEnvironmentType::SingleUserRecovery);
    EXPECT_EQ(bootEnvironmentTypeFromRawValue("single user"), std::nullopt);
    for (int i = 0; i <= 4; ++i) {
        const auto type = static_cast<QVBootEnvironmentType>(i);
        EXPECT_EQ(bootEnvironmentTypeFromRawValue(rawValue(type)), type);
    }
}

TEST(QVBootEnvironmentManagerTest, InstallationFolderMeansRecovery) {
    test::TemporaryFolder root;
    EXPECT_EQ(QVBootEnvironmentManager(root.path().string()).currentEnvironment(),
              QVBootEnvironmentType::Normal);
    std::filesystem::create_directories(root / "System/Installation");
    QVBootEnvironmentManager manager(root.path().string());
    EXPECT_EQ(manager.currentEnvironment(), QVBootEnvironmentType::Recovery);
    EXPECT_EQ(rawValue(manager.currentEnvironment()), "Recovery/PE");
}

} // namespace
} // namespace quelm
