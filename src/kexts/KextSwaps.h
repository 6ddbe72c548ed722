// Replacing a bundle whole: hidden names unique to the run, the swap, and putting right what a
// run cut short (a kill, a failed disk) left behind.
#pragma once

#include "volumes/Volume.h"
#include "volumes/VolumeLock.h"

#include <expected>
#include <string>
#include <string_view>

namespace quelm {

/// What a hidden entry beside a bundle is for, and so what the next run does with it.
enum class HiddenRole {
    staging,  ///< a copy being made: removed
    previous, ///< the old bundle while the new one takes its place: put back if its place is free
    removing, ///< a bundle on its way out, whole elsewhere already: removed
};

/// "." + name + ".quelm-ROLE-" + a token of this run: no other run uses the same name.
std::string hiddenName(const std::string& name, HiddenRole role);

/// A failed step: its cause in words, and where the old bundle was kept when it had to be.
struct SwapFailure {
    std::string cause;
    std::string keptAs; ///< "" when the old bundle is in its place
};

/// Puts staging where name is, in the open folder. With an atomic exchange the old bundle ends
/// under the staging name; without one (hfsplus and apfs on Linux have none), or when the name
/// differs in case only, it goes aside first and comes back if the new one cannot take its
/// place. Returns the entry that now holds the old bundle, "" when there was none.
[[nodiscard]] std::expected<std::string, SwapFailure>
swapIntoPlace(int folder, const std::string& staging, const std::string& name);

/// Puts right what an interrupted run left in the open folder: copies and bundles on their way
/// out are removed, an old bundle put aside goes back when nothing took its place.
void recoverLeftovers(int folder);

/// Holds the volume's lock, then recovers the leftovers of every extensions folder of the
/// volume and of their staged copies: what every change of kexts does first.
[[nodiscard]] std::expected<VolumeLock, Error> beginKextChanges(const Volume& volume);

} // namespace quelm
