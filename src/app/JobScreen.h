// The installation screen, and the conductor of one job: install, repair, rebuild, report.
#pragma once

#include "app/UserNotification.h"
#include "app/VolumeScreen.h"
#include "kexts/SmartTable.h"

#include <QString>
#include <QStringList>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <sys/types.h>
#include <vector>

namespace Ui {
class JobScreen;
}

namespace quelm {

/// Posted with the collected paths once the file intake settles.
inline const auto kDidCollectAllFiles =
    notificationName<std::vector<std::string>>(".veskp.quelm.didCollectAllFiles");

class JobScreen : public VolumeScreen, JobStepsDelegate {
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
    void willBackupKexts() override;
    void didBackupKexts(const std::vector<Kext>& failed) override;
    void willInstallKexts() override;
    void didInstallKexts(const std::vector<Kext>& failed) override;
    void willRepairDiskPermissions() override;
    void didRepairDiskPermissionsWithResults(const std::vector<ResultRecord>& results) override;
    void willRebuildCaches() override;
    void didRebuildCaches() override;

    void setUpScreen() override;
    void showEvent(QShowEvent* event) override;
    void beginJob(const std::vector<std::string>& files);
    /// The job is over: the next one queued starts, or the application may quit.
    void finishJob();
    /// Takes the first job queued, on its volume.
    void startNextJob();
    /// Forgets what the last job counted, installed, skipped and backed up.
    void resetJob();
    /// Records a path that the job does not install, with the reason, for the notification.
    void skip(const std::string& name, const QString& reason);
    /// Asks the helper first whether root can write to the volume: a refusal ends the job
    /// before anything changes.
    void startJob();
    /// Ends the job unchanged, after an alert with the one sentence that says why.
    void refuseJob(const std::string& reason);
    /// Runs the checks of each kext against the volume's kexts and the others of the job; a
    /// kext that fails is installed only when the user says so, with the reasons before them.
    void checkKexts(const Volume& volume);
    bool installAnyway(const Kext& kext, const std::vector<std::string>& failures);
    /// Sends the whole list to a concrete folder, or starts the one-by-one installation.
    void installKexts();
    /// Backs up the installed kexts that these replace, then installs them into folder.
    void installInto(std::vector<Kext> kexts, KextFolder folder);
    /// Sends the kexts being placed to the helper, or goes on when none are left.
    void sendPlacement();
    /// Records the kexts of the last placement that were installed in the user's history.
    void recordPlacement(const std::vector<Kext>& failed);
    /// The folder for the next kext under ask-every-time or the smart table; none skips it.
    std::optional<KextFolder> folderForKext(const Kext& kext);
    std::optional<KextFolder> askFolder(const Kext& kext);
    /// Saves the repair's report under Application Support/Reports, named by the time.
    void saveReport(const std::vector<ResultRecord>& results);
    void deliverFinalNotification();

    std::unique_ptr<Ui::JobScreen> ui_;
    std::size_t index_ = 0;
    std::vector<std::string> files_;
    std::optional<SmartTable> smartTable_;
    bool jobUnderWay_ = false;
    /// Jobs started in this run: an end counts only when none started after it.
    std::size_t jobsStarted_ = 0;
    bool jobStarted_ = false;
    std::size_t sent_ = 0;
    std::vector<Kext> failed_;
    QStringList skipped_;
    std::vector<std::string> seen_;
    struct Batch {
        std::vector<std::string> files;
        std::optional<NamedVolume> volume;
    };
    std::deque<Batch> pending_;
    /// The kexts sent to one folder at once, and the backup of what they replace.
    struct Placement {
        std::vector<Kext> kexts;
        KextFolder folder;
        /// The new folder of the preferences' backup folder that the helper makes for it.
        std::string backup;
    };
    std::optional<Placement> placing_;
    QStringList backups_;
};

} // namespace quelm
