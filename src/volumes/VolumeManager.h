// The process-wide choice of the volume that every operation works on.
#pragma once

#include "volumes/Volume.h"

#include <optional>
#include <string>

namespace quelm {

/// Holds the selected volume. Where the host runs macOS, the starting volume is the running
/// system at "/"; elsewhere (Linux) there is none until the caller names one, from the
/// command line or the last volume used, and there may be none at all.
class VolumeManager {
public:
    static VolumeManager& shared();

    /// A manager whose running system is mounted at runningSystemMountPoint ("/" for shared).
    /// Stops the process when that folder has a system-version file that cannot be read.
    explicit VolumeManager(const std::string& runningSystemMountPoint);

    const std::optional<Volume>& selectedOSVolume() const { return selected_; }
    void setSelectedOSVolume(std::optional<Volume> volume) { selected_ = std::move(volume); }

    /// Where a reset returns to.
    const std::optional<Volume>& startingOSVolume() const { return starting_; }
    /// Makes volume the starting volume and selects it.
    void setStartingOSVolume(Volume volume);
    /// Selects the starting volume again.
    void resetSelectedOSVolume() { selected_ = starting_; }

private:
    std::optional<Volume> starting_;
    std::optional<Volume> selected_;
};

} // namespace quelm
