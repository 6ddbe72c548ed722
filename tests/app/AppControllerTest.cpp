// The application controller and the installation screen, offscreen: intake timing, menus,
// defaults, screen choice, appearance, and a job answered in advance against the real helper.
#include "app/AppController.h"

#include "KextFixtures.h"
#include "TestSupport.h"
#include "app/JobScreen.h"
#include "app/LaterStarts.h"
#include "app/MainWindow.h"
#include "helper/HelperManager.h"
#include "support/Paths.h"
#include "ui/Translations.h"
#include "ui/UserDefaults.h"
#include "ui/ViewExtensions.h"
#include "volumes/VolumeManager.h"

#include <QAction>
#include <QApplication>
#include <QFileDialog>
#include <QMenuBar>
#include <QScopeGuard>
#include <QSettings>
#include <QtTest>
#include <unistd.h>

namespace quelm {

using namespace std::chrono_literals;

class AppControllerTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        QVERIFY(installTranslations(*QCoreApplication::instance()));
        // The home of the test program outlives a run: start from no settings at all.
        QSettings("org.quelm", "Quelm").clear();
        // The shared helper manager takes its root once, for every job of this run.
        HelperManager::setSharedRoot(helperRoot_.path().string());
    }

    void cleanup() { ModalAnswers::clear(); }

    void batchesBeforeTheTimerAreDeliveredOnceInOrderAndTheTimerDeliversByItself() {
        MainWindow window;
        // The timer never fires by itself here: the test fires it, so no wait decides.
        AppController controller(window, 24h);
        std::vector<std::vector<std::string>> deliveries;
        const auto token = NotificationCenter::defaultCenter().addObserver(
            kDidCollectAllFiles, [&](const auto& paths) { deliveries.push_back(paths); });
        controller.openFiles({"/k/A.kext"});
        controller.openFiles({"/k/B.kext", "/k/C.kext"});
        QCoreApplication::processEvents();
        controller.openFiles({"/k/D.kext"});
        QCoreApplication::processEvents();
        QVERIFY(deliveries.empty());
        controller.start();
        QCOMPARE(deliveries.size(), std::size_t{1});
        QCOMPARE(deliveries[0],
                 (std::vector<std::string>{"/k/A.kext", "/k/B.kext", "/k/C.kext", "/k/D.kext"}));
        controller.openFiles({"/k/E.kext"});
        controller.start();
        QCOMPARE(deliveries.size(), std::size_t{2});
        QCOMPARE(deliveries[1].size(), std::size_t{5});
        // Left to itself, the timer delivers too.
        AppController timed(window, 10ms);
        timed.openFiles({"/k/F.kext"});
        QTRY_COMPARE_WITH_TIMEOUT(deliveries.size(), std::size_t{3}, test::kHangGuardMs);
        NotificationCenter::defaultCenter().removeObserver(token);
    }

    void launchTitlesTheMenuAndKeepsTheUsersDefaults() {
        setUserDefaultString(kDefaultAppearanceModeKey, "DarkMode");
        MainWindow window;
        AppController controller(window);
        QMenuBar menu;
        QStringList titles;
        for (const int tag : {6, 15, 16})
            menu.addMenu("Menu")->addAction(QString())->setProperty("tag", tag);
        QVERIFY(controller.prepareLaunch(menu));
        for (const auto* item : menu.actions())
            titles << item->menu()->actions().front()->text();
        QCOMPARE(titles.join('|'), QString("Quit Quelm|Quelm Help|Installed Kexts..."));
        QCOMPARE(userDefaultString(kDefaultAppearanceModeKey),
                 std::optional<std::string>("DarkMode"));
        QCOMPARE(userDefaultString(kDefaultKextInstallationFolderKey),
                 std::optional<std::string>("QVKextFolderUseSmartTable"));
        QVERIFY(
            std::filesystem::exists(applicationSupportFolder() / "QVUserDefaultSmartTable.plist"));
    }

    void launchWithoutFilesShowsThePreferencesAndQuitsWithTheirWindow() {
        MainWindow window;
        AppController controller(window);
        controller.finishLaunch();
        QTRY_VERIFY_WITH_TIMEOUT(window.isVisible(), test::kHangGuardMs);
        QCOMPARE(window.screenName(), QString("QVSBIDMainQuelmPreference"));
        QVERIFY(controller.quitsWithLastWindow());
        // The screen is chosen once per run.
        window.showScreen(true);
        QCOMPARE(window.screenName(), QString("QVSBIDMainQuelmPreference"));
    }

    void eachHelperFailureEndsInItsAlertAndAConnectionInNone() {
        MainWindow window;
        AppController controller(window);
        QMenuBar menu;
        QVERIFY(controller.prepareLaunch(menu));
        int terminations = 0;
        connect(&controller, &AppController::terminate, [&] { ++terminations; });
        auto& center = NotificationCenter::defaultCenter();
        const auto post = [&](const auto& name, const auto& object) {
            ModalAnswers::preset(QMessageBox::Ok);
            center.post(name, object);
        };
        post(kHelperFailedToConnect, std::string("broken pipe"));
        for (const auto* name : {&kHelperFailedToInstall, &kHelperFailedToReinstall,
                                 &kHelperFailedToRemove, &kHelperFailedToAuthenticate})
            post(*name, NoObject{});
        QTRY_COMPARE_WITH_TIMEOUT(terminations, 5, test::kHangGuardMs);
        QStringList told;
        for (const auto& box : ModalAnswers::shown())
            told << box.text + ": " + box.informativeText;
        QCOMPARE(told.join('\n'),
                 QString("An error occurred: Quelm cannot talk to its helper: broken pipe\n"
                         "An error occurred: Quelm cannot install its helper.\n"
                         "An error occurred: Quelm cannot install the new version of its helper.\n"
                         "An error occurred: Quelm cannot remove the old version of its helper.\n"
                         "An error occurred: Quelm was not allowed to install its helper."));
        // A connection is no failure: no alert, and the application goes on.
        center.post(kHelperDidConnect, NoObject{});
        QCoreApplication::processEvents();
        QCOMPARE(ModalAnswers::shown().size(), std::size_t{5});
        QCOMPARE(terminations, 5);
    }

    void jobsThatCannotStartEndUnchanged() {
        JobScreen screen;
        int finished = 0;
        connect(&screen, &JobScreen::jobFinished, [&] { ++finished; });
        // No volume, and whenever the folder chooser shows, it is cancelled.
        QVERIFY(!VolumeManager::shared().selectedOSVolume());
        QTimer canceller;
        connect(&canceller, &QTimer::timeout, [] {
            if (auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget()))
                dialog->reject();
        });
        canceller.start(10ms);
        screen.runWithANotification({"/k/A.kext"});
        QTRY_COMPARE_WITH_TIMEOUT(finished, 1, test::kHangGuardMs);
        canceller.stop();
        // A system folder that the volume's macOS keeps read-only.
        test::TemporaryFolder folder;
        const auto volume = folder / "Macintosh HD";
        test::makeVolume(volume, "10.15.7", "19H2");
        VolumeManager::shared().setStartingOSVolume(*Volume::initWithMountPoint(volume));
        setUserDefaultString(kDefaultKextInstallationFolderKey, "/System/Library/Extensions/");
        ModalAnswers::preset(QMessageBox::Ok);
        screen.runWithANotification({(folder / "B.kext").string()});
        QTRY_COMPARE_WITH_TIMEOUT(finished, 2, test::kHangGuardMs);
        QCOMPARE(ModalAnswers::shown().back().text, QString("The target volume cannot be changed"));
        QVERIFY(!std::filesystem::exists(volume / "System/Library/Extensions"));
    }

    void jobsQueueBehindAClosedWindowAndEachEndWaitsForTheNext() {
        if (::geteuid() != 0)
            QSKIP("the helper installs kexts as root");
        test::TemporaryFolder folder;
        const auto sealed = folder / "Catalina HD";
        const auto second = folder / "Second HD";
        test::makeVolume(sealed, "10.15.7", "19H2");
        test::makeVolume(second, "10.13.6", "17G66");
        const auto kext = [&](const std::string& name) {
            return test::makeKextBundle(folder / "kexts", name + ".kext",
                                        test::kextInfo("com.example." + name, "1.0"))
                .string();
        };
        const auto installed = [](const std::filesystem::path& volume, const std::string& name) {
            return std::filesystem::exists(volume / "System/Library/Extensions" / name);
        };
        VolumeManager::shared().setStartingOSVolume(*Volume::initWithMountPoint(sealed));
        setUserDefaultString(kDefaultKextInstallationFolderKey, "/System/Library/Extensions/");
        HelperManager::shared().start(std::nullopt);
        const auto helper = qScopeGuard([] { HelperManager::shared().terminateHelper(); });

        MainWindow window;
        window.showScreen(true);
        QCoreApplication::processEvents();
        window.close();
        AppController controller(window, 24h);
        std::vector<UserNotification> notifications;
        connect(window.installationScreen(), &JobScreen::notified,
                [&](const UserNotification& delivered) { notifications.push_back(delivered); });
        // Whether the queued job had installed its kexts when the application was told it may
        // quit.
        std::vector<bool> ends;
        connect(&window, &MainWindow::jobFinished, [&] {
            ends.push_back(installed(second, "B.kext") && installed(second, "Late.kext"));
        });
        controller.openFiles({QString::fromStdString(kext("A"))});
        ModalAnswers::preset(QMessageBox::Yes);
        takeLaterStart({second.string(),
                        {QString::fromStdString(kext("B")),
                         QString::fromStdString((folder / "notes.txt").string())}},
                       controller, window);
        // The first job's folder is read-only on its volume: it ends at once, changing nothing.
        ModalAnswers::preset(QMessageBox::Ok);
        controller.start();
        // Paths that arrive while a job runs make a job of their own after it.
        QTRY_VERIFY_WITH_TIMEOUT(window.installationScreen()->jobUnderWay(), test::kHangGuardMs);
        window.installationScreen()->enqueueJob({kext("Late")}, NamedVolume{second.string(), {}});
        QTRY_VERIFY_WITH_TIMEOUT(!ends.empty() && ends.back(), test::kHangGuardMs);
        QCOMPARE(ends, std::vector<bool>{true});
        QCOMPARE(ModalAnswers::shown().back().text, QString("The target volume cannot be changed"));
        QVERIFY(!std::filesystem::exists(sealed / "System/Library/Extensions"));
        QCOMPARE(notifications.size(), std::size_t{2});
        QCOMPARE(notifications[0].subtitle, QString("Installed: 1 Failed: 0"));
        QCOMPARE(notifications[0].informativeText, QString("Skipped: notes.txt (not a kext)"));
    }

    void askEveryTimeInstallsWhatTheDialogAnswers() {
        if (::geteuid() != 0)
            QSKIP("the helper installs kexts as root");
        test::TemporaryFolder folder;
        const auto volume = folder / "Mac HD";
        test::makeVolume(volume, "10.12.6", "16G29");
        const auto first = test::makeKextBundle(folder / "kexts", "First.kext",
                                                test::kextInfo("com.example.First", "1.0"));
        const auto second = test::makeKextBundle(folder / "kexts", "Second.kext",
                                                 test::kextInfo("com.example.Second", "1.0"));
        VolumeManager::shared().setStartingOSVolume(*Volume::initWithMountPoint(volume));
        setUserDefaultString(kDefaultKextInstallationFolderKey, "QVKextFolderAskMeEveryTime");
        HelperManager::shared().start(std::nullopt);

        MainWindow window;
        window.showScreen(true);
        bool finished = false;
        connect(&window, &MainWindow::jobFinished, [&] { finished = true; });
        ModalAnswers::preset(QMessageBox::No);
        ModalAnswers::preset(QMessageBox::Cancel);
        QCoreApplication::processEvents();
        NotificationCenter::defaultCenter().post(
            kDidCollectAllFiles,
            std::vector<std::string>{first.string(), second.string(), "/x.txt"});
        QTRY_VERIFY_WITH_TIMEOUT(finished, test::kHangGuardMs);
        QVERIFY(std::filesystem::exists(volume / "System/Library/Extensions/First.kext"));
        QVERIFY(!std::filesystem::exists(volume / "Library/Extensions/Second.kext"));
        const auto& asked = ModalAnswers::shown();
        QCOMPARE(asked.size(), std::size_t{2});
        QCOMPARE(asked[1].text, QString("Select the installation folder for Second.kext"));
        HelperManager::shared().terminateHelper();
    }

private:
    test::TemporaryFolder helperRoot_;
};

} // namespace quelm

QTEST_MAIN(quelm::AppControllerTest)
#include "AppControllerTest.moc"
