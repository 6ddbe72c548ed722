// Property-list values read from and written to XML and binary property-list files.
#pragma once

#include "support/Error.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace quelm {

/// A property-list date: seconds since 2001-01-01 00:00:00 UTC, as the format stores it.
struct PlistDate {
    double secondsSince2001 = 0;
    bool operator==(const PlistDate&) const = default;
};

/// One property-list value: a scalar, an array or a dictionary with string keys.
class PlistValue {
public:
    using Array = std::vector<PlistValue>;
    using Dict = std::map<std::string, PlistValue, std::less<>>;
    using Data = std::vector<std::uint8_t>;

    PlistValue(bool value) : storage_(value) {}
    /// A pointer would otherwise become a boolean without a word.
    template <class T> PlistValue(const T*) = delete;
    PlistValue(int value) : storage_(std::int64_t{value}) {}
    PlistValue(std::int64_t value) : storage_(value) {}
    PlistValue(double value) : storage_(value) {}
    PlistValue(std::string value) : storage_(std::move(value)) {}
    PlistValue(const char* value) : storage_(std::string(value)) {}
    PlistValue(Data value) : storage_(std::move(value)) {}
    PlistValue(PlistDate value) : storage_(value) {}
    PlistValue(Array value) : storage_(std::move(value)) {}
    PlistValue(Dict value) : storage_(std::move(value)) {}

    /// The value as T, or null when it holds another type.
    template <class T> const T* get() const { return std::get_if<T>(&storage_); }
    template <class T> bool is() const { return std::holds_alternative<T>(storage_); }

    const std::string* string() const { return get<std::string>(); }
    const Dict* dict() const { return get<Dict>(); }
    const Array* array() const { return get<Array>(); }

    /// The entry for key when this is a dictionary that has one; null otherwise.
    const PlistValue* find(std::string_view key) const;
    /// The entry for key when it exists and is a string; null otherwise.
    const std::string* stringForKey(std::string_view key) const;

    bool operator==(const PlistValue&) const = default;

private:
    std::variant<bool, std::int64_t, double, std::string, Data, PlistDate, Array, Dict> storage_;
};

enum class PlistFormat { xml, binary };

/// Files larger than this are not property lists we read.
inline constexpr std::uintmax_t kMaxPlistFileSize = 64u << 20;
/// Lists nested deeper than this are refused before parsing: libplist parses binary lists and
/// frees every list recursively, a stack frame per level. Real lists nest a handful of levels,
/// so 128 is ample and keeps the stack small.
inline constexpr std::size_t kMaxPlistDepth = 128;
/// Binary lists with more values than this are refused before parsing. A repair report on
/// some 400,000 files stays under it, and 64 MB of binary values that share nothing hold
/// about as many, so shared values cannot multiply how many values a file of that size holds.
inline constexpr std::size_t kMaxPlistValues = 1u << 23;
/// What one value costs to read besides its bytes: about the memory of an array element, and
/// of half a dictionary entry, whose key is a value of its own.
inline constexpr std::uint64_t kPlistValueCost = 64;
/// The most that reading a list of fileSize bytes may take, counted before anything is read:
/// the bytes of its strings and data and kPlistValueCost per value, a value that is referred to
/// many times counting each time. A binary list shares strings, so a small file could
/// otherwise decode to gigabytes. Real lists decode to a few times their size: the largest,
/// the reply of a repair of 100,000 results, to some 140 MiB, or 240 MiB were every path 1 kB
/// long. 256 times the size, never less than 16 MiB nor more than 512 MiB, leaves them ample
/// room and a hostile Info.plist of 70 kB no more than 17 MiB.
constexpr std::uint64_t plistReadBudget(std::size_t fileSize) {
    return std::clamp<std::uint64_t>(std::uint64_t{fileSize} * 256, std::uint64_t{16} << 20,
                                     std::uint64_t{512} << 20);
}
/// XML lists with more elements than this are refused before parsing. Only files on disk come
/// as XML, and the largest of those, a kext's Info.plist, has a few thousand.
inline constexpr std::size_t kMaxXmlPlistElements = 1u << 20;

/// Parses either encoding; the binary one is recognised by its "bplist00" header. The size,
/// nesting, value count and what reading would take (plistReadBudget) are checked first.
[[nodiscard]] std::expected<PlistValue, Error> parsePlist(std::string_view bytes);
[[nodiscard]] std::expected<PlistValue, Error> readPlistFile(const std::filesystem::path& path);
/// Reads a file whose top level must be a dictionary.
[[nodiscard]] std::expected<PlistValue::Dict, Error>
readPlistDictionary(const std::filesystem::path& path);

[[nodiscard]] std::expected<std::string, Error> serializePlist(const PlistValue& value,
                                                               PlistFormat format);
/// Replaces the file atomically: a failure leaves no partial file and the old one in place.
[[nodiscard]] std::expected<void, Error>
writePlistFileAtomically(const std::filesystem::path& path, const PlistValue& value,
                         PlistFormat format = PlistFormat::xml);

} // namespace quelm
