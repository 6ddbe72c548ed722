// The preferences window: where kexts are installed by default, the appearance, and where
// backups of replaced and removed kexts go.
#pragma once

#include <QWidget>
#include <memory>

namespace Ui {
class PreferencesView;
}

namespace quelm {

/// Two pop-ups whose choices are written to the settings at once, with no OK or Cancel; each
/// job reads the installation folder when it starts. The settings must hold both values (the
/// application writes missing ones at launch); an unknown value, like an index outside a pop-up, is
/// a fatal error. The backup folder is shown with a button that chooses another; without a choice
/// it is Backups in the user's data folder.
class PreferencesView : public QWidget {
    Q_OBJECT

public:
    explicit PreferencesView(QWidget* parent = nullptr);
    ~PreferencesView() override;

    /// 0 "/Library/Extensions/", 1 "/System/Library/Extensions/", 2 ask every time,
    /// 3 the smart table.
    void actionButtonSelectInstallationFolder(int index);
    /// Hidden: the smart table is edited by hand in its file for now.
    void actionButtonEditDefaultTable();
    /// 0 light, 1 dark; only stored: the application applies it.
    void actionButtonSelectDefaultAppearance(int index);
    /// Stores the folder where backups of replaced and removed kexts go, and shows it.
    void actionSelectBackupFolder(const QString& folder);

private:
    void setUpScreen();
    void fillPopUps();
    void selectStoredChoices();
    void chooseBackupFolder();

    std::unique_ptr<Ui::PreferencesView> ui_;
};

} // namespace quelm
