// The verify and repair job.
#include "jobs/RepairJob.h"

#include "support/Files.h"
#include "support/Strings.h"

#include <algorithm>
#include <array>
#include <chrono>

namespace quelm {

bool isFailedRecord(const ResultRecord& record) {
    return record.attributeStatusString == displayText(AttributeStatus::failed);
}

bool isContentRecord(const ResultRecord& record) {
    constexpr std::array kContentTypes{Mismatch::sizeMismatched, Mismatch::checksumMismatched,
                                       Mismatch::contentUnreadable};
    return std::ranges::any_of(kContentTypes, [&](Mismatch type) {
        return record.attributeMismatchedTypeString == displayText(type);
    });
}

bool isUnreadableBomRecord(const ResultRecord& record) {
    return record.attributeMismatchedTypeString == displayText(Mismatch::billOfMaterialsUnreadable);
}

RepairJob::RepairJob(RepairRequest request, Operations& operations)
    : request_(std::move(request)), operations_(operations) {
}

RepairOutcome RepairJob::run() {
    RepairOutcome outcome;
    if (request_.mode == RepairMode::repairPermissions)
        if (auto writable = operations_.checkWritable(request_.volume, ""); !writable) {
            outcome.refusal = std::move(writable.error());
            return outcome;
        }
    auto check =
        operations_.checkPermissions(request_.volume, request_.mode, request_.checksContent);
    if (!check) {
        outcome.refusal = std::move(check.error());
        return outcome;
    }
    outcome.check = std::move(*check);
    saveReport(outcome);
    return outcome;
}

void RepairJob::saveReport(RepairOutcome& outcome) const {
    if (!request_.reportFile && !request_.reportFolder)
        return;
    auto path = request_.reportFile.value_or(std::filesystem::path());
    if (!request_.reportFile) {
        std::error_code error;
        std::filesystem::create_directories(*request_.reportFolder, error);
        path =
            *request_.reportFolder / (compactTimestamp(std::chrono::system_clock::now()) + ".txt");
    }
    if (auto saved = writeFileAtomically(path, reportText(outcome.check.results)); !saved)
        outcome.reportProblem = Error{"Unable to save the repair report to " + path.string() +
                                          ": " + saved.error().message,
                                      ErrorKind::io};
    else
        outcome.report = path;
}

} // namespace quelm
