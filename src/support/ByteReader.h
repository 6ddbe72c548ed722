// Checked reads over a byte buffer: a read outside the buffer is a value, not a crash.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

namespace quelm {

/// A view of bytes whose every read is bounds-checked; multi-byte integers are read in the byte
/// order the format fixes. The bytes are borrowed and must outlive the slice.
template <std::endian Order> class ByteSlice {
public:
    constexpr ByteSlice() = default;
    explicit constexpr ByteSlice(std::string_view bytes) : bytes_(bytes) {}

    std::size_t size() const { return bytes_.size(); }
    std::string_view bytes() const { return bytes_; }

    [[nodiscard]] std::optional<std::uint8_t> u8(std::size_t offset) const {
        return number<std::uint8_t>(offset);
    }
    [[nodiscard]] std::optional<std::uint16_t> u16(std::size_t offset) const {
        return number<std::uint16_t>(offset);
    }
    [[nodiscard]] std::optional<std::uint32_t> u32(std::size_t offset) const {
        return number<std::uint32_t>(offset);
    }
    [[nodiscard]] std::optional<std::uint64_t> u64(std::size_t offset) const {
        return number<std::uint64_t>(offset);
    }

    /// An unsigned integer of width bytes, 1 to 8.
    [[nodiscard]] std::optional<std::uint64_t> uint(std::size_t offset, std::size_t width) const {
        if (width == 0 || width > 8 || !fits(offset, width))
            return std::nullopt;
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < width; ++i) {
            const std::size_t index = Order == std::endian::big ? i : width - 1 - i;
            value = value << 8 | static_cast<std::uint8_t>(bytes_[offset + index]);
        }
        return value;
    }

    /// The length bytes from offset, when all of them lie inside this slice.
    [[nodiscard]] std::optional<ByteSlice> slice(std::size_t offset, std::size_t length) const {
        if (!fits(offset, length))
            return std::nullopt;
        return ByteSlice(bytes_.substr(offset, length));
    }

    /// The characters from offset up to the next NUL, which must lie inside this slice.
    [[nodiscard]] std::optional<std::string_view> cString(std::size_t offset) const {
        if (offset >= bytes_.size())
            return std::nullopt;
        const std::size_t available = bytes_.size() - offset;
        const void* nul = std::memchr(bytes_.data() + offset, 0, available);
        if (!nul)
            return std::nullopt;
        return bytes_.substr(offset, static_cast<const char*>(nul) - (bytes_.data() + offset));
    }

private:
    bool fits(std::size_t offset, std::size_t length) const {
        return offset <= bytes_.size() && length <= bytes_.size() - offset;
    }

    template <std::unsigned_integral T> std::optional<T> number(std::size_t offset) const {
        if (!fits(offset, sizeof(T)))
            return std::nullopt;
        T value;
        std::memcpy(&value, bytes_.data() + offset, sizeof value);
        if constexpr (Order != std::endian::native)
            value = std::byteswap(value);
        return value;
    }

    std::string_view bytes_;
};

using BigEndianSlice = ByteSlice<std::endian::big>;

} // namespace quelm
