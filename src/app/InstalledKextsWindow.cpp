// The window that lists the kexts installed on the target volume and takes them off or puts a
// backup back through the helper.
#include "app/InstalledKextsWindow.h"

#include "app/TargetVolume.h"
#include "helper/HelperClient.h"
#include "helper/HelperManager.h"
#include "kexts/KextBackups.h"
#include "kexts/KextHistory.h"
#include "support/Log.h"
#include "support/PathValidation.h"
#include "ui/UserDefaults.h"
#include "ui/ViewExtensions.h"
#include "volumes/VolumeManager.h"

#include <QFileDialog>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <filesystem>

namespace quelm {
namespace {

constexpr int kPathRole = Qt::UserRole;

QString qString(const std::string& text) {
    return QString::fromStdString(text);
}

QString yesOrNo(bool yes) {
    if (yes)
        //% "Yes"
        return qtTrId("kQVInstalledKextsVCYes");
    //% "No"
    return qtTrId("kQVInstalledKextsVCNo");
}

QStringList columnTitles() {
    return {
        //% "Name"
        qtTrId("kQVInstalledKextsVCName"),
        //% "Identifier"
        qtTrId("kQVInstalledKextsVCIdentifier"),
        //% "Version"
        qtTrId("kQVInstalledKextsVCVersion"),
        //% "Folder"
        qtTrId("kQVInstalledKextsVCFolder"),
        //% "Apple's"
        qtTrId("kQVInstalledKextsVCApple"),
        //% "Owner and Mode Right"
        qtTrId("kQVInstalledKextsVCOwnerAndMode"),
        //% "Signed"
        qtTrId("kQVInstalledKextsVCSigned"),
        //% "CPU Types"
        qtTrId("kQVInstalledKextsVCCPUTypes"),
    };
}

QStringList joined(const std::vector<std::string>& texts) {
    QStringList list;
    for (const auto& text : texts)
        list << qString(text);
    return list;
}

/// Asks with a question box whose Yes button does what yes names; true on Yes.
bool confirm(QWidget* parent, const QString& text, const QString& informative, const QString& yes) {
    QMessageBox box(QMessageBox::Question, "Quelm", text, QMessageBox::Yes | QMessageBox::Cancel,
                    parent);
    box.setInformativeText(informative);
    box.button(QMessageBox::Yes)->setText(yes);
    //% "Cancel"
    box.button(QMessageBox::Cancel)->setText(qtTrId("kQVInstalledKextsVCCancel"));
    box.setDefaultButton(QMessageBox::Cancel);
    return ModalAnswers::run(box) == QMessageBox::Yes;
}

/// The volume's folder with the macOS it holds, as the user knows it.
QString volumeTitle(const Volume& volume) {
    if (!volume.version() || !volume.buildVersion())
        return qString(volume.mountPoint());
    return qString(volume.mountPoint() + " (" + volume.getFullNameVersionString() + ")");
}

/// The macOS volume at the folder a backup's manifest names, if it is one now, joined to its
/// data volume when it has one.
std::optional<Volume> macOSVolumeAt(const std::string& folder,
                                    const std::optional<std::string>& dataFolder) {
    auto volume = openTargetVolume({folder, dataFolder});
    return volume ? std::optional(std::move(*volume)) : std::nullopt;
}

QString restoreWarning(const std::string& originFolder, bool originIsThere, const Volume& shown) {
    if (originIsThere)
        //% "A kext made for one macOS may keep another from starting. Put them back where they came from unless you know they belong on %1."
        return qtTrId("kQVInstalledKextsVCBackupGoesHome").arg(qString(shown.mountPoint()));
    //% "%1 is not a macOS volume now. A kext made for one macOS may keep another from starting: put them onto %2 only if you know they belong there."
    return qtTrId("kQVInstalledKextsVCBackupHomeMissing")
        .arg(qString(originFolder), qString(shown.mountPoint()));
}

/// Asks onto which volume a backup of another one goes: Yes for the volume it came from
/// (offered only when that is a macOS volume now), No for the volume shown.
QMessageBox::StandardButton askRestoreVolume(QWidget* parent, const std::string& originFolder,
                                             const std::optional<Volume>& origin,
                                             const Volume& shown) {
    const QString from = origin ? volumeTitle(*origin) : qString(originFolder);
    //% "These kexts came from %1, but this window shows %2."
    const QString text =
        qtTrId("kQVInstalledKextsVCBackupOfOtherVolume").arg(from, volumeTitle(shown));
    const auto buttons = origin ? QMessageBox::Yes | QMessageBox::No | QMessageBox::Cancel
                                : QMessageBox::No | QMessageBox::Cancel;
    QMessageBox box(QMessageBox::Warning, "Quelm", text, buttons, parent);
    box.setInformativeText(restoreWarning(originFolder, origin.has_value(), shown));
    if (origin)
        //% "Restore onto %1"
        box.button(QMessageBox::Yes)
            ->setText(qtTrId("kQVInstalledKextsVCRestoreOnto").arg(qString(origin->mountPoint())));
    box.button(QMessageBox::No)
        ->setText(qtTrId("kQVInstalledKextsVCRestoreOnto").arg(qString(shown.mountPoint())));
    box.button(QMessageBox::Cancel)->setText(qtTrId("kQVInstalledKextsVCCancel"));
    box.setDefaultButton(origin ? QMessageBox::Yes : QMessageBox::Cancel);
    return ModalAnswers::run(box);
}

} // namespace

InstalledKextsWindow::InstalledKextsWindow(QWidget* parent) : VolumeScreen(parent) {
    setWindowFlags(Qt::Window);
    setObjectName("QVSBIDInstalledKexts");
    buildView();
    setUpScreen();
    observe<bool>(kDidSelectAValidOSVolume, [this](const bool&) { refresh(); });
    refresh();
}

InstalledKextsWindow::~InstalledKextsWindow() = default;

void InstalledKextsWindow::buildView() {
    auto* layout = new QVBoxLayout(this);
    auto* volumeRow = new QHBoxLayout;
    imageButton = new QPushButton(this);
    imageButton->setFlat(true);
    imageButton->setIconSize({48, 48});
    volumeRow->addWidget(imageButton);
    auto* volumeText = new QVBoxLayout;
    mainTitle = new QLabel(this);
    pathField = new QLabel(this);
    pathField->setObjectName("pathField");
    volumeInfoField = new QLabel(this);
    volumeInfoField->setObjectName("volumeInfoField");
    volumeInfoField->setWordWrap(true);
    for (auto* label : {mainTitle, pathField, volumeInfoField})
        volumeText->addWidget(label);
    volumeRow->addLayout(volumeText, 1);
    layout->addLayout(volumeRow);

    table_ = new QTreeWidget(this);
    table_->setObjectName("kextsTable");
    table_->setHeaderLabels(columnTitles());
    table_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    table_->setUniformRowHeights(true);
    table_->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
    layout->addWidget(table_, 1);

    circularIndicator = new QProgressBar(this);
    circularIndicator->setTextVisible(false);
    layout->addWidget(circularIndicator);
    statusField = new QLabel(this);
    statusField->setObjectName("statusField");
    statusField->setWordWrap(true);
    layout->addWidget(statusField);

    auto* buttons = new QHBoxLayout;
    //% "Refresh"
    refreshButton_ = new QPushButton(qtTrId("kQVInstalledKextsVCRefresh"), this);
    //% "Restore..."
    restoreButton_ = new QPushButton(qtTrId("kQVInstalledKextsVCRestore"), this);
    //% "Remove..."
    removeButton_ = new QPushButton(qtTrId("kQVInstalledKextsVCRemove"), this);
    buttons->addWidget(refreshButton_);
    buttons->addStretch();
    buttons->addWidget(restoreButton_);
    buttons->addWidget(removeButton_);
    layout->addLayout(buttons);
    resize(900, 520);

    connect(refreshButton_, &QPushButton::clicked, this, [this] { refresh(); });
    connect(restoreButton_, &QPushButton::clicked, this, [this] { chooseBackup(); });
    connect(removeButton_, &QPushButton::clicked, this, [this] { removeSelectedKexts(); });
    connect(table_, &QTreeWidget::itemSelectionChanged, this,
            [this] { removeButton_->setEnabled(!selectedKexts().empty()); });
}

void InstalledKextsWindow::refresh() {
    const auto& volume = VolumeManager::shared().selectedOSVolume();
    showTitle();
    kexts_ = volume ? installedKexts(*volume) : std::vector<Kext>{};
    table_->clear();
    for (const auto& kext : kexts_)
        addRows(kext, nullptr);
    table_->expandAll();
    removeButton_->setEnabled(false);
    restoreButton_->setEnabled(volume.has_value());
    //% "Kexts listed: %1"
    updateStatusWithLocalizedString(qtTrId("kQVInstalledKextsVCCount").arg(kexts_.size()));
}

void InstalledKextsWindow::showTitle() {
    const auto& volume = VolumeManager::shared().selectedOSVolume();
    if (!volume) {
        //% "Installed Kexts"
        setWindowTitle(qtTrId("kQVInstalledKextsVCTitle"));
        return;
    }
    showVolume(*volume);
    //% "Installed Kexts — %1"
    setWindowTitle(
        qtTrId("kQVInstalledKextsVCTitleOn").arg(qString(volume->getFullNameVersionString())));
}

void InstalledKextsWindow::addRows(const Kext& kext, QTreeWidgetItem* parent) {
    const QStringList cells{
        qString(kext.name()),
        qString(kext.identifier()),
        qString(kext.version().value_or("")),
        qString(std::filesystem::path(kext.path()).parent_path().string() + "/"),
        yesOrNo(kext.isApple()),
        yesOrNo(kext.ownersAndModesRight),
        yesOrNo(kext.hasCodeSignature),
        joined(kext.cpuTypes()).join(", "),
    };
    auto* item = parent ? new QTreeWidgetItem(parent, cells) : new QTreeWidgetItem(table_, cells);
    item->setData(0, kPathRole, qString(kext.path()));
    item->setToolTip(0, qString(kext.path()));
    for (const auto& plugIn : kext.plugIns)
        addRows(plugIn, item);
}

std::vector<const Kext*> InstalledKextsWindow::selectedKexts() const {
    std::vector<const Kext*> selected;
    for (const auto* item : table_->selectedItems()) {
        if (item->parent())
            continue;
        const auto path = item->data(0, kPathRole).toString().toStdString();
        const auto found =
            std::ranges::find_if(kexts_, [&](const auto& kext) { return kext.path() == path; });
        if (found != kexts_.end())
            selected.push_back(&*found);
    }
    return selected;
}

bool InstalledKextsWindow::confirmAppleKexts(const std::vector<const Kext*>& kexts) {
    //% "Remove it anyway? It can be put back from its backup."
    const QString question = qtTrId("kQVInstalledKextsVCRemoveAppleKextAnyway");
    //% "Remove Anyway"
    const QString button = qtTrId("kQVInstalledKextsVCRemoveAnyway");
    for (const auto* kext : kexts) {
        //% "%1 is Apple's (%2): macOS may need it to start."
        const QString text = qtTrId("kQVInstalledKextsVCAppleKext")
                                 .arg(qString(kext->name()), qString(kext->identifier()));
        if (kext->isApple() && !confirm(this, text, question, button))
            return false;
    }
    return true;
}

void InstalledKextsWindow::removeSelectedKexts() {
    const auto& volume = VolumeManager::shared().selectedOSVolume();
    const auto selected = selectedKexts();
    const auto root = backupFolderSetting();
    if (!volume || selected.empty())
        return;
    if (!root) {
        //% "An error occurred"
        showAlert(this, qtTrId("kQVInstalledKextsVCAnErrorOccured"),
                  //% "Quelm cannot make its backup folder."
                  qtTrId("kQVInstalledKextsVCNoBackupFolder"));
        return;
    }
    QStringList names;
    for (const auto* kext : selected)
        names << qString(kext->name());
    //% "Remove %1?"
    if (!confirm(
            this, qtTrId("kQVInstalledKextsVCRemoveKexts").arg(names.join(", ")),
            //% "Each kext moves into a new backup folder in %1, with its staged copy when there is one; nothing is deleted."
            qtTrId("kQVInstalledKextsVCRemoveKextsDescription").arg(qString(root->string())),
            //% "Remove"
            qtTrId("kQVInstalledKextsVCRemoveButton")) ||
        !confirmAppleKexts(selected))
        return;
    std::vector<std::string> paths;
    for (const auto* kext : selected)
        paths.push_back(kext->path());
    removeKexts(paths, *root);
}

void InstalledKextsWindow::removeKexts(const std::vector<std::string>& paths,
                                       const std::filesystem::path& backupRoot) {
    auto operations = helperOperations();
    if (!operations)
        return;
    setBusy(true);
    //% "Removing kexts..."
    updateStatusWithLocalizedString(qtTrId("kQVInstalledKextsVCRemoving"));
    RescueRequest request{*VolumeManager::shared().selectedOSVolume(), backupRoot,
                          historyFilePath()};
    job_.start<RescueResult>([request = std::move(request), paths,
                              operations] { return RemoveJob(request, paths, *operations).run(); },
                             [this](RescueResult result) {
                                 tellRemoval(result);
                                 finishOperation();
                             });
}

void InstalledKextsWindow::tellRemoval(const RescueResult& result) {
    //% "The next start still uses the old kernel cache, which may still hold the removed kext: start the Mac once in safe mode (hold Shift while it starts), or rebuild the caches from Recovery, so that macOS builds a new cache without it."
    const QString warning = qtTrId("kQVInstalledKextsVCKernelCacheWarning");
    if (result.refusal) {
        showAlert(this, qtTrId("kQVInstalledKextsVCAnErrorOccured"),
                  qString(result.refusal->message));
        return;
    }
    const auto& outcome = result.outcome;
    if (outcome.failed.empty()) {
        //% "The kexts were moved into %1."
        const QString text =
            qtTrId("kQVInstalledKextsVCRemoved").arg(qString(outcome.backupFolder));
        showMessage(this, text, warning);
        return;
    }
    //% "These kexts could not be removed: %1"
    const QString text =
        qtTrId("kQVInstalledKextsVCNotRemoved").arg(joined(outcome.failed).join(", "));
    showAlert(this, text, outcome.done.empty() ? QString() : warning);
}

void InstalledKextsWindow::chooseBackup() {
    const auto root = backupFolderSetting();
    //% "Choose a backup folder"
    const QString folder =
        QFileDialog::getExistingDirectory(this, qtTrId("kQVInstalledKextsVCChooseBackup"),
                                          root ? qString(root->string()) : QString());
    if (!folder.isEmpty())
        restoreFromBackup(folder);
}

std::optional<Volume> InstalledKextsWindow::restoreTarget(const std::string& backup,
                                                          const Volume& shown) {
    const auto manifest = readBackupManifest(backup);
    if (!manifest) {
        showAlert(this, qtTrId("kQVInstalledKextsVCAnErrorOccured"),
                  qString(manifest.error().message));
        return std::nullopt;
    }
    if (absoluteNormalPath(manifest->volume) == absoluteNormalPath(shown.mountPoint()))
        return shown;
    const auto origin = macOSVolumeAt(manifest->volume, manifest->dataVolume);
    switch (askRestoreVolume(this, manifest->volume, origin, shown)) {
    case QMessageBox::Yes:
        return origin;
    case QMessageBox::No:
        logLine("QVInstalledKextsVC::Info: the user puts a backup of " + manifest->volume +
                " onto " + shown.mountPoint() + ".");
        return shown;
    default:
        return std::nullopt;
    }
}

void InstalledKextsWindow::restoreFromBackup(const QString& folder) {
    const auto& shown = VolumeManager::shared().selectedOSVolume();
    if (!shown)
        return;
    std::error_code error;
    // The helper reaches nothing through a link: it gets the folder with its links resolved.
    const auto backup = std::filesystem::canonical(folder.toStdString(), error).string();
    const auto source = error ? folder.toStdString() : backup;
    const auto volume = restoreTarget(source, *shown);
    if (!volume)
        return;
    const auto steps = planRestore(source, *volume);
    const auto root = backupFolderSetting();
    if (!steps || !root) {
        showAlert(this, qtTrId("kQVInstalledKextsVCAnErrorOccured"),
                  steps ? qtTrId("kQVInstalledKextsVCNoBackupFolder")
                        : qString(steps.error().message));
        return;
    }
    QStringList lines;
    for (const auto& step : *steps) {
        //% "%1, replacing the kext installed there, which is backed up first"
        lines << (step.replaces ? qtTrId("kQVInstalledKextsVCRestoreReplaces")
                                      .arg(qString(step.item.volumePath()))
                                : qString(step.item.volumePath()));
    }
    //% "Put back the kexts of %1?"
    if (!confirm(this, qtTrId("kQVInstalledKextsVCRestoreKexts").arg(qString(backup)),
                 lines.join("\n"),
                 //% "Restore"
                 qtTrId("kQVInstalledKextsVCRestoreButton")))
        return;
    auto operations = helperOperations();
    if (!operations)
        return;
    setBusy(true);
    //% "Restoring kexts..."
    updateStatusWithLocalizedString(qtTrId("kQVInstalledKextsVCRestoring"));
    job_.start<RescueResult>(
        [request = RescueRequest{*volume, *root, historyFilePath()}, backup, operations] {
            return RestoreJob(request, backup, *operations).run();
        },
        [this](RescueResult result) {
            tellRestore(result);
            finishOperation();
        });
}

void InstalledKextsWindow::tellRestore(const RescueResult& result) {
    if (result.refusal || !result.outcome.failed.empty()) {
        //% "These kexts could not be put back: %1"
        const QString text = result.refusal ? qString(result.refusal->message)
                                            : qtTrId("kQVInstalledKextsVCNotRestored")
                                                  .arg(joined(result.outcome.failed).join(", "));
        showAlert(this, text, QString());
        return;
    }
    const auto& replaced = result.outcome.backupFolder;
    //% "What they replaced is in %1."
    const QString where = qtTrId("kQVInstalledKextsVCReplacedBackup").arg(qString(replaced));
    //% "The kexts were put back."
    const QString text = qtTrId("kQVInstalledKextsVCRestored");
    showMessage(this, text, replaced.empty() ? QString() : where);
}

std::shared_ptr<Operations> InstalledKextsWindow::helperOperations() {
    auto& manager = HelperManager::shared();
    if (!manager.connection())
        manager.start(qtTrId("kQVQLMainRequestAuthorization").toStdString());
    if (auto connection = manager.connection())
        return std::make_shared<HelperBackedOperations>(
            std::make_shared<HelperClient>(std::move(connection)));
    showAlert(this, qtTrId("kQVInstalledKextsVCAnErrorOccured"),
              //% "Quelm cannot start its helper, which changes the volume as root."
              qtTrId("kQVInstalledKextsVCNoHelper"));
    return nullptr;
}

void InstalledKextsWindow::setBusy(bool busy) {
    setControlsEnabled(!busy);
    for (auto* button : {refreshButton_, restoreButton_, removeButton_})
        button->setEnabled(!busy);
    if (busy)
        startBusyIndicator(*circularIndicator);
    else
        stopBusyIndicator(*circularIndicator);
}

void InstalledKextsWindow::finishOperation() {
    setBusy(false);
    refresh();
    emit operationFinished();
}

} // namespace quelm
