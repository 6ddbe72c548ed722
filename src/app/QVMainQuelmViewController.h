// The installation screen, and the conductor of one job: install, repair, rebuild, report.
#pragma once

#include "app/QVMainAbstractMaintenanceViewController.h"
#include "kexts/QVSmartTableManager.h"

#include <QString>
#include <memory>
#include <optional>
#include <vector>

namespace Ui {
class QVMainQuelmViewController;
}

namespace quelm {

/// Posted with the collected paths once the file intake settles.
inline const auto kDidCollectAllFiles =
    notificationName<std::vector<std::string>>(".veskp.quelm.didCollectAllFiles");

class QVMainQuelmViewController : public QVMainAbstractMaintenanceViewController,
                                  QVAbstractMaintenaceDelegate {
    Q_OBJECT
public:
    explicit QVMainQuelmViewController(QWidget* parent = nullptr);
    ~QVMainQuelmViewController() override;

    /// Starts the job with the paths the application collected.
    void runWithANotification(const std::vector<std::string>& files);
    /// Applies "LightMode" or "DarkMode": window background, indicator and status colours.
    void applyAppearanceMode(const std::string& mode);

signals:
    /// The job is over (its notification delivered), or ended before it changed anything: the
    /// application may quit.
    void jobFinished();

private:
    void willBackupKexts() override;
    void didBackupKexts(const std::vector<QVKernelExtension>& failed) override;
    void willInstallKexts() override;
    void didInstallKexts(const std::vector<QVKernelExtension>& failed) override;
    void willRepairDiskPermissions() override;
    void didRepairDiskPermissionsWithResults(
        const std::vector<QVRepairPermissionsRepresentableResult>& results) override;
    void willRebuildCaches() override;
    void didRebuildCaches() override;

    void viewDidLoad() override;
    void showEvent(QShowEvent* event) override;
    /// Asks the helper first whether root can write to the volume: a refusal ends the job
    /// before anything changes.
    void startJob();
    /// Ends the job unchanged, after an alert with the one sentence that says why.
    void refuseJob(const std::string& reason);
    /// Sends the whole list to a concrete folder, or starts the one-by-one installation.
    void installKexts();
    /// The folder for the next kext under ask-every-time or the smart table; none skips it.
    std::optional<QVKernelExtensionFolder> folderForKext(const QVKernelExtension& kext);
    std::optional<QVKernelExtensionFolder> askFolder(const QVKernelExtension& kext);
    /// Saves the repair's report under Application Support/Reports, named by the time.
    void saveReport(const std::vector<QVRepairPermissionsRepresentableResult>& results);
    void deliverFinalNotification();

    std::unique_ptr<Ui::QVMainQuelmViewController> ui_;
    std::size_t index_ = 0;
    std::vector<std::string> files_;
    std::optional<QVSmartTableManager> smartTable_;
    bool filesReceived_ = false;
    bool jobStarted_ = false;
    std::size_t sent_ = 0;
    std::vector<QVKernelExtension> failed_;
};

} // namespace quelm
