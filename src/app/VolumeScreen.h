// The choice of the target volume, the status line and the progress display, shared by every
// working screen.
#pragma once

#include "app/Screen.h"
#include "app/TargetVolume.h"

#include <expected>
#include <functional>
#include <memory>
#include <optional>

namespace quelm {

/// Posted with whether the accepted volume has an Extra folder.
inline const auto kDidSelectAValidOSVolume =
    notificationName<bool>(".veskp.abstract.didSelectAValidOSVolume");

class VolumeScreen : public Screen {
    Q_OBJECT
public:
    explicit VolumeScreen(QWidget* parent = nullptr);

    void updateStatusWithLocalizedString(const QString& text);
    void showTexts();

    /// Asks for the volume's folder, then accepts it or says why not and asks again; true when
    /// accepted, false when the user cancels.
    bool selectVolume();
    /// Accepts the volume at path, or refuses it with an alert; true when accepted. Either
    /// volume of a macOS of 10.15 or later may be chosen: the other one is asked for when it is
    /// not found among the mounts.
    bool acceptVolume(const QString& path);
    void reset();
    void execute() {}

protected:
    QLabel* statusField = nullptr;
    QPushButton* resetButton = nullptr;
    QPushButton* executeButton = nullptr;
    QLabel* volumeInfoField = nullptr;

    void setUpScreen() override;
    /// Elides the mount point again to the width the label now has.
    void resizeEvent(QResizeEvent* event) override;
    /// While a job runs, the controls that would change its target or its state are off.
    void setControlsEnabled(bool enabled);
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
};

} // namespace quelm
