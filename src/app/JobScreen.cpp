// The installation screen, and the conductor of one job: install, repair, rebuild, report.
#include "app/JobScreen.h"

#include "app/UserNotification.h"
#include "helper/HelperManager.h"
#include "kexts/KextBackups.h"
#include "kexts/KextCaches.h"
#include "kexts/KextChecks.h"
#include "kexts/KextHistory.h"
#include "kexts/KextIntake.h"
#include "support/FileURL.h"
#include "support/Files.h"
#include "support/Log.h"
#include "support/Paths.h"
#include "support/Strings.h"
#include "ui/UserDefaults.h"
#include "ui/ViewExtensions.h"
#include "ui_JobScreen.h"
#include "volumes/VolumeManager.h"

#include <QApplication>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <algorithm>
#include <chrono>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

QColor inverted(const QColor& color) {
    return QColor(255 - color.red(), 255 - color.green(), 255 - color.blue(), color.alpha());
}

/// The kexts that installing into folder would replace on the volume.
std::vector<Kext> replacedKexts(const std::vector<Kext>& kexts, KextFolder folder,
                                const Volume& volume) {
    std::vector<Kext> replaced;
    for (const auto& kext : kexts) {
        std::error_code error;
        // From macOS 10.15 the folder may lie on the data volume.
        const auto place = volume.placeOf(std::string(rawValue(folder)) + kext.name());
        if (std::filesystem::exists(
                std::filesystem::symlink_status(place.root + place.path, error)))
            replaced.push_back(kext);
    }
    return replaced;
}

} // namespace

JobScreen::JobScreen(QWidget* parent)
    : VolumeScreen(parent), ui_(std::make_unique<Ui::JobScreen>()) {
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
    setDelegate(this);
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
    const auto policy = userDefaultString(kDefaultKextInstallationFolderKey);
    if (const auto folder = kernelExtensionFolderFromRawValue(policy.value_or("")))
        KextIntake::shared().setInstallationFolder(*folder);
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
    auto& kexts = KextIntake::shared();
    const auto folder = kexts.installationFolder();
    const auto& volume = *VolumeManager::shared().selectedOSVolume();
    if (const auto refusal =
            isConcreteFolder(folder) ? folderRefusal(rawValue(folder), volume) : std::nullopt) {
        refuseJob(*refusal);
        return;
    }
    kexts.addKernelExtensions(files_);
    for (const auto& file : files_)
        if (FileURL::fromPath(file, false).pathExtension() != "kext")
            //% "not a kext"
            skip(std::filesystem::path(file).filename().string(), qtTrId("kQVMainQuelmVCNotAKext"));
    checkKexts(volume);
    if (kexts.installationFolder() == KextFolder::UseSmartTable) {
        const SmartTable paths(applicationSupportFolder(), Bundle::main());
        smartTable_.emplace(applicationSupportFolder(), Bundle::main(), paths.userCopyPath());
    }
    setControlsEnabled(false);
    refreshProxy();
    if (proxy()) {
        startJob();
        return;
    }
    // The helper may still be asking for authorisation: the job starts once it answers.
    observe<NoObject>(kHelperDidConnect, [this](const NoObject&) {
        refreshProxy();
        if (!jobStarted_)
            startJob();
    });
}

void JobScreen::finishJob() {
    // The list belongs to one job: the next one, or the next run, starts from none.
    KextIntake::shared().kextsToInstall().clear();
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
    resetJob();
    if (batch.volume) {
        const auto volume = openTargetVolume(*batch.volume);
        if (!volume) {
            logLine("QVMainQuelmVC::Error: these kexts were not installed: " +
                    volume.error().toStdString());
            for (const auto& file : batch.files)
                //% "its volume is not a macOS volume"
                skip(std::filesystem::path(file).filename().string(),
                     qtTrId("kQVMainQuelmVCNotAVolume"));
            deliverFinalNotification();
            finishJob();
            return;
        }
        VolumeManager::shared().setSelectedOSVolume(*volume);
    }
    beginJob(batch.files);
}

void JobScreen::resetJob() {
    index_ = 0;
    sent_ = 0;
    failed_.clear();
    skipped_.clear();
    backups_.clear();
    jobStarted_ = false;
}

void JobScreen::skip(const std::string& name, const QString& reason) {
    logLine("QVMainQuelmVC::Info: skipped " + name + ": " + reason.toStdString());
    skipped_ << QString::fromStdString(name) + " (" + reason + ")";
}

void JobScreen::startJob() {
    jobStarted_ = true;
    callCheckWritableTargetVolume([this](const std::string& refusal) {
        if (refusal.empty())
            installKexts();
        else
            refuseJob(refusal);
    });
}

void JobScreen::refuseJob(const std::string& reason) {
    logLine("QVMainQuelmVC::Error: " + reason + " Nothing was changed.");
    stopBusyIndicator(*circularIndicator);
    //% "The target volume cannot be changed"
    showAlert(this, qtTrId("kQVMainQuelmVCVolumeCannotBeChanged"), QString::fromStdString(reason));
    finishJob();
}

void JobScreen::checkKexts(const Volume& volume) {
    auto& kexts = KextIntake::shared().kextsToInstall();
    std::vector<std::string> paths;
    for (const auto& kext : kexts)
        paths.push_back(kext.path());
    const auto checks = quelm::checkKexts(paths, volume);
    std::vector<Kext> accepted;
    for (std::size_t i = 0; i < kexts.size(); ++i) {
        const auto& failures = checks[i];
        if (failures.empty() || installAnyway(kexts[i], failures))
            accepted.push_back(kexts[i]);
        else
            //% "failed its checks"
            skip(kexts[i].name(), qtTrId("kQVMainQuelmVCFailedChecks"));
    }
    kexts = std::move(accepted);
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

void JobScreen::installKexts() {
    auto& kexts = KextIntake::shared();
    const auto folder = kexts.installationFolder();
    if (isConcreteFolder(folder))
        installInto(kexts.kextsToInstall(), folder);
    else
        didInstallKexts({});
}

void JobScreen::installInto(std::vector<Kext> kexts, KextFolder folder) {
    const auto& volume = *VolumeManager::shared().selectedOSVolume();
    auto& replaced = KextIntake::shared().kextsToBackUp();
    replaced = replacedKexts(kexts, folder, volume);
    placing_ = Placement{std::move(kexts), folder, {}};
    if (replaced.empty()) {
        sendPlacement();
        return;
    }
    const auto root = backupFolderSetting();
    if (!root) {
        logLine("QVMainQuelmVC::Error: the backup folder cannot be made.");
        didBackupKexts(replaced);
        return;
    }
    placing_->backup = newBackupFolderPath(*root, std::chrono::system_clock::now());
    callBackupKexts(replaced, folder, placing_->backup);
}

void JobScreen::willBackupKexts() {
    //% "Backing up kexts..."
    updateStatusWithLocalizedString(qtTrId("kQVMainAbstractBackingUpKexts"));
}

void JobScreen::didBackupKexts(const std::vector<Kext>& failed) {
    auto& replaced = KextIntake::shared().kextsToBackUp();
    std::vector<Kext> saved;
    for (const auto& kext : replaced)
        if (std::ranges::find(failed, kext) == failed.end())
            saved.push_back(kext);
    // Installing over a kext that has no backup could lose the only working copy.
    for (const auto& kext : failed) {
        std::erase(placing_->kexts, kext);
        //% "its installed copy could not be backed up"
        skip(kext.name(), qtTrId("kQVMainQuelmVCNotBackedUp"));
    }
    // Cleared only now: failed may be this very list.
    replaced.clear();
    if (saved.empty())
        placing_->backup.clear();
    else
        backups_ << QString::fromStdString(placing_->backup);
    sendPlacement();
}

void JobScreen::sendPlacement() {
    if (placing_->kexts.empty()) {
        placing_.reset();
        didInstallKexts({});
        return;
    }
    sent_ += placing_->kexts.size();
    callInstallKexts(placing_->kexts, placing_->folder);
}

void JobScreen::recordPlacement(const std::vector<Kext>& failed) {
    if (!placing_)
        return;
    std::vector<std::string> installed;
    for (const auto& kext : placing_->kexts)
        if (std::ranges::find(failed, kext) == failed.end())
            installed.push_back(std::string(rawValue(placing_->folder)) + kext.name());
    const auto& volume = *VolumeManager::shared().selectedOSVolume();
    const HistoryRecord record{isoTimestamp(std::chrono::system_clock::now()),
                               volume.mountPoint(),
                               "install",
                               std::move(installed),
                               placing_->backup,
                               false};
    placing_.reset();
    if (record.kexts.empty())
        return;
    if (auto saved = appendHistory(historyFilePath(), record); !saved)
        logLine("QVMainQuelmVC::Error: the installation is not in the history: " + saved.error());
}

void JobScreen::willInstallKexts() {
    //% "Installing kexts..."
    updateStatusWithLocalizedString(qtTrId("kQVMainAbstractInstallingKexts"));
}

void JobScreen::didInstallKexts(const std::vector<Kext>& failed) {
    recordPlacement(failed);
    failed_.insert(failed_.end(), failed.begin(), failed.end());
    auto& manager = KextIntake::shared();
    const auto& kexts = manager.kextsToInstall();
    if (index_ >= kexts.size() || isConcreteFolder(manager.installationFolder())) {
        callRepairDiskPermissions();
        return;
    }
    const auto kext = kexts[index_++];
    const auto folder = folderForKext(kext);
    const auto& volume = *VolumeManager::shared().selectedOSVolume();
    if (const auto refusal = folder ? folderRefusal(rawValue(*folder), volume) : std::nullopt) {
        //% "An error occurred"
        showAlert(this, qtTrId("kQVMainQuelmAnErrorOccured"), QString::fromStdString(*refusal));
        ++sent_;
        didInstallKexts({kext});
    } else if (folder) {
        installInto({kext}, *folder);
    } else {
        //% "no folder was chosen"
        const QString cancelled = qtTrId("kQVMainQuelmVCNoFolderChosen");
        //% "not in the smart table"
        const QString unlisted = qtTrId("kQVMainQuelmVCNotInSmartTable");
        const bool asked = manager.installationFolder() == KextFolder::AskMeEveryTime;
        skip(kext.name(), asked ? cancelled : unlisted);
        didInstallKexts({});
    }
}

std::optional<KextFolder> JobScreen::folderForKext(const Kext& kext) {
    if (KextIntake::shared().installationFolder() == KextFolder::AskMeEveryTime)
        return askFolder(kext);
    if (!smartTable_)
        return std::nullopt;
    const auto& table = smartTable_->table();
    const auto found = table.find(kext.name());
    const auto& volume = *VolumeManager::shared().selectedOSVolume();
    const auto folder =
        found == table.end()
            ? std::nullopt
            : kernelExtensionFolderFromRawValue(folderOnVolume(found->second, volume));
    return folder && isConcreteFolder(*folder) ? folder : std::nullopt;
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

void JobScreen::willRepairDiskPermissions() {
    circularIndicator->setRange(0, 100);
    circularIndicator->setValue(0);
    circularIndicator->show();
    //% "Repairing permissions..."
    updateStatusWithLocalizedString(qtTrId("kQVMainAbstractRepairingPermissions"));
}

void JobScreen::didRepairDiskPermissionsWithResults(const std::vector<ResultRecord>& results) {
    saveReport(results);
    callRebuildCaches();
}

void JobScreen::saveReport(const std::vector<ResultRecord>& results) {
    const auto folder = applicationSupportFolder() / "Reports";
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    const auto path = folder / (compactTimestamp(std::chrono::system_clock::now()) + ".txt");
    if (error || !writeFileAtomically(path, reportText(results)))
        logLine("QVMainQuelmVC::Error: Unable to save the repair report to " + path.string());
    else
        logLine("QVMainQuelmVC::Info: repair report saved to " + path.string());
}

void JobScreen::willRebuildCaches() {
    startBusyIndicator(*circularIndicator);
    //% "Rebuilding caches..."
    updateStatusWithLocalizedString(qtTrId("kQVMainAbstractRebuildingCaches"));
}

void JobScreen::didRebuildCaches() {
    stopBusyIndicator(*circularIndicator);
    deliverFinalNotification();
    finishJob();
}

void JobScreen::deliverFinalNotification() {
    QStringList failedNames;
    for (const auto& kext : failed_)
        failedNames << QString::fromStdString(kext.name());
    const auto installed = static_cast<qsizetype>(sent_) - failedNames.size();
    //% "Failed: "
    const QString failedLabel = qtTrId("kQVMainQuelmVCFailed");
    QStringList lines;
    if (!failedNames.isEmpty())
        lines << failedLabel + failedNames.join(", ");
    if (!skipped_.isEmpty())
        //% "Skipped: "
        lines << qtTrId("kQVMainQuelmVCSkipped") + skipped_.join(", ");
    if (lines.isEmpty() && installed > 0)
        //% "The selected kexts have been installed."
        lines << qtTrId("kQVMainQuelmVCSelectedKextsHaveBeenInstalled");
    if (lines.isEmpty())
        //% "No kext was installed."
        lines << qtTrId("kQVMainQuelmVCNoKextInstalled");
    if (!backups_.isEmpty())
        //% "Backup: "
        lines << qtTrId("kQVMainQuelmVCBackup") + backups_.join(", ");
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
