// One verify or repair run over a volume, with throttled progress notifications.
#include "repair/PermissionRepair.h"

#include "repair/WorkSlices.h"
#include "support/Log.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <iterator>
#include <mutex>

namespace quelm {
namespace {

constexpr std::uint64_t kProgressInterval = 500'000'000;

/// One failed result per package whose BOM could not be read, named by the BOM's path.
std::vector<RepairResult> unreadableReceiptResults(const std::vector<std::string>& bomPaths,
                                                   RepairMode jobType) {
    std::vector<RepairResult> results;
    for (const auto& path : bomPaths)
        results.emplace_back(jobType, path, Mismatch::billOfMaterialsUnreadable, 0, 0, std::nullopt,
                             AttributeStatus::failed);
    return results;
}

} // namespace

double scaledProgress(std::int64_t counter, std::int64_t total, double span, double offset) {
    const double fraction = static_cast<double>(counter) / static_cast<double>(total);
    return std::round(fraction * 100 * (span / 100) * 100) / 100 + offset;
}

std::uint64_t PermissionRepair::uptimeNanoseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000u +
           static_cast<std::uint64_t>(now.tv_nsec);
}

PermissionRepair::PermissionRepair(Volume targetVolume, RepairMode jobType, Clock clock)
    : targetVolume_(std::move(targetVolume)), jobType_(jobType), clock_(std::move(clock)) {
}

void PermissionRepair::setProgress(double progress) {
    const std::uint64_t now = clock_();
    if (now < lastTime_)
        fatalError("YRRepairPermissions::setProgress() FatalError: the monotonic clock went back.");
    if (now - lastTime_ > kProgressInterval) {
        NotificationCenter::defaultCenter().post(kRepairPermissionsProgressDidChange, progress);
        lastTime_ = clock_();
    }
    progress_ = progress;
}

void PermissionRepair::packageManagerDidMakeResource(std::int64_t counter, std::int64_t total) {
    setProgress(scaledProgress(counter, total, 30, 10));
}

void PermissionRepair::fileSystemResourceManagerDidProcess(std::int64_t counter,
                                                           std::int64_t total) {
    setProgress(scaledProgress(counter, total, 50, 40));
}

void PermissionRepair::run() {
    // The managers are shared: a second job waits for the first instead of mixing with it.
    static std::mutex oneJobAtATime;
    std::lock_guard lock(oneJobAtATime);
    // Every work item keeps a folder descriptor per level: let the job use all it may have.
    raiseDescriptorLimit();
    auto& packages = Receipts::shared();
    auto& resources = ResourceSet::shared();
    packages.reset();
    resources.reset();

    packages.setTargetVolume(targetVolume_);
    packages.setDelegate(this);
    setProgress(10);
    packages.setup();
    checkedPathCount_ = packages.counter();
    setProgress(40);

    resources.setDelegate(this);
    resources.setChecksContent(checksContent_);
    if (jobType_ == RepairMode::repairPermissions)
        resources.repair();
    else
        resources.verify();

    results_ = unreadableReceiptResults(packages.unreadableBomPaths(), jobType_);
    std::ranges::move(resources.takeResults(), std::back_inserter(results_));
    const auto collected = static_cast<std::int64_t>(results_.size());
    setProgress(scaledProgress(collected, std::max<std::int64_t>(collected, 1), 10, 90));
    setProgress(100);
    packages.reset();
    resources.reset();
}

} // namespace quelm
