// The single main window: hidden until the application says which screen it shows.
#include "app/MainWindow.h"

#include "app/JobScreen.h"
#include "support/Log.h"
#include "ui/PreferencesView.h"

#include <QCloseEvent>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QMimeData>

namespace quelm {
namespace {

QStringList kextPaths(const QMimeData* data) {
    QStringList paths;
    for (const auto& url : data->urls())
        if (url.isLocalFile() && url.toLocalFile().endsWith(".kext"))
            paths << url.toLocalFile();
    return paths;
}

} // namespace

MainWindow::MainWindow(QWidget* parent) : QMainWindow(parent) {
    setWindowTitle("Quelm");
    setWindowFlags(Qt::Window | Qt::WindowTitleHint | Qt::WindowCloseButtonHint);
    setAcceptDrops(true);
    observer_ = NotificationCenter::defaultCenter().addObserver(
        kShowScreen, [this](const bool& installation) {
            QMetaObject::invokeMethod(
                this, [this, installation] { showScreen(installation); }, Qt::QueuedConnection);
        });
}

MainWindow::~MainWindow() {
    NotificationCenter::defaultCenter().removeObserver(observer_);
}

void MainWindow::showScreen(bool installation) {
    if (!chosen_) {
        chosen_ = true;
        if (installation) {
            auto* screen = new JobScreen(this);
            connect(screen, &JobScreen::jobFinished, this, &MainWindow::jobFinished);
            setCentralWidget(screen);
        } else {
            auto* screen = new PreferencesView(this);
            // The screen also serves as a window of its own; here it is the window's content.
            screen->setWindowFlags(Qt::Widget);
            setCentralWidget(screen);
        }
    }
    show();
    raise();
    activateWindow();
}

JobScreen* MainWindow::installationScreen() const {
    return qobject_cast<JobScreen*>(centralWidget());
}

QString MainWindow::screenName() const {
    if (qobject_cast<JobScreen*>(centralWidget()))
        return "QVSBIDMainQuelm";
    return centralWidget() ? "QVSBIDMainQuelmPreference" : QString();
}

void MainWindow::closeEvent(QCloseEvent* event) {
    QMainWindow::closeEvent(event);
    if (installationScreen())
        logLine("Quelm: the window is closed; the job goes on. Run quelm again to show it.");
    emit windowClosed();
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event) {
    if (!kextPaths(event->mimeData()).isEmpty())
        event->acceptProposedAction();
}

void MainWindow::dropEvent(QDropEvent* event) {
    const auto paths = kextPaths(event->mimeData());
    if (paths.isEmpty())
        return;
    event->acceptProposedAction();
    emit filesDropped(paths);
}

} // namespace quelm
