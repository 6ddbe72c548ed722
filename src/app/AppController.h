// The application controller: launch, intake of opened files, screen choice, the helper's
// start and failures, and quitting.
#pragma once

#include "app/TargetVolume.h"
#include "support/NotificationCenter.h"

#include <QObject>
#include <QStringList>
#include <QTimer>
#include <chrono>
#include <deque>
#include <optional>
#include <string>
#include <vector>

class QMenuBar;

namespace quelm {

class MainWindow;

class AppController : public QObject {
    Q_OBJECT
public:
    /// intakeDelay: how long after the last batch of opened files they are handed on.
    explicit AppController(MainWindow& window,
                           std::chrono::milliseconds intakeDelay = std::chrono::seconds(3));
    ~AppController() override;

    /// Menu titles, helper observers, the single-instance rule, defaults, the Application
    /// Support folder and the smart table. False when the application must quit.
    bool prepareLaunch(QMenuBar& menu);
    /// One batch of opened files; restarts the intake timer.
    void openFiles(const QStringList& paths);
    /// The timer's action: hands every path collected so far on, then the jobs queued meanwhile.
    void start();
    /// Paths for a job of their own on volume (none: the one selected when it starts), after
    /// the jobs before it. While the intake still collects, the job waits for it, so that the
    /// intake's job comes first and keeps its volume.
    void queueJob(const QStringList& paths, std::optional<NamedVolume> volume);
    /// Shows the installation screen and starts the helper when files were opened, else the
    /// preferences.
    void finishLaunch();
    void prepareToQuit();
    bool quitsWithLastWindow() const;
    /// Brings the main window back, as a second start without files asks.
    void reopen();

    const QStringList& files() const { return files_; }

signals:
    /// The application must end, after an alert or when its job is over.
    void terminate();

private:
    void observeHelperManager();
    void failWithAlert(const std::string& log, const QString& message);
    bool makeApplicationSupportFolder();
    bool prepareSmartTable();
    /// Gives the installation screen the queued jobs, in order, once it is there.
    void handOnQueuedJobs();

    MainWindow& window_;
    QTimer timer_;
    QStringList files_;
    struct QueuedJob {
        std::vector<std::string> paths;
        std::optional<NamedVolume> volume;
    };
    std::deque<QueuedJob> queued_;
    std::vector<NotificationCenter::Token> observers_;
};

} // namespace quelm
