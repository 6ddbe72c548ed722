// The whole start of the desktop application, from its command line to its event loop.
#include "app/Launch.h"

#include "app/AppController.h"
#include "app/InstalledKextsWindow.h"
#include "app/JobScreen.h"
#include "app/LaterStarts.h"
#include "app/MainWindow.h"
#include "app/TargetVolume.h"
#include "helper/HelperManager.h"
#include "support/Log.h"
#include "ui/AppearanceMode.h"
#include "ui/ResultsView.h"
#include "ui/Translations.h"
#include "ui/UserDefaults.h"
#include "ui/ViewExtensions.h"
#include "volumes/MountedFileSystem.h"
#include "volumes/VolumeManager.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDialog>
#include <QFile>
#include <QLocalServer>
#include <QMenuBar>
#include <QMessageBox>
#include <QTextBrowser>
#include <QVBoxLayout>

// The images are compiled into the static GUI library, which must register them itself.
static void initialiseResources() {
    Q_INIT_RESOURCE(app);
}

namespace quelm {
namespace {

std::optional<std::string> given(const QString& option) {
    return option.isEmpty() ? std::nullopt : std::optional(option.toStdString());
}

/// The last volume used, with its data volume while that is one; else the data volume is
/// looked for again among the mounts, where it may now be mounted elsewhere.
std::expected<Volume, QString> openLastTargetVolume(NamedVolume last) {
    auto volume = openTargetVolume(last);
    if (volume || !last.dataPath)
        return volume;
    last.dataPath.reset();
    return openTargetVolume(last);
}

int showResults(const QString& file) {
    QFile report(file);
    const auto results = report.open(QIODevice::ReadOnly)
                             ? parseReportText(report.readAll().toStdString())
                             : std::unexpected(std::string("cannot read the file"));
    if (!results) {
        logLine("quelm: " + file.toStdString() + ": " + results.error());
        return 1;
    }
    //% "Permissions repair report"
    ResultsView window(ResultsSource(QPixmap(":/quelm/QVUIVolume.svg"),
                                     qtTrId("kQVDetailedResultsVCReportTitle"), file, *results));
    window.show();
    return QApplication::exec();
}

void showAbout(QWidget& window) {
    //% "About Quelm"
    QMessageBox::about(&window, qtTrId("kQVAppMainAboutVESKP"),
                       "<b>Quelm " + QApplication::applicationVersion() + "</b><p>" +
                           qtTrId("kQVAppDescription") + "</p>");
}

/// The README, which says what Quelm does and how to use it, in a window of its own.
void showHelp(QWidget& window) {
    QFile readme(":/quelm/README.md");
    auto* dialog = new QDialog(&window);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    //% "Quelm Help"
    dialog->setWindowTitle(qtTrId("kQVAppMainVESKPHelp"));
    auto* text = new QTextBrowser(dialog);
    text->setOpenExternalLinks(true);
    if (readme.open(QIODevice::ReadOnly))
        text->setMarkdown(QString::fromUtf8(readme.readAll()));
    auto* layout = new QVBoxLayout(dialog);
    layout->addWidget(text);
    dialog->resize(720, 560);
    dialog->show();
}

/// The one window of installed kexts, brought to the front with the volume's kexts read again.
void showInstalledKexts(QWidget& window) {
    auto* kexts = window.findChild<InstalledKextsWindow*>();
    if (!kexts)
        kexts = new InstalledKextsWindow(&window);
    else
        kexts->refresh();
    kexts->show();
    kexts->raise();
    kexts->activateWindow();
}

void buildMainMenu(QMenuBar& menu, QApplication& application, QWidget& window) {
    const auto item = [](QMenu* parent, int tag) {
        auto* action = parent->addAction(QString());
        action->setProperty("tag", tag);
        return action;
    };
    auto* app = menu.addMenu("&Quelm");
    QObject::connect(item(app, 0), &QAction::triggered, &window, [&window] { showAbout(window); });
    item(app, 1)->setEnabled(false);
    item(app, 2)->setEnabled(false);
    QObject::connect(item(app, 3), &QAction::triggered, &window, &QWidget::hide);
    item(app, 4)->setEnabled(false);
    item(app, 5)->setEnabled(false);
    QObject::connect(item(app, 6), &QAction::triggered, &application, &QApplication::quit);
    auto* windows = menu.addMenu(QString());
    windows->menuAction()->setProperty("tag", 10);
    QObject::connect(item(windows, 11), &QAction::triggered, &window, &QWidget::showMinimized);
    item(windows, 12)->setEnabled(false);
    QObject::connect(item(windows, 13), &QAction::triggered, &window, &QWidget::raise);
    windows->addSeparator();
    auto* kextsItem = item(windows, 16);
    kextsItem->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_K));
    QObject::connect(kextsItem, &QAction::triggered, &window,
                     [&window] { showInstalledKexts(window); });
    auto* help = menu.addMenu(QString());
    help->menuAction()->setProperty("tag", 14);
    auto* helpItem = item(help, 15);
    helpItem->setShortcut(QKeySequence::HelpContents);
    QObject::connect(helpItem, &QAction::triggered, &window, [&window] { showHelp(window); });
}

} // namespace

LaunchArguments parseLaunchArguments(const QStringList& arguments) {
    QCommandLineParser parser;
    //% "Installs kexts onto a macOS volume and repairs the volume so that it boots."
    parser.setApplicationDescription(qtTrId("kQVAppDescription"));
    parser.addHelpOption();
    parser.addVersionOption();
    //% "The mount point of the macOS volume to work on."
    parser.addOption({"volume", qtTrId("kQVAppOptionVolume"), "PATH"});
    //% "The mount point of the data volume of macOS 10.15 or later, when it is not found by itself."
    parser.addOption({"data-volume", qtTrId("kQVAppOptionDataVolume"), "PATH"});
    //% "Show the results of a saved repair report."
    parser.addOption({"results", qtTrId("kQVAppOptionResults"), "FILE"});
    //% "Install and start the helper under this folder instead of / (for tests)."
    parser.addOption({"helper-root", qtTrId("kQVAppOptionHelperRoot"), "DIR"});
    //% "The kext bundles to install."
    parser.addPositionalArgument("KEXT", qtTrId("kQVAppArgumentKexts"), "[KEXT...]");
    parser.process(arguments);
    return {parser.value("volume"), parser.value("data-volume"), parser.value("results"),
            parser.value("helper-root"), parser.positionalArguments()};
}

bool chooseStartingVolume(const LaunchArguments& arguments) {
    const auto named = namedVolume(given(arguments.volume), given(arguments.dataVolume));
    const auto last = named ? std::nullopt : lastTargetVolume();
    if (!named && !last)
        return true;
    const auto volume = named ? openTargetVolume(*named) : openLastTargetVolume(*last);
    if (!volume) {
        logLine("quelm: " + volume.error().toStdString());
        return !named;
    }
    if (volume->isSystemVolume() && !volume->dataMountPoint())
        logLine("quelm: " + missingDataVolumeSentence(*volume));
    VolumeManager::shared().setStartingOSVolume(*volume);
    return true;
}

int runQuelm(int argc, char** argv) {
    QApplication application(argc, argv);
    initialiseResources();
    QApplication::setOrganizationName("org.quelm");
    QApplication::setApplicationName("Quelm");
    QApplication::setApplicationVersion(QUELM_VERSION);
    QApplication::setWindowIcon(QIcon(":/quelm/quelm.svg"));
    // Desktops match the window to its .desktop file, its name and icon, by this name.
    QGuiApplication::setDesktopFileName("org.quelm.veskp.quelm");
    (void)installTranslations(application);
    const LaunchArguments arguments = parseLaunchArguments(QApplication::arguments());
    if (!arguments.results.isEmpty())
        return showResults(arguments.results);
    const auto instance = instanceName();
    if (instance &&
        handToRunningInstance(*instance, arguments.files, arguments.volume, arguments.dataVolume))
        return 0;
    if (!arguments.helperRoot.isEmpty())
        HelperManager::setSharedRoot(arguments.helperRoot.toStdString());
    if (!chooseStartingVolume(arguments))
        return 2;
    if (const auto mode =
            appearanceModeFromRawValue(userDefaultString(kDefaultAppearanceModeKey).value_or("")))
        applyAppearance(application, *mode);

    MainWindow window;
    AppController controller(window);
    buildMainMenu(*window.menuBar(), application, window);
    if (!controller.prepareLaunch(*window.menuBar()))
        return 1;
    QLocalServer server;
    if (instance)
        listenForLaterStarts(server, *instance, controller, window);
    QApplication::setQuitOnLastWindowClosed(false);
    QObject::connect(&window, &MainWindow::filesDropped, &controller, &AppController::openFiles);
    QObject::connect(&window, &MainWindow::jobFinished, &application, &QApplication::quit);
    QObject::connect(&window, &MainWindow::windowClosed, &application, [&] {
        if (controller.quitsWithLastWindow())
            QApplication::quit();
    });
    QObject::connect(&controller, &AppController::terminate, &application, &QApplication::quit);
    QObject::connect(&application, &QApplication::aboutToQuit, &controller,
                     &AppController::prepareToQuit);
    if (!arguments.files.isEmpty())
        controller.openFiles(arguments.files);
    QTimer::singleShot(0, &controller, &AppController::finishLaunch);
    return QApplication::exec();
}

} // namespace quelm
