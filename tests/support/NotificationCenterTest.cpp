// The notification centre: typed objects to the observers of a name, and observers that change
// the centre while they are notified.
#include "support/NotificationCenter.h"

#include <gtest/gtest.h>
#include <vector>

namespace quelm {
namespace {

TEST(NotificationCenterTest, DeliversTypedObjectsUntilRemovedAlsoByTheObserverWhileNotified) {
    NotificationCenter center;
    const auto progress = notificationName<double>(".test.progress");
    const auto paths = notificationName<std::vector<std::string>>(".test.paths");
    std::vector<double> seen;
    std::vector<std::string> collected;
    NotificationCenter::Token token = 0;
    token = center.addObserver(progress, [&](const double& v) {
        seen.push_back(v);
        center.removeObserver(token);
    });
    const auto other = center.addObserver(paths, [&](const auto& p) { collected = p; });
    center.post(progress, 0.5);
    center.post(paths, std::vector<std::string>{"/a.kext", "/b.kext"});
    center.post(progress, 1.0);
    center.removeObserver(other);
    center.post(paths, std::vector<std::string>{"/c.kext"});
    EXPECT_EQ(seen, std::vector<double>{0.5});
    EXPECT_EQ(collected, (std::vector<std::string>{"/a.kext", "/b.kext"}));
}

} // namespace
} // namespace quelm
