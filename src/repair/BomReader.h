// The BOM store reader: the "Paths" tree of a bill-of-materials file as a flat array of entries.
#pragma once

#include "support/Error.h"

#include <concepts>
#include <cstdint>
#include <expected>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace quelm {

/// One path of a BOM, as the reader lists it and the writer stores it: the full path
/// ("./System/Library"), the mode with its file-type bits (040755), owner and group, and what is
/// recorded of the content. The strings are views: the reader's live as long as the reader, and
/// whoever hands entries to the writer keeps their text until the file is written.
struct BomEntry {
    BomEntry() = default;
    BomEntry(std::string_view path_, std::uint16_t mode_, std::uint32_t uid_, std::uint32_t gid_,
             std::uint32_t size_ = 0, std::uint32_t checksum_ = 0,
             std::string_view linkTarget_ = {})
        : path(path_), linkTarget(linkTarget_), uid(uid_), gid(gid_), size(size_),
          checksum(checksum_), mode(mode_) {}
    /// A path made on the spot would end before the entry that views it.
    template <typename Text>
    requires std::same_as<Text, std::string> BomEntry(Text&& path_, std::uint16_t, std::uint32_t,
                                                      std::uint32_t, std::uint32_t = 0,
                                                      std::uint32_t = 0, std::string_view = {})
    = delete;

    std::string_view path;
    /// A link's target; empty for other types.
    std::string_view linkTarget;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    /// Of a file its size (the low 32 bits) and POSIX cksum CRC; of a link the same of its target.
    std::uint32_t size = 0;
    std::uint32_t checksum = 0;
    std::uint16_t mode = 0;
    /// Whether size and checksum describe a file's or a link's content: old short records hold
    /// neither, and a record whose type byte disagrees with its mode is not trusted with them.
    bool hasChecksum = true;

    bool operator==(const BomEntry&) const = default;
};

/// Reads one BOM file. Every offset, block id and length is checked against the file's bytes:
/// a damaged file is refused with what is wrong, never read outside its buffer.
class BomReader {
public:
    using Entries = std::expected<std::span<const BomEntry>, Error>;

    explicit BomReader(std::string fileName);
    ~BomReader();
    BomReader(const BomReader&) = delete;
    BomReader& operator=(const BomReader&) = delete;

    /// Reads the file and lists its paths in tree order; they stay valid while the reader lives
    /// and until it reads again.
    [[nodiscard]] Entries parse();
    /// The same on the regular file open on fd, which stays the caller's.
    [[nodiscard]] Entries parseFile(int fd);
    /// The same on a BOM already in memory (the file's whole bytes).
    [[nodiscard]] Entries parseBytes(std::string bytes);

private:
    struct State;
    /// Keeps state when it lists its paths.
    Entries take(std::unique_ptr<State> state);

    std::string fileName_;
    std::unique_ptr<State> state_;
};

/// The object the package layer holds: a reader run once, its entries kept for the job.
class BomFile {
public:
    static std::unique_ptr<BomFile> initWithFileName(std::string fileName);

    /// Runs the reader; on any failure the entries stay empty.
    void parse();
    /// The same on the file open on fd, for a file reached without following links.
    void parseFile(int fd);
    std::span<const BomEntry> entries() const { return entries_; }
    const std::string& fileName() const { return fileName_; }

private:
    explicit BomFile(std::string fileName);
    void take(const BomReader::Entries& entries);

    std::string fileName_;
    BomReader parser_;
    std::span<const BomEntry> entries_;
};

} // namespace quelm
