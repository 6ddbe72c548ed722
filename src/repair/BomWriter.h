// The BOM store writer, and the text listing both the writer and the lister speak.
#pragma once

#include "support/Error.h"

#include <cstdint>
#include <expected>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quelm {

/// One line of a listing: PATH<TAB>MODE(octal, with type bits)<TAB>UID/GID, and in the long
/// form <TAB>SIZE<TAB>CHECKSUM for files and links, then <TAB>TARGET for links.
struct BomRecord {
    BomRecord() = default;
    BomRecord(std::string path_, std::uint16_t mode_, std::uint32_t uid_, std::uint32_t gid_,
              std::uint32_t size_ = 0, std::uint32_t checksum_ = 0, std::string linkTarget_ = {})
        : path(std::move(path_)), mode(mode_), uid(uid_), gid(gid_), size(size_),
          checksum(checksum_), linkTarget(std::move(linkTarget_)) {}

    std::string path;
    std::uint16_t mode = 0;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    /// Of a file its size and POSIX cksum CRC; of a link the same of its target's text.
    std::uint32_t size = 0;
    std::uint32_t checksum = 0;
    std::string linkTarget;
    bool operator==(const BomRecord&) const = default;
};

/// A complete BOMStore file listing records in the given order: "." first, each directory
/// before its contents. Refuses records whose parent is not listed before them.
[[nodiscard]] std::expected<std::string, Error> writeBom(std::span<const BomRecord> records);

/// Parses a whole listing; the error names the line at fault.
[[nodiscard]] std::expected<std::vector<BomRecord>, Error> parseListing(std::string_view text);

/// Appends one listing line, with its line break, to out.
void appendListingLine(std::string& out, std::string_view path, std::uint16_t mode,
                       std::uint32_t uid, std::uint32_t gid);
/// The long form: size and checksum after the owner, for files and links; a link's target last.
void appendLongListingLine(std::string& out, const BomRecord& record);

} // namespace quelm
