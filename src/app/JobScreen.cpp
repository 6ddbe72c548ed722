// The installation screen: it names the volume, runs the installation job of the core through
// the helper, answers its questions and shows its stages, then delivers what it did.
#include "app/JobScreen.h"

#include "helper/HelperClient.h"
#include "helper/HelperManager.h"
#include "kexts/KextCaches.h"
#include "kexts/KextHistory.h"
#include "support/Bundle.h"
#include "support/Log.h"
#include "support/Paths.h"
#include "ui/UserDefaults.h"
#include "ui/ViewExtensions.h"
#include "ui_JobScreen.h"
#include "volumes/VolumeManager.h"

#include <QApplication>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <algorithm>
#include <unistd.h>

namespace quelm {
namespace {

QColor inverted(const QColor& color) {
    return QColor(255 - color.red(), 255 - color.green(), 255 - color.blue(), color.alpha());
}

KextFolder policySetting() {
    const auto policy = userDefaultString(kDefaultKextInstallationFolderKey);
    return kernelExtensionFolderFromRawValue(policy.value_or(""))
        .value_or(KextFolder::LibraryExtensions);
}

QString reasonText(const SkippedKext& kext) {
    switch (kext.reason) {
    case SkipReason::notAKext:
        //% "not a kext"
        return qtTrId("kQVMainQuelmVCNotAKext");
    case SkipReason::failedChecks:
        //% "failed its checks"
        return qtTrId("kQVMainQuelmVCFailedChecks");
    case SkipReason::noFolderChosen:
        //% "no folder was chosen"
        return qtTrId("kQVMainQuelmVCNoFolderChosen");
    case SkipReason::notInSmartTable:
        //% "not in the smart table"
        return qtTrId("kQVMainQuelmVCNotInSmartTable");
    case SkipReason::notBackedUp:
        //% "its installed copy could not be backed up"
        return qtTrId("kQVMainQuelmVCNotBackedUp");
    case SkipReason::folderRefused:
        break;
    }
    return QString::fromStdString(kext.detail);
}

} // namespace

/// The job's events, taken to the screen's thread; its questions wait there for the answer.
class JobScreen::Events final : public InstallEvents {
public:
    Events(JobScreen& screen, BackgroundJob& job) : screen_(screen), job_(job) {}

    void stageBegan(JobStage stage) override {
        job_.post([this, stage] { screen_.showStage(stage); });
    }
    void skipped(const SkippedKext& kext) override {
        logLine("QVMainQuelmVC::Info: skipped " + kext.name + ": " +
                reasonText(kext).toStdString());
    }
    bool installAnyway(const Kext& kext, const std::vector<std::string>& failures) override {
        return job_.ask<bool>(
            [this, kext, failures] { return screen_.installAnyway(kext, failures); }, false);
    }
    std::optional<KextFolder> chooseFolder(const Kext& kext) override {
        return job_.ask<std::optional<KextFolder>>([this, kext] { return screen_.askFolder(kext); },
                                                   std::nullopt);
    }

private:
    JobScreen& screen_;
    BackgroundJob& job_;
};

JobScreen::JobScreen(QWidget* parent)
    : VolumeScreen(parent), ui_(std::make_unique<Ui::JobScreen>()), job_(this) {
    ui_->setupUi(this);
    imageButton = ui_->imageButton;
    mainTitle = ui_->mainTitle;
    pathField = ui_->pathField;
    circularIndicator = ui_->circularIndicator;
    statusField = ui_->statusField;
    resetButton = ui_->resetButton;
    executeButton = ui_->executeButton;
    volumeInfoField = ui_->volumeInfoField;
    setUpScreen();
}

JobScreen::~JobScreen() = default;

void JobScreen::setUpScreen() {
    VolumeScreen::setUpScreen();
    observe<std::vector<std::string>>(kDidCollectAllFiles,
                                      [this](const auto& files) { runWithANotification(files); });
    startBusyIndicator(*circularIndicator);
    // Without root the helper starts after a password prompt: say here why it comes.
    if (::geteuid() != 0)
        //% "Quelm needs your permission to install its helper, which installs kexts and repairs permissions."
        updateStatusWithLocalizedString(qtTrId("kQVQLMainRequestAuthorization"));
    else
        //% "Preparing..."
        updateStatusWithLocalizedString(qtTrId("kQVMainQLMVCPreparing"));
}

void JobScreen::showEvent(QShowEvent* event) {
    VolumeScreen::showEvent(event);
    applyAppearanceMode(userDefaultString(kDefaultAppearanceModeKey).value_or(""));
}

void JobScreen::applyAppearanceMode(const std::string& mode) {
    if (mode != "LightMode" && mode != "DarkMode")
        return;
    const bool dark = mode == "DarkMode";
    QPalette palette = this->palette();
    palette.setColor(QPalette::Window, dark ? QColor(0, 0, 0, 210) : QColor(255, 255, 255, 200));
    palette.setColor(QPalette::WindowText, dark ? Qt::white : Qt::black);
    setPalette(palette);
    setAutoFillBackground(true);
    QPalette indicator = QApplication::palette(circularIndicator);
    if (dark)
        for (const auto role : {QPalette::Highlight, QPalette::Base, QPalette::Window})
            indicator.setColor(role, inverted(indicator.color(role)));
    circularIndicator->setPalette(indicator);
}

void JobScreen::runWithANotification(const std::vector<std::string>& files) {
    // The intake hands on every path collected so far: those already taken make no new job.
    std::vector<std::string> fresh;
    for (const auto& file : files)
        if (std::ranges::find(seen_, file) == seen_.end())
            fresh.push_back(file);
    seen_.insert(seen_.end(), fresh.begin(), fresh.end());
    if (!fresh.empty())
        enqueueJob(std::move(fresh), std::nullopt);
}

void JobScreen::enqueueJob(std::vector<std::string> files, std::optional<NamedVolume> volume) {
    pending_.push_back({std::move(files), std::move(volume)});
    if (!jobUnderWay_) {
        startNextJob();
        return;
    }
    logLine("QVMainQuelmVC::Info: " + std::to_string(pending_.back().files.size()) +
            " more paths arrived; they are installed in a job of their own after this one.");
}

bool JobScreen::jobUnderWay() const {
    return jobUnderWay_;
}

void JobScreen::beginJob(const std::vector<std::string>& files) {
    files_ = files;
    // Where no macOS runs the host and no volume was named, the user picks one now; without
    // one the job ends with nothing changed.
    if (!VolumeManager::shared().selectedOSVolume() && !selectVolume()) {
        logLine("QVMainQuelmVC::Info: no target volume was chosen; nothing was changed.");
        finishJob();
        return;
    }
    // Known before the helper answers: a refused folder ends the job at once.
    if (const auto refusal =
            InstallJob::refusal(*VolumeManager::shared().selectedOSVolume(), policySetting())) {
        refuseJob(refusal->message);
        return;
    }
    setControlsEnabled(false);
    if (HelperManager::shared().connection()) {
        startJob();
        return;
    }
    // The helper may still be asking for authorisation: the job starts once it answers.
    observe<NoObject>(kHelperDidConnect, [this](const NoObject&) {
        if (jobUnderWay_ && !jobStarted_)
            startJob();
    });
}

void JobScreen::finishJob() {
    jobUnderWay_ = false;
    if (!pending_.empty()) {
        startNextJob();
        return;
    }
    // A job that ends at once ends on the turn that delivered it, before the application
    // hands on the jobs it queued meanwhile: the end counts only when none started since.
    QMetaObject::invokeMethod(
        this,
        [this, started = jobsStarted_] {
            if (jobsStarted_ == started)
                emit jobFinished();
        },
        Qt::QueuedConnection);
}

void JobScreen::startNextJob() {
    auto batch = std::move(pending_.front());
    pending_.pop_front();
    jobUnderWay_ = true;
    ++jobsStarted_;
    jobStarted_ = false;
    if (batch.volume) {
        const auto volume = openTargetVolume(*batch.volume);
        if (!volume) {
            logLine("QVMainQuelmVC::Error: these kexts were not installed: " +
                    volume.error().toStdString());
            InstallOutcome outcome;
            for (const auto& file : batch.files)
                outcome.skipped.push_back({std::filesystem::path(file).filename().string(),
                                           SkipReason::folderRefused,
                                           //% "its volume is not a macOS volume"
                                           qtTrId("kQVMainQuelmVCNotAVolume").toStdString()});
            deliverFinalNotification(outcome);
            finishJob();
            return;
        }
        VolumeManager::shared().setSelectedOSVolume(*volume);
    }
    beginJob(batch.files);
}

void JobScreen::startJob() {
    jobStarted_ = true;
    const auto policy = policySetting();
    std::optional<SmartTable> table;
    if (policy == KextFolder::UseSmartTable) {
        const SmartTable paths(applicationSupportFolder(), Bundle::main());
        table.emplace(applicationSupportFolder(), Bundle::main(), paths.userCopyPath());
    }
    const auto backupRoot = backupFolderSetting();
    if (!backupRoot) {
        //% "Quelm cannot make its backup folder."
        refuseJob(qtTrId("kQVMainQuelmVCNoBackupFolder").toStdString());
        return;
    }
    InstallRequest request{.volume = *VolumeManager::shared().selectedOSVolume(),
                           .paths = files_,
                           .policy = policy,
                           .smartTable = std::move(table),
                           .backupRoot = *backupRoot,
                           .historyFile = historyFilePath(),
                           .repairPermissions = true,
                           .rebuildCaches = true,
                           .reportFolder = applicationSupportFolder() / "Reports"};
    events_ = std::make_unique<Events>(*this, job_);
    auto operations = std::make_shared<HelperBackedOperations>(
        std::make_shared<HelperClient>(HelperManager::shared().connection()));
    job_.start<InstallOutcome>(
        [this, request = std::move(request), operations]() mutable {
            return InstallJob(std::move(request), *operations, *events_).run();
        },
        [this](InstallOutcome outcome) { jobDone(outcome); });
}

void JobScreen::jobDone(const InstallOutcome& outcome) {
    if (outcome.refusal) {
        refuseJob(outcome.refusal->message);
        return;
    }
    for (const auto& problem : outcome.problems)
        logLine("QVMainQuelmVC::Error: " + problem);
    if (outcome.report)
        logLine("QVMainQuelmVC::Info: repair report saved to " + outcome.report->string());
    stopBusyIndicator(*circularIndicator);
    deliverFinalNotification(outcome);
    finishJob();
}

void JobScreen::refuseJob(const std::string& reason) {
    logLine("QVMainQuelmVC::Error: " + reason + " Nothing was changed.");
    stopBusyIndicator(*circularIndicator);
    //% "The target volume cannot be changed"
    showAlert(this, qtTrId("kQVMainQuelmVCVolumeCannotBeChanged"), QString::fromStdString(reason));
    finishJob();
}

void JobScreen::showStage(JobStage stage) {
    switch (stage) {
    case JobStage::checking:
        break;
    case JobStage::backingUp:
        //% "Backing up kexts..."
        updateStatusWithLocalizedString(qtTrId("kQVMainAbstractBackingUpKexts"));
        break;
    case JobStage::installing:
        //% "Installing kexts..."
        updateStatusWithLocalizedString(qtTrId("kQVMainAbstractInstallingKexts"));
        break;
    case JobStage::repairing:
        circularIndicator->setRange(0, 100);
        circularIndicator->setValue(0);
        circularIndicator->show();
        //% "Repairing permissions..."
        updateStatusWithLocalizedString(qtTrId("kQVMainAbstractRepairingPermissions"));
        break;
    case JobStage::rebuildingCaches:
        startBusyIndicator(*circularIndicator);
        //% "Rebuilding caches..."
        updateStatusWithLocalizedString(qtTrId("kQVMainAbstractRebuildingCaches"));
        break;
    }
}

bool JobScreen::installAnyway(const Kext& kext, const std::vector<std::string>& failures) {
    QStringList reasons;
    for (const auto& failure : failures)
        reasons << QString::fromStdString(failure);
    QMessageBox box(
        QMessageBox::Warning, "Quelm",
        //% "%1 did not pass the checks and may not load:"
        qtTrId("kQVMainQuelmVCKextFailedChecks").arg(QString::fromStdString(kext.name())),
        QMessageBox::Yes | QMessageBox::No, this);
    box.setInformativeText(reasons.join("\n"));
    //% "Install Anyway"
    box.button(QMessageBox::Yes)->setText(qtTrId("kQVMainQuelmVCInstallAnyway"));
    //% "Skip"
    box.button(QMessageBox::No)->setText(qtTrId("kQVMainQuelmVCSkip"));
    box.setDefaultButton(QMessageBox::No);
    return ModalAnswers::run(box) == QMessageBox::Yes;
}

std::optional<KextFolder> JobScreen::askFolder(const Kext& kext) {
    // The question names the kext in the text itself: a window title may not be shown at all.
    QMessageBox box(QMessageBox::Information, "Quelm",
                    //% "Select the installation folder for "
                    qtTrId("kQVMainQuelmVCSelectInstallationFolderForKext") +
                        QString::fromStdString(kext.name()),
                    QMessageBox::Yes | QMessageBox::No | QMessageBox::Cancel, this);
    //% "Third-party kexts usually belong in /Library/Extensions/; some drivers must load from /System/Library/Extensions/."
    box.setInformativeText(qtTrId("kQVMainQuelmVCSelectInstallationFolderForKextDescription"));
    box.button(QMessageBox::Yes)->setText("/Library/Extensions/");
    box.button(QMessageBox::No)->setText("/System/Library/Extensions/");
    //% "Cancel"
    box.button(QMessageBox::Cancel)->setText(qtTrId("kQVMainQuelmVCCancel"));
    switch (ModalAnswers::run(box)) {
    case QMessageBox::Yes:
        return KextFolder::LibraryExtensions;
    case QMessageBox::No:
        return KextFolder::SystemLibraryExtensions;
    default:
        return std::nullopt;
    }
}

void JobScreen::deliverFinalNotification(const InstallOutcome& outcome) {
    QStringList failedNames;
    for (const auto& failure : outcome.failed)
        failedNames << QString::fromStdString(failure.kext.name());
    QStringList skipped;
    for (const auto& kext : outcome.skipped)
        skipped << QString::fromStdString(kext.name) + " (" + reasonText(kext) + ")";
    QStringList backups;
    for (const auto& backup : outcome.backups)
        backups << QString::fromStdString(backup);
    const auto installed = static_cast<qsizetype>(outcome.installed.size());
    //% "Failed: "
    const QString failedLabel = qtTrId("kQVMainQuelmVCFailed");
    QStringList lines;
    if (!failedNames.isEmpty())
        lines << failedLabel + failedNames.join(", ");
    if (!skipped.isEmpty())
        //% "Skipped: "
        lines << qtTrId("kQVMainQuelmVCSkipped") + skipped.join(", ");
    if (lines.isEmpty() && installed > 0)
        //% "The selected kexts have been installed."
        lines << qtTrId("kQVMainQuelmVCSelectedKextsHaveBeenInstalled");
    if (lines.isEmpty())
        //% "No kext was installed."
        lines << qtTrId("kQVMainQuelmVCNoKextInstalled");
    if (!backups.isEmpty())
        //% "Backup: "
        lines << qtTrId("kQVMainQuelmVCBackup") + backups.join(", ");
    const auto& volume = VolumeManager::shared().selectedOSVolume();
    if (const auto notice = volume ? auxiliaryCollectionNotice(*volume) : std::nullopt;
        notice && installed > 0)
        lines << QString::fromStdString(*notice);
    //% "Finished"
    const QString title = "Quelm - " + qtTrId("kQVMainQuelmVCFinished");
    //% "Installed: "
    const QString subtitle = qtTrId("kQVMainQuelmVCInstalled") + QString::number(installed) + " " +
                             failedLabel + QString::number(failedNames.size());
    const UserNotification notification{title, subtitle, lines.join("\n")};
    deliverUserNotification(notification);
    emit notified(notification);
}

} // namespace quelm
