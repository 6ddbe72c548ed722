// The preferences window against real settings (in the test's own home).
#include "ui/PreferencesView.h"

#include "kexts/KextFolder.h"
#include "kexts/KextHistory.h"
#include "ui/Translations.h"
#include "ui/UserDefaults.h"

#include <QComboBox>
#include <QLabel>
#include <QTemporaryDir>
#include <QtTest>

namespace quelm {

class PreferencesViewTest : public QObject {
    Q_OBJECT

    static void storeDefaults(std::string_view folder, std::string_view mode) {
        setUserDefaultString(kDefaultKextInstallationFolderKey, folder);
        setUserDefaultString(kDefaultAppearanceModeKey, mode);
    }

    static QComboBox& menu(const QWidget& view, const char* name) {
        return *view.findChild<QComboBox*>(name);
    }

private slots:
    void initTestCase() { QVERIFY(installTranslations(*QCoreApplication::instance())); }

    void choicesAreShownFromTheSettingsAndWrittenAtOnce() {
        const std::string folders[] = {"/Library/Extensions/", "/System/Library/Extensions/",
                                       "QVKextFolderAskMeEveryTime", "QVKextFolderUseSmartTable"};
        const std::string modes[] = {"LightMode", "DarkMode"};
        for (int index = 0; index < 4; ++index) {
            storeDefaults(folders[index], modes[index % 2]);
            PreferencesView view;
            QCOMPARE(menu(view, "installationFolderMenu").currentIndex(), index);
            QCOMPARE(menu(view, "appearanceMenu").currentIndex(), index % 2);
        }
        // "/Extra/Extensions/" is not offered, so a setting of it selects no item.
        storeDefaults("/Extra/Extensions/", "LightMode");
        PreferencesView view;
        view.show();
        QComboBox& folderMenu = menu(view, "installationFolderMenu");
        QCOMPARE(folderMenu.currentIndex(), -1);
        QCOMPARE(folderMenu.itemText(2), QString("Ask me every time"));
        for (const std::string& folder : folders) {
            QTest::keyClick(&folderMenu, Qt::Key_Down);
            QCOMPARE(userDefaultString(kDefaultKextInstallationFolderKey), folder);
        }
        QTest::keyClick(&menu(view, "appearanceMenu"), Qt::Key_Down);
        QCOMPARE(userDefaultString(kDefaultAppearanceModeKey), modes[1]);
    }

    void theBackupFolderIsTheDataFoldersUntilChosenAndIsReachedWithoutLinks() {
        storeDefaults("/Library/Extensions/", "LightMode");
        setUserDefaultString(kBackupFolderKey, "");
        PreferencesView view;
        auto* shown = view.findChild<QLabel*>("backupFolderField");
        QCOMPARE(shown->text(), QString::fromStdString(defaultBackupRoot().string()));
        QCOMPARE(backupFolderSetting(), std::optional(defaultBackupRoot()));

        QTemporaryDir folder;
        const auto real = std::filesystem::path(folder.path().toStdString()) / "real";
        std::filesystem::create_directories(real);
        std::filesystem::create_directory_symlink(real, real.parent_path() / "link");
        view.actionSelectBackupFolder(folder.path() + "/link/Backups");
        QCOMPARE(shown->text(), folder.path() + "/link/Backups");
        // Made when missing, and given to the helper as the folder the link leads to.
        QCOMPARE(backupFolderSetting(), std::optional(real / "Backups"));
        QVERIFY(std::filesystem::is_directory(real / "Backups"));
    }
};

} // namespace quelm

QTEST_MAIN(quelm::PreferencesViewTest)
#include "PreferencesViewTest.moc"
