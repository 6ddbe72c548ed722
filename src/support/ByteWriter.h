// Integers appended to a byte string in the byte order a format fixes: the writer's side of
// ByteSlice.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace quelm {

/// Appends to a string it borrows, which must outlive the writer.
template <std::endian Order> class ByteWriter {
public:
    explicit ByteWriter(std::string& out) : out_(out) {}

    void u8(std::uint8_t value) { out_.push_back(static_cast<char>(value)); }
    void u16(std::uint16_t value) { number(value); }
    void u32(std::uint32_t value) { number(value); }
    void u64(std::uint64_t value) { number(value); }

    /// The low width bytes of value, 1 to 8.
    void uint(std::uint64_t value, std::size_t width) {
        for (std::size_t i = 0; i < width; ++i) {
            const std::size_t shift = Order == std::endian::big ? width - 1 - i : i;
            u8(static_cast<std::uint8_t>(value >> (8 * shift)));
        }
    }

    void bytes(std::string_view bytes) { out_.append(bytes); }

private:
    template <std::unsigned_integral T> void number(T value) {
        if constexpr (Order != std::endian::native)
            value = std::byteswap(value);
        char raw[sizeof value];
        std::memcpy(raw, &value, sizeof value);
        out_.append(raw, sizeof raw);
    }

    std::string& out_;
};

using BigEndianWriter = ByteWriter<std::endian::big>;

} // namespace quelm
