// The BOM store writer, and the text listing both the writer and the lister speak.
#pragma once

#include "repair/BomReader.h"
#include "support/Error.h"

#include <cstdint>
#include <expected>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

/// A complete BOMStore file listing entries in the given order: "." first, each directory
/// before its contents. Refuses entries whose parent is not listed before them.
[[nodiscard]] std::expected<std::string, Error> writeBom(std::span<const BomEntry> entries);

/// Parses a whole listing, whose lines read PATH<TAB>MODE(octal, with type bits)<TAB>UID/GID,
/// and in the long form <TAB>SIZE<TAB>CHECKSUM for files and links, then <TAB>TARGET for links.
/// The entries view text, which must outlive them; the error names the line at fault.
[[nodiscard]] std::expected<std::vector<BomEntry>, Error> parseListing(std::string_view text);

/// Appends the entry's listing line, with its line break, to out.
void appendListingLine(std::string& out, const BomEntry& entry);
/// The long form: size and checksum after the owner, for files and links; a link's target last.
void appendLongListingLine(std::string& out, const BomEntry& entry);

} // namespace quelm
