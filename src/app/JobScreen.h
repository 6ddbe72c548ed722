// The installation screen, and the conductor of one job: install, repair, rebuild, report.
#pragma once

#include "app/BackgroundJob.h"
#include "app/UserNotification.h"
#include "app/VolumeScreen.h"
#include "jobs/InstallJob.h"

#include <QString>
#include <QStringList>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

namespace Ui {
class JobScreen;
}

namespace quelm {

/// Posted with the collected paths once the file intake settles.
inline const auto kDidCollectAllFiles =
    notificationName<std::vector<std::string>>(".veskp.quelm.didCollectAllFiles");

class JobScreen : public VolumeScreen {
    Q_OBJECT
public:
    explicit JobScreen(QWidget* parent = nullptr);
    ~JobScreen() override;

    /// Starts the job with the paths the application collected; paths not seen before that
    /// arrive once a job runs make a job of their own after it.
    void runWithANotification(const std::vector<std::string>& files);
    /// Paths for a job of their own on volume (none: the one selected when it starts): it
    /// starts now when no job runs, else once the jobs before it end, however they end.
    void enqueueJob(std::vector<std::string> files, std::optional<NamedVolume> volume);
    /// Whether a job has been given its paths and has not ended (it may still wait for the
    /// helper).
    bool jobUnderWay() const;
    /// Applies "LightMode" or "DarkMode": window background, indicator and status colours.
    void applyAppearanceMode(const std::string& mode);

signals:
    /// No job is left: the last one is over (its notification delivered) or ended before it
    /// changed anything, and no other was handed on before the end was announced, a turn of
    /// the event loop later. The application may quit.
    void jobFinished();
    /// The final notification of a job, as delivered to the desktop and the log.
    void notified(const UserNotification& notification);

private:
    class Events;

    void setUpScreen() override;
    void showEvent(QShowEvent* event) override;
    void beginJob(const std::vector<std::string>& files);
    /// The job is over: the next one queued starts, or the application may quit.
    void finishJob();
    /// Takes the first job queued, on its volume.
    void startNextJob();
    /// Runs the installation through the helper once it is connected.
    void startJob();
    /// Ends the job unchanged, after an alert with the one sentence that says why.
    void refuseJob(const std::string& reason);
    void showStage(JobStage stage);
    bool installAnyway(const Kext& kext, const std::vector<std::string>& failures);
    std::optional<KextFolder> askFolder(const Kext& kext);
    void jobDone(const InstallOutcome& outcome);
    void deliverFinalNotification(const InstallOutcome& outcome);

    std::unique_ptr<Ui::JobScreen> ui_;
    std::vector<std::string> files_;
    bool jobUnderWay_ = false;
    /// Jobs started in this run: an end counts only when none started after it.
    std::size_t jobsStarted_ = 0;
    bool jobStarted_ = false;
    std::vector<std::string> seen_;
    struct Batch {
        std::vector<std::string> files;
        std::optional<NamedVolume> volume;
    };
    std::deque<Batch> pending_;
    std::unique_ptr<Events> events_;
    /// Declared last: it waits for the job when the screen goes.
    BackgroundJob job_;
};

} // namespace quelm
