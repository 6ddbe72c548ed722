// Installing kext bundles on a volume: the privileged file operations.
#pragma once

#include "kexts/Kext.h"
#include "support/FolderTrees.h"
#include "volumes/Volume.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

/// A kext that was not installed, and why, in words that also say what was kept.
struct InstallFailure {
    Kext kext;
    std::string reason;
};

/// Copies each kext to mount point + destinationFolder + its name, replacing a bundle that is
/// there, also one whose name differs in case only on a case-insensitive volume. The copy is
/// made under a hidden name beside the destination, with owner 0, group 0 and mode 755 on
/// every item, and only then swapped with the old bundle, so a kext that fails leaves the old
/// one in place. Missing folders are made; nothing is reached through a link, the kext itself
/// included, and with a reader only what that user may read is copied. The volume's lock is
/// held throughout, and what an interrupted run left is put right first. Returns the kexts
/// that failed, in list order: all of them when installationRefusal answers.
std::vector<InstallFailure> installKexts(const std::vector<Kext>& kexts,
                                         const std::string& destinationFolder, const Volume& volume,
                                         const Reader* reader = nullptr);

/// The same, logging each failure with its reason: the helper's operation, whose reply names
/// the kexts only.
std::vector<Kext> installKernelExtensions(const std::vector<Kext>& kexts,
                                          const std::string& destinationFolder,
                                          const Volume& volume, const Reader* reader = nullptr);

/// Why nothing may be installed into folder of the volume, in one sentence: a folder that is
/// not one, a system folder that the volume's macOS keeps read-only, a volume that cannot be
/// written as root. Nothing when installing may go ahead.
std::optional<Error> installationRefusal(const Volume& volume, const std::string& folder);

/// The kexts of the list that installing into folder of the volume would replace: those whose
/// name the folder holds already, also in another case on a case-insensitive volume. The folder
/// is reached on the half of the volume that holds it, through descriptors and never through a
/// link; a missing folder replaces nothing.
std::vector<Kext> kextsReplacedBy(const Volume& volume, std::string_view folder,
                                  const std::vector<Kext>& kexts);

/// Whether the installation accepts the kext as a source: its path is clean and absolute and
/// its name a plain file name ending in ".kext".
bool isInstallableKext(const Kext& kext);

} // namespace quelm
