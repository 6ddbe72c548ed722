// Binary property lists: the checks that every one passes first, and the reader.
#pragma once

#include "support/PropertyList.h"

#include <cstdint>
#include <expected>
#include <optional>
#include <string_view>
#include <vector>

namespace quelm {

/// Refuses a "bplist00" file that libplist must not see: an offset table, reference or string
/// outside the file; a string holding a NUL (libplist aborts on such a dictionary key); values
/// nested deeper than kMaxPlistDepth or more than kMaxPlistValues of them; a container reached
/// twice, which is a cycle or a container that libplist would copy at every reference to it; a
/// top object that would take more than plistReadBudget of the file's size to read.
[[nodiscard]] std::expected<void, Error> checkBinaryPlist(std::string_view bytes);

/// The trailer's fields: the sizes of offsets and references, the object count, the top
/// object and where the offset table starts.
struct BinaryPlistTrailer {
    std::size_t offsetSize;
    std::size_t refSize;
    std::uint64_t count;
    std::uint64_t root;
    std::size_t tableOffset;
};

/// A "bplist00" file that passed the checks above, read an object at a time, so that a long
/// list can be decoded one element after the other rather than as one tree. Read here rather
/// than by libplist, which copies every shared value and builds a tree of its own first: the
/// reply of a repair of 100,000 files took seconds. Dictionary keys must be strings; sets and
/// UIDs are unsupported, as they have no value here. The bytes must outlive the document.
/// The budget checked on opening holds for the whole top object, so reading it once, whole or
/// element after element, stays within it; only reading the same object again costs again.
class BinaryPlistDocument {
public:
    using Ref = std::uint64_t;

    [[nodiscard]] static std::expected<BinaryPlistDocument, Error> open(std::string_view bytes);

    Ref top() const { return trailer_.root; }
    /// The value of the object, with everything it holds.
    [[nodiscard]] std::expected<PlistValue, Error> read(Ref ref) const;
    /// The objects an array holds; none when ref is no array.
    std::optional<std::vector<Ref>> items(Ref ref) const;
    /// The value for key in a dictionary; none when ref is no dictionary or lacks the key.
    std::optional<Ref> entry(Ref ref, std::string_view key) const;

private:
    BinaryPlistDocument(std::string_view bytes, BinaryPlistTrailer trailer)
        : bytes_(bytes), trailer_(trailer) {}

    std::string_view bytes_;
    BinaryPlistTrailer trailer_;
};

/// The whole value of a "bplist00" file that passes the checks above.
[[nodiscard]] std::expected<PlistValue, Error> readBinaryPlist(std::string_view bytes);

} // namespace quelm
