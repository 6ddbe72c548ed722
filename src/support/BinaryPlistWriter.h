// The binary property-list encoder ("bplist00").
#pragma once

#include "support/PropertyList.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace quelm {

/// Writes a "bplist00" file one object at a time, each container after what it holds, so that
/// a long list never needs a tree of its own: a caller may encode each element, add it, and
/// drop it. Equal strings and integers are stored once; containers never are. Time is linear
/// in the values (libplist's encoder slows with the square of the distinct values: seconds for
/// a repair report of 100,000 results). Bytes of a string that are not UTF-8 become U+FFFD, as
/// the format holds only Unicode text.
class BinaryPlistStream {
public:
    using Ref = std::uint64_t;

    /// referenceSize: the bytes of each reference, enough for every object that will be added
    /// (1 up to 255 objects, 2 up to 65,535, 4 beyond).
    explicit BinaryPlistStream(std::size_t referenceSize = 4);

    Ref add(const PlistValue& value);
    Ref addText(std::string_view text);
    Ref addArray(std::span<const Ref> items);
    /// Keys and values, which must be as many.
    Ref addDict(std::span<const Ref> keys, std::span<const Ref> values);
    /// The whole file, with top as its top object.
    std::string finish(Ref top) &&;

private:
    Ref begin();
    void writeHeader(unsigned marker, std::size_t count);
    void writeInteger(std::int64_t number);
    void writeDouble(unsigned marker, double number);
    void writeReferences(std::span<const Ref> refs);
    Ref addInteger(std::int64_t number);

    std::size_t referenceSize_;
    std::string out_ = "bplist00";
    std::vector<std::uint64_t> offsets_;
    std::unordered_map<std::string, Ref> texts_;
    std::unordered_map<std::int64_t, Ref> integers_;
};

/// The value as a "bplist00" file, references as small as its object count allows.
std::string writeBinaryPlist(const PlistValue& value);

} // namespace quelm
