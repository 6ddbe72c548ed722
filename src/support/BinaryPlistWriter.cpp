// The binary property-list encoder ("bplist00").
#include "support/BinaryPlistWriter.h"

#include "support/ByteWriter.h"

#include <algorithm>
#include <bit>
#include <optional>

namespace quelm {
namespace {

std::size_t bytesFor(std::uint64_t largest) {
    return largest <= 0xFF ? 1 : largest <= 0xFFFF ? 2 : largest <= 0xFFFFFFFF ? 4 : 8;
}

/// The length of the UTF-8 sequence that starts with lead, 0 for a byte that starts none.
std::size_t sequenceLength(unsigned char lead) {
    if (lead < 0x80)
        return 1;
    if (lead >> 5 == 0x6)
        return 2;
    if (lead >> 4 == 0xE)
        return 3;
    return lead >> 3 == 0x1E ? 4 : 0;
}

/// The code point of the sequence of length at text[i]; none when it is not valid UTF-8.
std::optional<char32_t> codePoint(std::string_view text, std::size_t i, std::size_t length) {
    static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (length == 0 || i + length > text.size())
        return std::nullopt;
    char32_t code =
        static_cast<unsigned char>(text[i]) & (length == 1 ? 0x7F : 0xFF >> (length + 1));
    for (std::size_t j = 1; j < length; ++j) {
        const auto next = static_cast<unsigned char>(text[i + j]);
        if ((next & 0xC0) != 0x80)
            return std::nullopt;
        code = (code << 6) | (next & 0x3F);
    }
    if ((length > 1 && code < kSmallest[length]) || code > 0x10FFFF ||
        (code >= 0xD800 && code <= 0xDFFF))
        return std::nullopt;
    return code;
}

/// The UTF-16 code units of UTF-8 text; a byte that starts no valid sequence is U+FFFD.
std::u16string utf16(std::string_view text) {
    std::u16string units;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = sequenceLength(static_cast<unsigned char>(text[i]));
        const auto decoded = codePoint(text, i, length);
        const char32_t code = decoded.value_or(0xFFFD);
        i += decoded ? length : 1;
        if (code >= 0x10000) {
            units.push_back(static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10)));
            units.push_back(static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF)));
        } else {
            units.push_back(static_cast<char16_t>(code));
        }
    }
    return units;
}

/// Objects a value makes at most: itself, what it holds and its keys.
std::uint64_t objectCount(const PlistValue& value) {
    std::uint64_t count = 1;
    if (const auto* array = value.array())
        for (const auto& item : *array)
            count += objectCount(item);
    if (const auto* dict = value.dict())
        for (const auto& [key, item] : *dict)
            count += 1 + objectCount(item);
    return count;
}

} // namespace

BinaryPlistStream::BinaryPlistStream(std::size_t referenceSize) : referenceSize_(referenceSize) {
}

BinaryPlistStream::Ref BinaryPlistStream::begin() {
    offsets_.push_back(out_.size());
    return offsets_.size() - 1;
}

BinaryPlistStream::Ref BinaryPlistStream::add(const PlistValue& value) {
    if (const auto* text = value.string())
        return addText(*text);
    if (const auto* number = value.get<std::int64_t>())
        return addInteger(*number);
    if (const auto* array = value.array()) {
        std::vector<Ref> items;
        items.reserve(array->size());
        for (const auto& item : *array)
            items.push_back(add(item));
        return addArray(items);
    }
    if (const auto* dict = value.dict()) {
        std::vector<Ref> keys, values;
        keys.reserve(dict->size());
        values.reserve(dict->size());
        for (const auto& [key, item] : *dict) {
            keys.push_back(addText(key));
            values.push_back(add(item));
        }
        return addDict(keys, values);
    }
    const Ref ref = begin();
    if (const auto* flag = value.get<bool>()) {
        out_.push_back(*flag ? '\x09' : '\x08');
    } else if (const auto* real = value.get<double>()) {
        writeDouble(0x23, *real);
    } else if (const auto* date = value.get<PlistDate>()) {
        writeDouble(0x33, date->secondsSince2001);
    } else if (const auto* data = value.get<PlistValue::Data>()) {
        writeHeader(0x40, data->size());
        out_.append(data->begin(), data->end());
    }
    return ref;
}

BinaryPlistStream::Ref BinaryPlistStream::addText(std::string_view text) {
    const auto [found, made] = texts_.try_emplace(std::string(text), offsets_.size());
    if (!made)
        return found->second;
    const Ref ref = begin();
    if (std::all_of(text.begin(), text.end(),
                    [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
        writeHeader(0x50, text.size());
        out_.append(text);
        return ref;
    }
    const auto units = utf16(text);
    writeHeader(0x60, units.size());
    BigEndianWriter out(out_);
    for (const char16_t unit : units)
        out.u16(unit);
    return ref;
}

BinaryPlistStream::Ref BinaryPlistStream::addInteger(std::int64_t number) {
    const auto [found, made] = integers_.try_emplace(number, offsets_.size());
    if (made) {
        begin();
        writeInteger(number);
    }
    return found->second;
}

BinaryPlistStream::Ref BinaryPlistStream::addArray(std::span<const Ref> items) {
    const Ref ref = begin();
    writeHeader(0xA0, items.size());
    writeReferences(items);
    return ref;
}

BinaryPlistStream::Ref BinaryPlistStream::addDict(std::span<const Ref> keys,
                                                  std::span<const Ref> values) {
    const Ref ref = begin();
    writeHeader(0xD0, keys.size());
    writeReferences(keys);
    writeReferences(values);
    return ref;
}

std::string BinaryPlistStream::finish(Ref top) && {
    const std::uint64_t tableOffset = out_.size();
    const std::size_t offsetSize = bytesFor(tableOffset);
    BigEndianWriter out(out_);
    for (const auto offset : offsets_)
        out.uint(offset, offsetSize);
    out_.append(6, '\0');
    out.u8(static_cast<std::uint8_t>(offsetSize));
    out.u8(static_cast<std::uint8_t>(referenceSize_));
    out.u64(offsets_.size());
    out.u64(top);
    out.u64(tableOffset);
    return std::move(out_);
}

/// A marker with a count: in its low half when under 15, else in an integer after it.
void BinaryPlistStream::writeHeader(unsigned marker, std::size_t count) {
    if (count < 15) {
        out_.push_back(static_cast<char>(marker | count));
        return;
    }
    out_.push_back(static_cast<char>(marker | 0x0F));
    writeInteger(static_cast<std::int64_t>(count));
}

/// Integers below 2^32 in 1, 2 or 4 unsigned bytes; the others in 8, as two's complement.
void BinaryPlistStream::writeInteger(std::int64_t number) {
    const std::size_t size = number < 0 ? 8 : bytesFor(static_cast<std::uint64_t>(number));
    out_.push_back(static_cast<char>(0x10 | std::countr_zero(size)));
    BigEndianWriter(out_).uint(static_cast<std::uint64_t>(number), size);
}

void BinaryPlistStream::writeDouble(unsigned marker, double number) {
    out_.push_back(static_cast<char>(marker));
    BigEndianWriter(out_).u64(std::bit_cast<std::uint64_t>(number));
}

void BinaryPlistStream::writeReferences(std::span<const Ref> refs) {
    BigEndianWriter out(out_);
    for (const Ref ref : refs)
        out.uint(ref, referenceSize_);
}

std::string writeBinaryPlist(const PlistValue& value) {
    BinaryPlistStream stream(bytesFor(objectCount(value)));
    const auto top = stream.add(value);
    return std::move(stream).finish(top);
}

} // namespace quelm
