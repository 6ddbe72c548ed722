// The choice of the target volume, the status line, the progress display and the wrappers of
// the helper's remote operations, shared by every working screen.
#include "app/QVMainAbstractMaintenanceViewController.h"

#include "helper/QVXPCHelperManager.h"
#include "support/FileURL.h"
#include "support/Log.h"
#include "ui/QVViewExtensions.h"
#include "ui/UserDefaults.h"
#include "volumes/QVOSVolumeManager.h"

#include <QDir>
#include <QFileDialog>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>

namespace quelm {
namespace {

QString volumeInfoText(const QVOSVolume& volume) {
    return QString::fromStdString(volume.version().value_or("") + " (" +
                                  volume.buildVersion().value_or("") + ")");
}

/// Where the folder chooser opens: "/Volumes" on macOS, where Linux mounts removable disks
/// elsewhere.
QString volumesFolder() {
    for (const char* folder : {"/Volumes", "/media", "/mnt"})
        if (QDir(folder).exists())
            return folder;
    return QDir::rootPath();
}

} // namespace

QVMainAbstractMaintenanceViewController::QVMainAbstractMaintenanceViewController(QWidget* parent)
    : QVMainAbstractViewController(parent) {
}

void QVMainAbstractMaintenanceViewController::viewDidLoad() {
    QVMainAbstractViewController::viewDidLoad();
    renderLocalizedOutlets();
    if (const auto& volume = QVOSVolumeManager::shared().selectedOSVolume();
        volume && volumeInfoField)
        volumeInfoField->setText(volumeInfoText(*volume));
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

void QVMainAbstractMaintenanceViewController::showEvent(QShowEvent* event) {
    QVMainAbstractViewController::showEvent(event);
    refreshProxy();
}

void QVMainAbstractMaintenanceViewController::resizeEvent(QResizeEvent* event) {
    QVMainAbstractViewController::resizeEvent(event);
    if (pathField && !pathField->toolTip().isEmpty())
        showPath(pathField->toolTip());
}

void QVMainAbstractMaintenanceViewController::refreshProxy() {
    proxy_ = QVXPCHelperManager::shared().proxy();
}

void QVMainAbstractMaintenanceViewController::renderLocalizedOutlets() {
    if (imageButton)
        imageButton->setIcon(QIcon(":/quelm/QVUIVolume.svg"));
    if (mainTitle)
        //% "Select the target system volume"
        mainTitle->setText(qtTrId("kQVMainAbstractMaintenanceVCSelectTargetSystemVolume"));
    if (const auto& volume = QVOSVolumeManager::shared().selectedOSVolume())
        showPath(QString::fromStdString(volume->mountPoint()));
    //% "Ready"
    updateStatusWithLocalizedString(qtTrId("kQVMainAbstractMaintenanceVCReady"));
    if (executeButton)
        //% "Execute"
        executeButton->setText(qtTrId("kQVMainAbstractMaintenanceVCExecute"));
    if (resetButton)
        //% "Reset"
        resetButton->setText(qtTrId("kQVMainAbstractMaintenanceVCReset"));
}

void QVMainAbstractMaintenanceViewController::updateStatusWithLocalizedString(const QString& text) {
    //% "Status: "
    const QString line = qtTrId("kQVMainAbstractMaintenanceVCStatus") + text;
    if (statusField)
        statusField->setText(line);
    // A run without a display still shows where the job is.
    logLine(line.toStdString());
}

bool QVMainAbstractMaintenanceViewController::selectVolume() {
    // A refused folder asks again; only a cancel ends the choice.
    for (;;) {
        if (circularIndicator)
            startBusyIndicator(*circularIndicator);
        //% "Select"
        const QString folder = QFileDialog::getExistingDirectory(
            this, qtTrId("kQVMainAbstractVCSelect"), volumesFolder());
        if (folder.isEmpty()) {
            if (circularIndicator)
                stopBusyIndicator(*circularIndicator);
            return false;
        }
        if (acceptVolume(folder))
            return true;
    }
}

bool QVMainAbstractMaintenanceViewController::acceptVolume(const QString& folder) {
    // The chosen folder travels as a folder URL and comes back whole, "é" and "#" included,
    // absolute and without "." or "..".
    std::string path = FileURL::fromPath(folder.toStdString(), true).path();
    if (path.size() > 1)
        path.pop_back();
    const auto volume = QVOSVolume::initWithMountPoint(path);
    //% "An error occurred"
    const QString title = qtTrId("kQVMainAbstractVCAnErrorOccured");
    if (!volume || !volume->majorVersion()) {
        //% "The selected folder is not a valid macOS system volume."
        showAlert(this, title, qtTrId("kQVMainAbstractMaintenanceVCSelectedVolumeIsNotValid"));
        return false;
    }
    if (volume->isRecovery()) {
        //% "The selected volume is a recovery volume, which cannot be the target."
        showAlert(this, title,
                  qtTrId("kQVMainAbstractMaintenanceVCSelectedVolumeIsRecoveryVolume"));
        return false;
    }
    QVOSVolumeManager::shared().setSelectedOSVolume(*volume);
    setUserDefaultString(kLastTargetVolumeKey, volume->mountPoint());
    showVolume(*volume);
    NotificationCenter::defaultCenter().post(kDidSelectAValidOSVolume, volume->hasExtraFolder());
    if (circularIndicator)
        stopBusyIndicator(*circularIndicator);
    return true;
}

void QVMainAbstractMaintenanceViewController::showVolume(const QVOSVolume& volume) {
    showPath(QString::fromStdString(volume.mountPoint()));
    if (volumeInfoField)
        volumeInfoField->setText(volumeInfoText(volume));
}

void QVMainAbstractMaintenanceViewController::showPath(const QString& path) {
    if (!pathField)
        return;
    // A long mount point is elided in the middle, never widening the window; the whole path
    // is in the tooltip.
    pathField->setSizePolicy(QSizePolicy::Ignored, pathField->sizePolicy().verticalPolicy());
    pathField->setToolTip(path);
    pathField->setText(pathField->fontMetrics().elidedText(path, Qt::ElideMiddle,
                                                           std::max(pathField->width(), 80)));
}

void QVMainAbstractMaintenanceViewController::setControlsEnabled(bool enabled) {
    for (QWidget* control : {static_cast<QWidget*>(imageButton), static_cast<QWidget*>(resetButton),
                             static_cast<QWidget*>(executeButton)})
        if (control)
            control->setEnabled(enabled);
}

void QVMainAbstractMaintenanceViewController::reset() {
    auto& manager = QVOSVolumeManager::shared();
    manager.resetSelectedOSVolume();
    showPath(manager.selectedOSVolume()
                 ? QString::fromStdString(manager.selectedOSVolume()->mountPoint())
                 : QString());
    if (circularIndicator)
        stopBusyIndicator(*circularIndicator);
    updateStatusWithLocalizedString(qtTrId("kQVMainAbstractMaintenanceVCReady"));
}

void QVMainAbstractMaintenanceViewController::whenReplied(
    std::string_view selector, std::vector<RemoteValue> arguments,
    std::function<void(const RemoteValue&)> handler) {
    proxy_->call(selector, std::move(arguments),
                 [this, handler = std::move(handler)](std::optional<RemoteValue> reply) {
                     if (!reply)
                         return;
                     QMetaObject::invokeMethod(
                         this, [handler, value = std::move(*reply)] { handler(value); },
                         Qt::QueuedConnection);
                 });
}

void QVMainAbstractMaintenanceViewController::callRepairDiskPermissions() {
    const auto& volume = QVOSVolumeManager::shared().selectedOSVolume();
    if (!proxy_ || !volume)
        return;
    if (delegate_)
        delegate_->willRepairDiskPermissions();
    whenReplied("repairDiskPermissionsOnTargetVolume:reply:", {*volume}, [this](const auto& reply) {
        if (delegate_)
            delegate_->didRepairDiskPermissionsWithResults(
                std::get<std::vector<QVRepairPermissionsRepresentableResult>>(reply));
    });
}

void QVMainAbstractMaintenanceViewController::callRebuidCaches() {
    const auto& volume = QVOSVolumeManager::shared().selectedOSVolume();
    if (!proxy_ || !volume)
        return;
    if (delegate_)
        delegate_->willRebuildCaches();
    whenReplied("rebuildCachesOnTargetVolume:reply:", {*volume}, [this](const auto&) {
        if (delegate_)
            delegate_->didRebuildCaches();
    });
}

void QVMainAbstractMaintenanceViewController::callCheckWritableTargetVolume(
    std::function<void(const std::string&)> handler) {
    const auto& volume = QVOSVolumeManager::shared().selectedOSVolume();
    if (!proxy_ || !volume)
        return;
    whenReplied("checkWritableTargetVolume:reply:", {*volume},
                [handler = std::move(handler)](const auto& reply) {
                    handler(std::get<std::string>(reply));
                });
}

void QVMainAbstractMaintenanceViewController::callInstallKexts(
    const std::vector<QVKernelExtension>& kexts, QVKernelExtensionFolder folder) {
    const auto& volume = QVOSVolumeManager::shared().selectedOSVolume();
    if (!proxy_ || !volume)
        fatalError("QVMainAbstractMaintenanceVC::FatalError: no helper or no target volume to "
                   "install the kexts with.");
    if (delegate_)
        delegate_->willInstallKexts();
    whenReplied("installWithKernelExtensions:toDestinationFolder:onTargetVolume:reply:",
                {kexts, std::string(rawValue(folder)), *volume}, [this](const auto& reply) {
                    if (delegate_)
                        delegate_->didInstallKexts(std::get<std::vector<QVKernelExtension>>(reply));
                });
}

void QVMainAbstractMaintenanceViewController::callBackupKexts(
    const std::vector<QVKernelExtension>& kexts, QVKernelExtensionFolder folder,
    const std::string& destination) {
    const auto& volume = QVOSVolumeManager::shared().selectedOSVolume();
    if (!proxy_ || !volume)
        fatalError("QVMainAbstractMaintenanceVC::FatalError: no helper or no target volume to "
                   "back up the kexts with.");
    if (delegate_)
        delegate_->willBackupKexts();
    whenReplied("backupWithKernelExtensions:installedInFolder:onTargetVolume:toDestinationFolder:"
                "reply:",
                {kexts, std::string(rawValue(folder)), *volume, destination},
                [this](const auto& reply) {
                    if (delegate_)
                        delegate_->didBackupKexts(std::get<std::vector<QVKernelExtension>>(reply));
                });
}

std::unique_ptr<QVDetailedResultsViewController>
QVMainAbstractMaintenanceViewController::prepareForSegue(const QString& identifier) {
    if ((identifier != "QVSBSegueIDInstallation2DetailedResults" &&
         identifier != "QVSBSegueIDMaintenance2DetailedResults") ||
        !result_)
        return nullptr;
    return std::make_unique<QVDetailedResultsViewController>(*result_);
}

} // namespace quelm
