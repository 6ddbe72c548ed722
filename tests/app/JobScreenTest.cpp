// The installation screen's choice of volume, its status and progress, and the hand-off of
// later starts, offscreen against real folders.
#include "app/JobScreen.h"

#include "AppFixtures.h"
#include "TestSupport.h"
#include "app/AppController.h"
#include "app/LaterStarts.h"
#include "app/Launch.h"
#include "app/MainWindow.h"
#include "helper/HelperManager.h"
#include "ui/Translations.h"
#include "ui/UserDefaults.h"
#include "ui/ViewExtensions.h"
#include "volumes/VolumeManager.h"

#include <QDir>
#include <QLabel>
#include <QLocalServer>
#include <QSettings>
#include <QtTest>
#include <csignal>
#include <cstring>
#include <functional>
#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quelm {

namespace fs = std::filesystem;

namespace {

constexpr uid_t kNobody = 65534;

/// Sets an environment variable (none: unsets it) until the end of the scope.
class ScopedVariable {
public:
    ScopedVariable(const char* name, const std::optional<fs::path>& value)
        : name_(name), old_(qgetenv(name)), had_(qEnvironmentVariableIsSet(name)) {
        if (value)
            qputenv(name, QByteArray::fromStdString(value->string()));
        else
            qunsetenv(name);
    }
    ~ScopedVariable() {
        if (had_)
            qputenv(name_, old_);
        else
            qunsetenv(name_);
    }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

private:
    const char* name_;
    QByteArray old_;
    bool had_;
};

fs::path madeFolder(const fs::path& path, fs::perms mode) {
    fs::create_directories(path);
    fs::permissions(path, mode);
    return path;
}

sockaddr_un socketAddress(const fs::path& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

/// A child process that runs body as the user nobody, doing only what is safe after fork.
test::Child asNobody(const std::function<int(int socket)>& body) {
    return test::startChild([&](int socket) {
        if (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)
            return 100;
        return body(socket);
    });
}

/// Connects to the socket at address and writes message: 0 when both worked.
int connectAndSend(const sockaddr_un& address, const QByteArray& message) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return 1;
    const bool sent = ::write(fd, message.constData(), static_cast<std::size_t>(message.size())) ==
                      message.size();
    ::close(fd);
    return sent ? 0 : 2;
}

/// Listens at address, says so through ready, takes one connection and reads it to its end:
/// 0 when it read nothing.
int listenAndCount(const sockaddr_un& address, int ready) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd, 1) != 0 || ::write(ready, "r", 1) != 1)
        return 1;
    pollfd waiting{fd, POLLIN, 0};
    if (::poll(&waiting, 1, test::kHangGuardMs) != 1)
        return 2;
    const int peer = ::accept(fd, nullptr, nullptr);
    char buffer[256];
    ssize_t total = 0;
    ssize_t got = 0;
    while ((got = ::read(peer, buffer, sizeof buffer)) > 0)
        total += got;
    return total == 0 ? 0 : 3;
}

} // namespace

class JobScreenTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        QVERIFY(installTranslations(*QCoreApplication::instance()));
        QSettings("org.quelm", "Quelm").clear();
        VolumeManager::shared().setStartingOSVolume(*Volume::initWithMountPoint(base_));
    }

    void cleanup() {
        ModalAnswers::clear();
        VolumeManager::shared().setStartingOSVolume(*Volume::initWithMountPoint(base_));
    }

    void aChosenFolderIsTakenWholeRememberedAndAnnounced() {
        JobScreen screen;
        std::vector<bool> extraFolders;
        const auto token = NotificationCenter::defaultCenter().addObserver(
            kDidSelectAValidOSVolume, [&](const bool& extra) { extraFolders.push_back(extra); });
        // Neither "%20" nor "#" nor "é" may be decoded or cut: the folder is the one chosen.
        for (const char* name : {"My%20Disk", "Système #1 100%"}) {
            const auto volume = folder_ / name;
            test::makeVolume(volume, "10.13.6", "17G65");
            QVERIFY(screen.acceptVolume(QString::fromStdString(volume.string() + "/./")));
            QCOMPARE(VolumeManager::shared().selectedOSVolume()->mountPoint(), volume.string());
            QCOMPARE(userDefaultString(kLastTargetVolumeKey), std::optional(volume.string()));
            QCOMPARE(screen.findChild<QLabel*>("pathField")->toolTip(),
                     QString::fromStdString(volume.string()));
        }
        fs::create_directories(folder_ / "Système #1 100%/Extra");
        QVERIFY(
            screen.acceptVolume(QString::fromStdString((folder_ / "Système #1 100%").string())));
        QCOMPARE(extraFolders, (std::vector<bool>{false, false, true}));
        QVERIFY(ModalAnswers::shown().empty());
        NotificationCenter::defaultCenter().removeObserver(token);
    }

    void foldersThatCannotBeTheTargetAreRefusedWithTheirReason() {
        JobScreen screen;
        const auto recovery = folder_ / "Recovery HD";
        test::makeVolume(recovery, "10.13.6", "17G65");
        fs::create_directories(recovery / "System/Installation");
        fs::create_directories(folder_ / "Photos");
        ModalAnswers::preset(QMessageBox::Ok);
        ModalAnswers::preset(QMessageBox::Ok);
        QVERIFY(!screen.acceptVolume(QString::fromStdString((folder_ / "Photos").string())));
        QVERIFY(!screen.acceptVolume(QString::fromStdString(recovery.string())));
        const auto& shown = ModalAnswers::shown();
        QCOMPARE(shown.size(), std::size_t{2});
        QCOMPARE(shown[0].text, QString("An error occurred"));
        QVERIFY(shown[0].informativeText.startsWith(
            QString::fromStdString((folder_ / "Photos").string()) + " is not a macOS volume"));
        QCOMPARE(shown[1].informativeText,
                 QString("The selected volume is a recovery volume, which cannot be the target."));
        QCOMPARE(VolumeManager::shared().selectedOSVolume()->mountPoint(), base_.string());
    }

    void aDataVolumeIsJoinedToTheSystemVolumeChosenForItAndTheNextStartFindsBoth() {
        const auto data = QString::fromStdString(catalina_.data);
        JobScreen screen;
        test::FolderAnswers answers({catalina_.system});
        QVERIFY(screen.acceptVolume(data));
        QCOMPARE(answers.titles, {"Select the system volume whose data volume is " + data});
        QCOMPARE(test::halvesOf(*selected()), catalina_.halves());
        VolumeManager::shared().setStartingOSVolume(*Volume::initWithMountPoint(base_));
        QVERIFY(chooseStartingVolume({}));
        QCOMPARE(test::halvesOf(*selected()), catalina_.halves());
    }

    void aSystemVolumeAsksForItsDataVolumeUntilItGetsItOrTheUserCancels() {
        const auto photos = folder_ / "Photos";
        fs::create_directories(photos);
        const QString asked = "Select the data volume of macOS Catalina 10.15.7 (19H2)";
        JobScreen screen;
        test::FolderAnswers answers({photos, catalina_.data, catalina_.system});
        ModalAnswers::preset(QMessageBox::Ok);
        QVERIFY(screen.acceptVolume(QString::fromStdString(catalina_.system)));
        QCOMPARE(test::halvesOf(*selected()), catalina_.halves());
        QCOMPARE(ModalAnswers::shown().size(), std::size_t{1});
        QVERIFY(ModalAnswers::shown()[0].informativeText.startsWith(QString::fromStdString(photos) +
                                                                    " is not the data volume"));
        // A cancel there ends the whole choice, the first folder not asked for again.
        screen.reset();
        QVERIFY(!screen.selectVolume());
        QCOMPARE(answers.titles, (QStringList{asked, asked, "Select", asked}));
        QCOMPARE(selected()->mountPoint(), base_.string());
    }

    void launchSelectsTheSystemAndDataVolumesNamed() {
        const auto launch = [&](const fs::path& data) {
            return chooseStartingVolume(
                parseLaunchArguments({"quelm", "--volume", QString::fromStdString(catalina_.system),
                                      "--data-volume", QString::fromStdString(data)}));
        };
        QVERIFY(launch(catalina_.data));
        QCOMPARE(test::halvesOf(*VolumeManager::shared().startingOSVolume()), catalina_.halves());
        QVERIFY(!launch(catalina_.system));
    }

    void laterStartsCarryAbsoluteNormalPathsAndTheirVolumeThroughTheSocket() {
        const auto previous = QDir::currentPath();
        QDir::setCurrent(QString::fromStdString(folder_.path().string()));
        const auto message =
            laterStartMessage({"kexts/./A.kext", "x/../B.kext"}, "Mac HD/", "Mac HD - Data/.");
        QDir::setCurrent(previous);
        const auto start = parseLaterStart(message);
        QCOMPARE(start.volume, std::optional((folder_ / "Mac HD").string()));
        QCOMPARE(start.dataVolume, std::optional((folder_ / "Mac HD - Data").string()));
        QCOMPARE(start.files,
                 (QStringList{QString::fromStdString((folder_ / "kexts/A.kext").string()),
                              QString::fromStdString((folder_ / "B.kext").string())}));
        QVERIFY(!parseLaterStart(laterStartMessage({"/k/A.kext"}, {})).volume);
        // Through the instance socket, a later start joins the intake.
        MainWindow window;
        window.showScreen(true);
        AppController controller(window);
        QLocalServer server;
        const auto name = instanceName();
        QVERIFY(name);
        listenForLaterStarts(server, *name, controller, window);
        ModalAnswers::preset(QMessageBox::Yes);
        QVERIFY(handToRunningInstance(*name, {"/k/A.kext", "/k/B.kext"}, {}));
        QTRY_COMPARE_WITH_TIMEOUT(controller.files(), (QStringList{"/k/A.kext", "/k/B.kext"}),
                                  test::kHangGuardMs);
        QVERIFY(!handToRunningInstance(*name + "-none", {"/k/C.kext"}, {}));
    }

    void theInstanceSocketIsOnlyEverInAPrivateFolderOfOurs() {
        const auto tmp = madeFolder(folder_ / "tmp", fs::perms::all | fs::perms::sticky_bit);
        const ScopedVariable temporary("TMPDIR", tmp);
        const auto runtime = madeFolder(folder_ / "runtime", fs::perms::owner_all);
        const auto own = tmp / ("org.quelm.veskp.quelm-" + std::to_string(::geteuid()));
        {
            const ScopedVariable variable("XDG_RUNTIME_DIR", runtime);
            QCOMPARE(instanceName(), std::optional(QString::fromStdString(
                                         (runtime / "org.quelm.veskp.quelm").string())));
        }
        fs::create_directory_symlink(runtime, folder_ / "link");
        const auto shared =
            madeFolder(folder_ / "shared",
                       fs::perms::owner_all | fs::perms::group_read | fs::perms::others_read);
        for (const auto& unsafe : std::vector<std::optional<fs::path>>{
                 std::nullopt, shared, folder_ / "link", fs::path("relative")}) {
            const ScopedVariable variable("XDG_RUNTIME_DIR", unsafe);
            QCOMPARE(instanceFolder(), std::optional(QString::fromStdString(own.string())));
            QCOMPARE(fs::status(own).permissions(), fs::perms::owner_all);
        }
        // Whatever holds our fallback name first, and is not our private folder, is never used.
        const ScopedVariable variable("XDG_RUNTIME_DIR", std::nullopt);
        std::vector<std::function<void()>> squatters{
            [&] { madeFolder(own, fs::perms::owner_all | fs::perms::others_exec); },
            [&] { fs::create_directory_symlink(runtime, own); },
            [&] { test::writeText(own, ""); },
        };
        if (::geteuid() == 0)
            squatters.push_back([&] {
                madeFolder(own, fs::perms::owner_all);
                QCOMPARE(::chown(own.c_str(), kNobody, kNobody), 0);
            });
        for (const auto& squat : squatters) {
            fs::remove_all(own);
            squat();
            QVERIFY(!instanceName());
        }
    }

    void aServerOfAnotherUserAtTheOldSharedNameGetsNothing() {
        if (::geteuid() != 0)
            QSKIP("only root can act as another user");
        // A temporary folder that every user can write, as /tmp is.
        test::TemporaryFolder outer;
        fs::permissions(outer.path(), fs::perms::owner_all | fs::perms::others_exec);
        const auto shared = madeFolder(outer / "tmp", fs::perms::all | fs::perms::sticky_bit);
        const auto old = shared / ("org.quelm.veskp.quelm." + std::to_string(::getuid()));
        const ScopedVariable temporary("TMPDIR", shared);
        const ScopedVariable runtime("XDG_RUNTIME_DIR", std::nullopt);
        QVERIFY(instanceName() != QString::fromStdString(old.string()));
        const auto address = socketAddress(old);
        const auto squatter = asNobody([&](int ready) { return listenAndCount(address, ready); });
        char said = 0;
        QCOMPARE(::read(squatter.socket, &said, 1), ssize_t{1});
        QVERIFY(!handToRunningInstance(QString::fromStdString(old.string()), {"/k/A.kext"},
                                       "/Volumes/Mac"));
        QCOMPARE(test::finish(squatter).status, 0);
    }

    void aConnectionOfAnotherUserIsClosedUnread() {
        if (::geteuid() != 0)
            QSKIP("only root can act as another user");
        MainWindow window;
        AppController controller(window, std::chrono::hours(24));
        // Open to everyone on purpose: the peer's uid is the only check left.
        test::TemporaryFolder open;
        fs::permissions(open.path(),
                        fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
        const auto name = open / "instance";
        QLocalServer server;
        listenForLaterStarts(server, QString::fromStdString(name.string()), controller, window);
        fs::permissions(name, fs::perms::all);
        const auto address = socketAddress(name);
        const auto message = laterStartMessage({"/k/Theirs.kext"}, {});
        QCOMPARE(
            test::finish(asNobody([&](int) { return connectAndSend(address, message); })).status,
            0);
        // Two answers: a start of the other user that got through is asked about, never hangs.
        ModalAnswers::preset(QMessageBox::Yes);
        ModalAnswers::preset(QMessageBox::Yes);
        QVERIFY(handToRunningInstance(QString::fromStdString(name.string()), {"/k/Mine.kext"}, {}));
        QTRY_VERIFY_WITH_TIMEOUT(controller.files().contains("/k/Mine.kext"), test::kHangGuardMs);
        QCOMPARE(controller.files(), QStringList{"/k/Mine.kext"});
        QCOMPARE(ModalAnswers::shown().size(), std::size_t{1});
        QVERIFY(!ModalAnswers::shown()[0].informativeText.contains("Theirs"));
    }

    void handedOverKextsAreInstalledOnlyAfterOneYesThatNamesThemAndTheirVolume() {
        MainWindow window;
        window.showScreen(true);
        AppController controller(window, std::chrono::hours(24));
        const auto* screen = window.installationScreen();
        const auto other = folder_ / "Other HD";
        test::makeVolume(other, "10.14.6", "18G103");
        const QStringList kexts{"/k/A.kext", "/k/B.kext"};
        ModalAnswers::preset(QMessageBox::Cancel);
        ModalAnswers::preset(QMessageBox::Cancel);
        takeLaterStart({other.string(), kexts}, controller, window);
        takeLaterStart({std::nullopt, kexts}, controller, window);
        const auto& asked = ModalAnswers::shown();
        QCOMPARE(asked.size(), std::size_t{2});
        QCOMPARE(asked[0].text, "Install these kexts onto " + QString::fromStdString(other) + "?");
        QCOMPARE(asked[1].text, "Install these kexts onto " + QString::fromStdString(base_) + "?");
        QCOMPARE(asked[0].informativeText.split('\n').mid(1), kexts);
        // Declined: no intake, no job, the same volume.
        QVERIFY(controller.files().isEmpty());
        QVERIFY(!screen->jobUnderWay());
        QCOMPARE(VolumeManager::shared().selectedOSVolume()->mountPoint(), base_.string());

        ModalAnswers::preset(QMessageBox::Yes);
        takeLaterStart({std::nullopt, kexts}, controller, window);
        QCOMPARE(asked.size(), std::size_t{3});
        QCOMPARE(controller.files(), kexts);
    }

    void kextsForAVolumeThatIsNotMacOSAreNamedAsSkipped() {
        MainWindow window;
        window.showScreen(true);
        AppController controller(window);
        std::optional<UserNotification> notification;
        connect(window.installationScreen(), &JobScreen::notified,
                [&](const UserNotification& delivered) { notification = delivered; });
        fs::create_directories(folder_ / "Photos");
        ModalAnswers::preset(QMessageBox::Yes);
        takeLaterStart({(folder_ / "Photos").string(), {"/k/A.kext"}}, controller, window);
        QTRY_VERIFY_WITH_TIMEOUT(notification, test::kHangGuardMs);
        QCOMPARE(notification->subtitle + "\n" + notification->informativeText,
                 QString("Installed: 0 Failed: 0\nSkipped: A.kext (its volume is not a macOS "
                         "volume)"));
    }

private:
    static const std::optional<Volume>& selected() {
        return VolumeManager::shared().selectedOSVolume();
    }

    test::TemporaryFolder folder_;
    const test::VolumeGroup catalina_ = test::makeCatalinaGroup(folder_ / "Catalina");
    const fs::path base_ = [this] {
        test::makeVolume(folder_ / "Macintosh HD", "10.12.6", "16G29");
        return folder_ / "Macintosh HD";
    }();
};

} // namespace quelm

QTEST_MAIN(quelm::JobScreenTest)
#include "JobScreenTest.moc"
