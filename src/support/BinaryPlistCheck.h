// Checks of binary property lists made before libplist parses them.
#pragma once

#include "support/PropertyList.h"

#include <expected>
#include <string_view>

namespace quelm {

/// Refuses a "bplist00" file that libplist must not see: an offset table, reference or string
/// outside the file; a string holding a NUL (libplist aborts on such a dictionary key); values
/// nested deeper than kMaxPlistDepth or more than kMaxPlistValues of them; a container reached
/// twice, which is a cycle or a container that libplist would copy at every reference to it.
[[nodiscard]] std::expected<void, PlistError> checkBinaryPlist(std::string_view bytes);

} // namespace quelm
