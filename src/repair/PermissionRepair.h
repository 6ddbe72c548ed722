// One verify or repair run over a volume, with throttled progress notifications.
#pragma once

#include "repair/Receipts.h"
#include "repair/RepairResult.h"
#include "repair/ResourceSet.h"
#include "support/NotificationCenter.h"
#include "volumes/Volume.h"

#include <cstdint>
#include <functional>
#include <vector>

namespace quelm {

/// Posted with the job's progress in percent, at most every half second.
inline const NotificationName<double> kRepairPermissionsProgressDidChange =
    notificationName<double>(".yrrepairpermissions.progressDidChange");

class PermissionRepair : ReceiptsDelegate, ResourceSetDelegate {
public:
    /// Monotonic nanoseconds; tests pass their own.
    using Clock = std::function<std::uint64_t()>;
    static std::uint64_t uptimeNanoseconds();

    PermissionRepair(Volume targetVolume, RepairMode jobType, Clock clock = uptimeNanoseconds);

    /// Also compare each file's size and checksum with its receipt (off by default: it reads
    /// every file).
    void setChecksContent(bool checks) { checksContent_ = checks; }
    /// Runs the whole job on the calling thread. Jobs in one process run one after the other.
    void run();

    const std::vector<RepairResult>& results() const { return results_; }
    /// How many paths of the volume were checked.
    std::int64_t checkedPathCount() const { return checkedPathCount_; }
    double progress() const { return progress_; }
    /// Stores the value; posts it unless the last post was within half a second.
    void setProgress(double progress);

private:
    void packageManagerDidMakeResource(std::int64_t counter, std::int64_t total) override;
    void fileSystemResourceManagerDidProcess(std::int64_t counter, std::int64_t total) override;

    Volume targetVolume_;
    RepairMode jobType_;
    Clock clock_;
    std::vector<RepairResult> results_;
    std::int64_t checkedPathCount_ = 0;
    std::uint64_t lastTime_ = 0;
    double progress_ = 0;
    bool checksContent_ = false;
};

/// counter / total scaled onto [offset, offset + span] percent, with two decimals.
double scaledProgress(std::int64_t counter, std::int64_t total, double span, double offset);

} // namespace quelm
