// The whole start of the desktop application, from its command line to its event loop.
#include "app/Launch.h"

#include "app/AppDelegate.h"
#include "app/LaterStarts.h"
#include "app/QVInstalledKextsViewController.h"
#include "app/QVMainAbstractMaintenanceViewController.h"
#include "app/QVMainQuelmViewController.h"
#include "app/QVMainQuelmWindowController.h"
#include "helper/QVXPCHelperManager.h"
#include "support/Log.h"
#include "support/PathValidation.h"
#include "ui/QVMainQuelmAppearanceMode.h"
#include "ui/QVViewExtensions.h"
#include "ui/Translations.h"
#include "ui/UserDefaults.h"
#include "volumes/QVOSVolumeManager.h"

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

struct Arguments {
    QString volume;
    QString results;
    QString helperRoot;
    QStringList files;
};

Arguments parseArguments(const QApplication& application) {
    QCommandLineParser parser;
    //% "Installs kexts onto a macOS volume and repairs the volume so that it boots."
    parser.setApplicationDescription(qtTrId("kQVAppDescription"));
    parser.addHelpOption();
    parser.addVersionOption();
    //% "The mount point of the macOS volume to work on."
    parser.addOption({"volume", qtTrId("kQVAppOptionVolume"), "PATH"});
    //% "Show the results of a saved repair report."
    parser.addOption({"results", qtTrId("kQVAppOptionResults"), "FILE"});
    //% "Install and start the helper under this folder instead of / (for tests)."
    parser.addOption({"helper-root", qtTrId("kQVAppOptionHelperRoot"), "DIR"});
    //% "The kext bundles to install."
    parser.addPositionalArgument("KEXT", qtTrId("kQVAppArgumentKexts"), "[KEXT...]");
    parser.process(application);
    return {parser.value("volume"), parser.value("results"), parser.value("helper-root"),
            parser.positionalArguments()};
}

/// Where no macOS runs the host, the target is the one named, else the last one used.
bool chooseStartingVolume(const QString& named) {
    auto& volumes = QVOSVolumeManager::shared();
    const std::string path = named.isEmpty() ? userDefaultString(kLastTargetVolumeKey).value_or("")
                                             : named.toStdString();
    if (path.empty())
        return true;
    const auto volume = QVOSVolume::initWithMountPoint(absoluteNormalPath(path));
    if (!volume || !volume->majorVersion()) {
        logLine("quelm: " + path + " is not a macOS volume");
        return named.isEmpty();
    }
    volumes.setStartingOSVolume(*volume);
    return true;
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
    QVMainAbstractMaintenanceViewController source;
    //% "Permissions repair report"
    source.setResult(QVDetailedRepresentableResult(QPixmap(":/quelm/QVUIVolume.svg"),
                                                   qtTrId("kQVDetailedResultsVCReportTitle"), file,
                                                   *results));
    auto window = source.prepareForSegue("QVSBSegueIDMaintenance2DetailedResults");
    window->show();
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
    auto* kexts = window.findChild<QVInstalledKextsViewController*>();
    if (!kexts)
        kexts = new QVInstalledKextsViewController(&window);
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
    const Arguments arguments = parseArguments(application);
    if (!arguments.results.isEmpty())
        return showResults(arguments.results);
    const auto instance = instanceName();
    if (instance && handToRunningInstance(*instance, arguments.files, arguments.volume))
        return 0;
    if (!arguments.helperRoot.isEmpty())
        QVXPCHelperManager::setSharedRoot(arguments.helperRoot.toStdString());
    if (!chooseStartingVolume(arguments.volume))
        return 2;
    if (const auto mode =
            appearanceModeFromRawValue(userDefaultString(kDefaultAppearanceModeKey).value_or("")))
        applyAppearance(application, *mode);

    QVMainQuelmWindowController window;
    AppDelegate delegate(window);
    buildMainMenu(*window.menuBar(), application, window);
    if (!delegate.applicationWillFinishLaunching(*window.menuBar()))
        return 1;
    QLocalServer server;
    if (instance)
        listenForLaterStarts(server, *instance, delegate, window);
    QApplication::setQuitOnLastWindowClosed(false);
    QObject::connect(&window, &QVMainQuelmWindowController::filesDropped, &delegate,
                     &AppDelegate::openFiles);
    QObject::connect(&window, &QVMainQuelmWindowController::jobFinished, &application,
                     &QApplication::quit);
    QObject::connect(&window, &QVMainQuelmWindowController::windowClosed, &application, [&] {
        if (delegate.applicationShouldTerminateAfterLastWindowClosed())
            QApplication::quit();
    });
    QObject::connect(&delegate, &AppDelegate::terminate, &application, &QApplication::quit);
    QObject::connect(&application, &QApplication::aboutToQuit, &delegate,
                     &AppDelegate::applicationWillTerminate);
    if (!arguments.files.isEmpty())
        delegate.openFiles(arguments.files);
    QTimer::singleShot(0, &delegate, &AppDelegate::applicationDidFinishLaunching);
    return QApplication::exec();
}

} // namespace quelm
