// The preferences window: where kexts are installed by default, the appearance, and where
// backups of replaced and removed kexts go.
#include "ui/PreferencesView.h"

#include "kexts/KextFolder.h"
#include "kexts/KextHistory.h"
#include "support/Log.h"
#include "ui/AppearanceMode.h"
#include "ui/UserDefaults.h"
#include "ui_PreferencesView.h"

#include <QFileDialog>
#include <algorithm>
#include <array>
#include <string>

namespace quelm {
namespace {

constexpr std::string_view kFatalMessage =
    "QVMainQLInstallationPreferenceVC::FatalError: You should never reach at here.";

/// The installation pop-up's items in order. "/Extra/Extensions/" is left out on purpose: kexts
/// go there through the smart table, or a setting written by hand.
constexpr std::array kOfferedFolders{KextFolder::LibraryExtensions,
                                     KextFolder::SystemLibraryExtensions,
                                     KextFolder::AskMeEveryTime, KextFolder::UseSmartTable};

constexpr std::array kOfferedModes{AppearanceMode::LightMode, AppearanceMode::DarkMode};

QString folderItemTitle(KextFolder folder) {
    switch (folder) {
    case KextFolder::AskMeEveryTime:
        //% "Ask me every time"
        return qtTrId("kQVMainQuelmPreferenceVCAskMeEveryTime");
    case KextFolder::UseSmartTable:
        //% "Use the default smart table"
        return qtTrId("kQVMainQuelmPreferenceVCUseTheDefaultSmartTable");
    default:
        // The folders are shown as the paths they are.
        return QString::fromUtf8(rawValue(folder).data(),
                                 static_cast<qsizetype>(rawValue(folder).size()));
    }
}

/// The stored setting, which the application has written at launch.
std::string storedValue(std::string_view key) {
    auto value = userDefaultString(key);
    if (!value)
        fatalError("QVMainQLInstallationPreferenceVC::FatalError: the setting " + std::string(key) +
                   " is missing.");
    return *value;
}

[[noreturn]] void unknownValue(std::string_view key, std::string_view value) {
    fatalError("QVMainQLInstallationPreferenceVC::FatalError: the setting " + std::string(key) +
               " holds the unknown value \"" + std::string(value) + "\".");
}

/// The position of value in items, or -1 (no selection).
template <class Items, class Value> int indexOf(const Items& items, Value value) {
    const auto found = std::find(items.begin(), items.end(), value);
    return found == items.end() ? -1 : static_cast<int>(found - items.begin());
}

template <class Items> auto itemAt(const Items& items, int index) {
    if (index < 0 || index >= static_cast<int>(items.size()))
        fatalError(kFatalMessage);
    return items[static_cast<std::size_t>(index)];
}

} // namespace

PreferencesView::PreferencesView(QWidget* parent)
    : QWidget(parent, Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
                          Qt::WindowCloseButtonHint),
      ui_(std::make_unique<Ui::PreferencesView>()) {
    ui_->setupUi(this);
    setUpScreen();
}

PreferencesView::~PreferencesView() = default;

void PreferencesView::setUpScreen() {
    ui_->editSmartTableButton->setHidden(true);
    //% "Default Installation Preference"
    ui_->installationBox->setTitle(qtTrId("kQVMainQuelmPreferenceVCDefaultInstallationPreference"));
    //% "Default Appearance"
    ui_->appearanceBox->setTitle(qtTrId("kQVMainQuelmPreferenceVCDefaultAppearance"));
    //% "Install kexts to:"
    ui_->installKextsField->setText(qtTrId("kQVMainQuelmPreferenceVCInstallKextsTo"));
    //% "Edit"
    ui_->editSmartTableButton->setText(qtTrId("kQVMainQuelmPreferenceVCEdit"));
    //% "Back up replaced and removed kexts into"
    ui_->backupFolderBox->setTitle(qtTrId("kQVMainQuelmPreferenceVCBackupFolder"));
    //% "Choose..."
    ui_->chooseBackupFolderButton->setText(qtTrId("kQVMainQuelmPreferenceVCChoose"));
    const auto backups = userDefaultString(kBackupFolderKey);
    ui_->backupFolderField->setText(QString::fromStdString(
        backups && !backups->empty() ? *backups : defaultBackupRoot().string()));
    connect(ui_->chooseBackupFolderButton, &QPushButton::clicked, this,
            &PreferencesView::chooseBackupFolder);
    fillPopUps();
    selectStoredChoices();
    // activated, unlike currentIndexChanged, comes only from the user's choices.
    connect(ui_->installationFolderMenu, &QComboBox::activated, this,
            &PreferencesView::actionButtonSelectInstallationFolder);
    connect(ui_->editSmartTableButton, &QPushButton::clicked, this,
            &PreferencesView::actionButtonEditDefaultTable);
    connect(ui_->appearanceMenu, &QComboBox::activated, this,
            &PreferencesView::actionButtonSelectDefaultAppearance);
}

void PreferencesView::fillPopUps() {
    ui_->installationFolderMenu->clear();
    for (const auto folder : kOfferedFolders)
        ui_->installationFolderMenu->addItem(folderItemTitle(folder));
    ui_->appearanceMenu->clear();
    for (const auto mode : kOfferedModes)
        ui_->appearanceMenu->addItem(displayText(mode));
}

void PreferencesView::selectStoredChoices() {
    const std::string modeValue = storedValue(kDefaultAppearanceModeKey);
    const auto mode = appearanceModeFromRawValue(modeValue);
    if (!mode)
        unknownValue(kDefaultAppearanceModeKey, modeValue);
    ui_->appearanceMenu->setCurrentIndex(indexOf(kOfferedModes, *mode));

    const std::string folderValue = storedValue(kDefaultKextInstallationFolderKey);
    const auto folder = kernelExtensionFolderFromRawValue(folderValue);
    if (!folder)
        unknownValue(kDefaultKextInstallationFolderKey, folderValue);
    ui_->installationFolderMenu->setCurrentIndex(indexOf(kOfferedFolders, *folder));
}

void PreferencesView::actionButtonSelectInstallationFolder(int index) {
    const KextFolder folder = itemAt(kOfferedFolders, index);
    setUserDefaultString(kDefaultKextInstallationFolderKey, rawValue(folder));
}

void PreferencesView::chooseBackupFolder() {
    //% "Choose the backup folder"
    const QString folder = QFileDialog::getExistingDirectory(
        this, qtTrId("kQVMainQuelmPreferenceVCChooseBackupFolder"), ui_->backupFolderField->text());
    if (!folder.isEmpty())
        actionSelectBackupFolder(folder);
}

void PreferencesView::actionSelectBackupFolder(const QString& folder) {
    setUserDefaultString(kBackupFolderKey, folder.toStdString());
    ui_->backupFolderField->setText(folder);
}

void PreferencesView::actionButtonEditDefaultTable() {
}

void PreferencesView::actionButtonSelectDefaultAppearance(int index) {
    setUserDefaultString(kDefaultAppearanceModeKey, rawValue(itemAt(kOfferedModes, index)));
}

} // namespace quelm
