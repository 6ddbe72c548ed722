// Binary property lists: the checks that every one passes first, and the reader.
#include "support/BinaryPlistCheck.h"

#include "support/ByteReader.h"

#include <bit>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quelm {
namespace {

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;
constexpr std::uint8_t kData = 0x4;
constexpr std::uint8_t kAsciiString = 0x5;
constexpr std::uint8_t kUtf16String = 0x6;
// The types from array to dictionary (arrays, sets, dictionaries) refer to other objects.
constexpr std::uint8_t kArray = 0xA;
constexpr std::uint8_t kDict = 0xD;

std::unexpected<Error> refuse(ErrorKind kind, std::string message) {
    return std::unexpected(Error{"binary property list " + std::move(message), kind});
}

using Trailer = BinaryPlistTrailer;

/// The trailer, when its sizes are usable and the offset table lies between header and trailer.
std::optional<Trailer> readTrailer(const BigEndianSlice& bytes) {
    if (bytes.size() < kHeaderSize + kTrailerSize)
        return std::nullopt;
    const std::size_t at = bytes.size() - kTrailerSize;
    const Trailer trailer{*bytes.u8(at + 6), *bytes.u8(at + 7), *bytes.uint(at + 8, 8),
                          *bytes.uint(at + 16, 8), *bytes.uint(at + 24, 8)};
    if (trailer.offsetSize == 0 || trailer.offsetSize > 8 || trailer.refSize == 0 ||
        trailer.refSize > 8 || trailer.count == 0 || trailer.root >= trailer.count ||
        trailer.tableOffset < kHeaderSize || trailer.tableOffset > at ||
        trailer.count > (at - trailer.tableOffset) / trailer.offsetSize)
        return std::nullopt;
    return trailer;
}

/// Where object index starts, with its marker byte.
std::optional<std::pair<std::size_t, std::uint8_t>>
objectAt(const BigEndianSlice& bytes, const Trailer& trailer, std::uint64_t index) {
    const auto offset =
        bytes.uint(trailer.tableOffset + index * trailer.offsetSize, trailer.offsetSize);
    const auto marker = offset ? bytes.u8(*offset) : std::nullopt;
    if (!marker)
        return std::nullopt;
    return std::pair{static_cast<std::size_t>(*offset), *marker};
}

/// The element count of the string or container object at offset and where its elements start.
std::optional<std::pair<std::uint64_t, std::size_t>>
objectLength(const BigEndianSlice& bytes, std::size_t offset, std::uint8_t marker) {
    if ((marker & 0xF) != 0xF)
        return std::pair{std::uint64_t{marker & 0xFu}, offset + 1};
    const auto intMarker = bytes.u8(offset + 1);
    if (!intMarker || (*intMarker >> 4) != 0x1 || (*intMarker & 0xF) > 3)
        return std::nullopt;
    const std::size_t width = std::size_t{1} << (*intMarker & 0xF);
    const auto count = bytes.uint(offset + 2, width);
    if (!count)
        return std::nullopt;
    return std::pair{*count, offset + 2 + width};
}

/// The bytes of the string or data object at offset, when they lie in the file.
std::optional<BigEndianSlice> contentOf(const BigEndianSlice& bytes, std::size_t offset,
                                        std::uint8_t marker) {
    const auto extent = objectLength(bytes, offset, marker);
    const std::uint64_t unit = (marker >> 4) == kUtf16String ? 2 : 1;
    if (!extent || extent->first > bytes.size() / unit)
        return std::nullopt;
    return bytes.slice(extent->second, extent->first * unit);
}

bool stringIsSafe(const BigEndianSlice& bytes, std::size_t offset, std::uint8_t marker) {
    const std::size_t unit = (marker >> 4) == kUtf16String ? 2 : 1;
    const auto characters = contentOf(bytes, offset, marker);
    if (!characters)
        return false;
    for (std::size_t i = 0; i < characters->size(); i += unit)
        if (unit == 1 ? *characters->u8(i) == 0 : *characters->u16(i) == 0)
            return false;
    return true;
}

/// Every object in the offset table lies in the file, and its strings have no NUL.
bool objectsAreSafe(const BigEndianSlice& bytes, const Trailer& trailer) {
    for (std::uint64_t i = 0; i < trailer.count; ++i) {
        const auto object = objectAt(bytes, trailer, i);
        if (!object)
            return false;
        const auto type = object->second >> 4;
        if ((type == kAsciiString || type == kUtf16String) &&
            !stringIsSafe(bytes, object->first, object->second))
            return false;
    }
    return true;
}

/// A depth-first walk from the top object along every reference, as the reader will follow
/// them, holding only the open containers: at most kMaxPlistDepth of them. It adds up what
/// reading the top object will take, to refuse a list over its budget before reading any.
class StructureWalk {
public:
    StructureWalk(const BigEndianSlice& bytes, const Trailer& trailer)
        : bytes_(bytes), trailer_(trailer), seen_(trailer.count, Seen::no),
          budget_(plistReadBudget(bytes.size())) {}

    std::expected<void, Error> run() {
        if (auto entered = enter(trailer_.root); !entered)
            return entered;
        while (!open_.empty()) {
            auto& top = open_.back();
            if (top.next == top.total) {
                seen_[top.index] = Seen::done;
                open_.pop_back();
                continue;
            }
            const auto ref =
                *bytes_.uint(top.refs + top.next++ * trailer_.refSize, trailer_.refSize);
            if (auto entered = enter(ref); !entered)
                return entered;
        }
        return {};
    }

private:
    enum class Seen : std::uint8_t { no, open, done };
    struct Container {
        std::uint64_t index;
        std::size_t refs;
        std::uint64_t total;
        std::uint64_t next = 0;
    };

    /// Takes the value at index one level below the open containers; opens it if a container.
    std::expected<void, Error> enter(std::uint64_t index) {
        if (index >= trailer_.count)
            return refuse(ErrorKind::invalid, "refers to a missing object");
        if (open_.size() >= kMaxPlistDepth)
            return refuse(ErrorKind::unsupported, "is nested too deeply");
        const auto [offset, marker] = *objectAt(bytes_, trailer_, index);
        const auto type = marker >> 4;
        if (type < kArray || type > kDict)
            return chargeContent(offset, marker);
        if (seen_[index] != Seen::no)
            return refuse(ErrorKind::invalid, seen_[index] == Seen::open
                                                  ? "holds a container inside itself"
                                                  : "shares a container");
        return open(index, offset, marker);
    }

    std::expected<void, Error> open(std::uint64_t index, std::size_t offset, std::uint8_t marker) {
        const auto length = objectLength(bytes_, offset, marker);
        const std::uint64_t refsPerEntry = (marker >> 4) == kDict ? 2 : 1;
        if (!length || length->first > bytes_.size() / (refsPerEntry * trailer_.refSize) ||
            !bytes_.slice(length->second, length->first * refsPerEntry * trailer_.refSize))
            return refuse(ErrorKind::invalid, "has a container outside the file");
        // Each reference becomes a value of its own, even to an object already referred to.
        const std::uint64_t total = length->first * refsPerEntry;
        if (total > kMaxPlistValues - values_)
            return refuse(ErrorKind::unsupported, "has too many values");
        values_ += total;
        if (auto charged = charge(total * kPlistValueCost); !charged)
            return charged;
        seen_[index] = Seen::open;
        open_.push_back({index, length->second, total});
        return {};
    }

    /// Charges what a string or data object decodes to: a UTF-16 unit takes up to three bytes
    /// of UTF-8.
    std::expected<void, Error> chargeContent(std::size_t offset, std::uint8_t marker) {
        const auto type = marker >> 4;
        if (type != kData && type != kAsciiString && type != kUtf16String)
            return {};
        const auto content = contentOf(bytes_, offset, marker);
        if (!content)
            return refuse(ErrorKind::invalid, "has a value outside the file");
        return charge(type == kUtf16String ? content->size() / 2 * 3 : content->size());
    }

    std::expected<void, Error> charge(std::uint64_t bytes) {
        if (bytes > budget_ - spent_)
            return refuse(ErrorKind::unsupported,
                          "would take more than " + std::to_string(budget_ >> 20) + " MiB to read");
        spent_ += bytes;
        return {};
    }

    const BigEndianSlice& bytes_;
    Trailer trailer_;
    std::vector<Seen> seen_;
    std::vector<Container> open_;
    std::uint64_t values_ = 1; // the top object
    std::uint64_t budget_;
    std::uint64_t spent_ = kPlistValueCost;
};

/// UTF-8 of big-endian UTF-16 units; a surrogate without its pair becomes U+FFFD.
std::string utf8FromUtf16(const BigEndianSlice& units, std::size_t count) {
    std::string text;
    text.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        char32_t code = *units.u16(2 * i);
        if (code >= 0xD800 && code <= 0xDBFF && i + 1 < count && *units.u16(2 * i + 2) >= 0xDC00 &&
            *units.u16(2 * i + 2) <= 0xDFFF)
            code = 0x10000 + ((code - 0xD800) << 10) + (*units.u16(2 * ++i) - 0xDC00);
        else if (code >= 0xD800 && code <= 0xDFFF)
            code = 0xFFFD;
        if (code < 0x80) {
            text.push_back(static_cast<char>(code));
            continue;
        }
        static constexpr unsigned char kLead[] = {0, 0xC0, 0xE0, 0xF0};
        const int extra = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
        text.push_back(static_cast<char>(kLead[extra] | (code >> (6 * extra))));
        for (int shift = 6 * (extra - 1); shift >= 0; shift -= 6)
            text.push_back(static_cast<char>(0x80 | ((code >> shift) & 0x3F)));
    }
    return text;
}

std::uint64_t reference(const BigEndianSlice& bytes, const Trailer& trailer, std::size_t at,
                        std::uint64_t i) {
    return *bytes.uint(at + i * trailer.refSize, trailer.refSize);
}

/// Builds values straight from a checked list: every offset, reference and string lies in
/// the file, no container holds itself and none is nested too deeply.
class ObjectReader {
public:
    ObjectReader(const BigEndianSlice& bytes, const Trailer& trailer)
        : bytes_(bytes), trailer_(trailer) {}

    std::expected<PlistValue, Error> read(std::uint64_t index) const {
        const auto [offset, marker] = *objectAt(bytes_, trailer_, index);
        switch (marker >> 4) {
        case 0x0:
            if (marker == 0x08 || marker == 0x09)
                return PlistValue(marker == 0x09);
            break;
        case 0x1:
            return readInteger(offset, marker);
        case 0x2:
        case 0x3:
            return readReal(offset, marker);
        case kData:
        case kAsciiString:
        case kUtf16String:
            return readBytes(offset, marker);
        case kArray:
            return readArray(offset, marker);
        case kDict:
            return readDict(offset, marker);
        }
        return refuse(ErrorKind::unsupported, "holds an unsupported value type");
    }

private:
    std::expected<PlistValue, Error> readInteger(std::size_t offset, std::uint8_t marker) const {
        const std::size_t width = std::size_t{1} << (marker & 0xF);
        const auto value = width <= 8 ? bytes_.uint(offset + 1, width) : std::nullopt;
        if (!value)
            return refuse(ErrorKind::unsupported, "holds an unreadable integer");
        // Narrower integers are unsigned; eight bytes hold a signed one.
        return PlistValue(static_cast<std::int64_t>(*value));
    }

    std::expected<PlistValue, Error> readReal(std::size_t offset, std::uint8_t marker) const {
        const std::size_t width = std::size_t{1} << (marker & 0xF);
        const auto bits = width == 4 || width == 8 ? bytes_.uint(offset + 1, width) : std::nullopt;
        if (!bits || (marker >> 4 == 0x3 && width != 8))
            return refuse(ErrorKind::unsupported, "holds an unreadable real or date");
        const double value = width == 4 ? std::bit_cast<float>(static_cast<std::uint32_t>(*bits))
                                        : std::bit_cast<double>(*bits);
        if (marker >> 4 == 0x3)
            return PlistValue(PlistDate{value});
        return PlistValue(value);
    }

    std::expected<PlistValue, Error> readBytes(std::size_t offset, std::uint8_t marker) const {
        const auto content = contentOf(bytes_, offset, marker);
        if (!content)
            return refuse(ErrorKind::invalid, "has a value outside the file");
        if (marker >> 4 == kUtf16String)
            return PlistValue(utf8FromUtf16(*content, content->size() / 2));
        const std::string_view raw = content->bytes();
        if (marker >> 4 == kAsciiString)
            return PlistValue(std::string(raw));
        return PlistValue(PlistValue::Data(raw.begin(), raw.end()));
    }

    std::expected<PlistValue, Error> readArray(std::size_t offset, std::uint8_t marker) const {
        const auto [count, refs] = *objectLength(bytes_, offset, marker);
        PlistValue::Array items;
        items.reserve(count);
        for (std::uint64_t i = 0; i < count; ++i) {
            auto item = read(reference(bytes_, trailer_, refs, i));
            if (!item)
                return item;
            items.push_back(std::move(*item));
        }
        return PlistValue(std::move(items));
    }

    std::expected<PlistValue, Error> readDict(std::size_t offset, std::uint8_t marker) const {
        const auto [count, refs] = *objectLength(bytes_, offset, marker);
        PlistValue::Dict entries;
        for (std::uint64_t i = 0; i < count; ++i) {
            auto key = read(reference(bytes_, trailer_, refs, i));
            if (!key)
                return key;
            if (!key->string())
                return refuse(ErrorKind::invalid, "has a key that is not a string");
            auto value = read(reference(bytes_, trailer_, refs, count + i));
            if (!value)
                return value;
            entries.insert_or_assign(*key->string(), std::move(*value));
        }
        return PlistValue(std::move(entries));
    }

    const BigEndianSlice& bytes_;
    Trailer trailer_;
};

} // namespace

std::expected<void, Error> checkBinaryPlist(std::string_view text) {
    const BigEndianSlice bytes(text);
    const auto trailer = readTrailer(bytes);
    if (!trailer || !objectsAreSafe(bytes, *trailer))
        return refuse(ErrorKind::invalid, "is damaged");
    return StructureWalk(bytes, *trailer).run();
}

std::expected<BinaryPlistDocument, Error> BinaryPlistDocument::open(std::string_view text) {
    if (auto checked = checkBinaryPlist(text); !checked)
        return std::unexpected(checked.error());
    return BinaryPlistDocument(text, *readTrailer(BigEndianSlice(text)));
}

std::expected<PlistValue, Error> BinaryPlistDocument::read(Ref ref) const {
    if (ref >= trailer_.count)
        return refuse(ErrorKind::invalid, "refers to a missing object");
    const BigEndianSlice bytes(bytes_);
    return ObjectReader(bytes, trailer_).read(ref);
}

std::optional<std::vector<BinaryPlistDocument::Ref>> BinaryPlistDocument::items(Ref ref) const {
    const BigEndianSlice bytes(bytes_);
    const auto object = ref < trailer_.count ? objectAt(bytes, trailer_, ref) : std::nullopt;
    if (!object || object->second >> 4 != kArray)
        return std::nullopt;
    const auto [count, refs] = *objectLength(bytes, object->first, object->second);
    std::vector<Ref> found;
    found.reserve(count);
    for (std::uint64_t i = 0; i < count; ++i)
        found.push_back(reference(bytes, trailer_, refs, i));
    return found;
}

std::optional<BinaryPlistDocument::Ref> BinaryPlistDocument::entry(Ref ref,
                                                                   std::string_view key) const {
    const BigEndianSlice bytes(bytes_);
    const auto object = ref < trailer_.count ? objectAt(bytes, trailer_, ref) : std::nullopt;
    if (!object || object->second >> 4 != kDict)
        return std::nullopt;
    const auto [count, refs] = *objectLength(bytes, object->first, object->second);
    for (std::uint64_t i = 0; i < count; ++i) {
        const auto name = read(reference(bytes, trailer_, refs, i));
        if (name && name->string() && *name->string() == key)
            return reference(bytes, trailer_, refs, count + i);
    }
    return std::nullopt;
}

std::expected<PlistValue, Error> readBinaryPlist(std::string_view text) {
    auto document = BinaryPlistDocument::open(text);
    if (!document)
        return std::unexpected(document.error());
    return document->read(document->top());
}

} // namespace quelm
