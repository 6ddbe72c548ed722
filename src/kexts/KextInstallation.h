// Backing up and installing kext bundles on a volume: the privileged file operations.
#pragma once

#include "kexts/QVKernelExtension.h"
#include "volumes/QVOSVolume.h"

#include <chrono>
#include <string>
#include <vector>

namespace quelm {

/// Copies each kext to mount point + destinationFolder + its name, replacing a bundle that is
/// there. The copy is made under a hidden name beside the destination, given owner 0, group 0
/// and mode 755 on every item, and only then swapped with the old bundle, so a kext that fails
/// leaves the old one in place. Returns the kexts that failed, in list order.
std::vector<QVKernelExtension> installKernelExtensions(const std::vector<QVKernelExtension>& kexts,
                                                       const std::string& destinationFolder,
                                                       const QVOSVolume& volume);

/// Copies each kext found at mount point + installedInFolder + its name into
/// destinationFolder + the compact timestamp of now, a folder made with owner 501, group 80
/// and mode 755. Returns the kexts that failed; all of them when the folder cannot be made.
std::vector<QVKernelExtension> backupKernelExtensions(const std::vector<QVKernelExtension>& kexts,
                                                      const std::string& installedInFolder,
                                                      const QVOSVolume& volume,
                                                      const std::string& destinationFolder,
                                                      std::chrono::system_clock::time_point now);

/// Rebuilds the volume's kext caches with kextcache where the host has it; elsewhere marks
/// them stale so that macOS rebuilds them at its next start, by setting the modification time
/// of System/Library/Extensions (and Library/Extensions, when present) to now.
bool rebuildCaches(const QVOSVolume& volume);

/// Whether the installation accepts the kext as a source: its path is clean and absolute and
/// its name a plain file name ending in ".kext".
bool isInstallableKext(const QVKernelExtension& kext);

} // namespace quelm
