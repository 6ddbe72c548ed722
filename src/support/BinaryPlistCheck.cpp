// A check of binary property lists that libplist does not make itself.
#include "support/BinaryPlistCheck.h"

#include "support/ByteReader.h"

#include <cstdint>
#include <optional>

namespace quelm {
namespace {

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;
constexpr std::uint8_t kAsciiString = 0x5;
constexpr std::uint8_t kUtf16String = 0x6;

/// An unsigned big-endian integer of width bytes (1 to 8).
std::optional<std::uint64_t> readUnsigned(const ByteSlice& bytes, std::size_t offset,
                                          std::size_t width) {
    const auto field = bytes.slice(offset, width);
    if (!field || width == 0 || width > 8)
        return std::nullopt;
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i)
        value = value << 8 | *field->u8(i);
    return value;
}

/// The character count of the string object at offset and where its characters start.
std::optional<std::pair<std::uint64_t, std::size_t>>
stringExtent(const ByteSlice& bytes, std::size_t offset, std::uint8_t marker) {
    if ((marker & 0xF) != 0xF)
        return std::pair{std::uint64_t{marker & 0xFu}, offset + 1};
    const auto intMarker = bytes.u8(offset + 1);
    if (!intMarker || (*intMarker >> 4) != 0x1 || (*intMarker & 0xF) > 3)
        return std::nullopt;
    const std::size_t width = std::size_t{1} << (*intMarker & 0xF);
    const auto count = readUnsigned(bytes, offset + 2, width);
    if (!count)
        return std::nullopt;
    return std::pair{*count, offset + 2 + width};
}

bool stringIsSafe(const ByteSlice& bytes, std::size_t offset, std::uint8_t marker) {
    const auto extent = stringExtent(bytes, offset, marker);
    const std::uint64_t unit = (marker >> 4) == kUtf16String ? 2 : 1;
    if (!extent || extent->first > bytes.size() / unit)
        return false;
    const auto characters = bytes.slice(extent->second, extent->first * unit);
    if (!characters)
        return false;
    for (std::size_t i = 0; i < characters->size(); i += unit)
        if (unit == 1 ? *characters->u8(i) == 0 : *characters->u16(i) == 0)
            return false;
    return true;
}

} // namespace

bool binaryPlistStringsAreSafe(std::string_view text) {
    const ByteSlice bytes(text);
    if (!text.starts_with("bplist00"))
        return true;
    if (bytes.size() < kHeaderSize + kTrailerSize)
        return false;
    const std::size_t trailer = bytes.size() - kTrailerSize;
    const auto offsetSize = bytes.u8(trailer + 6);
    const auto count = readUnsigned(bytes, trailer + 8, 8);
    const auto tableOffset = readUnsigned(bytes, trailer + 24, 8);
    if (!offsetSize || !count || !tableOffset || *offsetSize == 0 || *offsetSize > 8 ||
        *count > bytes.size() / *offsetSize)
        return false;
    for (std::uint64_t i = 0; i < *count; ++i) {
        const auto offset = readUnsigned(bytes, *tableOffset + i * *offsetSize, *offsetSize);
        const auto marker = offset ? bytes.u8(*offset) : std::nullopt;
        if (!marker)
            return false;
        const auto type = *marker >> 4;
        if ((type == kAsciiString || type == kUtf16String) &&
            !stringIsSafe(bytes, *offset, *marker))
            return false;
    }
    return true;
}

} // namespace quelm
