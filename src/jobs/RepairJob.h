// The verify and repair job: the volume's owners and modes checked against its receipts, and
// put right when repairing, with the report saved; shared by the application's installation
// and quelmctl's verify-permissions and repair-permissions.
#pragma once

#include "jobs/Operations.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace quelm {

struct RepairRequest {
    Volume volume;
    RepairMode mode = RepairMode::repairPermissions;
    /// Also compares each file's size and checksum with its receipt (in process only).
    bool checksContent = false;
    /// Where the report goes: this file, or a file named by the time in reportFolder.
    std::optional<std::filesystem::path> reportFile = {};
    std::optional<std::filesystem::path> reportFolder = {};
};

struct RepairOutcome {
    /// Set when nothing was checked.
    std::optional<Error> refusal;
    PermissionCheck check;
    std::optional<std::filesystem::path> report;
    /// Why the report was not saved.
    std::optional<Error> reportProblem;
};

class RepairJob {
public:
    RepairJob(RepairRequest request, Operations& operations);
    RepairOutcome run();

private:
    void saveReport(RepairOutcome& outcome) const;

    RepairRequest request_;
    Operations& operations_;
};

/// Whether the record is one the job could not put right.
bool isFailedRecord(const ResultRecord& record);
/// Whether the record is of a file whose content differs or cannot be read.
bool isContentRecord(const ResultRecord& record);
/// Whether the record names a receipt whose bill of materials could not be read.
bool isUnreadableBomRecord(const ResultRecord& record);

} // namespace quelm
