// The kext caches of a volume: rebuilt with kextcache where the host has it, else marked stale.
#pragma once

#include "support/PropertyList.h"
#include "volumes/QVOSVolume.h"

#include <string>
#include <vector>

namespace quelm {

/// The folders whose kexts the kernel cache is built from, as the volume's
/// usr/standalone/bootcaches.plist names them ("ExtensionsDir" of its "Kernelcache..." entry,
/// a string or a list); /System/Library/Extensions and /Library/Extensions when it names none.
std::vector<std::string> kernelCacheFolders(const PlistValue& bootCaches);

/// Rebuilds the volume's kext caches with kextcache where the host has it. Elsewhere marks them
/// stale so that macOS rebuilds them at its next start: every existing folder the kernel cache
/// is built from gets a modification time later than both now and the newest kernel cache on
/// the volume, so that a clock running behind cannot hide the change. True when at least one
/// folder was marked and none failed.
bool rebuildCaches(const QVOSVolume& volume);

} // namespace quelm
