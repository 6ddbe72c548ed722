// The notification centre: typed objects to the observers of a name, and observers that change
// the centre while they are notified.
#include "support/NotificationCenter.h"

#include <gtest/gtest.h>
#include <vector>

namespace quelm {
namespace {

TEST(NotificationCenterTest, DeliversTypedObjectsToObserversOfTheNameUntilRemoved) {
    NotificationCenter center;
    const auto progress = notificationName<double>(".test.progress");
    const auto paths = notificationName<std::vector<std::string>>(".test.paths");
    std::vector<double> seen;
    std::vector<std::string> collected;
    const auto token = center.addObserver(progress, [&](const double& v) { seen.push_back(v); });
    center.addObserver(paths, [&](const auto& p) { collected = p; });
    center.post(progress, 0.5);
    center.post(paths, std::vector<std::string>{"/a.kext", "/b.kext"});
    center.removeObserver(token);
    center.post(progress, 1.0);
    EXPECT_EQ(seen, std::vector<double>{0.5});
    EXPECT_EQ(collected, (std::vector<std::string>{"/a.kext", "/b.kext"}));
}

TEST(NotificationCenterTest, ObserverMayRemoveItselfWhileNotified) {
    NotificationCenter center;
    const auto name = notificationName<int>(".test.once");
    int calls = 0;
    NotificationCenter::Token token = 0;
    token = center.addObserver(name, [&](const int&) { center.removeObserver(token), ++calls; });
    center.post(name, 1);
    center.post(name, 2);
    EXPECT_EQ(calls, 1);
}

} // namespace
} // namespace quelm
