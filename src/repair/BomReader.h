// The BOM store reader: the "Paths" tree of a bill-of-materials file as a flat array of records.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

/// One path of a BOM: the full path as rebuilt from the tree ("./System/Library"), owner,
/// group and mode with its file-type bits (040755), all in host order, then what the record
/// says of the content.
struct BomEntry {
    const char* path;
    std::uint32_t uid;
    std::uint32_t gid;
    std::uint16_t mode;
    /// The record's type: 1 file, 2 directory, 3 link, 4 device.
    std::uint8_t type = 0;
    /// Whether the record is long enough to hold size and checksum: old short records are not.
    bool hasChecksum = false;
    /// The size in bytes (a link's: its target's length), the low 32 bits for larger files.
    std::uint32_t size = 0;
    /// The POSIX cksum CRC of the content (a link's: of its target).
    std::uint32_t checksum = 0;
    /// A link's target as stored, in the parser's buffer; empty for other types.
    std::string_view linkTarget;
};

/// Reads one BOM file. Every offset, block id and length is checked against the file's
/// bytes: a damaged file is refused, never read outside its buffer.
class BomReader {
public:
    enum Status : int { success = 0, unreadable = 1, notABomStore = 2 };

    explicit BomReader(std::string fileName);
    ~BomReader();
    BomReader(const BomReader&) = delete;
    BomReader& operator=(const BomReader&) = delete;

    /// Reads the file and lists its paths.
    [[nodiscard]] Status parse();
    /// Reads the regular file open on fd (which stays the caller's) and lists its paths.
    [[nodiscard]] Status parseFile(int fd);
    /// Lists the paths of a BOM already in memory (the file's whole bytes).
    [[nodiscard]] Status parseBytes(std::string bytes);

    std::uint32_t total() const;
    /// The records in tree order; valid while the parser lives.
    const BomEntry* resources() const;

private:
    struct State;
    std::string fileName_;
    std::unique_ptr<State> state_;
};

/// The object the package layer holds: a parser run once, read through count and results.
class BomFile {
public:
    static std::unique_ptr<BomFile> initWithFileName(std::string fileName);

    /// Runs the parser; on any failure count stays 0 and results null.
    void parse();
    /// The same on the file open on fd, for a file reached without following links.
    void parseFile(int fd);
    std::uint32_t count() const { return count_; }
    const BomEntry* results() const { return results_; }
    const std::string& fileName() const { return fileName_; }

private:
    explicit BomFile(std::string fileName);
    void take(BomReader::Status status);

    std::string fileName_;
    BomReader parser_;
    std::uint32_t count_ = 0;
    const BomEntry* results_ = nullptr;
};

} // namespace quelm
