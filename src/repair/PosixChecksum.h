// The POSIX cksum CRC of a file's bytes: the checksum a receipt's bill of materials records.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace quelm {

/// CRC-32 with polynomial 0x04C11DB7, most significant bit first, over the bytes and then
/// their length (least significant byte first, as few bytes as it takes), complemented: the
/// number `cksum` prints.
class PosixChecksum {
public:
    void update(std::string_view bytes);
    /// The checksum of every byte given so far.
    std::uint32_t value() const;
    std::uint64_t length() const { return length_; }

private:
    std::uint32_t crc_ = 0;
    std::uint64_t length_ = 0;
};

/// The checksum of the bytes, in one call.
std::uint32_t posixChecksum(std::string_view bytes);

/// Size and checksum of what is left to read on fd, read in buffer-sized chunks.
struct FileDigest {
    std::uint64_t size;
    std::uint32_t checksum;
};
/// Nothing, with errno set, when a read fails.
std::optional<FileDigest> digestOfFile(int fd, std::span<char> buffer);

} // namespace quelm
