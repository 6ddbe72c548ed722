// A check of binary property lists that libplist does not make itself.
#pragma once

#include <string_view>

namespace quelm {

/// False when a "bplist00" file has a string object holding a NUL, or an offset table or
/// string that lies outside the file. libplist aborts on such a dictionary key, so these
/// bytes must never reach it.
bool binaryPlistStringsAreSafe(std::string_view bytes);

} // namespace quelm
