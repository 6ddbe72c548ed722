// The installation screen's choice of volume, its status and progress, and the hand-off of
// later starts, offscreen against real folders.
#include "TestSupport.h"
#include "app/AppDelegate.h"
#include "app/LaterStarts.h"
#include "app/QVMainQuelmViewController.h"
#include "app/QVMainQuelmWindowController.h"
#include "helper/QVXPCHelperManager.h"
#include "ui/QVViewExtensions.h"
#include "ui/Translations.h"
#include "ui/UserDefaults.h"
#include "volumes/QVOSVolumeManager.h"

#include <QDir>
#include <QLabel>
#include <QLocalServer>
#include <QProgressBar>
#include <QSettings>
#include <QtTest>

namespace quelm {

namespace fs = std::filesystem;

class JobScreenTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        QVERIFY(installTranslations(*QCoreApplication::instance()));
        QSettings("org.quelm", "Quelm").clear();
        QVOSVolumeManager::shared().setStartingOSVolume(*QVOSVolume::initWithMountPoint(base_));
    }

    void cleanup() {
        QVModalAnswers::clear();
        QVOSVolumeManager::shared().setStartingOSVolume(*QVOSVolume::initWithMountPoint(base_));
    }

    void aChosenFolderIsTakenWholeRememberedAndAnnounced() {
        QVMainQuelmViewController screen;
        std::vector<bool> extraFolders;
        const auto token = NotificationCenter::defaultCenter().addObserver(
            kDidSelectAValidOSVolume, [&](const bool& extra) { extraFolders.push_back(extra); });
        // Neither "%20" nor "#" nor "é" may be decoded or cut: the folder is the one chosen.
        for (const char* name : {"My%20Disk", "Système #1 100%"}) {
            const auto volume = folder_ / name;
            test::makeVolume(volume, "10.13.6", "17G65");
            QVERIFY(screen.acceptVolume(QString::fromStdString(volume.string() + "/./")));
            QCOMPARE(QVOSVolumeManager::shared().selectedOSVolume()->mountPoint(), volume.string());
            QCOMPARE(userDefaultString(kLastTargetVolumeKey), std::optional(volume.string()));
            QCOMPARE(screen.findChild<QLabel*>("pathField")->toolTip(),
                     QString::fromStdString(volume.string()));
        }
        fs::create_directories(folder_ / "Système #1 100%/Extra");
        QVERIFY(
            screen.acceptVolume(QString::fromStdString((folder_ / "Système #1 100%").string())));
        QCOMPARE(extraFolders, (std::vector<bool>{false, false, true}));
        QVERIFY(QVModalAnswers::shown().empty());
        NotificationCenter::defaultCenter().removeObserver(token);
    }

    void foldersThatCannotBeTheTargetAreRefusedWithTheirReason() {
        QVMainQuelmViewController screen;
        const auto recovery = folder_ / "Recovery HD";
        test::makeVolume(recovery, "10.13.6", "17G65");
        fs::create_directories(recovery / "System/Installation");
        fs::create_directories(folder_ / "Photos");
        QVModalAnswers::preset(QMessageBox::Ok);
        QVModalAnswers::preset(QMessageBox::Ok);
        QVERIFY(!screen.acceptVolume(QString::fromStdString((folder_ / "Photos").string())));
        QVERIFY(!screen.acceptVolume(QString::fromStdString(recovery.string())));
        const auto& shown = QVModalAnswers::shown();
        QCOMPARE(shown.size(), std::size_t{2});
        QCOMPARE(shown[0].text, QString("An error occurred"));
        QCOMPARE(shown[0].informativeText,
                 QString("The selected folder is not a valid macOS system volume."));
        QCOMPARE(shown[1].informativeText,
                 QString("The selected volume is a recovery volume, which cannot be the target."));
        QCOMPARE(QVOSVolumeManager::shared().selectedOSVolume()->mountPoint(), base_.string());
    }

    void resetReturnsToTheStartingVolumeAndTheHelpersProgressMovesTheBar() {
        QVMainQuelmViewController screen;
        const auto other = folder_ / "Other HD";
        test::makeVolume(other, "10.14.6", "18G103");
        QVERIFY(screen.acceptVolume(QString::fromStdString(other.string())));
        auto* bar = screen.findChild<QProgressBar*>("circularIndicator");
        bar->setRange(0, 100);
        NotificationCenter::defaultCenter().post(kDidReceiveRemoteProgress, 42.5);
        QTRY_COMPARE_WITH_TIMEOUT(bar->value(), 42, test::kHangGuardMs);
        screen.reset();
        QCOMPARE(QVOSVolumeManager::shared().selectedOSVolume()->mountPoint(), base_.string());
        QCOMPARE(screen.findChild<QLabel*>("pathField")->toolTip(),
                 QString::fromStdString(base_.string()));
        QCOMPARE(screen.findChild<QLabel*>("statusField")->text(), QString("Status: Ready"));
        QVERIFY(bar->isHidden());
    }

    void laterStartsCarryAbsoluteNormalPathsAndTheirVolume() {
        const auto previous = QDir::currentPath();
        QDir::setCurrent(QString::fromStdString(folder_.path().string()));
        const auto message = laterStartMessage({"kexts/./A.kext", "x/../B.kext"}, "Mac HD/");
        QDir::setCurrent(previous);
        const auto start = parseLaterStart(message);
        QCOMPARE(start.volume, std::optional((folder_ / "Mac HD").string()));
        QCOMPARE(start.files,
                 (QStringList{QString::fromStdString((folder_ / "kexts/A.kext").string()),
                              QString::fromStdString((folder_ / "B.kext").string())}));
        QVERIFY(!parseLaterStart(laterStartMessage({"/k/A.kext"}, {})).volume);
    }

    void aLaterStartJoinsTheIntakeThroughTheInstanceSocket() {
        QVMainQuelmWindowController window;
        window.switchViewController(true);
        AppDelegate delegate(window);
        QLocalServer server;
        const QString name = "quelm-test-" + QString::number(QCoreApplication::applicationPid());
        listenForLaterStarts(server, name, delegate, window);
        QVERIFY(handToRunningInstance(name, {"/k/A.kext", "/k/B.kext"}, {}));
        QTRY_COMPARE_WITH_TIMEOUT(delegate.files(), (QStringList{"/k/A.kext", "/k/B.kext"}),
                                  test::kHangGuardMs);
        QVERIFY(!handToRunningInstance(name + "-none", {"/k/C.kext"}, {}));
    }

    void kextsForAVolumeThatIsNotMacOSAreNamedAsSkipped() {
        QVMainQuelmWindowController window;
        window.switchViewController(true);
        AppDelegate delegate(window);
        auto* screen = window.installationScreen();
        std::optional<QVUserNotification> notification;
        connect(screen, &QVMainQuelmViewController::notified,
                [&](const QVUserNotification& delivered) { notification = delivered; });
        bool finished = false;
        connect(screen, &QVMainQuelmViewController::jobFinished, [&] { finished = true; });
        const auto photos = folder_ / "Photos";
        fs::create_directories(photos);
        takeLaterStart({photos.string(), {"/k/A.kext"}}, delegate, window);
        QTRY_VERIFY_WITH_TIMEOUT(finished, test::kHangGuardMs);
        QVERIFY(notification);
        QCOMPARE(notification->subtitle, QString("Installed: 0 Failed: 0"));
        QCOMPARE(notification->informativeText,
                 QString("Skipped: A.kext (its volume is not a macOS volume)"));
        QVERIFY(delegate.files().isEmpty());
    }

private:
    test::TemporaryFolder folder_;
    const fs::path base_ = [this] {
        test::makeVolume(folder_ / "Macintosh HD", "10.12.6", "16G29");
        return folder_ / "Macintosh HD";
    }();
};

} // namespace quelm

QTEST_MAIN(quelm::JobScreenTest)
#include "JobScreenTest.moc"
