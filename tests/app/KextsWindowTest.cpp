// The window of installed kexts: listing, removal, restore and the volume a backup goes to,
// offscreen, against volumes with real Mach-O kexts and the real helper.
#include "KextFixtures.h"
#include "TestSupport.h"
#include "app/InstalledKextsWindow.h"
#include "app/JobScreen.h"
#include "app/MainWindow.h"
#include "app/TargetVolume.h"
#include "helper/HelperManager.h"
#include "kexts/KextBackups.h"
#include "kexts/KextHistory.h"
#include "ui/Translations.h"
#include "ui/UserDefaults.h"
#include "ui/ViewExtensions.h"
#include "volumes/VolumeManager.h"

#include <QSettings>
#include <QSignalSpy>
#include <QTreeWidget>
#include <QtTest>
#include <unistd.h>

namespace quelm {

namespace fs = std::filesystem;

namespace {

/// The one folder in folder: a backup made by one operation.
fs::path onlyFolderIn(const fs::path& folder) {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(folder))
        found.push_back(entry.path());
    return found.size() == 1 ? found[0] : fs::path();
}

QTreeWidgetItem* rowNamed(QTreeWidget& table, const QString& name) {
    const auto items = table.findItems(name, Qt::MatchExactly | Qt::MatchRecursive);
    return items.isEmpty() ? nullptr : items[0];
}

HistoryRecord lastRecord() {
    const auto records = readHistory(historyFilePath());
    return records && !records->empty() ? records->back() : HistoryRecord{};
}

} // namespace

class KextsWindowTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        QVERIFY(installTranslations(*QCoreApplication::instance()));
        QSettings("org.quelm", "Quelm").clear();
        HelperManager::setSharedRoot(helperRoot_.path().string());
    }

    void init() {
        if (::geteuid() != 0)
            QSKIP("the helper changes the volume as root");
        test::makeRescueVolume(volume_);
        VolumeManager::shared().setStartingOSVolume(*Volume::initWithMountPoint(volume_));
        setUserDefaultString(kBackupFolderKey, backups_.string());
        HelperManager::shared().start(std::nullopt);
    }

    void cleanup() {
        ModalAnswers::clear();
        HelperManager::shared().terminateHelper();
        for (const auto& entry : fs::directory_iterator(folder_.path()))
            fs::remove_all(entry.path());
    }

    void theWindowListsNestedKextsRemovesIntoABackupAndRestoresIt() {
        InstalledKextsWindow window;
        QSignalSpy finished(&window, &InstalledKextsWindow::operationFinished);
        auto& table = *window.findChild<QTreeWidget*>("kextsTable");
        QCOMPARE(table.topLevelItemCount(), 2);
        auto* system = table.topLevelItem(0);
        QCOMPARE(system->child(0)->text(1), QString("com.apple.kpi.iokit"));
        QStringList lilu;
        for (int column = 0; column < 8; ++column)
            lilu << table.topLevelItem(1)->text(column);
        QCOMPARE(lilu.join('|'),
                 QString("Lilu.kext|as.vit9696.Lilu|1.4.5|/Library/Extensions/|No|") +
                     table.topLevelItem(1)->text(5) + "|Yes|x86_64");

        // Apple's kext needs a second yes: cancelled there, nothing moves.
        system->setSelected(true);
        ModalAnswers::preset(QMessageBox::Yes);
        ModalAnswers::preset(QMessageBox::Cancel);
        window.removeSelectedKexts();
        QCOMPARE(ModalAnswers::shown()[1].text,
                 QString("System.kext is Apple's (com.apple.kernel): macOS may need it to start."));
        QVERIFY(fs::exists(volume_ / "System/Library/Extensions/System.kext"));
        QCOMPARE(finished.count(), 0);

        system->setSelected(false);
        rowNamed(table, "Lilu.kext")->setSelected(true);
        ModalAnswers::clear();
        ModalAnswers::preset(QMessageBox::Yes);
        ModalAnswers::preset(QMessageBox::Ok);
        window.removeSelectedKexts();
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, test::kHangGuardMs);
        const auto backup = onlyFolderIn(backups_);
        QVERIFY(fs::exists(backup / "Lilu.kext/Contents/MacOS/Lilu"));
        QVERIFY(!fs::exists(volume_ / "Library/Extensions/Lilu.kext"));
        QCOMPARE(table.topLevelItemCount(), 1);
        const auto& told = ModalAnswers::shown();
        QCOMPARE(told[1].text, "The kexts were moved into " + QString::fromStdString(backup) + ".");
        QVERIFY(told[1].informativeText.startsWith("The next start still uses the old kernel"));

        ModalAnswers::clear();
        ModalAnswers::preset(QMessageBox::Yes);
        ModalAnswers::preset(QMessageBox::Ok);
        window.restoreFromBackup(QString::fromStdString(backup));
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 2, test::kHangGuardMs);
        QVERIFY(fs::exists(volume_ / "Library/Extensions/Lilu.kext/Contents/MacOS/Lilu"));
        QCOMPARE(table.topLevelItemCount(), 2);
        QCOMPARE(ModalAnswers::shown()[0].informativeText,
                 QString("/Library/Extensions/Lilu.kext"));
        QCOMPARE(ModalAnswers::shown()[1].text, QString("The kexts were put back."));
        QCOMPARE(lastRecord().operation, std::string("restore"));
    }

    void aBackupGoesBackToItsOwnVolumeUnlessTheUserChoosesTheOneShown() {
        const auto catalina = folder_ / "Catalina";
        test::makeCatalinaVolume(catalina);
        const auto lilu = "/Library/Extensions/Lilu.kext";
        const auto takeLiluOff = [&](const std::string& name) {
            fs::create_directories(backups_);
            const auto backup = (backups_ / name).string();
            moveKextsToBackup(*Volume::initWithMountPoint(volume_), {lilu}, backup, "remove",
                              std::chrono::system_clock::now());
            return QString::fromStdString(backup);
        };
        const auto restoreOnto = [](const fs::path& volume) {
            return "Restore onto " + QString::fromStdString(volume.string());
        };
        const auto answer = [](std::initializer_list<QMessageBox::StandardButton> answers) {
            ModalAnswers::clear();
            for (const auto button : answers)
                ModalAnswers::preset(button);
        };
        const auto first = takeLiluOff("first");
        VolumeManager::shared().setSelectedOSVolume(*Volume::initWithMountPoint(catalina));
        InstalledKextsWindow window;
        QSignalSpy finished(&window, &InstalledKextsWindow::operationFinished);

        answer({QMessageBox::Cancel});
        window.restoreFromBackup(first);
        const auto& asked = ModalAnswers::shown();
        QCOMPARE(asked[0].text, "These kexts came from " + QString::fromStdString(volume_) +
                                    " (macOS High Sierra 10.13.6 (17G66)), but this window shows " +
                                    QString::fromStdString(catalina) +
                                    " (macOS Catalina 10.15.7 (19H2)).");
        auto buttons = asked[0].buttons;
        buttons.sort();
        QCOMPARE(buttons, (QStringList{"Cancel", restoreOnto(catalina), restoreOnto(volume_)}));

        // The default: back where it came from, whatever the window shows.
        answer({QMessageBox::Yes, QMessageBox::Yes, QMessageBox::Ok});
        window.restoreFromBackup(first);
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, test::kHangGuardMs);
        QVERIFY(fs::exists(volume_ / "Library/Extensions/Lilu.kext/Contents/MacOS/Lilu"));
        QCOMPARE(lastRecord().volume, volume_.string());

        // Onto the volume shown only when the user picks it.
        const auto second = takeLiluOff("second");
        answer({QMessageBox::No, QMessageBox::Yes, QMessageBox::Ok});
        window.restoreFromBackup(second);
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 2, test::kHangGuardMs);
        QVERIFY(fs::exists(catalina / "Library/Extensions/Lilu.kext/Contents/MacOS/Lilu"));
        QCOMPARE(lastRecord().volume, catalina.string());

        // A volume that is gone cannot be chosen; the one shown still has to be.
        const auto manifest = fs::path(first.toStdString()) / "Manifest.plist";
        auto text = test::readText(manifest);
        text.replace(text.find(volume_.string()), volume_.string().size(), "/Volumes/Gone");
        test::writeText(manifest, text);
        answer({QMessageBox::Cancel});
        window.restoreFromBackup(first);
        buttons = asked[0].buttons;
        buttons.sort();
        QCOMPARE(buttons, (QStringList{"Cancel", restoreOnto(catalina)}));
        QVERIFY(asked[0].informativeText.startsWith("/Volumes/Gone is not a macOS volume now."));
    }

private:
    test::TemporaryFolder helperRoot_;
    test::TemporaryFolder folder_;
    const fs::path volume_ = folder_ / "Mac HD";
    const fs::path backups_ = folder_ / "Backups";
};

} // namespace quelm

QTEST_MAIN(quelm::KextsWindowTest)
#include "KextsWindowTest.moc"
