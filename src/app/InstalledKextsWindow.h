// The window that lists the kexts installed on the target volume and takes them off or puts a
// backup back through the helper.
#pragma once

#include "app/BackgroundJob.h"
#include "app/VolumeScreen.h"
#include "jobs/RescueJobs.h"
#include "kexts/KextCatalog.h"

#include <QString>
#include <filesystem>
#include <memory>
#include <vector>

class QTreeWidget;
class QTreeWidgetItem;

namespace quelm {

/// Kexts of the three extensions folders with their plug-ins nested beneath them; Remove
/// moves the selected kexts into a new backup folder (Apple's only after a second
/// confirmation), Restore puts the kexts of a chosen backup folder back. Both ask first, go
/// through the helper, are recorded in the user's history and refresh the list.
class InstalledKextsWindow : public VolumeScreen {
    Q_OBJECT
public:
    explicit InstalledKextsWindow(QWidget* parent = nullptr);
    ~InstalledKextsWindow() override;

    /// Reads the selected volume's kexts again.
    void refresh();
    /// Asks, then moves the selected kexts (not plug-ins) with their staged copies into a new
    /// backup folder.
    void removeSelectedKexts();
    /// Asks, then puts the kexts of the backup folder back onto the volume they came from, or
    /// onto the selected one when the user chooses it in a question that names both.
    void restoreFromBackup(const QString& folder);

signals:
    /// A removal or restore is over and the list shows the volume as it now is.
    void operationFinished();

private:
    void buildView();
    /// The selected volume in the title and the volume lines: the main window may have chosen
    /// another one since.
    void showTitle();
    void addRows(const Kext& kext, QTreeWidgetItem* parent);
    void chooseBackup();
    /// The volume that the backup names, the one shown when it is that or the user says so;
    /// none when the user cancels or the backup cannot be read.
    std::optional<Volume> restoreTarget(const std::string& backup, const Volume& shown);
    /// The selected top-level kexts.
    std::vector<const Kext*> selectedKexts() const;
    /// Asks again for each of Apple's kexts among them; true when every one is confirmed.
    bool confirmAppleKexts(const std::vector<const Kext*>& kexts);
    /// The helper's operations, started first when it does not run; null after an alert.
    std::shared_ptr<Operations> helperOperations();
    /// Moves the kexts (paths on the volume) into a new folder in backupRoot through the helper.
    void removeKexts(const std::vector<std::string>& paths,
                     const std::filesystem::path& backupRoot);
    /// Says what a removal did, with the warning about the kernel cache when a kext went.
    void tellRemoval(const RescueResult& result);
    /// Says what a restore did, and where what it replaced went ("" for nowhere).
    void tellRestore(const RescueResult& result);
    /// While the helper works, nothing can start another operation or change the volume.
    void setBusy(bool busy);
    void finishOperation();

    QTreeWidget* table_ = nullptr;
    QPushButton* removeButton_ = nullptr;
    QPushButton* restoreButton_ = nullptr;
    QPushButton* refreshButton_ = nullptr;
    std::vector<Kext> kexts_;
    /// Declared last: it waits for the job when the window goes.
    BackgroundJob job_{this};
};

} // namespace quelm
