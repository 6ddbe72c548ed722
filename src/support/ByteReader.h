// Checked big-endian reads over a byte buffer: a read outside the buffer is a value, not a crash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

namespace quelm {

/// A view of bytes whose every read is bounds-checked; reads of multi-byte integers are
/// big-endian. The bytes are borrowed and must outlive the slice.
class ByteSlice {
public:
    constexpr ByteSlice() = default;
    explicit constexpr ByteSlice(std::string_view bytes) : bytes_(bytes) {}

    std::size_t size() const { return bytes_.size(); }
    std::string_view bytes() const { return bytes_; }

    [[nodiscard]] std::optional<std::uint8_t> u8(std::size_t offset) const {
        if (offset >= bytes_.size())
            return std::nullopt;
        return static_cast<std::uint8_t>(bytes_[offset]);
    }

    [[nodiscard]] std::optional<std::uint16_t> u16(std::size_t offset) const {
        if (!fits(offset, 2))
            return std::nullopt;
        return static_cast<std::uint16_t>(byteAt(offset) << 8 | byteAt(offset + 1));
    }

    [[nodiscard]] std::optional<std::uint32_t> u32(std::size_t offset) const {
        if (!fits(offset, 4))
            return std::nullopt;
        return std::uint32_t{byteAt(offset)} << 24 | std::uint32_t{byteAt(offset + 1)} << 16 |
               std::uint32_t{byteAt(offset + 2)} << 8 | std::uint32_t{byteAt(offset + 3)};
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
    std::uint8_t byteAt(std::size_t offset) const {
        return static_cast<std::uint8_t>(bytes_[offset]);
    }

    std::string_view bytes_;
};

} // namespace quelm
