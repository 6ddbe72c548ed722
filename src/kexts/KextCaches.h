// The kext caches of a volume: rebuilt with kextcache where the host has it, else marked stale.
#pragma once

#include "support/PropertyList.h"
#include "volumes/Volume.h"

#include <optional>
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
bool rebuildCaches(const Volume& volume);

/// What a user must know after changing the kexts of macOS 11 or later, which loads
/// third-party kexts only from an auxiliary kernel collection that it rebuilds itself; nothing
/// for earlier versions.
std::optional<std::string> auxiliaryCollectionNotice(const Volume& volume);

/// The same after taking kexts off: the old collection still holds them.
std::optional<std::string> auxiliaryCollectionRemovalNotice(const Volume& volume);

} // namespace quelm
