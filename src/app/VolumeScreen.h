// The choice of the target volume, the status line, the progress display and the wrappers of
// the helper's remote operations, shared by every working screen.
#pragma once

#include "app/Screen.h"
#include "app/TargetVolume.h"
#include "helper/HelperClient.h"
#include "kexts/Kext.h"
#include "kexts/KextFolder.h"
#include "ui/ResultsView.h"

#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

namespace quelm {

/// The will/did events around each remote operation, delivered on the main thread.
class JobStepsDelegate {
public:
    virtual ~JobStepsDelegate() = default;
    virtual void willRepairDiskPermissions() = 0;
    virtual void didRepairDiskPermissionsWithResults(const std::vector<ResultRecord>& results) = 0;
    virtual void willRebuildCaches() = 0;
    virtual void didRebuildCaches() = 0;
    virtual void willBackupKexts() = 0;
    virtual void didBackupKexts(const std::vector<Kext>& failed) = 0;
    virtual void willInstallKexts() = 0;
    virtual void didInstallKexts(const std::vector<Kext>& failed) = 0;
};

/// Posted with whether the accepted volume has an Extra folder.
inline const auto kDidSelectAValidOSVolume =
    notificationName<bool>(".veskp.abstract.didSelectAValidOSVolume");

class VolumeScreen : public Screen {
    Q_OBJECT
public:
    explicit VolumeScreen(QWidget* parent = nullptr);

    void setDelegate(JobStepsDelegate* delegate) { delegate_ = delegate; }
    void updateStatusWithLocalizedString(const QString& text);
    void renderLocalizedOutlets();

    void callRepairDiskPermissions();
    void callRebuildCaches();
    /// Installs the kexts into one of the three concrete folders.
    void callInstallKexts(const std::vector<Kext>& kexts, KextFolder folder);
    /// Copies the kexts installed in folder into backupFolder, which the helper makes and which
    /// must not exist yet.
    void callBackupKexts(const std::vector<Kext>& kexts, KextFolder folder,
                         const std::string& backupFolder);

    /// Asks for the volume's folder, then accepts it or says why not and asks again; true when
    /// accepted, false when the user cancels.
    bool selectVolume();
    /// Accepts the volume at path, or refuses it with an alert; true when accepted. Either
    /// volume of a macOS of 10.15 or later may be chosen: the other one is asked for when it is
    /// not found among the mounts.
    bool acceptVolume(const QString& path);
    void reset();
    void execute() {}

    void setResult(std::optional<ResultsSource> result) { result_ = std::move(result); }
    /// The results window for a segue to it, given this screen's result; null for any other.
    std::unique_ptr<ResultsView> prepareForSegue(const QString& identifier);

protected:
    QLabel* statusField = nullptr;
    QPushButton* resetButton = nullptr;
    QPushButton* executeButton = nullptr;
    QLabel* volumeInfoField = nullptr;

    void setUpScreen() override;
    void showEvent(QShowEvent* event) override;
    /// Elides the mount point again to the width the label now has.
    void resizeEvent(QResizeEvent* event) override;
    const std::shared_ptr<HelperConnection>& proxy() const { return proxy_; }
    /// Takes the helper manager's connection again.
    void refreshProxy();
    /// Asks the helper whether root can write to the selected volume; the handler gets "" or
    /// the one sentence that says why not, on the main thread.
    void callCheckWritableTargetVolume(std::function<void(const std::string&)> handler);

    /// While a job runs, the controls that would change its target or its state are off.
    void setControlsEnabled(bool enabled);
    /// Makes the call on a worker thread; the handler runs on the main thread once the reply
    /// arrives.
    template <class T>
    void whenReplied(std::function<std::optional<T>(HelperClient&)> call,
                     std::function<void(const T&)> handler) {
        std::thread([this, client = HelperClient(proxy_), call = std::move(call),
                     handler = std::move(handler)]() mutable {
            auto reply = call(client);
            if (reply)
                QMetaObject::invokeMethod(
                    this, [handler, value = std::move(*reply)] { handler(value); },
                    Qt::QueuedConnection);
        }).detach();
    }
    /// The mount point, and the macOS with the folder of each of its volumes.
    void showVolume(const Volume& volume);

private:
    enum class VolumeChoice { accepted, refused, cancelled };
    using VolumeOpener = std::function<std::expected<Volume, QString>(const std::string&)>;

    VolumeChoice chooseVolume(const QString& folder);
    /// Asks for the data volume of system: the two joined, or none on cancel.
    std::optional<Volume> askDataVolume(const Volume& system);
    /// Asks for the system volume whose data volume is dataFolder: the two joined, or none on
    /// cancel.
    std::optional<Volume> askSystemVolume(const std::string& dataFolder);
    /// Asks for the folder of a macOS's other volume until open takes one; none on cancel.
    std::optional<Volume> askOtherVolume(const QString& title, const std::string& near,
                                         const VolumeOpener& open);
    /// Selects the volume unless it is a recovery volume; cancelled when there is none.
    VolumeChoice takeVolume(std::optional<Volume> volume);
    void refuseVolume(const QString& reason);
    void showPath(const QString& path);

    JobStepsDelegate* delegate_ = nullptr;
    std::shared_ptr<HelperConnection> proxy_;
    std::optional<ResultsSource> result_;
};

} // namespace quelm
