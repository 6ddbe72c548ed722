// The process-wide choice of the volume that every operation works on.
#include "volumes/VolumeManager.h"

#include "support/Log.h"

#include <filesystem>

namespace quelm {

VolumeManager& VolumeManager::shared() {
    static VolumeManager manager("/");
    return manager;
}

VolumeManager::VolumeManager(const std::string& runningSystemMountPoint)
    : starting_(Volume::initWithMountPoint(runningSystemMountPoint)), selected_(starting_) {
    std::error_code error;
    const bool runsMacOS = std::filesystem::exists(
        runningSystemMountPoint + std::string(Volume::systemVersionPath), error);
    // A running macOS must always be readable; a host without one simply has no such volume.
    if (runsMacOS && !starting_)
        fatalError("QVOSVolumeManager::init() FatalError: unable to read the running system's "
                   "volume at " +
                   runningSystemMountPoint + ".");
}

void VolumeManager::setStartingOSVolume(Volume volume) {
    starting_ = std::move(volume);
    selected_ = starting_;
}

} // namespace quelm
