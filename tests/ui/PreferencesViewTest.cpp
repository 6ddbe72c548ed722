// The preferences window against real settings (in the test's own home).
#include "ui/PreferencesView.h"

#include "kexts/KextFolder.h"
#include "kexts/KextHistory.h"
#include "ui/Translations.h"
#include "ui/UserDefaults.h"

#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QPushButton>
#include <QTemporaryDir>
#include <QtTest>

namespace quelm {

using Folder = KextFolder;

class PreferencesViewTest : public QObject {
    Q_OBJECT

    static QStringList items(const QComboBox& popUp) {
        QStringList texts;
        for (int index = 0; index < popUp.count(); ++index)
            texts << popUp.itemText(index);
        return texts;
    }

    static void storeDefaults(std::string_view folder, std::string_view mode) {
        setUserDefaultString(kDefaultKextInstallationFolderKey, folder);
        setUserDefaultString(kDefaultAppearanceModeKey, mode);
    }

private slots:
    void initTestCase() { QVERIFY(installTranslations(*QCoreApplication::instance())); }

    void popUpsShowTheStoredChoices_data() {
        QTest::addColumn<QString>("folderValue");
        QTest::addColumn<QString>("modeValue");
        QTest::addColumn<int>("folderIndex");
        QTest::addColumn<int>("modeIndex");
        QTest::newRow("library, light") << "/Library/Extensions/"
                                        << "LightMode" << 0 << 0;
        QTest::newRow("system, dark") << "/System/Library/Extensions/"
                                      << "DarkMode" << 1 << 1;
        QTest::newRow("ask") << "QVKextFolderAskMeEveryTime"
                             << "LightMode" << 2 << 0;
        QTest::newRow("smart table") << "QVKextFolderUseSmartTable"
                                     << "DarkMode" << 3 << 1;
        QTest::newRow("extra: not offered") << "/Extra/Extensions/"
                                            << "LightMode" << -1 << 0;
    }

    void popUpsShowTheStoredChoices() {
        QFETCH(QString, folderValue);
        QFETCH(QString, modeValue);
        storeDefaults(folderValue.toStdString(), modeValue.toStdString());
        PreferencesView controller;
        QTEST(controller.findChild<QComboBox*>("installationFolderMenu")->currentIndex(),
              "folderIndex");
        QTEST(controller.findChild<QComboBox*>("appearanceMenu")->currentIndex(), "modeIndex");
        QVERIFY(controller.findChild<QPushButton*>("editSmartTableButton")->isHidden());
    }

    void choicesAreWrittenAtOnce() {
        storeDefaults("/Library/Extensions/", "LightMode");
        PreferencesView controller;
        controller.show();
        auto* folders = controller.findChild<QComboBox*>("installationFolderMenu");
        auto* modes = controller.findChild<QComboBox*>("appearanceMenu");
        QCOMPARE(items(*folders),
                 QStringList({"/Library/Extensions/", "/System/Library/Extensions/",
                              "Ask me every time", "Use the default smart table"}));
        QCOMPARE(items(*modes), QStringList({"Light", "Dark"}));

        QTest::keyClick(folders, Qt::Key_Down);
        QCOMPARE(userDefaultString(kDefaultKextInstallationFolderKey),
                 "/System/Library/Extensions/");
        QTest::keyClick(folders, Qt::Key_End);
        QCOMPARE(userDefaultString(kDefaultKextInstallationFolderKey), "QVKextFolderUseSmartTable");

        QTest::keyClick(modes, Qt::Key_Down);
        QCOMPARE(userDefaultString(kDefaultAppearanceModeKey), "DarkMode");
        QTest::keyClick(modes, Qt::Key_Up);
        QCOMPARE(userDefaultString(kDefaultAppearanceModeKey), "LightMode");
    }

    void theBackupFolderIsTheDataFoldersUntilChosenAndIsReachedWithoutLinks() {
        storeDefaults("/Library/Extensions/", "LightMode");
        setUserDefaultString(kBackupFolderKey, "");
        PreferencesView controller;
        auto* shown = controller.findChild<QLabel*>("backupFolderField");
        QCOMPARE(shown->text(), QString::fromStdString(defaultBackupRoot().string()));
        QCOMPARE(backupFolderSetting(), std::optional(defaultBackupRoot()));

        QTemporaryDir folder;
        const auto real = std::filesystem::path(folder.path().toStdString()) / "real";
        std::filesystem::create_directories(real);
        std::filesystem::create_directory_symlink(real, real.parent_path() / "link");
        controller.actionSelectBackupFolder(folder.path() + "/link/Backups");
        QCOMPARE(shown->text(), folder.path() + "/link/Backups");
        // Made when missing, and given to the helper as the folder the link leads to.
        QCOMPARE(backupFolderSetting(), std::optional(real / "Backups"));
        QVERIFY(std::filesystem::is_directory(real / "Backups"));
    }
};

} // namespace quelm

QTEST_MAIN(quelm::PreferencesViewTest)
#include "PreferencesViewTest.moc"
