// The checks a careful user makes before a kext goes onto a volume whose next start needs it.
#pragma once

#include "kexts/KextCatalog.h"
#include "volumes/Volume.h"

#include <optional>
#include <string>
#include <vector>

namespace quelm {

/// One plain sentence per failing check, in this order: Info.plist readable, CFBundlePackageType
/// KEXT, CFBundleIdentifier present, CFBundleVersion a kext version, CFBundleExecutable (when
/// there is one) a Mach-O file with 64-bit Intel code, and, when the available kexts are given,
/// every library as a 64-bit Intel kernel resolves it: the entries of OSBundleLibraries_x86_64,
/// else of OSBundleLibraries, each present among the available kexts or their plug-ins at a
/// version no older than the one asked for, which must not be older than that library's
/// OSBundleCompatibleVersion; the old kernel's com.apple.kernel libraries, which only a 32-bit
/// kernel has, fail. Empty when the kext passes.
std::vector<std::string> kextCheckFailures(const Kext& kext, const std::vector<Kext>* available);

/// The failures of each bundle of one job, in the order of paths: against the kexts installed
/// on the volume, when one is given, and the job's own kexts, which will be there too. A path
/// that is no bundle folder fails with one sentence.
std::vector<std::vector<std::string>> checkKexts(const std::vector<std::string>& paths,
                                                 const std::optional<Volume>& volume);

} // namespace quelm
