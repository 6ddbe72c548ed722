// The checks a careful user makes before a kext goes onto a volume whose next start needs it.
#pragma once

#include "kexts/KextCatalog.h"
#include "volumes/QVOSVolume.h"

#include <optional>
#include <string>
#include <vector>

namespace quelm {

/// One plain sentence per failing check, in this order: Info.plist readable, CFBundlePackageType
/// KEXT, CFBundleIdentifier present, CFBundleVersion a kext version, CFBundleExecutable (when
/// there is one) a Mach-O file with 64-bit Intel code, and, when the volume's kexts are given,
/// every OSBundleLibraries entry present among them or their plug-ins at a version no older
/// than the one asked for, which must not be older than that library's
/// OSBundleCompatibleVersion. Empty when the kext passes.
std::vector<std::string> kextCheckFailures(const KextBundle& kext,
                                           const std::vector<KextBundle>* volumeKexts);

/// The same for the bundle at path, against the kexts installed on the volume when one is
/// given; a path that is no bundle folder fails with one sentence.
std::vector<std::string> checkKext(const std::string& path,
                                   const std::optional<QVOSVolume>& volume);

} // namespace quelm
