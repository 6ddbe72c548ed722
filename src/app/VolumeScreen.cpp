// The choice of the target volume, the status line, the progress display and the wrappers of
// the helper's remote operations, shared by every working screen.
#include "app/VolumeScreen.h"

#include "helper/HelperManager.h"
#include "support/FileURL.h"
#include "support/Log.h"
#include "ui/ViewExtensions.h"
#include "volumes/VolumeManager.h"

#include <QDir>
#include <QFileDialog>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <filesystem>

namespace quelm {
namespace {

/// Where the folder chooser opens: "/Volumes" on macOS, where Linux mounts removable disks
/// elsewhere.
QString volumesFolder() {
    for (const char* folder : {"/Volumes", "/media", "/mnt"})
        if (QDir(folder).exists())
            return folder;
    return QDir::rootPath();
}

/// The chosen folder travels as a folder URL and comes back whole, "é" and "#" included,
/// absolute and without "." or "..".
std::string chosenPath(const QString& folder) {
    std::string path = FileURL::fromPath(folder.toStdString(), true).path();
    if (path.size() > 1)
        path.pop_back();
    return path;
}

/// The folder that holds path: the other volume of a macOS is mostly mounted beside it.
QString folderAround(const std::string& path) {
    return QString::fromStdString(std::filesystem::path(path).parent_path().string());
}

QString notASystemVolume(const std::string& folder) {
    //% "%1 is not the system volume of macOS 10.15 or later."
    return qtTrId("kQVMainAbstractMaintenanceVCNotASystemVolume")
        .arg(QString::fromStdString(folder));
}

} // namespace

VolumeScreen::VolumeScreen(QWidget* parent) : Screen(parent) {
}

void VolumeScreen::setUpScreen() {
    Screen::setUpScreen();
    renderLocalizedOutlets();
    observe<double>(kDidReceiveRemoteProgress, [this](const double& progress) {
        if (circularIndicator)
            circularIndicator->setValue(static_cast<int>(progress));
    });
    if (resetButton)
        connect(resetButton, &QPushButton::clicked, this, [this] { reset(); });
    if (imageButton)
        connect(imageButton, &QPushButton::clicked, this, [this] { selectVolume(); });
    if (executeButton)
        connect(executeButton, &QPushButton::clicked, this, [this] { execute(); });
}

void VolumeScreen::showEvent(QShowEvent* event) {
    Screen::showEvent(event);
    refreshProxy();
}

void VolumeScreen::resizeEvent(QResizeEvent* event) {
    Screen::resizeEvent(event);
    if (pathField && !pathField->toolTip().isEmpty())
        showPath(pathField->toolTip());
}

void VolumeScreen::refreshProxy() {
    proxy_ = HelperManager::shared().connection();
}

void VolumeScreen::renderLocalizedOutlets() {
    if (imageButton)
        imageButton->setIcon(QIcon(":/quelm/QVUIVolume.svg"));
    if (mainTitle)
        //% "Select the target system volume"
        mainTitle->setText(qtTrId("kQVMainAbstractMaintenanceVCSelectTargetSystemVolume"));
    if (const auto& volume = VolumeManager::shared().selectedOSVolume())
        showVolume(*volume);
    //% "Ready"
    updateStatusWithLocalizedString(qtTrId("kQVMainAbstractMaintenanceVCReady"));
    if (executeButton)
        //% "Execute"
        executeButton->setText(qtTrId("kQVMainAbstractMaintenanceVCExecute"));
    if (resetButton)
        //% "Reset"
        resetButton->setText(qtTrId("kQVMainAbstractMaintenanceVCReset"));
}

void VolumeScreen::updateStatusWithLocalizedString(const QString& text) {
    //% "Status: "
    const QString line = qtTrId("kQVMainAbstractMaintenanceVCStatus") + text;
    if (statusField)
        statusField->setText(line);
    // A run without a display still shows where the job is.
    logLine(line.toStdString());
}

bool VolumeScreen::selectVolume() {
    // A refused folder asks again; only a cancel ends the choice.
    for (;;) {
        if (circularIndicator)
            startBusyIndicator(*circularIndicator);
        //% "Select"
        const QString folder = QFileDialog::getExistingDirectory(
            this, qtTrId("kQVMainAbstractVCSelect"), volumesFolder());
        const auto choice = folder.isEmpty() ? VolumeChoice::cancelled : chooseVolume(folder);
        if (choice == VolumeChoice::accepted)
            return true;
        if (choice == VolumeChoice::cancelled) {
            if (circularIndicator)
                stopBusyIndicator(*circularIndicator);
            return false;
        }
    }
}

bool VolumeScreen::acceptVolume(const QString& folder) {
    return chooseVolume(folder) == VolumeChoice::accepted;
}

VolumeScreen::VolumeChoice VolumeScreen::chooseVolume(const QString& folder) {
    const std::string path = chosenPath(folder);
    auto volume = openTargetVolume({path, std::nullopt});
    if (!volume && Volume::kindOf(path) == VolumeKind::data)
        return takeVolume(askSystemVolume(path));
    if (!volume) {
        refuseVolume(volume.error());
        return VolumeChoice::refused;
    }
    if (volume->isSystemVolume() && !volume->dataMountPoint() && !volume->isRecovery())
        return takeVolume(askDataVolume(*volume));
    return takeVolume(std::move(*volume));
}

std::optional<Volume> VolumeScreen::askDataVolume(const Volume& system) {
    const auto& mountPoint = system.mountPoint();
    //% "Select the data volume of %1"
    const QString title = qtTrId("kQVMainAbstractMaintenanceVCSelectDataVolume")
                              .arg(QString::fromStdString(system.getFullNameVersionString()));
    return askOtherVolume(title, mountPoint, [&mountPoint](const std::string& dataFolder) {
        return openTargetVolume({mountPoint, dataFolder});
    });
}

std::optional<Volume> VolumeScreen::askSystemVolume(const std::string& dataFolder) {
    //% "Select the system volume whose data volume is %1"
    const QString title = qtTrId("kQVMainAbstractMaintenanceVCSelectSystemVolume")
                              .arg(QString::fromStdString(dataFolder));
    return askOtherVolume(title, dataFolder, [&dataFolder](const std::string& system) {
        return Volume::kindOf(system) == VolumeKind::system
                   ? openTargetVolume({system, dataFolder})
                   : std::unexpected(notASystemVolume(system));
    });
}

std::optional<Volume> VolumeScreen::askOtherVolume(const QString& title, const std::string& near,
                                                   const VolumeOpener& open) {
    for (;;) {
        const QString folder = QFileDialog::getExistingDirectory(this, title, folderAround(near));
        if (folder.isEmpty())
            return std::nullopt;
        auto volume = open(chosenPath(folder));
        if (volume)
            return std::move(*volume);
        refuseVolume(volume.error());
    }
}

VolumeScreen::VolumeChoice VolumeScreen::takeVolume(std::optional<Volume> volume) {
    if (!volume)
        return VolumeChoice::cancelled;
    if (volume->isRecovery()) {
        //% "The selected volume is a recovery volume, which cannot be the target."
        refuseVolume(qtTrId("kQVMainAbstractMaintenanceVCSelectedVolumeIsRecoveryVolume"));
        return VolumeChoice::refused;
    }
    VolumeManager::shared().setSelectedOSVolume(*volume);
    rememberTargetVolume(*volume);
    showVolume(*volume);
    NotificationCenter::defaultCenter().post(kDidSelectAValidOSVolume, volume->hasExtraFolder());
    if (circularIndicator)
        stopBusyIndicator(*circularIndicator);
    return VolumeChoice::accepted;
}

void VolumeScreen::refuseVolume(const QString& reason) {
    //% "An error occurred"
    showAlert(this, qtTrId("kQVMainAbstractVCAnErrorOccured"), reason);
}

void VolumeScreen::showVolume(const Volume& volume) {
    showPath(QString::fromStdString(volume.mountPoint()));
    if (!volumeInfoField)
        return;
    // Two long mount points may not fit the window: the whole line is in the tooltip.
    volumeInfoField->setText(volumeDescription(volume));
    volumeInfoField->setToolTip(volumeInfoField->text());
}

void VolumeScreen::showPath(const QString& path) {
    if (!pathField)
        return;
    // A long mount point is elided in the middle, never widening the window; the whole path
    // is in the tooltip.
    pathField->setSizePolicy(QSizePolicy::Ignored, pathField->sizePolicy().verticalPolicy());
    pathField->setToolTip(path);
    pathField->setText(pathField->fontMetrics().elidedText(path, Qt::ElideMiddle,
                                                           std::max(pathField->width(), 80)));
}

void VolumeScreen::setControlsEnabled(bool enabled) {
    for (QWidget* control : {static_cast<QWidget*>(imageButton), static_cast<QWidget*>(resetButton),
                             static_cast<QWidget*>(executeButton)})
        if (control)
            control->setEnabled(enabled);
}

void VolumeScreen::reset() {
    auto& manager = VolumeManager::shared();
    manager.resetSelectedOSVolume();
    if (const auto& volume = manager.selectedOSVolume())
        showVolume(*volume);
    else
        showPath(QString());
    if (circularIndicator)
        stopBusyIndicator(*circularIndicator);
    updateStatusWithLocalizedString(qtTrId("kQVMainAbstractMaintenanceVCReady"));
}

void VolumeScreen::callRepairDiskPermissions() {
    const auto& volume = VolumeManager::shared().selectedOSVolume();
    if (!proxy_ || !volume)
        return;
    if (delegate_)
        delegate_->willRepairDiskPermissions();
    whenReplied<std::vector<ResultRecord>>(
        [target = *volume](HelperClient& client) { return client.repairPermissions(target); },
        [this](const auto& results) {
            if (delegate_)
                delegate_->didRepairDiskPermissionsWithResults(results);
        });
}

void VolumeScreen::callRebuildCaches() {
    const auto& volume = VolumeManager::shared().selectedOSVolume();
    if (!proxy_ || !volume)
        return;
    if (delegate_)
        delegate_->willRebuildCaches();
    whenReplied<bool>(
        [target = *volume](HelperClient& client) { return client.rebuildCaches(target); },
        [this](const auto&) {
            if (delegate_)
                delegate_->didRebuildCaches();
        });
}

void VolumeScreen::callCheckWritableTargetVolume(std::function<void(const std::string&)> handler) {
    const auto& volume = VolumeManager::shared().selectedOSVolume();
    if (!proxy_ || !volume)
        return;
    whenReplied<std::string>(
        [target = *volume](HelperClient& client) { return client.checkWritableVolume(target); },
        std::move(handler));
}

void VolumeScreen::callInstallKexts(const std::vector<Kext>& kexts, KextFolder folder) {
    const auto& volume = VolumeManager::shared().selectedOSVolume();
    if (!proxy_ || !volume)
        fatalError("QVMainAbstractMaintenanceVC::FatalError: no helper or no target volume to "
                   "install the kexts with.");
    if (delegate_)
        delegate_->willInstallKexts();
    whenReplied<std::vector<Kext>>(
        [kexts, into = std::string(rawValue(folder)), target = *volume](HelperClient& client) {
            return client.installKexts(kexts, into, target);
        },
        [this](const auto& failed) {
            if (delegate_)
                delegate_->didInstallKexts(failed);
        });
}

void VolumeScreen::callBackupKexts(const std::vector<Kext>& kexts, KextFolder folder,
                                   const std::string& backupFolder) {
    const auto& volume = VolumeManager::shared().selectedOSVolume();
    if (!proxy_ || !volume)
        fatalError("QVMainAbstractMaintenanceVC::FatalError: no helper or no target volume to "
                   "back up the kexts with.");
    if (delegate_)
        delegate_->willBackupKexts();
    whenReplied<std::vector<Kext>>(
        [kexts, from = std::string(rawValue(folder)), target = *volume, backupFolder](
            HelperClient& client) { return client.backUpKexts(kexts, from, target, backupFolder); },
        [this](const auto& failed) {
            if (delegate_)
                delegate_->didBackupKexts(failed);
        });
}

std::unique_ptr<ResultsView> VolumeScreen::prepareForSegue(const QString& identifier) {
    if ((identifier != "QVSBSegueIDInstallation2DetailedResults" &&
         identifier != "QVSBSegueIDMaintenance2DetailedResults") ||
        !result_)
        return nullptr;
    return std::make_unique<ResultsView>(*result_);
}

} // namespace quelm
