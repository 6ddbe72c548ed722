// The application controller: launch, intake of opened files, screen choice, the helper's
// start and failures, and quitting.
#include "app/AppController.h"

#include "app/JobScreen.h"
#include "app/MainWindow.h"
#include "helper/HelperManager.h"
#include "kexts/KextFolder.h"
#include "kexts/SmartTable.h"
#include "support/Log.h"
#include "support/Paths.h"
#include "ui/UserDefaults.h"
#include "ui/ViewExtensions.h"

#include <QAction>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QMenuBar>
#include <array>

namespace quelm {
namespace {

/// The localised menu titles, by the tag of their item.
QString menuTitle(int tag) {
    static const std::array<const char*, 17> kKeys{
        //% "About Quelm"
        QT_TRID_NOOP("kQVAppMainAboutVESKP"),
        //% "Check for Updates..."
        QT_TRID_NOOP("kQVAppMainCheckForUpdates"),
        //% "Preferences..."
        QT_TRID_NOOP("kQVAppMainPreferences"),
        //% "Hide Quelm"
        QT_TRID_NOOP("kQVAppMainHideVESKP"),
        //% "Hide Others"
        QT_TRID_NOOP("kQVAppMainHideOthers"),
        //% "Show All"
        QT_TRID_NOOP("kQVAppMainShowAll"),
        //% "Quit Quelm"
        QT_TRID_NOOP("kQVAppMainQuitVESKP"),
        //% "View"
        QT_TRID_NOOP("kQVAppMainView"),
        //% "Show Toolbar"
        QT_TRID_NOOP("kQVAppMainShowToolbar"),
        //% "Customize Toolbar..."
        QT_TRID_NOOP("kQVAppMainCustomize"),
        //% "Window"
        QT_TRID_NOOP("kQVAppMainWindow"),
        //% "Minimize"
        QT_TRID_NOOP("kQVAppMainMinimize"),
        //% "Zoom"
        QT_TRID_NOOP("kQVAppMainZoom"),
        //% "Bring All to Front"
        QT_TRID_NOOP("kQVAppMainBringAllToFront"),
        //% "Help"
        QT_TRID_NOOP("kQVAppMainHelp"),
        //% "Quelm Help"
        QT_TRID_NOOP("kQVAppMainVESKPHelp"),
        //% "Installed Kexts..."
        QT_TRID_NOOP("kQVAppMainInstalledKexts"),
    };
    return qtTrId(kKeys[static_cast<std::size_t>(tag)]);
}

QAction* itemWithTag(QMenuBar& menu, int tag) {
    for (auto* action : menu.findChildren<QAction*>())
        if (action->property("tag").toInt() == tag && action->property("tag").isValid())
            return action;
    return nullptr;
}

std::vector<std::string> stdPaths(const QStringList& paths) {
    std::vector<std::string> converted;
    for (const auto& path : paths)
        converted.push_back(path.toStdString());
    return converted;
}

bool mainProductIsRunning() {
    const auto* bus = QDBusConnection::sessionBus().interface();
    return bus && bus->isServiceRegistered(QString::fromLatin1(kIdentifierPrefix) + ".veskp");
}

} // namespace

AppController::AppController(MainWindow& window, std::chrono::milliseconds intakeDelay)
    : window_(window) {
    timer_.setSingleShot(true);
    timer_.setInterval(intakeDelay);
    connect(&timer_, &QTimer::timeout, this, &AppController::start);
}

AppController::~AppController() {
    for (const auto token : observers_)
        NotificationCenter::defaultCenter().removeObserver(token);
}

bool AppController::prepareLaunch(QMenuBar& menu) {
    observeHelperManager();
    for (int tag = 0; tag <= 16; ++tag)
        if (auto* item = itemWithTag(menu, tag))
            item->setText(menuTitle(tag));
    if (mainProductIsRunning()) {
        //% "Quelm cannot run now"
        showAlert(
            &window_, qtTrId("kQVQLMainIsRunning"),
            //% "Another application of the family is running. Quit it, then open Quelm again."
            qtTrId("kQVQLMainIsRunningDescription"));
        return false;
    }
    if (!userDefaultString(kDefaultKextInstallationFolderKey))
        setUserDefaultString(kDefaultKextInstallationFolderKey,
                             rawValue(KextFolder::UseSmartTable));
    if (!userDefaultString(kDefaultAppearanceModeKey))
        setUserDefaultString(kDefaultAppearanceModeKey, "LightMode");
    return makeApplicationSupportFolder() && prepareSmartTable();
}

bool AppController::makeApplicationSupportFolder() {
    std::error_code error;
    std::filesystem::create_directories(applicationSupportFolder(), error);
    if (!error)
        return true;
    //% "An error occurred"
    showAlert(&window_, qtTrId("kQVMainQuelmAnErrorOccured"),
              //% "Quelm cannot create its folder for your files."
              qtTrId("kQVMainQuelmUnableToCreateApplicationSupportDirectory"));
    return false;
}

bool AppController::prepareSmartTable() {
    const SmartTable manager(applicationSupportFolder(), Bundle::main());
    if (manager.prepare())
        return true;
    showAlert(&window_, qtTrId("kQVMainQuelmAnErrorOccured"),
              //% "Quelm cannot prepare your copy of the smart table."
              qtTrId("kQVMainQuelmUnableToAllocateDefaultSmartTable"));
    return userDefaultString(kDefaultKextInstallationFolderKey) !=
           rawValue(KextFolder::UseSmartTable);
}

void AppController::openFiles(const QStringList& paths) {
    timer_.start();
    files_ << paths;
}

void AppController::start() {
    timer_.stop();
    NotificationCenter::defaultCenter().post(kDidCollectAllFiles, stdPaths(files_));
    // The screen takes the intake on its next turn of the event loop and the queued jobs right
    // after it: an intake job that ends at once announces its end only after them.
    QMetaObject::invokeMethod(this, &AppController::handOnQueuedJobs, Qt::QueuedConnection);
}

void AppController::queueJob(const QStringList& paths, std::optional<NamedVolume> volume) {
    queued_.push_back({stdPaths(paths), std::move(volume)});
    if (!timer_.isActive())
        handOnQueuedJobs();
}

void AppController::handOnQueuedJobs() {
    auto* screen = window_.installationScreen();
    // A job may ask the user something, and a start queued meanwhile joins the end of the line.
    while (screen && !queued_.empty()) {
        auto job = std::move(queued_.front());
        queued_.pop_front();
        screen->enqueueJob(std::move(job.paths), std::move(job.volume));
    }
}

void AppController::finishLaunch() {
    auto& center = NotificationCenter::defaultCenter();
    if (files_.isEmpty()) {
        center.post(kShowScreen, false);
        return;
    }
    center.post(kShowScreen, true);
    //% "Quelm needs your permission to install its helper, which installs kexts and repairs permissions."
    HelperManager::shared().start(qtTrId("kQVQLMainRequestAuthorization").toStdString());
}

void AppController::prepareToQuit() {
    logLine("Prepare to quit. Terminating the helper...");
    HelperManager::shared().terminateHelper();
    for (const auto token : observers_)
        NotificationCenter::defaultCenter().removeObserver(token);
    observers_.clear();
    logLine("Helper has been terminated. Goodbye.");
}

bool AppController::quitsWithLastWindow() const {
    return window_.screenName() == "QVSBIDMainQuelmPreference";
}

void AppController::reopen() {
    window_.show();
    window_.raise();
    window_.activateWindow();
}

void AppController::failWithAlert(const std::string& log, const QString& message) {
    logLine("QVXPCHelperManager::NotificationHandlers::Error: " + log);
    QMetaObject::invokeMethod(
        this,
        [this, message] {
            //% "An error occurred"
            showAlert(&window_, qtTrId("kQVXPCHelperManagerAnErrorOccured"), message);
            emit terminate();
        },
        Qt::QueuedConnection);
}

void AppController::observeHelperManager() {
    auto& center = NotificationCenter::defaultCenter();
    observers_.push_back(center.addObserver(kHelperDidConnect, [](const NoObject&) {
        if (auto connection = HelperManager::shared().connection())
            HelperClient(connection).test([](std::optional<std::int64_t> reply) {
                if (reply)
                    logLine(
                        "QVXPCHelperManager::NotificationHandlers::Info: Successfully connected "
                        "to the remote helper. Remote response: " +
                        std::to_string(*reply));
            });
    }));
    observers_.push_back(
        center.addObserver(kHelperFailedToConnect, [this](const std::string& error) {
            failWithAlert("Failed to connect to the remote helper. Error: " + error,
                          //% "Quelm cannot talk to its helper: "
                          qtTrId("kQVXPCHelperManagerFailedToConnectToHelper") +
                              QString::fromStdString(error));
        }));
    const std::array<std::tuple<const NotificationName<NoObject>*, const char*, const char*>, 4>
        failures{{
            //% "Quelm cannot install its helper."
            {&kHelperFailedToInstall, "Failed to install the helper.",
             QT_TRID_NOOP("kQVXPCHelperManagerFailedToInstallHelper")},
            //% "Quelm cannot install the new version of its helper."
            {&kHelperFailedToReinstall, "Failed to reinstall the helper.",
             QT_TRID_NOOP("kQVXPCHelperManagerFailedToReinstallHelper")},
            //% "Quelm cannot remove the old version of its helper."
            {&kHelperFailedToRemove, "Failed to uninstall the helper.",
             QT_TRID_NOOP("kQVXPCHelperManagerFailedToRemoveHelper")},
            //% "Quelm was not allowed to install its helper."
            {&kHelperFailedToAuthenticate, "Failed to authenticate with the operating system.",
             QT_TRID_NOOP("kQVXPCHelperManagerFailedToAuthenticate")},
        }};
    for (const auto& [name, log, key] : failures)
        observers_.push_back(center.addObserver(
            *name, [this, log, key](const NoObject&) { failWithAlert(log, qtTrId(key)); }));
}

} // namespace quelm
