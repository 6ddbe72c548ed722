// quelmctl verify-permissions and repair-permissions: the repair job on a volume, in process.
#include "quelmctl/Commands.h"
#include "quelmctl/Rescue.h"
#include "repair/PermissionRepair.h"
#include "repair/Processor.h"
#include "support/Files.h"
#include "volumes/VolumeLock.h"

#include <filesystem>
#include <iostream>
#include <unistd.h>

namespace quelm::ctl {
namespace {

struct Options {
    std::string volume;
    std::int64_t threads = 0;
    bool content = false;
    bool json = false;
    std::string report;
    bool dryRun = false;
};

/// Draws the job's progress on stderr while it runs on a terminal.
class ProgressBar {
public:
    ProgressBar() : enabled_(::isatty(STDERR_FILENO) != 0) {
        if (enabled_)
            token_ = NotificationCenter::defaultCenter().addObserver(
                kRepairPermissionsProgressDidChange, [](const double& value) { draw(value); });
    }
    ~ProgressBar() {
        if (!enabled_)
            return;
        NotificationCenter::defaultCenter().removeObserver(token_);
        std::fputs("\r\033[K", stderr);
    }
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

private:
    static void draw(double percent) {
        constexpr int kWidth = 40;
        const int filled = static_cast<int>(percent / 100 * kWidth);
        std::string bar(static_cast<std::size_t>(filled), '#');
        bar.resize(kWidth, '-');
        std::fprintf(stderr, "\r[%s] %6.2f%%", bar.c_str(), percent);
        std::fflush(stderr);
    }

    bool enabled_;
    NotificationCenter::Token token_ = 0;
};

std::string jsonResults(const std::vector<ResultRecord>& results) {
    std::string out = "[";
    for (const auto& r : results) {
        out += out.size() > 1 ? ",\n  {" : "\n  {";
        out +=
            "\"identifier\": " + jsonString(r.identifier) +
            ", \"fileSystemResourcePath\": " + jsonString(r.fileSystemResourcePath) +
            ", \"attributeMismatchedTypeString\": " + jsonString(r.attributeMismatchedTypeString) +
            ", \"currentAttribute\": " + std::to_string(r.currentAttribute) +
            ", \"correctAttribute\": " + std::to_string(r.correctAttribute) +
            ", \"newAttribute\": " +
            (r.hasNewAttribute() ? std::to_string(r.newAttribute) : std::string("null")) +
            ", \"attributeStatusString\": " + jsonString(r.attributeStatusString) + "}";
    }
    return out + (results.empty() ? "]\n" : "\n]\n");
}

bool isFailed(const RepairResult& result) {
    return result.attributeStatus() == AttributeStatus::failed;
}

bool isContent(const RepairResult& result) {
    return isContentType(result.attributeMismatchedType());
}

std::string summary(const PermissionRepair& job, RepairMode type, bool checksContent) {
    const auto& results = job.results();
    const auto failed = static_cast<std::size_t>(std::ranges::count_if(results, isFailed));
    const auto content = static_cast<std::size_t>(
        std::ranges::count_if(results, [](const auto& r) { return isContent(r) && !isFailed(r); }));
    const std::string others = std::to_string(results.size() - failed - content);
    const std::string checked = std::to_string(job.checkedPathCount()) + " paths checked: ";
    const std::string contentText = checksContent && type == RepairMode::verifyPermissions
                                        ? std::to_string(content) + " with other content, "
                                        : "";
    return checked + others +
           (type == RepairMode::verifyPermissions ? " mismatched, " : " fixed, ") + contentText +
           std::to_string(failed) + " failed";
}

/// Names every receipt whose paths went unchecked, so that its package can be reinstalled, and
/// says what mends files whose content differs.
void reportUnrepairable(const PermissionRepair& job, RepairMode type) {
    for (const auto& result : job.results())
        if (result.attributeMismatchedType() == Mismatch::billOfMaterialsUnreadable)
            printError("cannot read the bill of materials " + result.fileSystemResourcePath() +
                       ": the paths of its package were not checked; reinstall that package");
    const auto content = std::ranges::count_if(job.results(), isContent);
    if (content > 0)
        printError(std::to_string(content) + " file" + (content == 1 ? "" : "s") +
                   " differ from their receipts in content or cannot be read" +
                   (type == RepairMode::repairPermissions
                        ? ": repair never changes a file's content; reinstall the packages "
                          "that installed them"
                        : ": reinstall the packages that installed them"));
}

int runJob(const Options& options, RepairMode type) {
    const auto volume = openVolume(options.volume);
    if (!volume)
        return 2;
    if (options.threads > 0)
        Processor::shared().setMaxthread(options.threads);
    const bool repairs = type == RepairMode::repairPermissions;
    if (repairs && refusesWrites(*volume))
        return 2;
    if (repairs && ::geteuid() != 0)
        printError("not running as root: owners and groups cannot be repaired");
    std::optional<VolumeLock> lock;
    if (repairs) {
        auto taken = VolumeLock::acquire(volume->mountPoint());
        if (!taken) {
            printError(taken.error().message);
            return 2;
        }
        lock.emplace(std::move(*taken));
    }
    PermissionRepair job(*volume, type);
    job.setChecksContent(options.content);
    {
        ProgressBar bar;
        job.run();
    }
    std::vector<ResultRecord> results;
    for (const auto& result : job.results())
        results.push_back(result.representable());
    const std::string report = reportText(results);
    if (!options.report.empty()) {
        if (auto saved = writeFileAtomically(options.report, report); !saved) {
            printError("cannot save the report: " + saved.error().message);
            return 2;
        }
    }
    if (options.json)
        std::cout << jsonResults(results);
    else
        std::cout << report << (report.empty() ? "" : "\n") << summary(job, type, options.content)
                  << '\n';
    reportUnrepairable(job, type);
    const bool failed = std::ranges::any_of(job.results(), isFailed);
    return type == RepairMode::verifyPermissions ? !results.empty() : failed;
}

void addJobCommand(CLI::App& app, int& status, const char* name, const char* description,
                   RepairMode type) {
    auto* command = app.add_subcommand(name, description);
    auto options = std::make_shared<Options>();
    command->add_option("--volume", options->volume, "Mount point of the macOS volume")->required();
    addDataVolumeOption(command);
    command
        ->add_option("--threads", options->threads,
                     "Work items run at once (default: one per logical processor; at most 64, "
                     "and fewer when open descriptors would run short)")
        ->check(CLI::Range(1, 1024));
    command->add_flag("--content", options->content,
                      "Also compare each file's size and checksum with its receipt (reads every "
                      "file); content is never changed, a package whose files differ must be "
                      "reinstalled");
    command->add_flag("--json", options->json, "Print the results as a JSON array");
    command->add_option("--report", options->report, "Also save the report text to FILE");
    command->footer("Exit status: 0 when nothing is left mismatched, 1 when mismatches remain "
                    "(content included, with --content), a repair failed, a path or a receipt's "
                    "bill of materials cannot be read, 2 on an error such as a folder that is no "
                    "macOS volume.");
    if (type == RepairMode::repairPermissions)
        command->add_flag("--dry-run", options->dryRun,
                          "Print what would be repaired (as verify-permissions); change nothing");
    // A dry run is the verification: it lists every mismatch that a repair would fix.
    command->callback([options, &status, type] {
        status = runJob(*options, options->dryRun ? RepairMode::verifyPermissions : type);
    });
}

} // namespace

void addPermissionsCommands(CLI::App& app, int& status) {
    addJobCommand(app, status, "verify-permissions",
                  "Compare owner, group and permissions of every path the volume's receipts "
                  "list with what they prescribe; change nothing.",
                  RepairMode::verifyPermissions);
    addJobCommand(app, status, "repair-permissions",
                  "Set owner, group and permissions of every path the volume's receipts list "
                  "to what they prescribe (run as root).",
                  RepairMode::repairPermissions);
}

} // namespace quelm::ctl
