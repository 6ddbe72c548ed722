// The BOM store writer, and the text listing both the writer and the lister speak.
#pragma once

#include <cstdint>
#include <expected>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

/// One line of a listing: PATH<TAB>MODE(octal, with type bits)<TAB>UID/GID.
struct BomRecord {
    std::string path;
    std::uint16_t mode = 0;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    bool operator==(const BomRecord&) const = default;
};

struct BomWriteError {
    std::string message;
};

/// A complete BOMStore file listing records in the given order: "." first, each directory
/// before its contents. Refuses records whose parent is not listed before them.
[[nodiscard]] std::expected<std::string, BomWriteError>
writeBom(std::span<const BomRecord> records);

/// Parses a whole listing; the error names the line at fault.
[[nodiscard]] std::expected<std::vector<BomRecord>, BomWriteError>
parseListing(std::string_view text);

/// Appends one listing line, with its line break, to out.
void appendListingLine(std::string& out, std::string_view path, std::uint16_t mode,
                       std::uint32_t uid, std::uint32_t gid);

} // namespace quelm
